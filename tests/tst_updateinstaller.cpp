#include <TestSupport.h>
#include <qv/UpdateState.h>

using namespace suc::test;

// Runs the UpdateInstaller program on application folders made here. Each fake application's
// program appends its version to a marker file when it starts.
class TestUpdateInstaller : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_marker;

    // `start` is what the program does after noting its start: "" confirms to the updater when
    // asked (as the client does), "fail" exits with 3, "quiet" exits without confirming, "hang"
    // never confirms, "die" is killed. With `host`, the folder holds a host (exec_helper) and its
    // updater too, as an installed version does.
    static void makeApp(const QString &folder, const QString &version,
                        const QByteArray &start = QByteArray(), bool host = false)
    {
        QDir(folder).removeRecursively();
        if (host)
            QVERIFY(QDir().mkpath(folder) && QFile::copy(SUC_EXEC_HELPER, folder + "/host")
                    && QFile::copy(SUC_UPDATE_INSTALLER, folder + "/UpdateInstaller"));
        QVERIFY(writeFile(folder + "/version.txt", version.toUtf8()));
        QVERIFY(writeFile(folder + "/lib/data.bin", QByteArray(4096, version.at(1).toLatin1())));
        QFile::link("data.bin", folder + "/lib/current"); // relative, as packages write them
        static const QHash<QByteArray, QByteArray> behaviours {
            {"",
             "[ -n \"$SOFTWAREUPDATE_HEALTH_FILE\" ] && echo \"$SOFTWAREUPDATE_HEALTH_TOKEN\" > "
             "\"$SOFTWAREUPDATE_HEALTH_FILE\"\n"},
            // Confirms without the updater's secret, then stays up: never taken as running.
            {"no secret",
             "[ -n \"$SOFTWAREUPDATE_HEALTH_FILE\" ] && echo running > "
             "\"$SOFTWAREUPDATE_HEALTH_FILE\"\nsleep 30\n"},
            {"fail", "exit 3\n"},
            {"quiet", "exit 0\n"},
            {"hang", "sleep 30\n"},
            {"die", "kill -9 $$\n"}};
        QVERIFY(writeFile(folder + "/app",
                          // One write: a program killed at once never leaves half a line.
                          "#!/bin/sh\necho \"$(cat \"$(dirname \"$0\")/version.txt\")\" >> "
                          "\"$SUC_MARKER\"\n"
                              + behaviours.value(start),
                          0755));
    }

    // Viewer in version v1, the unpacked v2 doing `start` when started, and the updater's
    // arguments for them with a health check of `seconds`.
    QStringList healthCheckedUpdate(const QByteArray &start, int seconds, bool hosts = false)
    {
        makeApp(m_dir.filePath("Viewer"), "v1", {}, hosts);
        makeApp(m_dir.filePath("unpacked"), "v2", start, hosts);
        return {"-oldDir",        m_dir.filePath("Viewer"),
                "-newDir",        m_dir.filePath("unpacked"),
                "-exe",           "app",
                "-healthTimeout", QString::number(seconds)};
    }

    // A file the updater keeps for `app` in the user's private state folder.
    static QString side(const QString &app, const char *name)
    {
        return qv::UpdateState::folderFor(app) + "/" + name;
    }

    // The version of a complete application folder, or empty when it is missing or incomplete.
    static QString completeVersion(const QString &folder)
    {
        const QString version = QString::fromUtf8(readFile(folder + "/version.txt"));
        QByteArray link(256, 0); // as written: relative
        link.truncate(readlink(QFile::encodeName(folder + "/lib/current").constData(), link.data(),
                               link.size()));
        const bool whole = version.size() == 2 && QFileInfo(folder + "/app").isExecutable()
            && link == "data.bin"
            && readFile(folder + "/lib/data.bin") == QByteArray(4096, version.at(1).toLatin1());
        return whole ? version : QString();
    }

    // The updater reads the step to stop after from its environment (the rest is set in init()).
    static void startInstaller(QProcess &p, const QStringList &args,
                               const QByteArray &stopAfter = QByteArray())
    {
        qputenv("UPDATEINSTALLER_STOP_AFTER", stopAfter);
        p.start(QStringLiteral(SUC_UPDATE_INSTALLER), args);
        qunsetenv("UPDATEINSTALLER_STOP_AFTER");
    }
    static int result(QProcess &p)
    {
        if (!p.waitForFinished(30000))
            return -100;
        return p.exitStatus() == QProcess::CrashExit ? -1 : p.exitCode();
    }
    int runInstaller(const QStringList &args, const QByteArray &stopAfter = QByteArray())
    {
        QProcess p;
        startInstaller(p, args, stopAfter);
        return result(p);
    }

    QStringList started()
    {
        return QString::fromUtf8(readFile(m_marker)).split('\n', Qt::SkipEmptyParts);
    }

    QString log() { return QString::fromUtf8(readFile(m_dir.filePath("UpdateInstaller.log"))); }

    // A folder on another file system than the application, when the machine has one.
    static QString otherFileSystem(const QString &near)
    {
        const QStorageInfo here(near);
        for (const QString &candidate : {QStringLiteral("/dev/shm"), QStringLiteral("/run")}) {
            const QStorageInfo there(candidate);
            if (there.isValid() && there.device() != here.device()
                && QFileInfo(candidate).isWritable())
                return candidate;
        }
        return QString();
    }

    // The unpacked new version, on the application's file system or on another one (empty when
    // the machine has no other).
    QString newVersionFolder(bool acrossFileSystems, QScopedPointer<QTemporaryDir> &other,
                             bool host = false)
    {
        QString folder = m_dir.filePath("unpacked");
        if (acrossFileSystems) {
            const QString base = otherFileSystem(m_dir.path());
            if (base.isEmpty())
                return QString();
            other.reset(new QTemporaryDir(base + "/suc-XXXXXX"));
            folder = other->filePath("unpacked");
        }
        makeApp(folder, "v2", {}, host);
        return folder;
    }

