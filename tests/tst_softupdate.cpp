#include <DownloadManager.h>
#include <TestSupport.h>

#include <QCryptographicHash>
#include <QTemporaryDir>
#include <QtTest>

using qv::DownloadManager;
using qv::PackageInfoList;
using suc::test::MinisignTool;

// The publisher's command line, run as a program: what it writes is read by the client's own
// parser, and its signatures and minisign's verify each other.
class TestSoftupdate : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;

    struct Run {
        int code;
        QString out;
    };
    static Run softupdate(const QStringList &args, const QByteArray &input = QByteArray())
    {
        QProcess p;
        p.setProcessChannelMode(QProcess::MergedChannels);
        p.start(QStringLiteral(SUC_SOFTUPDATE), args);
        p.write(input);
        p.closeWriteChannel();
        if (!p.waitForFinished(30000))
            return {-100, QString()};
        return {p.exitCode(), QString::fromUtf8(p.readAll())};
    }
    static bool minisign(const QStringList &args, const QByteArray &input = QByteArray())
    {
        QProcess p;
        p.start("minisign", args);
        p.write(input);
        p.closeWriteChannel();
        return p.waitForFinished(30000) && p.exitCode() == 0;
    }
    QString writeFile(const QString &name, const QByteArray &content)
    {
        QFile f(m_dir.filePath(name));
        f.open(QIODevice::WriteOnly | QIODevice::Truncate);
        f.write(content);
        return f.fileName();
    }

