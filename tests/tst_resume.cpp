#include <DownloadManager.h>
#include <PrivateNetwork.h>
#include <TestHttpServer.h>
#include <TestSupport.h>

using namespace qv;
using namespace suc::test;
using Response = TestHttpServer::Response;

// Without trusted keys packages download from port 80: this test has a loopback of its own.
SUC_PRIVATE_NETWORK_BEFORE_MAIN

// Downloads that resume after a cut and try transient failures again, against a server that
// answers ranges (or misbehaves as each row says).
class TestResume : public QObject {
    Q_OBJECT

    QTemporaryDir m_state;
    const QByteArray m_body = [] {
        QByteArray b(300 * 1024, Qt::Uninitialized);
        for (int i = 0; i < b.size(); ++i)
            b[i] = char((quint32(i) * 7919u) >> 3);
        return b;
    }();
    const QString m_key = "RWQf6LRCGA9i53mlYecO4IzT51TGPpvWucNSCh1CBM0QTaLn73Y7GFO3";

    PackageInfo package() const
    {
        PackageInfo p;
        p.name = "Viewer";
        p.release = "3.0";
        p.url = QUrl("http://127.0.0.1/dl/viewer-3.0.tar.gz");
        p.fileSize = m_body.size();
        p.sha256 = QCryptographicHash::hash(m_body, QCryptographicHash::Sha256).toHex();
        return p;
    }
    static Response whole(const QByteArray &body, const QByteArray &etag)
    {
        Response r = Response::ok(body);
        r.headers << qMakePair(QByteArray("ETag"), etag);
        return r;
    }
    // The first `bytes` of the package, announced whole, then the connection drops.
    Response cutAfter(qint64 bytes) const
    {
        Response r = whole(m_body.left(bytes), "\"v1\"");
        r.mode = Response::CutShort;
        r.missing = m_body.size() - bytes;
        return r;
    }
    // Downloads once with a new manager (as a new session would); true on success.
    bool download(const QString &target, bool keys)
    {
        DownloadManager manager(QUrl("http://127.0.0.1/list.xml"));
        manager.setResumeDownloads(true);
        if (keys)
            manager.setTrustedKeys({m_key});
        QSignalSpy ok(&manager, qOverload<>(&DownloadManager::downloadSuccess));
        QSignalSpy failed(&manager, qOverload<int>(&DownloadManager::downloadFailure));
        QSignalSpy notPublished(&manager, &DownloadManager::downloadVerificationFailed);
        QSignalSpy progress(&manager, &DownloadManager::downloadProgress);
        manager.startDownload(package(), target);
        // Done: the whole file's bytes reported, whatever the last attempt fetched.
        return QTest::qWaitFor([&] { return ok.size() + failed.size() + notPublished.size() > 0; },
                               10000)
            && ok.size() == 1
            && progress.last() == QList<QVariant> {int(m_body.size()), int(m_body.size())};
    }
    QStringList kept() const
    {
        return QDir(DownloadManager::resumeFolder()).entryList(QDir::Files);
    }

private Q_SLOTS:
    void initTestCase() { qputenv("XDG_STATE_HOME", QFile::encodeName(m_state.path())); }
    void cleanup() { QDir(DownloadManager::resumeFolder()).removeRecursively(); }