private Q_SLOTS:
    void init()
    {
        QVERIFY(m_dir.isValid());
        QDir(m_dir.path()).removeRecursively();
        QDir().mkpath(m_dir.path());
        m_marker = m_dir.filePath("started.txt");
        // The updater's own files go below the user's state folder: here, one per test.
        qputenv("XDG_STATE_HOME", QFile::encodeName(m_dir.filePath("state")));
        // What the updater, the applications and the hosts it starts read: one log, one marker.
        qputenv("UPDATEINSTALLER_LOG", QFile::encodeName(m_dir.filePath("UpdateInstaller.log")));
        qputenv("SUC_MARKER", QFile::encodeName(m_marker));
    }

    void refusesAndRestartsTheOldVersion_data()
    {
        addRows("updateinstaller-refuses-and-restarts-the-old-version");
    }
    void refusesAndRestartsTheOldVersion()
    {
        QFETCH(QString, newDir);
        QFETCH(QString, exe);
        QFETCH(QString, message);
        QString app = m_dir.filePath("Viewer");
        makeApp(app, "v1");
        makeApp(m_dir.filePath("unpacked"), "v2");
        for (const char *own : {"Viewer.update-backup", "Viewer.update-incoming/x"})
            makeApp(m_dir.filePath(own), "v2");
        QVERIFY(QFile::link(m_dir.filePath("unpacked"), m_dir.filePath("link-to-unpacked")));
        const QString tag = QTest::currentDataTag();
        if (tag.startsWith("application folder is a link")) {
            QVERIFY(QFile::link(app, m_dir.filePath("ViewerLink")));
            app = m_dir.filePath("ViewerLink");
        }
        const QString program = m_dir.filePath("unpacked/app");
        if (tag.contains("FIFO"))
            QCOMPARE(mkfifo(QFile::encodeName(program + "-pipe").constData(), 0600), 0);
        if (tag.contains("exec bit"))
            QVERIFY(QFile::setPermissions(program, QFile::ReadOwner | QFile::WriteOwner));
        if (tag.contains("is a link"))
            QVERIFY(QFile::rename(program, program + ".real")
                    && QFile::link(program + ".real", program));
        newDir.replace("@", m_dir.path());
        QCOMPARE(runInstaller({"-oldDir", app, "-newDir", newDir, "-exe", exe}), 1);
        QCOMPARE(completeVersion(app), QString("v1"));
        QCOMPARE(completeVersion(m_dir.filePath("Viewer")), QString("v1"));
        QVERIFY2(log().contains(message), qPrintable(log()));
        if (exe == "app") // otherwise the old folder has no such program to start again
            QTRY_COMPARE(started(), QStringList {"v1"});
        else
            QCOMPARE(started(), QStringList());
        QVERIFY(!QFileInfo::exists(side(m_dir.filePath("Viewer"), "journal")));
        QFile::setPermissions(program, QFile::permissions(program) | QFile::ExeOwner);
        QCOMPARE(completeVersion(m_dir.filePath("unpacked")), QString("v2"));
        QCOMPARE(completeVersion(m_dir.filePath("Viewer.update-backup")),
                 QString("v2")); // not the updater's to drop here
    }

    // With a health check, the new version must confirm that it runs; otherwise it is stopped,
    // the old one put back and started, and a note left for its client. Killed during the check
    // and run again, the updater keeps the new version only if it had confirmed. "why" is empty
    // when the update stays.
    void healthCheck_data() { addRows("updateinstaller-health-check"); }
    void healthCheck()
    {
        QFETCH(QString, why);
        const QString app = m_dir.filePath("Viewer");
        const bool killed = row<bool>("killed");
        const QStringList args = healthCheckedUpdate(row<QByteArray>("start"), killed ? 20 : 1);
        if (killed) {
            QCOMPARE(runInstaller(args, "start"), -1);
            QTRY_VERIFY(started().contains("v2"));
            if (why.isEmpty())
                QTRY_VERIFY(QFileInfo::exists(side(app, "health")));
        }
        QCOMPARE(runInstaller(args), why.isEmpty() ? 0 : 1);
        QVERIFY(!QFileInfo::exists(side(app, "journal")));
        QVERIFY(!QFileInfo::exists(side(app, "health")));
        QCOMPARE(completeVersion(app), QString(why.isEmpty() ? "v2" : "v1"));
        QTRY_COMPARE(started(), why.isEmpty() ? QStringList {"v2"} : QStringList({"v2", "v1"}));
        if (why.isEmpty()) {
            QVERIFY(!QFileInfo::exists(side(app, "rolled-back")));
            return;
        }
        QCOMPARE(completeVersion(m_dir.filePath("unpacked")), QString("v2")); // given back
        QVERIFY2(readFile(side(app, "rolled-back")).contains(why.toUtf8()), qPrintable(log()));
        // A second update, of a version that runs, goes through after the roll-back.
        makeApp(m_dir.filePath("unpacked"), "v3");
        QCOMPARE(runInstaller(args), 0);
        QCOMPARE(completeVersion(app), QString("v3"));
    }

    // What steers an update (journal, lock, health confirmation, roll-back note) cannot be turned
    // against the user: a link planted there never leads the updater to write elsewhere, a folder
    // never counts as a confirmation, and a crashing version is still rolled back.
    // "path": "@" is the application folder; "asLink": else a folder.
    void plantedSideFiles_data() { addRows("updateinstaller-planted-side-files"); }
    void plantedSideFiles()
    {
        QFETCH(QString, path);
        const QString app = m_dir.filePath("Viewer");
        const QStringList args = healthCheckedUpdate("fail", 2);
        const QString victim = m_dir.filePath("victim.txt");
        QVERIFY(writeFile(victim, "the user's own"));
        const QString planted = path.startsWith("private:") ? side(app, qPrintable(path.mid(8)))
                                                            : QString(path).replace("@", app);
        if (row<bool>("asLink"))
            QVERIFY(QFile::link(victim, planted));
        else
            QVERIFY(QDir().mkpath(planted + "/inside"));

        QCOMPARE(runInstaller(args), 1);
        QCOMPARE(completeVersion(app), QString("v1"));
        QTRY_COMPARE(started(), QStringList({"v2", "v1"}));
        QCOMPARE(readFile(victim), QByteArray("the user's own"));
        QVERIFY2(readFile(side(app, "rolled-back")).contains("exited with code 3"),
                 qPrintable(log()));
        QCOMPARE(QFileInfo(qv::UpdateState::folderFor(app)).permissions() & 0x0077,
                 QFile::Permissions());
    }

    // A power cut or a kill can come at any moment, not only after a named step: killed at a
    // random instant (seeded), the application path must hold a whole application right away,
    // and the next run of the updater, or the next start of a host, must settle the update.
    // The test command kills 100 times; SUC_RANDOM_KILLS asks for more (a long run).
    void randomKillsLeaveAWholeApplication()
    {
        const int asked = qEnvironmentVariableIntValue("SUC_RANDOM_KILLS");
        const int runs = asked > 0 ? asked : 100;
        QRandomGenerator random(20261124);
        const QString app = m_dir.filePath("Viewer");
        const QString other = otherFileSystem(m_dir.path());
        // The instants spread over the length of one whole run, measured first: on any machine
        // most runs are cut short.
        makeApp(app, "v1");
        makeApp(m_dir.filePath("unpacked"), "v2");
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(
            runInstaller({"-oldDir", app, "-newDir", m_dir.filePath("unpacked"), "-exe", "app"}),
            0);
        const quint32 span = quint32(qMax<qint64>(5000, clock.nsecsElapsed() / 1000));
        int killedMidway = 0;
        int settledByHost = 0;
        for (int i = 0; i < runs; ++i) {
            // Every fifth time the next start of a host settles it (each version is a host with
            // its updater); otherwise the updater runs again.
            const bool hostSettles = i % 5 == 0;
            makeApp(app, "v1", {}, hostSettles);
            QScopedPointer<QTemporaryDir> elsewhere;
            const QString newDir
                = newVersionFolder(i % 2 && !other.isEmpty(), elsewhere, hostSettles);
            const QStringList args {"-oldDir", app, "-newDir", newDir, "-exe", "app"};
            QProcess p;
            startInstaller(p, args);
            QVERIFY(p.waitForStarted());
            QThread::usleep(random.bounded(span));
            p.kill();
            QVERIFY(p.waitForFinished(10000));
            killedMidway += p.exitStatus() == QProcess::CrashExit;
            const QString now = completeVersion(app);
            QVERIFY2(now == "v1" || now == "v2",
                     qPrintable(QString("iteration %1: '%2'\n%3").arg(i).arg(now, log())));
            if (hostSettles && QFileInfo::exists(side(app, "journal"))) {
                QCOMPARE(run(app + "/host", {"host"}).code, 0);
                QVERIFY2(completeVersion(app) == now, qPrintable(log())); // the running one stays
                ++settledByHost;
            } else {
                // A child the killed run was starting holds its lock until it has become the
                // program (a moment, longer on a loaded machine): the next run waits for that.
                int rerun = 0;
                for (int attempt = 0; attempt < 50; ++attempt) {
                    const bool pending
                        = QFileInfo::exists(side(app, "journal")) || QFileInfo::exists(newDir);
                    rerun = pending ? runInstaller(args) : 0;
                    if (rerun != 1 || !log().trimmed().endsWith("is running"))
                        break;
                    QThread::msleep(100);
                }
                QVERIFY2(rerun == 0 && completeVersion(app) == "v2",
                         qPrintable(QString("iteration %1\n%2").arg(i).arg(log())));
            }
            QVERIFY(!QFileInfo::exists(side(app, "journal")));
        }
        QTest::qWait(200); // the version the last run started has noted its start
        qInfo("%d of %d runs were killed before they ended (kills within %u us); %d settled by "
              "a host's start",
              killedMidway, runs, span, settledByHost);
    }

    // Killed after a step, then the program is started again by the user (or at boot): its
    // client settles the update before anything else. The version in the folder then, which
    // is the one running, stays; the other goes; nothing is started twice.
    void theNextStartSettlesAnInterruptedUpdate_data()
    {
        addRows("updateinstaller-interrupted-update");
    }
    void theNextStartSettlesAnInterruptedUpdate()
    {
        QFETCH(QByteArray, step);
        QFETCH(QString, remains);
        const QString app = m_dir.filePath("Viewer");
        const QStringList args = healthCheckedUpdate("hang", 20, true);
        QCOMPARE(runInstaller(args, step), -1);
        QVERIFY(QFileInfo::exists(side(app, "journal")));
        if (step == "start") // the program under check notes its start by itself
            QTRY_VERIFY(started().contains("v2"));
        const int startsBefore = started().size();
        QCOMPARE(run(app + "/host", {"host"}).code, 0);
        QVERIFY2(!QFileInfo::exists(side(app, "journal")), qPrintable(log()));
        QCOMPARE(completeVersion(app), remains);
        for (const char *leftover : {".update-backup", ".update-incoming", ".update-discard"})
            QVERIFY2(!QFileInfo::exists(app + leftover), leftover);
        QVERIFY2(log().contains("settling an interrupted update"), qPrintable(log()));
        QCOMPARE(started().size(), startsBefore);
    }

    // The invariant: whether it runs through or is killed right after any of its steps, with
    // whatever an earlier run left beside the application, the updater always leaves one
    // complete application, touches nothing outside the named folders, and a second run with
    // the same arguments finishes the job.
    // The step killed after (empty: not interrupted), across file systems or not, and what was
    // left behind beforehand.
    void oneCompleteApplicationAlwaysRemains_data()
    {
        addRows("updateinstaller-one-complete-application-always-remains");
    }
    void oneCompleteApplicationAlwaysRemains()
    {
        QFETCH(QByteArray, step);
        QFETCH(bool, acrossFileSystems);
        QFETCH(QString, stale);
        const bool noExchange = stale == "no exchange"; // a file system that cannot exchange
        if (noExchange)
            qputenv("UPDATEINSTALLER_NO_EXCHANGE", "1");
        const auto exchangeAgain = qScopeGuard([] { qunsetenv("UPDATEINSTALLER_NO_EXCHANGE"); });
        const QString app = m_dir.filePath("Viewer");
        makeApp(app, "v1");
        QScopedPointer<QTemporaryDir> other;
        const QString newDir = newVersionFolder(acrossFileSystems, other);
        if (newDir.isEmpty())
            QSKIP("no second file system here");
        const QString outside = m_dir.filePath("outside");
        makeApp(outside, "v9"); // nobody's to touch
        const QString earlierNew = m_dir.filePath("earlier-new");
        if (stale == "stale backup") { // a removal cut short: never a version to restore
            QVERIFY(QDir().mkpath(app + ".update-backup/lib"));
            QVERIFY(writeFile(app + ".update-backup/version.txt", "v0"));
        } else if (stale == "stale journal of other arguments") {
            makeApp(app + ".update-backup", "v0");
            makeApp(earlierNew, "v8");
            QVERIFY(writeFile(side(app, "journal"),
                              ("launched\n" + app + "\n" + earlierNew + "\napp\n").toUtf8()));
        } else if (stale == "backup linked outside") {
            QVERIFY(QFile::link(outside, app + ".update-backup"));
        }
        QStringList args {"-oldDir", app, "-newDir", newDir, "-exe", "app"};
        if (stale == "health check")
            args += QStringList {"-healthTimeout", "10"};
        if (stale == "concurrent run") {
            QProcess first, second;
            startInstaller(first, args, step);
            startInstaller(second, args);
            const int a = result(first);
            const int b = result(second);
            QVERIFY2(QList<int>({0, 1, -1}).contains(a) && QList<int>({0, 1}).contains(b),
                     qPrintable(log()));
        } else if (!step.isEmpty()) {
            const int killed = runInstaller(args, step);
            QVERIFY(killed == -1 || killed == 0); // 0: the step was not reached in this state
            // Killed while the new version starts: it confirms by itself meanwhile.
            if (step == "start" && stale == "health check")
                QTRY_VERIFY(started().contains("v2"));
            // Right after the kill, with no further run, the application path holds a whole
            // application: the old one until the exchange, the new one from then on (a first
            // discard is of what an earlier run left, before anything moves).
            const bool leftovers = stale.startsWith("stale") || stale == "backup linked outside";
            const bool beforeExchange = step == "journal" || step == "copy" || step == "stage"
                || (step == "discard" && leftovers);
            // Without the exchange the old folder is set aside before the new one moves in: then
            // the backup holds the whole old version.
            if (noExchange && step == "backup" && killed == -1)
                QCOMPARE(completeVersion(app + ".update-backup"), QString("v1"));
            else
                QVERIFY2(completeVersion(app) == (killed == -1 && beforeExchange ? "v1" : "v2"),
                         qPrintable(QString("in place '%1'\n%2").arg(completeVersion(app), log())));
        }
        QVERIFY2(noExchange || !completeVersion(app).isEmpty(), qPrintable(log()));

        if (QFileInfo::exists(side(app, "journal")) || QFileInfo::exists(newDir))
            QCOMPARE(runInstaller(args), 0);

        QVERIFY2(completeVersion(app) == "v2", qPrintable(log()));
        for (const char *leftover : {".update-backup", ".update-incoming", ".update-discard"})
            QVERIFY2(!QFileInfo::exists(app + leftover) && !QFileInfo(app + leftover).isSymLink(),
                     leftover);
        QVERIFY(!QFileInfo::exists(side(app, "journal")));
        QVERIFY(!QFileInfo::exists(newDir));
        QCOMPARE(completeVersion(outside), QString("v9"));
        if (stale == "stale journal of other arguments")
            QCOMPARE(completeVersion(earlierNew), QString("v8"));
        QTRY_VERIFY(started().contains("v2"));
        QCOMPARE(started().filter(QRegularExpression("v[089]")), QStringList());
        // Started once, not again by the second run; a concurrent run that comes after the first
        // has finished restarts the application it finds, which is v2 then.
        if (stale != "concurrent run")
            QCOMPARE(started().count("v2"), 1);
        if (step.isEmpty() && stale == "clean") // the exchange is what put it in place
            QVERIFY2(log().contains("step done: exchange"), qPrintable(log()));
        if (noExchange)
            QVERIFY2(log().contains("cannot exchange"), qPrintable(log()));
    }
};

QTEST_GUILESS_MAIN(TestUpdateInstaller)
#include "tst_updateinstaller.moc"
