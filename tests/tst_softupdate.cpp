#include <ClientCheck.h>
#include <DownloadManager.h>
#include <PrivateNetwork.h>
#include <TestHttpServer.h>

using namespace qv;
using namespace suc::test;

// nginx serves packages on port 80: this test has a loopback of its own.
SUC_PRIVATE_NETWORK_BEFORE_MAIN

// The publisher's command line, run as a program: what it writes is read by the client's own
// parser, and its signatures and minisign's verify each other.
class TestSoftupdate : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;

    static Run softupdate(const QStringList &args, const QByteArray &input = QByteArray())
    {
        return run(SUC_SOFTUPDATE, args, input);
    }
    // What the user is offered for `catalogueUrl`, as the list shows it ("a | b | c" per row).
    // A client that has checked before (`fresh` false) keeps the serials it accepted.
    static QStringList clientRows(const QString &catalogueUrl, const QStringList &keys,
                                  const SoftUpCurrentCameraVersions &cameras, bool fresh = true)
    {
        if (fresh)
            clientStore().clear();
        SoftwareUpdateClient client("Viewer", VersionNumber("2.9.1"), catalogueUrl, nullptr);
        client.setTrustedKeys(keys);
        client.setCurrentCameraVersions(cameras);
        QStringList rows = checkFromDialog(&client, true);
        if (rows.size() == 1 && !rows.first().contains(" | ") && rows.first() != "no outcome")
            rows.clear(); // the notification line: no package is offered
        closeAllWindows();
        return rows;
    }
    static QStringList offerRows(const Run &run)
    {
        QStringList rows = run.out.split('\n', Qt::SkipEmptyParts);
        rows.removeIf([](const QString &l) { return !l.contains(" | "); });
        return rows;
    }
    QString writeFile(const QString &name, const QByteArray &content)
    {
        suc::test::writeFile(m_dir.filePath(name), content);
        return m_dir.filePath(name);
    }

