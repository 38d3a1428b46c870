#include <DownloadManager.h>
#include <PrivateNetwork.h>
#include <TestHttpServer.h>
#include <TestSupport.h>
#include <qv/HttpHost.h>
#include <qv/LogQt.h>
#include <qv/NodeDB.h>

using namespace qv;
using namespace suc::test;
using Response = TestHttpServer::Response;

// Package downloads always use port 80: this test has a loopback of its own.
SUC_PRIVATE_NETWORK_BEFORE_MAIN

namespace {

PackageInfo sizedPackage(const QByteArray &url, qint64 size)
{
    PackageInfo p;
    p.name = "Viewer";
    p.url = QUrl(QString::fromLatin1(url));
    p.fileSize = size;
    p.releaseDate = QDateTime(QDate(2013, 6, 2), QTime(9, 0));
    return p;
}

} // namespace

// Receives query callbacks; the two slots spell the list type differently.
class CallbackReceiver : public QObject {
    Q_OBJECT
public:
    QList<PackageInfoList> byValue;
    QList<PackageInfoList> byReference;
public Q_SLOTS:
    void onPackages(PackageInfoList list) { byValue << list; }
    void onPackagesRef(const PackageInfoList &list) { byReference << list; }
};

class TestDownloadManager : public QObject {
    Q_OBJECT

    TestHttpServer m_catalogueServer;
    QByteArray m_catalogue;
    QByteArray m_cookie;
    int m_catalogueStatus = 200;
    QScopedPointer<TestHttpServer> m_dl; ///< each test's package server on port 80
    QScopedPointer<QTemporaryDir> m_tmp; ///< each test's folder

    QUrl catalogueUrl(const QString &path = "/software/list.xml") const
    {
        return QUrl(QString::fromLatin1(m_catalogueServer.url(path.toLatin1())));
    }

    // Runs one query to the end and returns what the manager reported. `narrow` gives a filter
    // that no package meets: it does not narrow what is delivered.
    PackageInfoList runQuery(DownloadManager &manager, CallbackReceiver *receiver = nullptr,
                             const char *slot = nullptr, bool narrow = false)
    {
        QSignalSpy finished(&manager, &DownloadManager::queryFinished);
        QSignalSpy found(&manager, &DownloadManager::packageFound);
        if (narrow)
            manager.queryUpdate("Nothing", "NoSuchProduct", "99.0", "STABLE",
                                QDateTime::currentDateTime(), {"beos"}, {"xx"}, receiver, slot);
        else
            manager.queryUpdate(PackageInfo(), receiver, slot);
        if (!finished.wait(10000))
            qWarning("query did not finish");
        return found.isEmpty() ? PackageInfoList() : found.first().first().value<PackageInfoList>();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QStandardPaths::setTestModeEnabled(true);
        m_catalogueServer.setHandler([this](const TestHttpServer::Request &) {
            Response response = Response::ok(m_catalogue, "text/xml");
            response.status = m_catalogueStatus;
            if (!m_cookie.isEmpty())
                response.headers << qMakePair(QByteArray("Set-Cookie"), m_cookie);
            return response;
        });
        QVERIFY(m_catalogueServer.listen(QHostAddress::LocalHost));
    }
    void init()
    {
        m_catalogue = testData("realistic.xml");
        m_cookie.clear();
        m_catalogueStatus = 200;
        m_tmp.reset(new QTemporaryDir);
        m_dl.reset(new TestHttpServer);
        SUC_LISTEN_ON_PORT_80(*m_dl);
    }
    QString tmp(const QString &name) const { return m_tmp->filePath(name); }

    // Queries.

    void serverSettings()
    {
        DownloadManager manager(catalogueUrl("/software/list.xml?x=1"));
        QCOMPARE(manager.queryUrl(), catalogueUrl("/software/list.xml?x=1").toString());
        QCOMPARE(int(manager.server().proxyPreference), 2);
        QVERIFY(manager.isRegularCheck());
        manager.setProxy(HttpHost::OwnProxy, "proxy.lan:3128");
        QCOMPARE(manager.server().proxy.port(), 3128);
        QCOMPARE(HttpAccessHistory::proxies.entries().value(0).host(), QString("proxy.lan"));
        manager.setServer(QUrl("http://other.test/list.xml"));
        QCOMPARE(int(manager.server().proxyPreference), 2); // reset on every server change
        QCOMPARE(manager.queryUrl(), QString("http://other.test/list.xml"));
        DownloadManager bare;
        QVERIFY(bare.queryUrl().isEmpty());
    }

