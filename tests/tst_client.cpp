#include <ClientCheck.h>
#include <PrivateNetwork.h>
#include <TestHttpServer.h>
#include <qv/LogQt.h>

using namespace qv;
using namespace suc::test;

// Package downloads always use port 80: this test has a loopback of its own.
SUC_PRIVATE_NETWORK_BEFORE_MAIN

namespace {

// Records what would have opened in the browser.
class UrlRecorder : public QObject {
    Q_OBJECT
public:
    QList<QUrl> opened;
public Q_SLOTS:
    void open(const QUrl &url) { opened << url; }
};

} // namespace

class TestClient : public QObject {
    Q_OBJECT

    TestHttpServer m_server;
    QByteArray m_catalogue;
    int m_requests = 0;
    QScopedPointer<SoftwareUpdateClient> m_client;
    QTemporaryDir m_tmp;
    int m_testNumber = 0;

    QString url(const QString &path = "/list.xml") const
    {
        return QString::fromLatin1(m_server.url(path.toLatin1()));
    }
    SoftwareUpdateClient *makeClient(const QString &version = "2.9.1")
    {
        m_client.reset(new SoftwareUpdateClient("Viewer", VersionNumber(version.toStdString()),
                                                url(), nullptr));
        return m_client.data();
    }
private Q_SLOTS:
    void initTestCase()
    {
        // A store of its own: the locale entries run this program beside itself.
        useOwnClientStore("client");
        m_server.setHandler([this](const TestHttpServer::Request &r) {
            if (r.target == "/list.xml") {
                ++m_requests;
                return TestHttpServer::Response::ok(m_catalogue, "text/xml");
            }
            if (r.target.startsWith("/moved")) // to the catalogue, or nowhere
                return TestHttpServer::Response::redirect(
                    302, r.target == "/moved" ? url().toUtf8() : QByteArray());
            if (r.target == "/junk")
                return TestHttpServer::Response::ok("\x01\x02 not xml <<<", "text/xml");
            if (r.target == "/stall") { // the headers and no catalogue
                TestHttpServer::Response stalled = TestHttpServer::Response::ok("<softwareList>");
                stalled.mode = TestHttpServer::Response::Stall;
                return stalled;
            }
            return TestHttpServer::Response::error(404, "<html>gone</html>");
        });
        QVERIFY(m_server.listen(QHostAddress::LocalHost));
    }
    void cleanupTestCase() { removeOwnClientStore(); }
    void init()
    {
        QFile::remove(clientStore().fileName());
        m_catalogue = testData("realistic.xml");
        m_requests = 0;
        // Downloads go to fresh temporary folders; give each test its own.
        const QString tmp = m_tmp.filePath(QString::number(++m_testNumber));
        QDir().mkpath(tmp);
        qputenv("TMPDIR", tmp.toLocal8Bit());
    }
    void cleanup()
    {
        m_client.reset();
        closeAllWindows();
    }

    // "path" is the test server's, or a URL; "typed:" typed into the dialog and not applied, with
    // checking off and another server stored.
    void checkOutcomes_data() { addRows("client-check-outcomes"); }
    void checkOutcomes()
    {
        QFETCH(QString, catalogue);
        QFETCH(QString, path);
        QFETCH(QString, outcome);
        QFETCH(QStringList, packages);
        m_catalogue = catalogue.isEmpty() ? QByteArray("<softwareList/>") : testData(catalogue);
        makeClient(row<QString>("version"));
        if (row<bool>("twoCameras"))
            m_client->setCurrentCameraVersions(
                {{"M1004", VersionNumber("5.2.1")}, {"M1004", VersionNumber("5.2.1")}});
        const bool typed = path.startsWith("typed:");
        const QString server = path.remove("typed:").startsWith("http") ? path : url(path);
        const QString stored = typed ? "http://127.0.0.1:9/nothing-here.xml" : server;
        clientStore().setValue("serverURL", stored);
        clientStore().setValue("doUpdateCheck", !typed);
        m_client->queryForUpdate({}, false);
        auto *dialog = openDialog<SoftwareUpdateDialog>();
        dialog->findChild<QCheckBox *>("checkForBetaCheckBox")->setChecked(row<bool>("beta"));
        dialog->findChild<QLineEdit *>("updateServerLineEdit")->setText(server);
        if (outcome == "No update available!" && !catalogue.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, "DownloadManager::parseXML() -> XML parser error");
        const QStringList got = checkFromDialog(m_client.data());
        if (outcome == "<packages>")
            QCOMPARE(got, packages);
        else
            QVERIFY2(got.size() == 1 && got.first().contains(outcome), qPrintable(got.join('\n')));
        QVERIFY(!dialog->findChild<QWidget *>("progressBar")->isVisible());
        QCOMPARE(clientStore().value("serverURL").toString(), stored);
    }

