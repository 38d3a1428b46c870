#include <SoftwareUpdateClient.h>
#include <TestSupport.h>
#include <qv/NodeDB.h>

using namespace qv;
using namespace suc::test;

class TestClientSettings : public QObject {
    Q_OBJECT

    SoftwareUpdateClient *makeClient(const QString &url = "http://updates.example.test/list.xml")
    {
        return new SoftwareUpdateClient("Viewer", VersionNumber("2.9.1"), url, nullptr);
    }
    static QSettings store()
    {
        return QSettings(QSettings::IniFormat, QSettings::UserScope, "SucTest", "clientsettings");
    }
    static QString storePath() { return store().fileName(); }
    // The camera versions the client reads back, as "model:version,...".
    static QString cameras(const SoftwareUpdateClient &client)
    {
        SoftwareUpdateSettings read;
        client.getCurrentSettings(&read);
        QStringList out;
        for (const auto &[model, version] : read.currentCameraVersions)
            out << model + ":" + version.toString();
        return out.join(',');
    }

private Q_SLOTS:
    void initTestCase()
    {
        QStandardPaths::setTestModeEnabled(true);
        QCoreApplication::setOrganizationName("SucTest");
        QCoreApplication::setApplicationName("clientsettings");
        SoftwareUpdateClient::sSoftUpQSettingsFormat = QSettings::IniFormat;
    }
    void init() { QFile::remove(storePath()); }

    // Every construction appends the package types once more (as stored lists always grew).
    void firstRunOnCleanStore()
    {
        delete makeClient();
        QScopedPointer<SoftwareUpdateClient> client(makeClient());
        // Two constructions: the types twice, and one empty part more.
        QCOMPARE(readFile(storePath()), testData("clientsettings/first-run.ini"));
        SoftwareUpdateSettings read;
        client->getCurrentSettings(&read);
        QVERIFY(read.installablePackageTypes.isEmpty()); // empty parts are skipped when read

        const QTimer *timer = client->findChild<QTimer *>();
        QVERIFY(timer && timer->isActive() && timer->interval() == 3600000);
    }

    // A store written before the client: a stored server wins over the constructor's, even an
    // empty one, and camera versions read as leniently as they were ever written.
    void storedValuesAreRead_data() { addRows("clientsettings-stored-values"); }
    void storedValuesAreRead()
    {
        QVERIFY(writeFile(storePath(), "[General]\n" + row<QByteArray>("ini") + "\n"));
        QScopedPointer<SoftwareUpdateClient> client(makeClient("http://ctor.test/list.xml"));
        QTEST(store().value("serverURL").toString(), "server");
        SoftwareUpdateSettings read;
        client->getCurrentSettings(&read);
        QTEST(read.serverURL, "server");
        QVERIFY(!read.serverURL.isNull());
        QTEST(cameras(*client), "cameras");
    }

    void cameraVersionsRoundTrip()
    {
        QScopedPointer<SoftwareUpdateClient> client(makeClient());
        client->setCurrentCameraVersions(
            {{"M1004", VersionNumber("5.2.1")}, {"P3301", VersionNumber("4.10")}});
        QCOMPARE(store().value("currentCameraVersions").toString(),
                 QString("M1004:5.2.1,P3301:4.10"));
        QCOMPARE(cameras(*client), QString("M1004:5.2.1,P3301:4.10"));

        // Clearing the list leaves the store as it was: keys are never removed.
        client->setCurrentCameraVersions({});
        QCOMPARE(store().value("currentCameraVersions").toString(),
                 QString("M1004:5.2.1,P3301:4.10"));
    }