    // Cut, then the next download (a new manager, as after a restart) asks for the rest.
    void resumeAfterACut_data() { addRows("resume-after-a-cut"); }
    void resumeAfterACut()
    {
        QFETCH(QString, answer);
        QFETCH(bool, keys);
        QFETCH(int, requests);
        const qint64 cut = m_body.size() * row<int>("cutPercent") / 100;
        const QByteArray changed = QByteArray(m_body).replace(0, 4, "NEW!");
        qint64 served = 0;
        TestHttpServer server([&](const TestHttpServer::Request &r) {
            const QByteArray range = r.header("Range");
            Response out = whole(m_body, "\"v1\"");
            if (server.requests().size() == 1) {
                out = cutAfter(cut);
            } else if (!range.isEmpty() && answer.endsWith("range")) { // a wrong one from 10
                const qint64 from
                    = answer == "range" ? range.mid(6).split('-').value(0).toLongLong() : 10;
                out = whole(m_body.mid(from), "\"v1\"");
                out.status = 206;
                out.headers << qMakePair(QByteArray("Content-Range"),
                                         "bytes " + QByteArray::number(from) + '-'
                                             + QByteArray::number(m_body.size() - 1) + '/'
                                             + QByteArray::number(m_body.size()));
            } else if (!range.isEmpty() && answer == "changed") {
                out = whole(changed, "\"v2\"");
            } else if (!range.isEmpty() && answer == "416") {
                out = Response::error(416, "");
            }
            served += out.body.size();
            return out;
        });
        SUC_LISTEN_ON_PORT_80(server);
        QTemporaryDir dir;
        const QString target = dir.filePath("viewer-3.0.tar.gz");
        QVERIFY(!download(target, keys)); // cut
        QCOMPARE(kept().size(), 2); // the part and its record
        const QString part
            = DownloadManager::resumeFolder() + "/" + kept().filter(".part").value(0);
        QCOMPARE(QFileInfo(part).size(), cut);
        const QString tag = QTest::currentDataTag();
        if (tag.startsWith("power cut")) {
            // The machine went down: the bytes after those synced to disk are garbage, and the
            // record's written offset (of another boot) no longer counts.
            QFile f(part);
            QVERIFY(f.open(QIODevice::Append) && f.write(QByteArray(5000, '\0')) == 5000);
            const QString recordPath = QString(part).replace(".part", ".json");
            QJsonObject record = QJsonDocument::fromJson(readFile(recordPath)).object();
            QCOMPARE(record.value("committed").toInteger(), cut);
            record.insert("written", cut + 5000);
            record.insert("boot", "an earlier boot");
            QVERIFY(writeFile(recordPath, QJsonDocument(record).toJson()));
        }
        if (tag.startsWith("a corrupt kept part")) {
            QFile f(part);
            QVERIFY(f.open(QIODevice::ReadWrite) && f.seek(cut / 2) && f.write("X") == 1);
            f.close();
            QVERIFY(!download(target, keys)); // verified at the end: erased with its record
            QCOMPARE(server.requests().size(), 2);
            QCOMPARE(kept(), QStringList());
            QVERIFY(!QFileInfo::exists(target));
        }
        QVERIFY2(download(target, keys), qPrintable(tag));
        QCOMPARE(server.requests().size(), requests);
        QCOMPARE(server.requests().at(1).header("Range"), "bytes=" + QByteArray::number(cut) + "-");
        QCOMPARE(server.requests().at(1).header("If-Range"), QByteArray("\"v1\""));
        QCOMPARE(!server.requests().last().header("Range").isEmpty(), row<bool>("lastRanged"));
        QCOMPARE(readFile(target), answer == "changed" ? changed : m_body);
        QCOMPARE(kept(), QStringList()); // nothing kept once the file is complete
        if (answer == "range" && requests == 2) // every byte fetched once
            QCOMPARE(served, qint64(m_body.size()));
    }