    // What a host hears of a check: checkStarted, then exactly one outcome; without
    // interaction no dialog opens. Each row twice, from an interactive client and from one that
    // is not ("server" is a path of the test server).
    void signalsTellTheOutcome_data() { addRows("client-signals"); }
    void signalsTellTheOutcome()
    {
        QFETCH(QString, server);
        QFETCH(QString, outcome);
        const bool interactive = QString(QTest::currentDataTag()).startsWith("interactive");
        makeClient(row<QString>("version"));
        m_client->setInteractive(interactive);
        m_client->setRequestTimeout(server == "/stall" ? 300 : 20000); // only stalls wait for it
        if (row<bool>("trusted")) // a key this unsigned server cannot meet
            m_client->setTrustedKeys(
                {QString::fromLatin1(QByteArray(QByteArray("Ed") + QByteArray(40, 1)).toBase64())});
        clientStore().setValue("serverURL", url(server));
        QSignalSpy started(m_client.data(), &SoftwareUpdateClient::checkStarted);
        QSignalSpy available(m_client.data(), &SoftwareUpdateClient::updatesAvailable);
        QSignalSpy upToDate(m_client.data(), &SoftwareUpdateClient::upToDate);
        QSignalSpy failed(m_client.data(), &SoftwareUpdateClient::checkFailed);
        m_client->checkForUpdate(0);
        QTRY_VERIFY(available.size() + upToDate.size() + failed.size() > 0);
        QCOMPARE(started.size(), 1);
        QCOMPARE(available.size() + upToDate.size() + failed.size(), 1);
        if (outcome == "available") {
            QCOMPARE(available.first().first().value<PackageInfoList>().size(), 1);
            QCOMPARE(bool(openDialog<SoftwareUpdateAvailableDialog>()), interactive);
            m_client->showAvailableUpdates();
            QVERIFY(openDialog<SoftwareUpdateAvailableDialog>());
        } else if (outcome == "up to date") { // silent, even to an interactive client
            QCOMPARE(upToDate.size(), 1);
            QVERIFY(!QApplication::activeModalWidget() && !openDialog<SoftwareUpdateDialog>());
        } else {
            QCOMPARE(failed.size(), 1);
            QVERIFY2(failed.first().first().toString().contains(row<QString>("reason")),
                     qPrintable(failed.first().first().toString()));
            QVERIFY(!openDialog<SoftwareUpdateAvailableDialog>());
        }
    }

    void hourlyRhythm_data() { addRows("client-hourly-rhythm"); }
    void hourlyRhythm()
    {
        QFETCH(int, hoursAgo);
        QFETCH(bool, fires);
        m_catalogue = "<softwareList/>";
        makeClient();
        SoftwareUpdateSettings s;
        m_client->getCurrentSettings(&s);
        s.updateInterval = row<int>("interval");
        s.lastCheck
            = hoursAgo < 0 ? QDateTime() : QDateTime::currentDateTime().addSecs(-3600 * hoursAgo);
        m_client->setCurrentSettings(&s);
        if (hoursAgo < 0)
            clientStore().remove("lastCheck");
        const bool dialog = row<bool>("dialogOpen"); // raised twice: still one dialog
        for (int i = 0; dialog && i < 2; ++i)
            m_client->queryForUpdate({}, false);
        LogWatcher log;
        QVERIFY(QMetaObject::invokeMethod(m_client.data(), "queryLastUpdate"));
        if (dialog) { // nor does a background check run meanwhile
            m_client->checkForUpdate(0);
            int dialogs = 0;
            for (QWidget *w : QApplication::topLevelWidgets())
                dialogs += qobject_cast<SoftwareUpdateDialog *>(w) && w->isVisible();
            QCOMPARE(dialogs, 1);
        }
        // A check stamps the last check at once; without one the stamp stays.
        m_client->getCurrentSettings(&s);
        QCOMPARE(s.lastCheck.isValid() && s.lastCheck.secsTo(QDateTime::currentDateTime()) < 60,
                 fires);
        if (fires)
            QTRY_VERIFY(log.saw("no update available"));
        QCOMPARE(m_requests, fires ? 1 : 0);
    }

    void initialCheck_data() { addRows("client-initial-check"); }
    void initialCheck()
    {
        QFETCH(int, interval);
        m_catalogue = "<softwareList/>";
        clientStore().setValue("updateInterval", interval);
        clientStore().setValue("doUpdateCheck", row<bool>("checking"));
        makeClient();
        LogWatcher log;
        m_client->doInitialCheck(300);
        QCOMPARE(m_requests, 0); // not before the delay
        // The delay is a single-shot timer of the client, made only when a check is due.
        int delays = 0;
        for (QTimer *t : m_client->findChildren<QTimer *>())
            delays += t->isSingleShot() && t->isActive() && t->interval() == 300;
        QTEST(delays, "requests");
        if (delays)
            QTRY_VERIFY(log.saw("no update available"));
        QTEST(m_requests, "requests");
    }

