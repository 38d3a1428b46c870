#include <DownloadManager.h>
#include <qv/Exceptions.h>
#include <qv/LogQt.h>
#include <qv/ZipReader.h>

#include <TestSupport.h>

using namespace qv;
using namespace suc::test;

namespace {

const QString corpus = QStringLiteral(SUC_CORPUS_DIR);

// Files that escaping entries of the hostile corpus would create.
const QStringList escapes {"/tmp/suc-escape-dotdot.txt", "/tmp/suc-escape-absolute.txt",
                           "/tmp/suc-escape-link.txt", "/suc-escape-rel.txt",
                           "/tmp/suc-escape-rel.txt"};

} // namespace

class TestInstallation : public QObject {
    Q_OBJECT

    QTemporaryDir m_tmp;

private Q_SLOTS:
    void initTestCase()
    {
        // Unpacking makes folders in the temporary folder: one of this program's own, so that
        // tests running beside it never count in.
        QVERIFY(m_tmp.isValid());
        qputenv("TMPDIR", QFile::encodeName(m_tmp.path()));
        QVERIFY2(QFile::exists(corpus + "/good.zip"), "run the corpus fixture first");
        for (const QString &e : escapes)
            QFile::remove(e);
        ZipReader::setDefaultLimits({64 << 20, 1000});
    }

    void oneUnpackingPerManager()
    {
        QTemporaryDir dir;
        QVERIFY(QFile::copy(corpus + "/good.zip", dir.filePath("a.zip")));
        QVERIFY(QFile::copy(corpus + "/good.zip", dir.filePath("b.zip")));
        const QStringList tempBefore = QDir::temp().entryList({"softwareupdate-*"});
        DownloadManager manager;
        QSignalSpy done(&manager, &DownloadManager::unzippingDone);
        LogQt::setLevel(Log::Debug);
        for (const QString name : {"a.zip", "b.zip"}) {
            QTest::ignoreMessage(QtDebugMsg,
                                 QRegularExpression("DownloadManager::installPackage\\(\\) -> "
                                                    "trying to extract .*"
                                                    + name + " to "));
            manager.unzipPackage(dir.filePath(name));
        }
        LogQt::setLevel(Log::Warning);
        QVERIFY(done.wait(10000));
        QVERIFY(!done.wait(200)); // the second call unpacks nothing
        QVERIFY(QFile::exists(dir.filePath("b.zip")));
        QDir(done.first().first().toString()).removeRecursively();
        QCOMPARE(QDir::temp().entryList({"softwareupdate-*"}), tempBefore); // no folder for b.zip
    }

    // "failure" is a pattern of the message; empty: the archive unpacks, contained, and goes.
    // "dl/..", a path that names the download's folder, is not read, and nothing beside it goes.
    void hostileArchivesAreRefusedOrContained_data() { addRows("installation-hostile-archives"); }
    void hostileArchivesAreRefusedOrContained()
    {
        QFETCH(QString, archive);
        QFETCH(QString, failure);
        QTemporaryDir dir;
        const QString copy = dir.filePath(archive);
        if (archive == "dl/..")
            QVERIFY(QDir().mkpath(dir.filePath("dl"))
                    && QFile::copy(corpus + "/good.zip", dir.filePath("other.zip")));
        else if (!QFile::exists(corpus + "/" + archive))
            QSKIP("bsdtar could not write this format here");
        else
            QVERIFY(QFile::copy(corpus + "/" + archive, copy));
        const QStringList before = filesBelow(dir.path());
        const QStringList tempBefore = QDir::temp().entryList({"softwareupdate-*"});
        DownloadManager manager;
        QSignalSpy done(&manager, &DownloadManager::unzippingDone);
        BoxAnswerer answerer;
        manager.unzipPackage(copy);
        QTRY_VERIFY(done.count() + answerer.seen.size() > 0);
        for (const QString &e : escapes)
            QVERIFY2(!QFile::exists(e), qPrintable(e + " was written"));
        if (!failure.isEmpty()) {
            QCOMPARE(done.count(), 0);
            QVERIFY2(answerer.seen.first().contains("Downloaded file could not be unpacked:<br>"),
                     qPrintable(answerer.seen.first()));
            QVERIFY2(answerer.seen.first().contains(QRegularExpression(failure)),
                     qPrintable(answerer.seen.first()));
            QCOMPARE(filesBelow(dir.path()), before); // the archive stays after a failure
            // and what was unpacked before the failure goes
            QCOMPARE(QDir::temp().entryList({"softwareupdate-*"}), tempBefore);
        } else if (done.count()) {
            const QString folder = done.first().first().toString();
            QVERIFY(!QFile::exists(copy)); // the archive goes once it is unpacked
            for (const QString &f : filesBelow(folder))
                QVERIFY(!QFileInfo(folder + "/" + f).isSymLink());
            if (archive == "good.zip") {
                QCOMPARE(filesBelow(folder),
                         QStringList({"bin", "bin/app", "share", "share/readme.txt"}));
                QVERIFY(QFileInfo(folder + "/bin/app").isExecutable());
                QCOMPARE(manager.findDefaultExecutable(QDir(folder)), QString("bin/app"));
            }
            if (archive == "fifo.zip") // ZIP readers know no FIFOs: an empty file, never a pipe
                QVERIFY(QFileInfo(folder + "/pipe").isFile());
            if (archive == "setuid.zip")
                QCOMPARE(QFileInfo(folder + "/tool").permissions() & 0x7777,
                         QFile::Permissions(0x7755));
            if (archive == "duplicate.zip") {
                QCOMPARE(readFile(folder + "/same.txt"), QByteArray("first"));
            }
            QDir(folder).removeRecursively();
        }
    }