private Q_SLOTS:
    void addFillsWhatTheClientReads()
    {
        const QByteArray body(3000, 'v');
        const QString package = writeFile("viewer-2.10.tar.gz", body);
        const QString catalogue = m_dir.filePath("list.xml");
        QFile::remove(catalogue);
        const QStringList common {"--type", "Application", "--name", "Viewer"};
        QCOMPARE(softupdate(QStringList {"add", catalogue, package} << common << "--release"
                                                                    << "2.10"
                                                                    << "--platform"
                                                                    << "linux"
                                                                    << "--platform"
                                                                    << "win32"
                                                                    << "--release-notes"
                                                                    << "de=http://x/de.html"
                                                                    << "--base-url"
                                                                    << "http://dl.example.test/"
                                                                    << "--expires"
                                                                    << "2030-01-31")
                     .code,
                 0);
        QCOMPARE(softupdate(QStringList {"add", catalogue, package} << common << "--release"
                                                                    << "2.11"
                                                                    << "--status"
                                                                    << "BETA")
                     .code,
                 0);
        QFile f(catalogue);
        QVERIFY(f.open(QIODevice::ReadOnly));
        const QByteArray xml = f.readAll();
        QVERIFY(xml.contains("serial=\"2\"") && xml.contains("expires=\"2030-01-31\""));
        f.seek(0);
        const PackageInfoList packages = DownloadManager::parseXML(&f);
        QCOMPARE(packages.size(), 2);
        const QString sha = QCryptographicHash::hash(body, QCryptographicHash::Sha256).toHex();
        QCOMPARE(packages.at(0).sha256, sha);
        QCOMPARE(packages.at(0).fileSize, qint64(3000));
        QCOMPARE(packages.at(0).url, QUrl("http://dl.example.test/viewer-2.10.tar.gz"));
        QCOMPARE(packages.at(0).suffix, QString("tar.gz"));
        QCOMPARE(packages.at(0).platforms, QStringSet({"linux", "win32"}));
        QCOMPARE(packages.at(0).releaseNotes.value("de"), QUrl("http://x/de.html"));
        QCOMPARE(packages.at(0).releaseDate.date(), QFileInfo(package).lastModified().date());
        QCOMPARE(packages.at(1).status, QString("BETA"));
        QCOMPARE(packages.at(1).release, QString("2.11"));
    }

    void refusals_data()
    {
        QTest::addColumn<QStringList>("args"); // "@" is the test folder
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("message");
        QTest::newRow("no command") << QStringList() << 2 << "usage";
        QTest::newRow("add without --type")
            << QStringList {"add", "@/c.xml", "@/p.zip", "--name", "V", "--release", "1"} << 2
            << "--type";
        QTest::newRow("add with another type")
            << QStringList {"add",    "@/c.xml", "@/p.zip",   "--type", "Tool",
                            "--name", "V",       "--release", "1"}
            << 2 << "Camera Firmware";
        QTest::newRow("add a missing file")
            << QStringList {"add",    "@/c.xml", "@/none.zip", "--type", "Application",
                            "--name", "V",       "--release",  "1"}
            << 1 << "cannot read";
        QTest::newRow("add to a catalogue with a DTD")
            << QStringList {"add",    "@/dtd.xml", "@/p.zip",   "--type", "Application",
                            "--name", "V",         "--release", "1"}
            << 1 << "not a catalogue";
        QTest::newRow("sign without a key") << QStringList {"sign", "@/c.xml"} << 2 << "--key";
        QTest::newRow("verify with junk for a key")
            << QStringList {"verify", "@/c.xml", "--key", "nonsense"} << 2
            << "not a minisign public key";
    }
    void refusals()
    {
        QFETCH(QStringList, args);
        QFETCH(int, code);
        QFETCH(QString, message);
        writeFile("p.zip", "zip");
        writeFile("dtd.xml", "<!DOCTYPE s [<!ENTITY a 'x'>]><softwareList/>");
        args.replaceInStrings("@", m_dir.path());
        const Run run = softupdate(args);
        QCOMPARE(run.code, code);
        QVERIFY2(run.out.contains(message), qPrintable(run.out));
    }

    // Each tool verifies the other's signatures, with plain and password-protected keys.
    void signaturesInterchange_data()
    {
        QTest::addColumn<bool>("encrypted");
        QTest::addColumn<QString>("signer"); // "softupdate", "minisign", "minisign legacy"
        for (bool encrypted : {false, true}) {
            for (const char *signer : {"softupdate", "minisign", "minisign legacy"})
                QTest::newRow(qPrintable(
                    QString("%1, %2 signs").arg(encrypted ? "encrypted key" : "plain key", signer)))
                    << encrypted << QString(signer);
        }
    }
    void signaturesInterchange()
    {
        QFETCH(bool, encrypted);
        QFETCH(QString, signer);
        const QString pub = m_dir.filePath("k.pub"), sec = m_dir.filePath("k.key");
        QFile::remove(pub);
        QFile::remove(sec);
        QStringList generate {"-G", "-f", "-p", pub, "-s", sec};
        if (!encrypted)
            generate << "-W";
        QVERIFY(minisign(generate, "pw\npw\n"));
        const QString catalogue
            = writeFile("signed.xml", "<softwareList serial='3' expires='2030-01-01'/>");
        QFile::remove(catalogue + ".minisig");
        if (signer == "softupdate") {
            const Run run = softupdate({"sign", catalogue, "--key", sec}, "pw\n");
            QVERIFY2(run.code == 0, qPrintable(run.out));
            QVERIFY(minisign({"-V", "-p", pub, "-m", catalogue}));
        } else {
            QStringList args {"-S", "-s", sec, "-m", catalogue};
            if (signer.endsWith("legacy"))
                args << "-l";
            QVERIFY(minisign(args, "pw\n"));
        }
        const Run verified = softupdate({"verify", catalogue, "--key", pub});
        QVERIFY2(verified.code == 0, qPrintable(verified.out));
        writeFile("signed.xml", "<softwareList serial='4' expires='2030-01-01'/>");
        QCOMPARE(softupdate({"verify", catalogue, "--key", pub}).code, 1);
        if (encrypted && signer == "softupdate") {
            const Run wrong = softupdate({"sign", catalogue, "--key", sec}, "not the password\n");
            QCOMPARE(wrong.code, 1);
            QVERIFY(wrong.out.contains("wrong password"));
        }
    }
};

QTEST_GUILESS_MAIN(TestSoftupdate)
#include "tst_softupdate.moc"