    // Junk never crashes; stored booleans read as Qt reads them (any text but "", "0" and "false"
    // is true, "no" too), and a date is whatever Qt decodes, before 1970 included.
    // Every file of tests/data/corrupt-settings; its first line says what is read back:
    // "; expect: <doUpdateCheck> <checkForBeta> [<lastCheck>]".
    void corruptStoreFallsBackToDefaults_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<bool>("doCheck");
        QTest::addColumn<bool>("beta");
        QTest::addColumn<QDateTime>("lastCheck");
        const QDir corrupt(QStringLiteral(SUC_TEST_DATA_DIR "/corrupt-settings"));
        for (const QString &name : corrupt.entryList(QDir::Files)) {
            const QByteArray content = testData("corrupt-settings/" + name);
            const QList<QByteArray> expect = content.left(content.indexOf('\n')).split(' ');
            QTest::newRow(qPrintable(name))
                << content << (expect.value(2) == "true") << (expect.value(3) == "true")
                << QDateTime::fromString(QString::fromLatin1(expect.value(4)), Qt::ISODate);
        }
    }
    void corruptStoreFallsBackToDefaults()
    {
        QFETCH(QByteArray, content);
        QFETCH(bool, doCheck);
        QFETCH(bool, beta);
        QFETCH(QDateTime, lastCheck);
        QVERIFY(writeFile(storePath(), content));
        QScopedPointer<SoftwareUpdateClient> client(makeClient());
        SoftwareUpdateSettings read;
        client->getCurrentSettings(&read);
        QCOMPARE(read.doUpdateCheck, doCheck);
        QCOMPARE(read.checkForBeta, beta);
        QCOMPARE(read.updateInterval, 0);
        QCOMPARE(read.lastCheck, lastCheck);
        QCOMPARE(read.versionNumber, VersionNumber("2.9.1")); // rewritten by the constructor
        QCOMPARE(client->findChild<QTimer *>()->isActive(), doCheck);
    }

    // The checking switch of the dialog, and of the host, turns the timer on or off.
    void applyDialogSettingsWritesAndSwitchesTimer_data()
    {
        addRows("clientsettings-apply-dialog-settings");
    }
    void applyDialogSettingsWritesAndSwitchesTimer()
    {
        QFETCH(bool, doCheck);
        QScopedPointer<SoftwareUpdateClient> client(makeClient());
        const SoftwareUpdateDialogSettings d {doCheck, true,     2, "http://typed.test/list.xml",
                                              {},      "ignored"};
        QVERIFY(QMetaObject::invokeMethod(client.data(), "applyDialogSettings",
                                          Qt::DirectConnection,
                                          Q_ARG(qv::SoftwareUpdateDialogSettings, d)));
        SoftwareUpdateSettings read;
        client->getCurrentSettings(&read);
        QCOMPARE(read.doUpdateCheck, doCheck);
        QCOMPARE(read.checkForBeta, true);
        QCOMPARE(read.updateInterval, 2);
        QCOMPARE(read.serverURL, QString("http://typed.test/list.xml"));
        QVERIFY(read.lastCheck.isNull());
        QCOMPARE(client->findChild<QTimer *>()->isActive(), doCheck);
        // The host's switches do the same.
        client->enableSoftwareUpdate();
        QVERIFY(client->findChild<QTimer *>()->isActive());
        client->disableSoftwareUpdate();
        QVERIFY(!client->findChild<QTimer *>()->isActive());
    }

    void lastCheckStoredAsDateTime()
    {
        QScopedPointer<SoftwareUpdateClient> client(makeClient());
        SoftwareUpdateSettings s;
        client->getCurrentSettings(&s);
        s.lastCheck = QDateTime(QDate(2026, 1, 31), QTime(8, 15, 0));
        client->setCurrentSettings(&s);
        QCOMPARE(store().value("lastCheck").typeId(), int(QMetaType::QDateTime));
        SoftwareUpdateSettings read;
        client->getCurrentSettings(&read);
        QCOMPARE(read.lastCheck, s.lastCheck);
        client->setVersionNumber(VersionNumber("3.0"));
        QCOMPARE(store().value("versionNumber").toString(), QString("3.0"));
    }

    // An application name set to empty reads back as the program's file name (Qt's own
    // default), so only the organization falls back here.
    void storeNameFallbacks_data() { addRows("clientsettings-store-name-fallbacks"); }
    void storeNameFallbacks()
    {
        QSettings expected(QSettings::IniFormat, QSettings::UserScope,
                           row<QString>("expectedOrganization"),
                           row<QString>("expectedApplication"));
        QFile::remove(expected.fileName());
        QCoreApplication::setOrganizationName(row<QString>("organization"));
        QCoreApplication::setApplicationName(row<QString>("application"));
        delete makeClient("http://fallback.test/");
        QCoreApplication::setOrganizationName("SucTest");
        QCoreApplication::setApplicationName("clientsettings");
        expected.sync();
        QCOMPARE(expected.value("serverURL").toString(), QString("http://fallback.test/"));
        QFile::remove(expected.fileName());
    }

    void proxyComesFromHostConfiguration_data() { addRows("clientsettings-proxy"); }
    void proxyComesFromHostConfiguration()
    {
        QFETCH(QString, address);
        QScopedPointer<SoftwareUpdateClient> client(makeClient());
        NodeDB::getDB().setGlobalProxy(NetworkProxy(address, 3128, "user", "secret"));
        const QNetworkProxy proxy = client->networkProxy();
        NodeDB::getDB().setGlobalProxy(NetworkProxy());
        QCOMPARE(proxy.type(),
                 address.isEmpty() ? QNetworkProxy::NoProxy : QNetworkProxy::HttpProxy);
        QCOMPARE(proxy.hostName(), address);
        QCOMPARE(proxy.port(), address.isEmpty() ? 0 : 3128);
        QCOMPARE(proxy.user(), address.isEmpty() ? QString() : QString("user"));
        QCOMPARE(proxy.password(), address.isEmpty() ? QString() : QString("secret"));
    }
};

QTEST_MAIN(TestClientSettings)
#include "tst_clientsettings.moc"
