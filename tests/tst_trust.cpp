#include <DownloadManager.h>
#include <PrivateNetwork.h>
#include <SoftwareUpdateAvailableDialog.h>
#include <SoftwareUpdateClient.h>
#include <SoftwareUpdateDialog.h>
#include <TestHttpServer.h>
#include <TestSupport.h>
#include <qv/LogQt.h>

#include <QCryptographicHash>
#include <QLabel>
#include <QProgressDialog>
#include <QSettings>
#include <QSignalSpy>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QtTest>

using namespace qv;
using namespace suc::test;
using Response = TestHttpServer::Response;

// Package downloads always use port 80: this test has a loopback of its own.
SUC_PRIVATE_NETWORK_BEFORE_MAIN

// Signed catalogues, made and signed by the minisign tool for each case, against the client's
// check, the manager's queries and package downloads.
class TestTrust : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QScopedPointer<MinisignTool> m_signer, m_other;
    TestHttpServer m_server;
    QHash<QByteArray, QByteArray> m_files; ///< path -> body; a missing path answers 404
    QList<QByteArray> m_asked;
    QScopedPointer<SoftwareUpdateClient> m_client;
    const QByteArray m_package = QByteArray(5000, 'p');

    static QSettings store()
    {
        return QSettings(QSettings::IniFormat, QSettings::UserScope, "SucTest", "Viewer");
    }
    QString url(const QByteArray &path = "/list.xml") const
    {
        return QString::fromLatin1(m_server.url(path));
    }

    // A catalogue of one application package (and one without a hash when asked).
    QByteArray catalogue(int serial, const QString &expires, bool unhashed = false) const
    {
        const QByteArray hash
            = QCryptographicHash::hash(m_package, QCryptographicHash::Sha256).toHex();
        QByteArray xml = "<softwareList serial='" + QByteArray::number(serial) + "' expires='"
            + expires.toLatin1() + "' base-url='http://127.0.0.1/dl/'>"
            + "<package-set type='Application' name='Viewer' status='STABLE'>"
            + "<package release='3.0' url='viewer-3.0.tar.gz' file-size='5000' sha256='" + hash
            + "'/>";
        if (unhashed)
            xml += "<package release='3.1' url='viewer-3.1.tar.gz' file-size='5000'/>";
        return xml + "</package-set></softwareList>";
    }
    // Publishes `xml` as /list.xml with a signature written by `signer` (none when null).
    void publish(const QByteArray &xml, const MinisignTool *signer, bool legacy = false)
    {
        const QString file = m_dir.filePath("list.xml");
        QFile f(file);
        QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(xml);
        f.close();
        m_files["/list.xml"] = xml;
        m_files.remove("/list.xml.minisig");
        if (!signer)
            return;
        QFile::remove(file + ".minisig");
        QVERIFY(signer->sign(file, legacy));
        QFile sig(file + ".minisig");
        QVERIFY(sig.open(QIODevice::ReadOnly));
        m_files["/list.xml.minisig"] = sig.readAll();
    }
    QString checkFromDialog()
    {
        m_client->queryForUpdate({}, false);
        auto *dialog = openDialog<SoftwareUpdateDialog>();
        auto *line = dialog->findChild<QLabel *>("updateNotificationLabel");
        line->clear();
        Q_EMIT dialog->checkForUpdate();
        if (!QTest::qWaitFor(
                [&] {
                    return openDialog<SoftwareUpdateAvailableDialog>() || !line->text().isEmpty();
                },
                20000))
            return "no outcome";
        if (auto *available = openDialog<SoftwareUpdateAvailableDialog>())
            return tableRows(available->findChild<QTableWidget *>("tableWidget"), false).join(',');
        return line->text();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QStandardPaths::setTestModeEnabled(true);
        QCoreApplication::setOrganizationName("SucTest");
        QCoreApplication::setApplicationName("Viewer");
        SoftwareUpdateClient::sSoftUpQSettingsFormat = QSettings::IniFormat;
        m_signer.reset(new MinisignTool(m_dir.filePath("keys")));
        m_other.reset(new MinisignTool(m_dir.filePath("keys"), "other"));
        QVERIFY2(m_signer->isValid() && m_other->isValid(),
                 "the minisign tool is needed (Debian package minisign)");
        m_server.setHandler([this](const TestHttpServer::Request &r) {
            m_asked << r.target;
            if (r.target == "/dl/viewer-3.0.tar.gz")
                return Response::ok(m_files.value(r.target, m_package));
            return m_files.contains(r.target) ? Response::ok(m_files.value(r.target), "text/xml")
                                              : Response::error(404, "<html>not here</html>");
        });
        SUC_LISTEN_ON_PORT_80(m_server);
    }
    void init()
    {
        QFile::remove(store().fileName());
        m_files.clear();
        m_asked.clear();
        m_client.reset(new SoftwareUpdateClient("Viewer", VersionNumber("2.9.1"), url(), nullptr));
        m_client->setTrustedKeys({m_signer->publicKey()});
    }
    void cleanup()
    {
        m_client.reset();
        suc::test::closeAllWindows();
    }

    void checks_data()
    {
        QTest::addColumn<QString>("variant");
        QTest::addColumn<QString>("outcome"); // the offered rows, or the dialog's line
        const QString offered = "Viewer 3.0";
        const QString notSigned
            = "The update catalogue is not signed with a trusted key. No updates are offered.";
        QTest::newRow("valid") << "valid" << offered;
        QTest::newRow("legacy signature form") << "legacy" << offered;
        QTest::newRow("second of two keys") << "second key" << offered;
        QTest::newRow("one byte changed in the catalogue") << "changed" << notSigned;
        QTest::newRow("wrong key") << "wrong key" << notSigned;
        QTest::newRow("missing .minisig (404): an unsigned server") << "unsigned" << notSigned;
        QTest::newRow(".minisig of another file") << "other file" << notSigned;
        QTest::newRow("junk .minisig") << "junk" << notSigned;
        QTest::newRow("huge .minisig") << "huge" << notSigned;
        QTest::newRow("rollback to a lower serial")
            << "rollback"
            << "The update server sent an older catalogue than before. No updates are offered.";
        QTest::newRow("expired") << "expired"
                                 << "The update catalogue has expired. No updates are offered.";
        QTest::newRow("no serial or expiry") << "no values"
                                             << "The update catalogue has no publication number or "
                                                "expiry date. No updates are offered.";
        QTest::newRow("a package without sha256 is not offered") << "unhashed" << offered;
        QTest::newRow("no keys: unverified, one GET") << "no keys"
                                                      << "Viewer 3.1";
        QTest::newRow("an unreadable key is refused, trust stays on") << "bad key" << notSigned;
    }
    void checks()
    {
        QFETCH(QString, variant);
        QFETCH(QString, outcome);
        const QString future = QDate::currentDate().addDays(30).toString(Qt::ISODate);
        QByteArray xml = catalogue(7, future, variant == "unhashed" || variant == "no keys");
        publish(xml, variant == "wrong key" ? m_other.data() : m_signer.data(),
                variant == "legacy");
        if (variant == "second key")
            m_client->setTrustedKeys({m_other->publicKey(), m_signer->publicKey()});
        else if (variant == "changed")
            m_files["/list.xml"].replace("release='3.0'", "release='3.9'");
        else if (variant == "unsigned")
            m_files.remove("/list.xml.minisig");
        else if (variant == "other file") {
            publish(catalogue(8, future), m_signer.data());
            m_files["/list.xml"] = xml;
        } else if (variant == "junk")
            m_files["/list.xml.minisig"] = "untrusted comment: x\nRWQ\ntrusted comment: y\n!!\n";
        else if (variant == "huge")
            m_files["/list.xml.minisig"] = QByteArray(1 << 20, 'A');
        else if (variant == "expired")
            publish(catalogue(7, "2001-01-01"), m_signer.data());
        else if (variant == "no values")
            publish("<softwareList/>", m_signer.data());
        else if (variant == "no keys")
            m_client->setTrustedKeys({});
        else if (variant == "bad key") {
            QTest::ignoreMessage(QtCriticalMsg,
                                 QRegularExpression("refusing a trusted key that is not a "
                                                    "minisign public key: RWQnot"));
            m_client->setTrustedKeys({"RWQnot-a-key"});
        }
        if (variant == "rollback") {
            QCOMPARE(checkFromDialog(), QString("Viewer 3.0"));
            cleanup();
            m_client.reset(
                new SoftwareUpdateClient("Viewer", VersionNumber("2.9.1"), url(), nullptr));
            m_client->setTrustedKeys({m_signer->publicKey()});
            publish(catalogue(6, future), m_signer.data());
        }
        QCOMPARE(checkFromDialog(), outcome);
        if (variant == "no keys")
            QCOMPARE(m_asked, QList<QByteArray>({"/list.xml"}));
    }

    // The manager's queries follow the same rules; only verified answers are cached, and the
    // highest serial survives storeHistory/loadHistory.
    void queries()
    {
        const QString future = QDate::currentDate().addDays(30).toString(Qt::ISODate);
        publish(catalogue(5, future), m_signer.data());
        const QString settingsFile = m_dir.filePath("manager.ini");
        QFile::remove(settingsFile);
        {
            QSettings settings(settingsFile, QSettings::IniFormat);
            DownloadManager manager {QUrl(url())};
            manager.setTrustedKeys({m_signer->publicKey()});
            QSignalSpy found(&manager, &DownloadManager::packageFound);
            QSignalSpy finished(&manager, &DownloadManager::queryFinished);
            manager.queryUpdate();
            QVERIFY(finished.wait(10000));
            QCOMPARE(found.size(), 1);
            manager.storeHistory(settings, QString());
        }
        publish(catalogue(4, future), m_signer.data());
        QSettings settings(settingsFile, QSettings::IniFormat);
        settings.setValue("Download/ver", 3);
        DownloadManager later(settings, QString());
        later.setServer(QUrl(url()));
        later.setTrustedKeys({m_signer->publicKey()});
        QSignalSpy none(&later, &DownloadManager::noPackageFound);
        QSignalSpy finished(&later, &DownloadManager::queryFinished);
        later.queryUpdate();
        QVERIFY(finished.wait(10000));
        QCOMPARE(none.size(), 1); // serial 4 after 5
        QVERIFY(later.recentPackages(PackageInfo()).isEmpty()); // nothing unverified cached
    }

    // A download is checked against the published hash while it streams.
    void downloads_data()
    {
        QTest::addColumn<bool>("tampered");
        QTest::newRow("the published package") << false;
        QTest::newRow("one byte changed in the package") << true;
    }
    void downloads()
    {
        QFETCH(bool, tampered);
        publish(catalogue(7, QDate::currentDate().addDays(30).toString(Qt::ISODate)),
                m_signer.data());
        if (tampered)
            m_files["/dl/viewer-3.0.tar.gz"] = QByteArray(m_package).replace(100, 1, "X");
        const QString tmp = m_dir.filePath(QString("tmp-%1").arg(tampered));
        QDir().mkpath(tmp);
        qputenv("TMPDIR", tmp.toLocal8Bit());
        QCOMPARE(checkFromDialog(), QString("Viewer 3.0"));
        BoxAnswerer answerer({"Proceed", "OK"});
        QSignalSpy installing(m_client.data(), &SoftwareUpdateClient::installationStarted);
        Q_EMIT openDialog<SoftwareUpdateAvailableDialog>()->installPackage(0);
        QTRY_VERIFY(m_asked.contains("/dl/viewer-3.0.tar.gz"));
        // Done: the error box was answered and the folder removed, or the verified file is kept.
        QTRY_VERIFY_WITH_TIMEOUT(tampered ? answerer.seen.size() == 2 && filesBelow(tmp).isEmpty()
                                          : installing.size() == 1,
                                 10000);
        QTRY_VERIFY(!QApplication::activeModalWidget());
        const QStringList left = filesBelow(tmp);
        if (tampered) {
            QCOMPARE(answerer.seen.last(),
                     "Download Error | The downloaded package does not match the published one. "
                     "It was deleted, and nothing was installed.");
            QCOMPARE(left, QStringList());
        } else {
            QCOMPARE(left.size(), 2); // the download's own folder and the verified file in it
            QCOMPARE(QFileInfo(tmp + "/" + left.first()).permissions() & 0x0077,
                     QFile::Permissions());
        }
        qunsetenv("TMPDIR");
    }
};

QTEST_MAIN(TestTrust)
#include "tst_trust.moc"