    void packagesAreNewExactlyOnce()
    {
        DownloadManager manager(catalogueUrl());
        CallbackReceiver receiver;
        QSignalSpy started(&manager, &DownloadManager::queryStarted);
        m_cookie = "session=abc";
        const PackageInfoList first
            = runQuery(manager, &receiver, SLOT(onPackages(PackageInfoList)));
        QCOMPARE(first.size(), 15);
        QCOMPARE(DownloadManager::countNew(first), 15);
        m_cookie.clear();
        const PackageInfoList second = runQuery(manager, &receiver, "onPackagesRef", true);
        QCOMPARE(manager.lastCookie(), QString("session=abc")); // kept until another comes
        QCOMPARE(second.size(), 15);
        QCOMPARE(DownloadManager::countNew(second), 0);
        QCOMPARE(started.first().first().toString(),
                 QString("http://127.0.0.1:%1").arg(m_catalogueServer.serverPort()));

        // Callbacks arrive queued, with the whole list, whichever way the slot spells the type.
        QVERIFY(receiver.byValue.isEmpty() || receiver.byValue.size() == 1);
        QTRY_COMPARE(receiver.byValue.size(), 1);
        QTRY_COMPARE(receiver.byReference.size(), 1);
        QCOMPARE(DownloadManager::countNew(receiver.byValue.first()), 15);
        QCOMPARE(DownloadManager::countNew(receiver.byReference.first()), 0);

        const PackageInfoList recent = manager.recentPackages(PackageInfo());
        QCOMPARE(recent.size(), 15);
        QCOMPARE(DownloadManager::countNew(recent), 0);
        QVERIFY(manager.lastCheckTime().isValid());
    }

    void badAnswersGiveNoPackages_data() { addRows("downloadmanager-bad-answers"); }
    void badAnswersGiveNoPackages()
    {
        m_catalogueStatus = row<int>("status");
        m_catalogue = row<QByteArray>("body");
        DownloadManager manager(catalogueUrl());
        QSignalSpy none(&manager, &DownloadManager::noPackageFound);
        QSignalSpy finished(&manager, &DownloadManager::queryFinished);
        if (row<bool>("parserComplains"))
            QTest::ignoreMessage(QtWarningMsg, "DownloadManager::parseXML() -> XML parser error");
        manager.queryUpdate();
        QVERIFY(finished.wait());
        QCOMPARE(none.count(), 1);
        QVERIFY(manager.lastCheckTime().isValid());
        QVERIFY(!manager.isQueryBusy());
    }