    void rowsOutsideTheListAreIgnored()
    {
        makeClient();
        const SoftUpIndexList outside {7, -1};
        QTest::ignoreMessage(QtCriticalMsg,
                             "SoftwareUpdateClient::installPackage() -> no package in row 7");
        QVERIFY(QMetaObject::invokeMethod(m_client.data(), "installPackage", Q_ARG(int, 7)));
        QVERIFY(QMetaObject::invokeMethod(m_client.data(), "downloadFinished"));
        for (const char *slot :
             {"downloadUrls", "downloadReleaseNotes", "manageUpdateAvailableDialog"})
            QVERIFY2(
                QMetaObject::invokeMethod(m_client.data(), slot, Q_ARG(SoftUpIndexList, outside)),
                slot);
    }

    void packageTable()
    {
        makeClient();
        m_client->setCurrentCameraVersions(
            {{"M1004", VersionNumber("5.2.1")}, {"P3301", VersionNumber("4.0")}});
        m_client->checkForUpdate(0);
        QTRY_VERIFY(openDialog<SoftwareUpdateAvailableDialog>());
        auto *dialog = openDialog<SoftwareUpdateAvailableDialog>();
        auto *table = dialog->findChild<QTableWidget *>("tableWidget");
        const QStringList rows = tableRows(table, true);
        QCOMPARE(rows.size(), 4);
        QCOMPARE(rows.first(), "Viewer 2.10 | 39.0 MB | deb | Multilingual | linux-x86_64");
        QVERIFY(rows.last().startsWith("P3301 Firmware 4.10 | "));

        auto *install = dialog->findChild<QPushButton *>("installPushButton");
        auto *download = dialog->findChild<QPushButton *>("downloadPushButton");
        auto *notes = dialog->findChild<QPushButton *>("releaseNotesPushButton");
        auto *comment = dialog->findChild<QTextBrowser *>("commentText");
        table->selectRow(0);
        QVERIFY(!install->isEnabled()); // no package type is installable in this build
        QVERIFY(download->isEnabled());
        QVERIFY(!notes->isEnabled()); // this package has no English release notes
        QVERIFY(comment->isVisible());
        QVERIFY(comment->toHtml().contains("Viewer 2.10, Application"));
        QVERIFY(comment->toPlainText().contains(
            "http://dl.example.test/software/viewer/2.10/Viewer-linux.deb"));
        table->selectRow(1);
        QVERIFY(notes->isEnabled()); // M1004 5.3 has English notes
        table->setCurrentCell(3, 0, QItemSelectionModel::Select | QItemSelectionModel::Rows);
        QVERIFY(download->isEnabled() && !install->isEnabled() && !notes->isEnabled());
        QVERIFY(!comment->isVisible());

        UrlRecorder browser;
        QDesktopServices::setUrlHandler("http", &browser, "open");
        QTest::mouseClick(download, Qt::LeftButton);
        table->selectRow(1);
        QTest::mouseClick(notes, Qt::LeftButton);
        QDesktopServices::unsetUrlHandler("http");
        QCOMPARE(browser.opened.size(), 3);
        QCOMPARE(browser.opened.last(), QUrl("http://dl.example.test/notes/m1004-5.3-en.html"));
    }

    // "languages": one firmware row each; "app" is an application row.
    void foreignLanguageRows_data() { addRows("client-foreign-language-rows"); }
    void foreignLanguageRows()
    {
        QFETCH(QString, locale);
        QFETCH(QStringList, languages);
        if (QLocale::system().name().section('_', 0, 0) != locale)
            QSKIP("for another system locale (see the tst_client_<lang> entries)");
        PackageInfoList list;
        for (const QString &l : languages) {
            PackageInfo p;
            p.type = l == "app" ? "Application" : "Camera Firmware";
            const QStringList words = l.split(' ');
            p.languages = QStringSet(words.cbegin(), words.cend());
            list << p;
        }
        makeClient();
        QList<int> hidden;
        QVERIFY(QMetaObject::invokeMethod(m_client.data(), "determineForeignLanguageRows",
                                          Qt::DirectConnection, Q_RETURN_ARG(QList<int>, hidden),
                                          Q_ARG(qv::PackageInfoList, list)));
        QTEST(hidden, "hidden");
    }

