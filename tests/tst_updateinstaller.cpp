#include <QProcess>
#include <QStorageInfo>
#include <QTemporaryDir>
#include <QtTest>

// Runs the UpdateInstaller program on application folders made here. Each fake application's
// program appends its version to a marker file when it starts.
class TestUpdateInstaller : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_marker;

    static void makeApp(const QString &folder, const QString &version, bool executable = true)
    {
        QDir().mkpath(folder + "/lib");
        QFile v(folder + "/version.txt");
        v.open(QIODevice::WriteOnly);
        v.write(version.toUtf8());
        v.close();
        QFile data(folder + "/lib/data.bin");
        data.open(QIODevice::WriteOnly);
        data.write(QByteArray(4096, version.at(1).toLatin1()));
        data.close();
        QFile app(folder + "/app");
        app.open(QIODevice::WriteOnly);
        app.write("#!/bin/sh\ncat \"$(dirname \"$0\")/version.txt\" >> \"$SUC_MARKER\"\necho >> \"$SUC_MARKER\"\n");
        app.close();
        if (executable)
            app.setPermissions(app.permissions() | QFile::ExeOwner | QFile::ExeUser);
    }

    // The version of a complete application folder, or empty when it is missing or incomplete.
    static QString completeVersion(const QString &folder)
    {
        QFile v(folder + "/version.txt");
        QFile data(folder + "/lib/data.bin");
        if (!v.open(QIODevice::ReadOnly) || !data.open(QIODevice::ReadOnly) || !QFileInfo(folder + "/app").isExecutable())
            return QString();
        const QString version = QString::fromUtf8(v.readAll());
        return data.readAll() == QByteArray(4096, version.at(1).toLatin1()) ? version : QString();
    }

    int runInstaller(const QStringList &args, const QByteArray &stopAfter = QByteArray())
    {
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("SUC_MARKER", m_marker);
        env.insert("UPDATEINSTALLER_LOG", m_dir.filePath("UpdateInstaller.log"));
        if (!stopAfter.isEmpty())
            env.insert("UPDATEINSTALLER_STOP_AFTER", QString::fromLatin1(stopAfter));
        p.setProcessEnvironment(env);
        p.start(QStringLiteral(SUC_UPDATE_INSTALLER), args);
        if (!p.waitForFinished(30000))
            return -100;
        return p.exitStatus() == QProcess::CrashExit ? -1 : p.exitCode();
    }

    QStringList started()
    {
        QFile f(m_marker);
        if (!f.open(QIODevice::ReadOnly))
            return {};
        return QString::fromUtf8(f.readAll()).split('\n', Qt::SkipEmptyParts);
    }

    QString log()
    {
        QFile f(m_dir.filePath("UpdateInstaller.log"));
        f.open(QIODevice::ReadOnly);
        return QString::fromUtf8(f.readAll());
    }

    // A folder on another file system than the application, when the machine has one.
    static QString otherFileSystem(const QString &near)
    {
        const QStorageInfo here(near);
        for (const QString &candidate : { QStringLiteral("/dev/shm"), QStringLiteral("/run") }) {
            const QStorageInfo there(candidate);
            if (there.isValid() && there.device() != here.device() && QFileInfo(candidate).isWritable())
                return candidate;
        }
        return QString();
    }

    // The unpacked new version, on the application's file system or on another one (empty when
    // the machine has no other).
    QString newVersionFolder(bool acrossFileSystems, QScopedPointer<QTemporaryDir> &other)
    {
        QString folder = m_dir.filePath("unpacked");
        if (acrossFileSystems) {
            const QString base = otherFileSystem(m_dir.path());
            if (base.isEmpty())
                return QString();
            other.reset(new QTemporaryDir(base + "/suc-XXXXXX"));
            folder = other->filePath("unpacked");
        }
        makeApp(folder, "v2");
        return folder;
    }