    // An answer larger than any catalogue is not read to its end (a stalled one ends at once)
    // and does not replace the copy of the last good answer.
    void oversizedAnswersAreDroppedAtTheLimit_data()
    {
        addRows("downloadmanager-oversized-answers");
    }
    void oversizedAnswersAreDroppedAtTheLimit()
    {
        QFETCH(qint64, announced);
        const QByteArray good
            = "<softwareList><package name='kept' release='1' file-size='1'/></softwareList>";
        const QByteArray huge(33 << 20, ' ');
        bool first = true;
        TestHttpServer server([&](const TestHttpServer::Request &) {
            if (first) {
                first = false;
                return Response::ok(good, "text/xml");
            }
            Response r = Response::ok(huge, "text/xml");
            r.mode = Response::Stall;
            r.sendBeforeStall = huge.size();
            r.announcedLength = announced;
            return r;
        });
        QVERIFY(server.listen(QHostAddress::LocalHost));
        DownloadManager manager(QUrl(QString::fromLatin1(server.url("/list.xml"))));
        QCOMPARE(runQuery(manager).size(), 1);
        QSignalSpy none(&manager, &DownloadManager::noPackageFound);
        QSignalSpy finished(&manager, &DownloadManager::queryFinished);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("larger than 33554432 bytes"));
        QTest::ignoreMessage(QtWarningMsg, "DownloadManager::parseXML() -> XML parser error");
        manager.queryUpdate();
        QVERIFY(finished.wait(10000)); // the stall limit is 30 s: nothing waited for it
        QCOMPARE(none.count(), 1);
        QCOMPARE(manager.recentPackages(PackageInfo()).value(0).name, QString("kept"));
    }

    // A receiver may delete the manager in the slot that hears the outcome.
    void managerDeletedByItsReceiver_data()
    {
        addRows("downloadmanager-manager-deleted-by-its-receiver");
    }
    void managerDeletedByItsReceiver()
    {
        QFETCH(QString, signal);
        m_dl->setHandler(
            [](const TestHttpServer::Request &) { return Response::ok(QByteArray(100, 'x')); });
        if (signal == "none")
            m_catalogue = "<softwareList/>";
        QPointer<DownloadManager> manager = new DownloadManager(catalogueUrl());
        const auto drop = [&manager] { delete manager.data(); };
        if (signal == "success")
            connect(manager, qOverload<PackageInfo, QString>(&DownloadManager::downloadSuccess),
                    this, drop);
        else if (signal == "failure")
            connect(manager, qOverload<PackageInfo, QString>(&DownloadManager::downloadFailure),
                    this, drop);
        else if (signal == "found")
            connect(manager, &DownloadManager::packageFound, this, drop);
        else
            connect(manager, &DownloadManager::noPackageFound, this, drop);
        if (signal == "success" || signal == "failure")
            manager->startDownload(
                sizedPackage("http://127.0.0.1/x.zip", signal == "success" ? 100 : 200),
                tmp("x.zip"));
        else
            manager->queryUpdate();
        QTRY_VERIFY(!manager);
    }

    // History.

    void historyPersistsAndAges()
    {
        const QString ini = tmp("s.ini");
        const QString cache = tmp("last-answer.xml");
        const QDateTime now = QDateTime::currentDateTime();
        const auto at = [&now](qint64 s) { return now.addSecs(s).toString(Qt::ISODateWithMs); };
        const qint64 day = 86400, twoYears = now.addYears(-2).secsTo(now);
        QVERIFY(writeFile(ini,
                          QString::fromUtf8(testData("history.ini"))
                              .arg(catalogueUrl().toString(), at(-10 * day), at(120 - twoYears),
                                   at(-120 - twoYears), at(-day))
                              .toUtf8()));
        QSettings settings(ini, QSettings::IniFormat);
        {
            DownloadManager manager(settings, cache);
            QVERIFY(!manager.isRegularCheck());
            QCOMPARE(manager.queryUrl(), catalogueUrl().toString());
            QCOMPARE(DownloadManager::countNew(runQuery(manager)), 15);
            manager.storeHistory(settings, cache);
        }
        settings.sync();
        QVERIFY(!settings.contains("Download/regular-check"));
        QCOMPARE(settings.value("Download/ver").toInt(), 3);
        QCOMPARE(settings.value("Download/hist/size").toInt(), 2 + 15);
        QHash<QString, QString> kept; // version -> time
        settings.beginGroup("Download");
        for (int i = 0, n = settings.beginReadArray("hist"); i < n; ++i) {
            settings.setArrayIndex(i);
            kept.insert(settings.value("version").toString(), settings.value("time").toString());
        }
        QCOMPARE(kept.size(), 2 + 15); // "young" once, with the later duplicate's time
        QVERIFY(kept.contains("just inside"));
        QCOMPARE(kept.value("young").left(16), at(-day).left(16));
        settings.endArray();
        settings.endGroup();

        // Reloaded: every package is known, and the cached answer is back.
        DownloadManager again(settings, cache);
        QCOMPARE(DownloadManager::countNew(again.recentPackages(PackageInfo())), 0);
        QCOMPARE(again.recentPackages(PackageInfo()).size(), 15);
        QCOMPARE(DownloadManager::countNew(runQuery(again)), 0);
    }

    void oldSettingsMoveToTheBuiltInServer_data() { addRows("downloadmanager-old-settings"); }
    void oldSettingsMoveToTheBuiltInServer()
    {
        QFETCH(QVariant, ver);
        QFETCH(bool, migrated);
        const QString url = migrated ? DownloadManager::UPDATE_URL : "http://stored.test/mine.xml";
        QSettings settings(tmp("s.ini"), QSettings::IniFormat);
        settings.beginGroup("Download");
        if (ver.isValid())
            settings.setValue("ver", ver);
        settings.setValue("server", "http://stored.test/mine.xml");
        settings.setValue("path", "/mine.xml");
        settings.setValue("proxy-pref", 1);
        settings.endGroup();
        {
            DownloadManager manager(settings, QString());
            QCOMPARE(manager.queryUrl(), url);
            QCOMPARE(int(manager.server().proxyPreference), migrated ? 2 : 1);
            manager.storeHistory(settings, QString());
        }
        QCOMPARE(settings.value("Download/ver").toInt(), 3);
        DownloadManager later(settings, QString());
        QCOMPARE(later.queryUrl(), url);
    }

    void corruptHistoryFallsBack_data() { addRows("downloadmanager-corrupt-history"); }
    void corruptHistoryFallsBack()
    {
        QFETCH(QByteArray, ini);
        QVERIFY(writeFile(tmp("s.ini"), ini));
        QSettings settings(tmp("s.ini"), QSettings::IniFormat);
        if (ini.contains("2000000000"))
            QTest::ignoreMessage(QtWarningMsg,
                                 QRegularExpression("ignoring a history of 2000000000 entries"));
        DownloadManager manager(settings, tmp("missing-cache.xml"));
        QVERIFY(manager.lastCheckTime().isNull());
        QVERIFY(!manager.isRegularCheck());
        QCOMPARE(int(manager.server().proxyPreference), 0);
        QVERIFY(manager.recentPackages(PackageInfo()).isEmpty());
    }

    // A copy that no live answer could be, or that cannot be read without blocking, is ignored.
    void unreadableCacheFilesAreIgnored_data()
    {
        addRows("downloadmanager-unreadable-cache-files");
    }
    void unreadableCacheFilesAreIgnored()
    {
        QFETCH(QString, kind);
        QFETCH(QString, message);
        const QString cache = tmp("cache.xml");
        if (kind == "fifo") {
            QCOMPARE(mkfifo(QFile::encodeName(cache).constData(), 0600), 0);
        } else if (kind == "large") {
            QFile f(cache);
            QVERIFY(f.open(QIODevice::WriteOnly));
            QVERIFY(f.resize(600LL << 20)); // sparse: no disk is used
        } else {
            QVERIFY(QDir().mkpath(cache));
        }
        QSettings settings(tmp("s.ini"), QSettings::IniFormat);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("loadHistory.*" + message));
        DownloadManager manager(settings, cache);
        QVERIFY(manager.recentPackages(PackageInfo()).isEmpty());
    }

    void cacheFileRules()
    {
        const QString cache = tmp("cache.xml");
        QSettings settings(tmp("s.ini"), QSettings::IniFormat);
        QVERIFY(writeFile(cache, "<softwareList><package name='old'/></softwareList>"));
        DownloadManager manager(settings, cache);
        QCOMPARE(manager.recentPackages(PackageInfo()).value(0).name, QString("old"));
        DownloadManager fresh(catalogueUrl());
        fresh.storeHistory(settings, cache); // nothing answered yet: the copy stays
        QCOMPARE(QFile(cache).size(), qint64(50));
        runQuery(fresh);
        fresh.storeHistory(settings, QString()); // no name: nothing written
        QCOMPARE(QFile(cache).size(), qint64(50));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("storeHistory.*cannot write"));
        fresh.storeHistory(settings, tmp("no/such/folder/cache.xml"));
        fresh.storeHistory(settings, cache);
        QCOMPARE(QFile(cache).size(), qint64(m_catalogue.size()));
        QCOMPARE(QDir(m_tmp->path()).entryList(QDir::Files).size(), 2); // no temporary leftovers
    }

    // Package downloads (always to port 80).

    // "mode" is TestHttpServer's (0 normal, 1 cut short, 2 stall, 3 drip, 4 hang-up; -1 nothing
    // listens); "announced" the catalogue's size, where 0 (unsized) reports nothing at all.
    // Success is decided by the size alone, and the file holds the body as served (asked for
    // without encoding, a "gzip" body is not inflated); against a signed catalogue ("keys") a
    // failed download is erased, whoever listens (the download of a second Install press has nobody
    // to clean up after it).
    void downloadOutcomes_data() { addRows("download-outcomes"); }
    void downloadOutcomes()
    {
        QFETCH(int, mode);
        QFETCH(int, status);
        QFETCH(int, bodySize);
        QFETCH(int, announced);
        QFETCH(bool, success);
        m_dl->setHandler([&](const TestHttpServer::Request &) {
            Response r = Response::ok(QByteArray(bodySize, 'p'));
            r.status = status;
            r.mode = Response::Mode(mode);
            r.missing = 2000;
            r.sendBeforeStall = 100;
            r.dripIntervalMs = 20;
            if (row<bool>("gzip"))
                r.headers << qMakePair(QByteArray("Content-Encoding"), QByteArray("gzip"));
            return r;
        });
        if (mode < 0)
            m_dl->close(); // port 80 refuses connections now
        DownloadManager manager(catalogueUrl());
        manager.client().setTransferLimits(1000, 1000, 700);
        const bool keys = row<bool>("keys"); // then the catalogue's port is kept: no 8080 here
        if (keys)
            manager.setTrustedKeys({"RWQf6LRCGA9i53mlYecO4IzT51TGPpvWucNSCh1CBM0QTaLn73Y7GFO3"});
        const PackageInfo package = sizedPackage(keys ? "http://127.0.0.1/dl/viewer-2.10.zip"
                                                      : "http://127.0.0.1:8080/dl/viewer-2.10.zip",
                                                 announced);
        QSignalSpy started(&manager, &DownloadManager::downloadStarted);
        QSignalSpy ok(&manager, qOverload<PackageInfo, QString>(&DownloadManager::downloadSuccess));
        QSignalSpy okPlain(&manager, qOverload<>(&DownloadManager::downloadSuccess));
        QSignalSpy failed(&manager,
                          qOverload<PackageInfo, QString>(&DownloadManager::downloadFailure));
        QSignalSpy failedStatus(&manager, qOverload<int>(&DownloadManager::downloadFailure));
        const QString target = tmp("viewer.zip");
        manager.startDownload(package, target);
        QTRY_VERIFY(okPlain.count() + failedStatus.count() == 1 || !announced);
        QTRY_VERIFY(!manager.isQueryBusy()); // the outcome slot has run by then
        QCOMPARE(m_dl->requests().value(0).target,
                 QByteArray(mode < 0 ? "" : "/dl/viewer-2.10.zip"));
        QCOMPARE(started.count(), announced ? 1 : 0);
        QCOMPARE(okPlain.count(), success ? 1 : 0);
        QCOMPARE(ok.count(), success ? 1 : 0);
        QCOMPARE(failed.count(), success || !announced ? 0 : 1);
        if (success) {
            QCOMPARE(ok.first().first().value<PackageInfo>().localFile, target);
            QCOMPARE(readFile(target), QByteArray(bodySize, 'p'));
        } else if (announced && mode <= Response::Normal) {
            QCOMPARE(failedStatus.first().first().toInt(), status);
            QCOMPARE(QFileInfo::exists(target), !keys);
        }
        QVERIFY(package.localFile.isEmpty()); // the caller's record is untouched
        QVERIFY(mode < 0 || m_dl->requests().value(0).header("Accept-Encoding") == "identity");
    }

    // The download writes at the path it is given and nowhere else: a path that could lead
    // elsewhere ("<folder>/sub/.." once counted the folder's size as the download's; a link was
    // written through) fails like an unwritable one (a missing folder, a full disk).
    void targetsThatLeadElsewhereAreRefused_data()
    {
        addRows("downloadmanager-targets-that-lead-elsewhere-are-refused");
    }
    void targetsThatLeadElsewhereAreRefused()
    {
        QFETCH(QString, target);
        QFETCH(bool, refused);
        m_dl->setHandler(
            [](const TestHttpServer::Request &) { return Response::ok(QByteArray(3000, 'z')); });
        QVERIFY(writeFile(tmp("outside.txt"), "keep me"));
        QVERIFY(QDir().mkpath(tmp("sub")));
        QVERIFY(QFile::link(tmp("outside.txt"), tmp("sub/link.zip")));
        target.replace("@", m_tmp->path());
        DownloadManager manager(catalogueUrl());
        QSignalSpy failedStatus(&manager, qOverload<int>(&DownloadManager::downloadFailure));
        if (refused)
            QTest::ignoreMessage(QtCriticalMsg, QRegularExpression("refusing the target"));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("could not write the response"));
        manager.startDownload(sizedPackage("http://127.0.0.1/x.zip", 100), target);
        QTRY_COMPARE(failedStatus.count(), 1);
        QCOMPARE(QDir(m_tmp->path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
                 QStringList({"outside.txt", "sub"}));
        QCOMPARE(readFile(tmp("outside.txt")), QByteArray("keep me"));
    }

    void abortKeepsThePartialFile()
    {
        m_dl->setHandler([](const TestHttpServer::Request &) {
            Response r = Response::ok(QByteArray(100000, 'a'));
            r.mode = Response::Stall;
            r.sendBeforeStall = 1000;
            return r;
        });
        DownloadManager manager(catalogueUrl());
        QSignalSpy aborted(&manager, &DownloadManager::downloadAborted);
        QSignalSpy failedStatus(&manager, qOverload<int>(&DownloadManager::downloadFailure));
        QSignalSpy progress(&manager, &DownloadManager::downloadProgress);
        manager.startDownload(sizedPackage("http://127.0.0.1/x.zip", 100000), tmp("x.zip"));
        QTRY_VERIFY(progress.count() > 0 && progress.last().first().toInt() == 1000);
        QCOMPARE(progress.last().at(1).toInt(), 100000);
        manager.abortDownload();
        QCOMPARE(aborted.count(), 1);
        QVERIFY(!manager.isQueryBusy());
        QVERIFY(QFile::exists(tmp("x.zip")));
        QVERIFY(!failedStatus.wait(100)); // the dropped request never reports

        DownloadManager idle;
        QSignalSpy idleAborted(&idle, &DownloadManager::downloadAborted);
        idle.abortDownload();
        QCOMPARE(idleAborted.count(), 1);
    }

    void releaseNotes_data() { addRows("downloadmanager-release-notes"); }
    void releaseNotes()
    {
        QFETCH(int, status);
        QFETCH(QString, text);
        const QByteArray body = text == "@huge" ? QByteArray(33 << 20, 'n') : text.toUtf8();
        if (text == "@huge") {
            text.clear();
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("larger than 33554432 bytes"));
        }
        m_dl->setHandler([&](const TestHttpServer::Request &) {
            return status == 200 ? Response::ok(body, "text/html; charset=utf-8")
                                 : Response::error(status, "<html>not found</html>");
        });
        DownloadManager manager(catalogueUrl());
        QSignalSpy notes(&manager, &DownloadManager::releaseNotesDownloaded);
        const QUrl url(status ? "http://127.0.0.1:8765/notes/2.10.html" : "");
        manager.downloadReleaseNotes(url);
        QVERIFY(!status || notes.wait()); // an empty URL is answered at once
        QCOMPARE(notes.size(), 1);
        QCOMPARE(notes.first().at(0).toUrl().path(), url.path());
        QCOMPARE(notes.first().at(1).toString(), text);
    }

    void hostProxyApplies()
    {
        // The application proxy is a loopback "proxy" that records what it is asked.
        TestHttpServer proxy([](const TestHttpServer::Request &) {
            return Response::ok("<softwareList/>", "text/xml");
        });
        QVERIFY(proxy.listen(QHostAddress::LocalHost));
        NodeDB::getDB().setGlobalProxy(NetworkProxy("127.0.0.1", proxy.serverPort()));
        DownloadManager manager(QUrl("http://updates.example.invalid/list.xml"));
        QSignalSpy finished(&manager, &DownloadManager::queryFinished);
        manager.queryUpdate();
        QVERIFY(finished.wait());
        NodeDB::getDB().setGlobalProxy(NetworkProxy());
        QCOMPARE(proxy.requests().size(), 1);
        QCOMPARE(proxy.requests().first().target,
                 QByteArray("http://updates.example.invalid/list.xml"));
    }
};

QTEST_MAIN(TestDownloadManager)
#include "tst_downloadmanager.moc"