    // Kept downloads are pruned: a new one keeps only the most recent other, and a check removes
    // those that are old, no longer published, or beyond two.
    void keptDownloadsArePruned()
    {
        const QString folder = DownloadManager::resumeFolder();
        QList<PackageInfo> published;
        for (int i = 0; i < 4; ++i) {
            published << package();
            published.last().url = QUrl(QString("http://127.0.0.1/dl/v%1.tar.gz").arg(i));
        }
        // The kept files of a package are named by its URL and hash.
        const auto keyOf = [&](int i) {
            const QByteArray identity
                = published.at(i).url.toEncoded() + '\n' + published.at(i).sha256.toLatin1();
            return QString::fromLatin1(
                QCryptographicHash::hash(identity, QCryptographicHash::Sha256).toHex().left(32));
        };
        const auto keep = [&](const QString &name, int daysOld) {
            QDir().mkpath(folder);
            for (const char *suffix : {".json", ".part"}) {
                QFile f(folder + "/" + name + suffix);
                QVERIFY(f.open(QIODevice::WriteOnly) && f.write("x") == 1 && f.flush());
                f.setFileTime(QDateTime::currentDateTime().addDays(-daysOld),
                              QFileDevice::FileModificationTime);
            }
        };
        const auto files = [&](int a, int b) { // the kept files of two packages
            QStringList names {keyOf(a) + ".json", keyOf(a) + ".part", keyOf(b) + ".json",
                               keyOf(b) + ".part"};
            names.sort();
            return names;
        };
        for (int i = 0; i < 3; ++i)
            keep(keyOf(i), i + 1);
        TestHttpServer server([&](const TestHttpServer::Request &) { return cutAfter(1000); });
        SUC_LISTEN_ON_PORT_80(server);
        QTemporaryDir dir;
        DownloadManager manager(QUrl("http://127.0.0.1/list.xml"));
        manager.setResumeDownloads(true);
        QSignalSpy failed(&manager, qOverload<int>(&DownloadManager::downloadFailure));
        manager.startDownload(published.at(3), dir.filePath("v.tar.gz"));
        QVERIFY(failed.wait(10000));
        QCOMPARE(kept(), files(0, 3));

        QDir(folder).removeRecursively();
        keep(keyOf(0), 1);
        keep(keyOf(1), 40); // older than 30 days
        keep("0123456789abcdef0123456789abcdef", 1); // not published
        keep(keyOf(2), 2);
        keep(keyOf(3), 3); // a third one: the oldest goes
        DownloadManager::pruneResumeFolder(published);
        QCOMPARE(kept(), files(0, 2));
    }

    // Transient failures are tried again after a back-off; others fail at once.
    void retries_data() { addRows("retries"); }
    void retries()
    {
        QFETCH(QString, first);
        QFETCH(int, requests);
        QFETCH(QList<int>, waits);
        QFETCH(bool, success);
        TestHttpServer server([&](const TestHttpServer::Request &) {
            const bool firstRequest = server.requests().size() == 1;
            if (first == "503 always" || (firstRequest && (first == "503" || first == "cancel"))) {
                Response r = Response::error(503, "busy");
                r.headers << qMakePair(QByteArray("Retry-After"), QByteArray("1"));
                return r;
            }
            if (firstRequest && first == "404")
                return Response::error(404, "gone");
            if (firstRequest && first == "cut")
                return cutAfter(1000);
            Response r = Response::ok(m_body);
            r.mode = firstRequest && first == "stall" ? Response::Stall : Response::Normal;
            r.sendBeforeStall = 100;
            return r;
        });
        SUC_LISTEN_ON_PORT_80(server);
        QTemporaryDir dir;
        DownloadManager manager(QUrl("http://127.0.0.1/list.xml"));
        manager.setDownloadRetries(row<int>("retries"));
        manager.setRetryUnit(50); // the waits, told in seconds, last 50 ms each
        manager.client().setTransferLimits(500, 0, 0);
        QSignalSpy ok(&manager, qOverload<>(&DownloadManager::downloadSuccess));
        QSignalSpy failed(&manager, qOverload<int>(&DownloadManager::downloadFailure));
        QSignalSpy aborted(&manager, &DownloadManager::downloadAborted);
        QSignalSpy retrying(&manager, &DownloadManager::downloadRetrying);
        if (first == "cancel")
            connect(&manager, &DownloadManager::downloadRetrying, &manager,
                    &DownloadManager::abortDownload, Qt::QueuedConnection);
        manager.startDownload(package(), dir.filePath("viewer.tar.gz"));
        QTRY_VERIFY(ok.size() + failed.size() + aborted.size() == 1);
        QTest::qWait(first == "cancel" ? 150 : 0); // the wait passes: nothing more is asked
        QCOMPARE(ok.size(), success ? 1 : 0);
        QCOMPARE(server.requests().size(), requests);
        QList<int> waited;
        for (const QList<QVariant> &r : std::as_const(retrying))
            waited << r.first().toInt();
        QCOMPARE(waited, waits);
        if (success)
            QCOMPARE(readFile(dir.filePath("viewer.tar.gz")), m_body);
    }
};

QTEST_MAIN(TestResume)
#include "tst_resume.moc"