    // Installation, against a package server on port 80.
    // "box" is the last box shown; "folders" the temporary folders left (the kept file's, the
    // unpacked one). The "/.." row: the file path is "<download folder>/..", whose clean-up once
    // removed the whole temporary folder; now the download fails and only its own folder goes.
    void installByType_data() { addRows("client-install-by-type"); }
    void installByType()
    {
        QFETCH(QString, file);
        QFETCH(int, status);
        QFETCH(QStringList, answers);
        QFETCH(int, downloads);
        QVERIFY(writeFile(QDir::temp().filePath("another-program.txt"), "not ours to touch"));
        const QByteArray body
            = file.endsWith(".zip") ? testData("package.zip") : QByteArray(3000, 'p');
        TestHttpServer packages([&](const TestHttpServer::Request &) {
            TestHttpServer::Response r = TestHttpServer::Response::ok(
                status == 200 ? body : QByteArray("<html>missing</html>"));
            r.status = status;
            return r;
        });
        SUC_LISTEN_ON_PORT_80(packages);
        m_catalogue = "<softwareList base-url='http://127.0.0.1/dl/'><package-set "
                      "type='Application' name='Viewer' "
                      "status='STABLE'><package release='3.0' url='"
            + file.toUtf8() + "' file-size='" + QByteArray::number(body.size())
            + "'/></package-set></softwareList>";
        makeClient();
        clientStore().setValue("supportedPackageTypes", "tar.gz,bin,zip,gz/");
        m_client->checkForUpdate(0);
        QTRY_VERIFY(openDialog<SoftwareUpdateAvailableDialog>());
        BoxAnswerer answerer(answers);
        Q_EMIT openDialog<SoftwareUpdateAvailableDialog>()->installPackage(0);
        QTRY_COMPARE(packages.requests().size(), downloads);
        QTRY_VERIFY(answerer.seen.size() >= answers.size());
        QTRY_VERIFY(!QApplication::activeModalWidget());
        QVERIFY2(answerer.seen.last().startsWith(row<QString>("box")),
                 qPrintable(answerer.seen.join('\n')));
        if (downloads)
            QTRY_VERIFY(!openDialog<QProgressDialog>());
        // The ZIP archive goes once its unpacking, which nobody waits for, has finished.
        QTRY_COMPARE(!downloadedFiles(file).isEmpty(), row<bool>("fileKept"));
        QTRY_COMPARE(QDir::temp().entryList({"softwareupdate-*"}, QDir::Dirs).size(),
                     row<int>("folders"));
        for (const QFileInfo &dir : QDir::temp().entryInfoList({"softwareupdate-*"}, QDir::Dirs))
            QCOMPARE(dir.permissions() & 0x0077, QFile::Permissions()); // the user's alone
        QVERIFY(QFileInfo::exists(QDir::temp().filePath("another-program.txt")));
    }

    // With retries, the progress dialog says when the next attempt comes; Cancel ends them.
    void retriesShowInTheProgressDialog_data() { addRows("client-retries"); }
    void retriesShowInTheProgressDialog()
    {
        QFETCH(bool, cancel);
        const QByteArray body(3000, 'p');
        TestHttpServer packages([&](const TestHttpServer::Request &) {
            if (packages.requests().size() > 1)
                return TestHttpServer::Response::ok(body);
            TestHttpServer::Response busy = TestHttpServer::Response::error(503, "busy");
            busy.headers << qMakePair(QByteArray("Retry-After"), QByteArray("1"));
            return busy;
        });
        SUC_LISTEN_ON_PORT_80(packages);
        m_catalogue = "<softwareList><package type='Application' name='Viewer' status='STABLE' "
                      "release='3.0' url='http://127.0.0.1/dl/viewer.tar.gz' file-size='3000'/>"
                      "</softwareList>";
        makeClient();
        m_client->setDownloadRetries(2);
        m_client->setRetryUnit(500); // long enough to see the countdown, and to cancel it
        m_client->checkForUpdate(0);
        QTRY_VERIFY(openDialog<SoftwareUpdateAvailableDialog>());
        auto *list = openDialog<SoftwareUpdateAvailableDialog>();
        BoxAnswerer answerer({"Proceed"});
        QSignalSpy installing(m_client.data(), &SoftwareUpdateClient::installationStarted);
        Q_EMIT list->installPackage(0);
        // Shown or not yet (it waits a moment before it shows), the dialog says so.
        const auto progress = [list] { return list->findChild<QProgressDialog *>(); };
        QTRY_VERIFY(progress() && progress()->labelText() == "Retrying in 1 s");
        if (cancel) { // the Cancel button; the wait passes, and nothing more is asked
            Q_EMIT progress()->canceled();
            QTest::qWait(700);
        }
        QTRY_COMPARE(packages.requests().size(), cancel ? 1 : 2);
        QTRY_COMPARE(installing.size(), cancel ? 0 : 1);
    }
};

QTEST_MAIN(TestClient)
#include "tst_client.moc"