private Q_SLOTS:
    void initTestCase()
    {
        // A store of its own: another run of this program may be going on beside it.
        useOwnClientStore("softupdate");
    }
    void cleanupTestCase() { removeOwnClientStore(); }

    // lint: one line per finding with its line number; exit 0 clean, 1 warnings, 2 errors. Each
    // row changes one thing in a clean catalogue ("HASH" stands for its sha256).
    void lint_data() { addRows("softupdate-lint"); }
    void lint()
    {
        QFETCH(QString, replace);
        QFETCH(QString, with);
        QFETCH(int, code);
        const QString hash(64, 'a');
        QString catalogue = QString::fromUtf8(testData("softupdate/lint.xml"));
        catalogue.replace("HASH", hash);
        if (!replace.isEmpty())
            catalogue.replace(replace.replace("HASH", hash), with.replace("HASH", hash));
        const Run run = softupdate(QStringList {"lint", writeFile("lint.xml", catalogue.toUtf8())}
                                   << row<QStringList>("options"));
        QCOMPARE(run.code, code);
        QVERIFY2(run.out.contains(row<QString>("finding")), qPrintable(run.out));
    }

    // offer runs the client's own check: it agrees with the client on every catalogue here, and
    // with --install-mode complete, with a client in CompleteInstall (a ZIP application package
    // is offered there, and only there).
    void offerAgreesWithTheClient_data()
    {
        QTest::addColumn<QString>("catalogue");
        QTest::addColumn<bool>("complete");
        for (const QString &name : QDir(SUC_TEST_DATA_DIR).entryList({"*.xml"}))
            QTest::newRow(qPrintable(name)) << name << false;
        QTest::newRow("zip-application.xml, complete install") << "zip-application.xml" << true;
    }
    void offerAgreesWithTheClient()
    {
        QFETCH(QString, catalogue);
        QFETCH(bool, complete);
        const QByteArray xml = testData(catalogue);
        TestHttpServer server([&](const TestHttpServer::Request &) {
            return TestHttpServer::Response::ok(xml, "text/xml");
        });
        QVERIFY(server.listen(QHostAddress::LocalHost));
        SoftwareUpdateClient::setInstallMode(complete ? SoftwareUpdateClient::CompleteInstall
                                                      : SoftwareUpdateClient::DesignedInstall);
        const QStringList client
            = clientRows(QString::fromLatin1(server.url("/list.xml")), {},
                         {{"M1004", VersionNumber("5.2.1")}, {"P3301", VersionNumber("4.0")}});
        SoftwareUpdateClient::setInstallMode(SoftwareUpdateClient::DesignedInstall);
        const Run offer
            = softupdate({"offer", "--file", QString(SUC_TEST_DATA_DIR "/") + catalogue, "--app",
                          "Viewer", "--version", "2.9.1", "--camera", "M1004=5.2.1", "--camera",
                          "P3301=4.0", "--install-mode", complete ? "complete" : "designed"});
        QCOMPARE(offer.code, client.isEmpty() ? 0 : 10);
        QCOMPARE(offerRows(offer), client);
        if (catalogue == "zip-application.xml")
            QCOMPARE(client.size(), complete ? 1 : 0);
    }

    // serve hands out the files of its folder and nothing outside it; offer reports a dead
    // server as an error.
    void serveAndOfferErrors()
    {
        writeFile("secret.txt", "outside"); // beside the served folder
        const QString www = QFileInfo(writeFile("www/list.xml", "<softwareList/>")).path();
        QProcess serve;
        serve.start(SUC_SOFTUPDATE, {"serve", www, "--port", "18437"});
        QVERIFY(serve.waitForReadyRead(10000));
        QVERIFY(serve.readAll().contains("port 80"));
        const auto get = [](const QByteArray &path) {
            QTcpSocket s;
            s.connectToHost("127.0.0.1", 18437);
            s.waitForConnected(5000);
            s.write((path.contains(' ') ? path : "GET " + path) + " HTTP/1.0\r\n\r\n");
            while (s.state() == QAbstractSocket::ConnectedState && s.waitForReadyRead(5000)) { }
            return s.readAll();
        };
        QVERIFY(get("/list.xml").contains("<softwareList/>"));
        QByteArray logged;
        QTRY_VERIFY((logged += serve.readAll()).contains("GET /list.xml 200 15"));
        const QByteArray head = get("HEAD /list.xml");
        QVERIFY2(head.startsWith("HTTP/1.0 200") && head.contains("Content-Length: 15")
                     && head.endsWith("\r\n\r\n"),
                 head.constData());
        QVERIFY(get("POST /list.xml").startsWith("HTTP/1.0 405"));
        QVERIFY(get("/../secret.txt").startsWith("HTTP/1.0 404"));
        QVERIFY(get("/%2e%2e/secret.txt").startsWith("HTTP/1.0 404"));
        QVERIFY(QFile::link(m_dir.filePath("secret.txt"), www + "/link.txt")); // leads outside
        QVERIFY(get("/link.txt").startsWith("HTTP/1.0 404"));
        // Secret keys and hidden files never leave the folder.
        for (const char *hidden : {"/updates.key", "/.env", "/.git/config", "/sub/.hidden"}) {
            writeFile(QString("www") + hidden, "secret");
            QVERIFY2(get(hidden).startsWith("HTTP/1.0 404"), hidden);
        }
        serve.kill();
        serve.waitForFinished();
        const Run dead = softupdate({"offer", "--server", "http://127.0.0.1:9/list.xml", "--app",
                                     "Viewer", "--version", "1"});
        QCOMPARE(dead.code, 3);
        QVERIFY2(dead.out.contains("refused"), qPrintable(dead.out));
    }

    // A real server: softupdate builds and signs the catalogue of a folder, nginx serves it on
    // port 80, the client checks, downloads and verifies a package, and offer says the same.
    void nginxServesWhatSoftupdatePublished()
    {
        const QString nginxProgram
            = QStandardPaths::findExecutable("nginx", {"/usr/sbin", "/usr/bin"});
        if (nginxProgram.isEmpty())
            QSKIP("nginx is not installed (Debian package nginx-light)");
        QTemporaryDir dir;
        MinisignTool keys(dir.filePath("keys"));
        QVERIFY(keys.isValid());
        // Large enough to be cut off and resumed below.
        QByteArray body(8 << 20, Qt::Uninitialized);
        for (int i = 0; i < body.size(); ++i)
            body[i] = char(i % 251);
        const QString package = dir.filePath("www/viewer-3.0.tar.gz");
        const QString list = dir.filePath("www/list.xml");
        QVERIFY(suc::test::writeFile(package, body) && QDir().mkpath(dir.filePath("tmp")));
        QCOMPARE(softupdate({"add", list, package, "--type", "Application", "--name", "Viewer",
                             "--base-url", "http://127.0.0.1/", "--release", "3.0"})
                     .code,
                 0);
        QCOMPARE(softupdate({"sign", list, "--key", keys.secretKeyFile()}).code, 0);
        const QString conf = writeFile(
            "nginx.conf", QString::fromUtf8(testData("nginx.conf")).arg(dir.path()).toUtf8());
        QProcess nginx;
        nginx.start(nginxProgram, {"-c", conf, "-p", dir.path(), "-e", dir.filePath("error.log")});
        QVERIFY(nginx.waitForStarted());
        QTRY_VERIFY([] {
            QTcpSocket s;
            s.connectToHost("127.0.0.1", 80);
            return s.waitForConnected(200);
        }());

        const QStringList rows = clientRows("http://127.0.0.1/list.xml", {keys.publicKey()}, {});
        QCOMPARE(rows.size(), 1);
        QVERIFY2(rows.first().startsWith("Viewer 3.0 | "), qPrintable(rows.join('\n')));
        const Run offer
            = softupdate({"offer", "--server", "http://127.0.0.1/list.xml", "--app", "Viewer",
                          "--version", "2.9.1", "--keys", keys.publicKeyFile()});
        QCOMPARE(offer.code, 10);
        QCOMPARE(offerRows(offer), rows);

        // A package from nginx on port 80, verified as it streams; nginx answers ranges, so a
        // download cut off early resumes where it stopped.
        QFile catalogueFile(list);
        QVERIFY(catalogueFile.open(QIODevice::ReadOnly));
        PackageInfo info = DownloadManager::parseXML(&catalogueFile).value(0);
        qputenv("XDG_STATE_HOME", QFile::encodeName(dir.filePath("state")));
        const auto unsetState = qScopeGuard([] { qunsetenv("XDG_STATE_HOME"); });
        qint64 firstProgress = -1;
        for (const bool cut : {true, false}) {
            DownloadManager resuming(QUrl("http://127.0.0.1/list.xml"));
            resuming.setTrustedKeys({keys.publicKey()});
            resuming.setResumeDownloads(true);
            QSignalSpy done(&resuming, qOverload<>(&DownloadManager::downloadSuccess));
            QSignalSpy aborted(&resuming, &DownloadManager::downloadAborted);
            connect(&resuming, &DownloadManager::downloadProgress, &resuming, [&](int bytes) {
                if (cut && bytes > (1 << 20))
                    resuming.abortDownload();
                if (!cut && firstProgress < 0)
                    firstProgress = bytes;
            });
            resuming.startDownload(info, dir.filePath("downloaded.tar.gz"));
            QTRY_VERIFY(done.size() + aborted.size() > 0);
        }
        // The second download counted on from the kept part: it asked nginx for the rest only.
        QVERIFY2(firstProgress >= (1 << 20), qPrintable(QString::number(firstProgress)));
        const QList<QByteArray> served = readFile(dir.filePath("access.log")).trimmed().split('\n');
        QVERIFY2(served.last().contains("\"GET /viewer-3.0.tar.gz HTTP/1.1\" 206 "),
                 served.last().constData());
        QCOMPARE(readFile(dir.filePath("downloaded.tar.gz")), body);

        nginx.terminate();
        QVERIFY(nginx.waitForFinished(10000));
    }

    // add fills what the client reads, and edits in place: what the publisher wrote (attribute
    // order, quotes, comments) stays, and only the serial, the expiry and the packages change.
    void addFillsWhatTheClientReads()
    {
        const QByteArray kept = "  <!-- kept as written -->\n  <package url='a.tar.gz' "
                                "type='Application' name='V' release='1'/>\n";
        const QString catalogue
            = writeFile("list.xml",
                        "<softwareList expires='2099-01-01' serial='5' base-url='http://h/'>\n"
                            + kept + "</softwareList>\n");
        const QByteArray body(3000, 'v');
        const QString package = writeFile("viewer-2.10.tar.gz", body);
        const QStringList common {"--type", "Application", "--name", "Viewer", "--release"};
        QCOMPARE(softupdate(QStringList {"add", catalogue, package} + common
                            + QStringList {"2.10", "--platform", "linux", "--platform", "win32",
                                           "--release-notes", "de=http://x/de.html", "--base-url",
                                           "http://dl.example.test/"})
                     .code,
                 0);
        QByteArray xml = readFile(catalogue);
        // Renewed for 90 days unless told otherwise.
        const QByteArray start = "<softwareList expires='"
            + QDate::currentDate().addDays(90).toString(Qt::ISODate).toUtf8() + "' serial='20";
        QVERIFY2(
            xml.startsWith(start)
                && xml.contains(QByteArray("' base-url='http://h/'>\n" + kept + "  <package type="))
                && xml.endsWith("</package>\n</softwareList>\n"),
            xml.constData());
        const QString beta = writeFile("viewer-2.11.tar.gz", body);
        const QStringList second = QStringList {"add", catalogue, beta} + common
            + QStringList {"2.11", "--status", "BETA", "--lifetime", "30"};
        // Published twice, the same file keeps one entry.
        QCOMPARE(softupdate(second).code, 0);
        const Run again = softupdate(second);
        QVERIFY2(again.code == 0 && again.out.startsWith("replaced Viewer 2.11"),
                 qPrintable(again.out));
        xml = readFile(catalogue);
        // The serial is at least the UTC time as yyyymmddHHMMSS; the expiry renewed by 30 days.
        const qint64 serial = xml.mid(xml.indexOf("serial='") + 8, 14).toLongLong();
        QVERIFY2(serial >= QDateTime::currentDateTimeUtc()
                               .addSecs(-60)
                               .toString("yyyyMMddHHmmss")
                               .toLongLong(),
                 xml.constData());
        const QByteArray renewed
            = "expires='" + QDate::currentDate().addDays(30).toString(Qt::ISODate).toUtf8();
        QVERIFY(xml.startsWith(QByteArray("<softwareList " + renewed)));
        QBuffer buffer(&xml);
        QVERIFY(buffer.open(QIODevice::ReadOnly));
        const PackageInfoList packages = DownloadManager::parseXML(&buffer);
        QCOMPARE(packages.size(), 3);
        const QString sha = QCryptographicHash::hash(body, QCryptographicHash::Sha256).toHex();
        QCOMPARE(packages.at(1).sha256, sha);
        QCOMPARE(packages.at(1).fileSize, qint64(3000));
        QCOMPARE(packages.at(1).url, QUrl("http://dl.example.test/viewer-2.10.tar.gz"));
        QCOMPARE(packages.at(1).suffix, QString("tar.gz"));
        QCOMPARE(packages.at(1).platforms, QStringSet({"linux", "win32"}));
        QCOMPARE(packages.at(1).releaseNotes.value("de"), QUrl("http://x/de.html"));
        QCOMPARE(packages.at(1).releaseDate.date(), QFileInfo(package).lastModified().date());
        QCOMPARE(packages.at(2).status, QString("BETA"));
        QCOMPARE(packages.at(2).release, QString("2.11"));
    }

    void refusals_data() { addRows("softupdate-refusals"); }
    void refusals()
    {
        QFETCH(QStringList, args);
        QFETCH(int, code);
        writeFile("p.zip", "zip");
        writeFile("dtd.xml", "<!DOCTYPE s [<!ENTITY a 'x'>]><softwareList/>");
        writeFile("c.xml", "<softwareList serial='7' expires='2099-01-01'/>");
        writeFile("lower.xml", "<softwareList serial='2' expires='2099-01-01'/>");
        writeFile("binary.xml", QByteArray("<softwareList\0\x01\xff>", 17));
        args.replaceInStrings("@", m_dir.path());
        const Run run = softupdate(args);
        QCOMPARE(run.code, code);
        QVERIFY2(run.out.contains(row<QString>("message")), qPrintable(run.out));
    }

    // What an attacker or a careless publisher hands the tool: it neither crashes nor writes a
    // catalogue that no client can read.
    // "@" is the test folder, "URL" the test server.
    void hostileInput_data() { addRows("softupdate-hostile-input"); }
    void hostileInput()
    {
        QFETCH(QStringList, args);
        const QByteArray catalogue = testData("softupdate/hostile.xml");
        const QString file = writeFile("c.xml", catalogue);
        writeFile("bad\x01name.zip", "zip");
        writeFile("v 1#2.zip", "zip");
        TestHttpServer endless([](const TestHttpServer::Request &) {
            TestHttpServer::Response r = TestHttpServer::Response::ok(QByteArray(40 << 20, 'x'));
            r.announcedLength = -2; // no length: read until it ends
            return r;
        });
        QVERIFY(endless.listen(QHostAddress::LocalHost));
        args.replaceInStrings("@", m_dir.path());
        args.replaceInStrings("URL", QString::fromLatin1(endless.url("/list.xml")));
        const Run done = run(SUC_SOFTUPDATE, args); // this process serves the URL meanwhile
        QVERIFY2(row<QList<int>>("codes").contains(done.code)
                     && done.out.contains(row<QString>("said")),
                 qPrintable(QString::number(done.code) + ": " + done.out));
        QByteArray now = readFile(file);
        if (args.first() != u"add" || done.code != 0) {
            QCOMPARE(now, catalogue); // unchanged
            return;
        }
        // The name is one encoded URL segment, and the client reads it back whole.
        QBuffer buffer(&now);
        QVERIFY(buffer.open(QIODevice::ReadOnly));
        const PackageInfoList packages = DownloadManager::parseXML(&buffer);
        QCOMPARE(packages.size(), 2);
        QCOMPARE(packages.last().url.fileName(), QString("v 1#2.zip"));
        QCOMPARE(packages.last().suffix, QString("zip"));
    }

    // Each tool verifies the other's signatures, with plain and password-protected keys.
    // Only softupdate decrypts a key: verifying never depends on how the secret is kept.
    void signaturesInterchange_data() { addRows("softupdate-signatures-interchange"); }
    void signaturesInterchange()
    {
        QFETCH(bool, encrypted);
        QFETCH(QString, signer);
        // A plain pair made for the row; the encrypted one (password "pw", cheap to derive) is in
        // tests/data/keys.
        const MinisignTool plain(m_dir.filePath("plain"));
        QVERIFY(plain.isValid());
        const QString keys = SUC_TEST_DATA_DIR "/keys/encrypted";
        const QString pub = encrypted ? keys + ".pub" : plain.publicKeyFile();
        const QString sec = encrypted ? keys + ".key" : plain.secretKeyFile();
        const QString catalogue
            = writeFile("signed.xml", "<softwareList serial='3' expires='2030-01-01'/>");
        QFile::remove(catalogue + ".minisig");
        if (signer == "softupdate") {
            const Run run = softupdate({"sign", catalogue, "--key", sec}, "pw\n");
            QVERIFY2(run.code == 0, qPrintable(run.out));
            QCOMPARE(suc::test::run("minisign", {"-V", "-p", pub, "-m", catalogue}).code, 0);
        } else {
            QStringList args {"-S", "-s", sec, "-m", catalogue};
            if (signer.endsWith("legacy"))
                args << "-l";
            QCOMPARE(suc::test::run("minisign", args, "pw\n").code, 0);
        }
        const Run verified = softupdate({"verify", catalogue, "--key", pub});
        QVERIFY2(verified.code == 0, qPrintable(verified.out));
        writeFile("signed.xml", "<softwareList serial='4' expires='2030-01-01'/>");
        // Changed after signing: verify and lint (given the key) say so before any client sees it.
        for (const char *command : {"verify", "lint"}) {
            const Run stale = softupdate({command, catalogue, "--key", pub});
            QCOMPARE(stale.code, 2);
            QVERIFY2(stale.out.contains("signature is stale: run softupdate sign"),
                     qPrintable(stale.out));
        }
        if (encrypted && signer == "softupdate") {
            const Run wrong = softupdate({"sign", catalogue, "--key", sec}, "not the password\n");
            QCOMPARE(wrong.code, 3);
            QVERIFY(wrong.out.contains("wrong password"));
        }
    }
};

QTEST_MAIN(TestSoftupdate)
#include "tst_softupdate.moc"