    void readerProgressAndCancel()
    {
        QTemporaryDir dir;
        ZipReader reader(corpus + "/many-entries.zip");
        reader.setLimits({1 << 30, 100000});
        reader.open(QIODevice::ReadOnly);
        const QStringList names = reader.fileList(QRegularExpression("^e/0000"));
        QCOMPARE(names.size(), 10);
        QCOMPARE(reader.fileList().size(), 5000);
        QProgressDialog progress;
        progress.setMinimumDuration(0);
        reader.attachProgressDialog(&progress);
        QTimer::singleShot(0, &progress, &QProgressDialog::cancel);
        reader.extractFiles(reader.fileList(), dir.path(), false);
        QVERIFY(reader.wasCanceled());
        QVERIFY(filesBelow(dir.path()).size() < 5001);

        ZipReader broken(dir.filePath("missing.zip"));
        QVERIFY_THROWS_EXCEPTION(IOException, broken.open(QIODevice::ReadOnly));
        QVERIFY_THROWS_EXCEPTION(IOException, broken.fileList());
    }

    void defaultExecutable_data() { addRows("installation-default-executable"); }
    void defaultExecutable()
    {
        QTemporaryDir dir;
        for (const QString &file : row<QStringList>("files")) {
            const QStringList parts = file.split(':');
            writeFile(dir.filePath(parts.at(0)), QByteArray(parts.at(1).toInt(), 'x'),
                      parts.at(2) == "x" ? 0755 : 0644);
        }
        DownloadManager manager;
        QTEST(manager.findDefaultExecutable(QDir(dir.path())), "expected");
    }

    void pendingInstallation_data() { addRows("installation-pending-installation"); }
    void pendingInstallation()
    {
        QFETCH(qint64, onDisk);
        QTemporaryDir dir;
        const QString file = dir.filePath("pkg.zip");
        if (onDisk >= 0)
            writeFile(file, QByteArray(onDisk, 'x'));
        DownloadManager manager;
        QVERIFY(!manager.hasInstallPackage());
        PackageInfo info;
        info.name = "Viewer";
        info.fileSize = 1000;
        info.localFile = file;
        manager.installLater(info, true);
        QTEST(manager.hasInstallPackage(), "ready");
        QVERIFY(manager.installPackage().spareFlag);
        QCOMPARE(manager.installPackage().name, QString("Viewer"));
        manager.installLater(dir.filePath("other.zip"), "/opt/UpdateInstaller", "/opt/viewer");
        QCOMPARE(manager.installPackage().localFile, dir.filePath("other.zip"));
        QCOMPARE(manager.installPaths(), QStringList({"/opt/UpdateInstaller", "/opt/viewer", ""}));
        QVERIFY(!manager.hasInstallPackage());
    }