private Q_SLOTS:
    void init()
    {
        QVERIFY(m_dir.isValid());
        QDir(m_dir.path()).removeRecursively();
        QDir().mkpath(m_dir.path());
        m_marker = m_dir.filePath("started.txt");
    }

    void refusesAndRestartsTheOldVersion_data()
    {
        QTest::addColumn<QString>("newDir"); // "@" is replaced by the test folder
        QTest::addColumn<QString>("exe");
        QTest::addColumn<QString>("message");
        QTest::newRow("empty new folder") << "" << "app" << "-newDir is empty";
        QTest::newRow("missing new folder") << "@/nothing" << "app" << "does not exist";
        QTest::newRow("same folder") << "@/Viewer" << "app" << "are the same";
        QTest::newRow("new folder holds the old one") << "@" << "Viewer/app" << "lies inside the other";
        QTest::newRow("new folder inside the old one") << "@/Viewer/lib" << "app" << "lies inside the other";
        QTest::newRow("program missing in new folder") << "@/unpacked" << "viewer" << "has no program viewer";
    }
    void refusesAndRestartsTheOldVersion()
    {
        QFETCH(QString, newDir);
        QFETCH(QString, exe);
        QFETCH(QString, message);
        const QString app = m_dir.filePath("Viewer");
        makeApp(app, "v1");
        makeApp(m_dir.filePath("unpacked"), "v2");
        newDir.replace("@", m_dir.path());
        QCOMPARE(runInstaller({ "-oldDir", app, "-newDir", newDir, "-exe", exe }), 1);
        QCOMPARE(completeVersion(app), QString("v1"));
        QVERIFY2(log().contains(message), qPrintable(log()));
        if (exe == "app") // otherwise the old folder has no such program to start again
            QTRY_COMPARE(started(), QStringList{ "v1" });
        QVERIFY(!QFileInfo::exists(app + ".update-journal"));
    }

    void newProgramThatCannotStartRollsBack()
    {
        const QString app = m_dir.filePath("Viewer");
        makeApp(app, "v1");
        makeApp(m_dir.filePath("unpacked"), "v2", false);
        QCOMPARE(runInstaller({ "-oldDir", app, "-newDir", m_dir.filePath("unpacked"), "-exe", "app" }), 1);
        QCOMPARE(completeVersion(app), QString("v1"));
        QTRY_COMPARE(started(), QStringList{ "v1" });
        QVERIFY(QFileInfo::exists(m_dir.filePath("unpacked/version.txt"))); // the new version is kept
        QVERIFY(!QFileInfo::exists(app + ".update-backup"));
    }

    // Run through, or killed right after one of its steps: the installer always leaves one
    // complete application, and a second run finishes the job.
    void swapsAndStartsTheNewVersion_data()
    {
        QTest::addColumn<QByteArray>("step"); // empty: not interrupted
        QTest::addColumn<bool>("acrossFileSystems");
        QTest::newRow("same file system") << QByteArray() << false;
        QTest::newRow("across file systems") << QByteArray() << true;
        for (const char *step : { "journal", "backup", "move", "start" })
            QTest::newRow(qPrintable(QStringLiteral("killed after %1").arg(step))) << QByteArray(step) << false;
        QTest::newRow("killed after copy (across file systems)") << QByteArray("copy") << true;
        QTest::newRow("killed after move (across file systems)") << QByteArray("move") << true;
    }
    void swapsAndStartsTheNewVersion()
    {
        QFETCH(QByteArray, step);
        QFETCH(bool, acrossFileSystems);
        const QString app = m_dir.filePath("Viewer");
        makeApp(app, "v1");
        QScopedPointer<QTemporaryDir> other;
        const QString newDir = newVersionFolder(acrossFileSystems, other);
        if (newDir.isEmpty())
            QSKIP("no second file system here");
        const QStringList args{ "-oldDir", app, "-newDir", newDir, "-exe", "app" };
        if (!step.isEmpty()) {
            QCOMPARE(runInstaller(args, step), -1); // killed
            const QString inPlace = completeVersion(app);
            const QString backup = completeVersion(app + ".update-backup");
            QVERIFY2(!inPlace.isEmpty() || backup == "v1",
                     qPrintable(QString("in place '%1', backup '%2'").arg(inPlace, backup)));
        }
        QCOMPARE(runInstaller(args), 0);
        QCOMPARE(completeVersion(app), QString("v2"));
        for (const char *leftover : { ".update-backup", ".update-journal", ".update-incoming" })
            QVERIFY2(!QFileInfo::exists(app + leftover), leftover);
        QVERIFY(!QFileInfo::exists(newDir));
        QTRY_VERIFY(started().contains("v2"));
        QCOMPARE(started().count("v2"), 1); // started once, not again by the second run
        QVERIFY(log().contains("step done: cleanup"));
    }
};

QTEST_GUILESS_MAIN(TestUpdateInstaller)
#include "tst_updateinstaller.moc"