    void runInstallerStartsOnlyZip_data() { addRows("installation-run-installer-starts-only-zip"); }
    void runInstallerStartsOnlyZip()
    {
        DownloadManager manager;
        try {
            manager.runInstaller(row<QString>("file"));
            QFAIL("no exception");
        } catch (const ExceptionQt &e) {
            QCOMPARE(e.message(), QString("execl() failed"));
        }
    }

    // The process-replacing calls run in a helper process against fake programs that record
    // the argument vector they receive. Without the updater ("exe" empty) the call returns.
    void startUpdatePassesItsArguments_data() { addRows("installation-start-update-arguments"); }
    void startUpdatePassesItsArguments()
    {
        QFETCH(QString, oldDir);
        QFETCH(QString, exe);
        QTemporaryDir dir;
        const QString recorder
            = dir.filePath(exe.isEmpty() ? "missing/UpdateInstaller" : "Update Installer ö");
        const QString argvFile = dir.filePath("argv.txt");
        if (!exe.isEmpty())
            writeRecorder(recorder, argvFile);
        // Returned, or the recorder replaced the helper.
        QCOMPARE(run(SUC_EXEC_HELPER, {"startUpdate", recorder, oldDir, "/tmp/new ß", exe}).code,
                 exe.isEmpty() ? 3 : 0);
        QCOMPARE(readArgv(argvFile),
                 exe.isEmpty() ? QStringList()
                               : QStringList({recorder, "-oldDir", oldDir, "-newDir", "/tmp/new ß",
                                              "-exe", exe}));
    }

    void zipInstallerHandsOverToTheShell()
    {
        QTemporaryDir dir;
        const QString chosen = dir.filePath("install here");
        QDir().mkpath(chosen);
        const QString argvFile = dir.filePath("argv.txt");
        // execl("sh", ...) does not search the PATH: it runs ./sh from the working folder.
        writeRecorder(dir.filePath("sh"), argvFile);
        QCOMPARE(runZipInstaller(dir.path(), corpus + "/good.zip", chosen).code, 0);
        const QStringList argv = readArgv(argvFile);
        const QString unpacked = argv.value(3);
        QVERIFY(unpacked.startsWith(dir.path() + "/softwareupdate-"));
        // The chosen folder travels as 16-bit character data: an ASCII path reads as its first
        // character ("/").
        QCOMPARE(argv,
                 QStringList({"sh", "cp", "-fr", unpacked, "/", "&&rm", "-fr", unpacked, "&&",
                              chosen + "/bin/app"}));
        QCOMPARE(filesBelow(unpacked),
                 QStringList({"bin", "bin/app", "share", "share/readme.txt"}));
    }

    void zipInstallerReportsAndRethrowsArchiveErrors_data()
    {
        addRows("installation-zip-installer-archive-errors");
    }
    void zipInstallerReportsAndRethrowsArchiveErrors()
    {
        QFETCH(QString, archive);
        QTemporaryDir dir;
        const Run done = runZipInstaller(dir.path(), corpus + "/" + archive, dir.path());
        QCOMPARE(done.code, 4);
        QVERIFY(done.out.contains("box: Unpacking failed | "));
        for (const QString &e : escapes)
            QVERIFY(!QFile::exists(e));
    }

private:
    // Runs runZipInstaller in the helper, in `folder` (its working and temporary folder),
    // answering the folder chooser with `choice`.
    static Run runZipInstaller(const QString &folder, const QString &archive, const QString &choice)
    {
        return run("sh",
                   {"-c", "cd \"$0\" && TMPDIR=\"$0\" exec \"$1\" runZipInstaller \"$2\" \"$3\"",
                    folder, SUC_EXEC_HELPER, archive, choice});
    }

    static void writeRecorder(const QString &path, const QString &argvFile)
    {
        QVERIFY(writeFile(
            path, "#!/bin/sh\nprintf '%s\\n' \"$0\" \"$@\" > '" + argvFile.toUtf8() + "'\n", 0755));
    }
    static QStringList readArgv(const QString &file)
    {
        return QString::fromUtf8(readFile(file)).split('\n', Qt::SkipEmptyParts);
    }
};

QTEST_MAIN(TestInstallation)
#include "tst_installation.moc"
