// The complete self-update, across three versions of this program.
//
// The driver (demo-host --complete) lays out an installed 2.9, packs 2.10 and a 2.11 that
// crashes at start as ZIP packages, signs the catalogue with minisign, serves it on port 80, and
// starts 2.9. From then on each version is started by the previous one's updater, without
// arguments: it finds its part through DEMO_STATE in its environment. 2.9 checks, installs 2.10
// and restarts; 2.10 runs, confirms, and (when the driver has published 2.11) installs that;
// 2.11 crashes, the updater rolls back, and 2.10 comes back and says so.

#include "CompleteUpdate.h"

#include <SoftwareUpdateAvailableDialog.h>
#include <SoftwareUpdateClient.h>
#include <SoftwareUpdateDialog.h>
#include <qv/UpdateState.h>

#include <QAbstractButton>
#include <QApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHttpServer>
#include <QLabel>
#include <QMainWindow>
#include <QMessageBox>
#include <QProcess>
#include <QSettings>
#include <QTableWidget>
#include <QTest>
#include <QTimer>

#include <cstdio>

namespace {

void say(const QString &line)
{
    std::printf("%s\n", qPrintable(line));
    std::fflush(stdout);
}

bool waitFor(const std::function<bool()> &condition, int ms)
{
    QElapsedTimer t;
    t.start();
    while (!condition()) {
        if (t.elapsed() > ms)
            return false;
        QTest::qWait(50);
    }
    return true;
}

QString readText(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()).trimmed() : QString();
}

void writeText(const QString &path, const QByteArray &text)
{
    QFile f(path);
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        f.write(text);
}

bool run(const QString &program, const QStringList &args)
{
    QProcess p;
    p.start(program, args);
    p.closeWriteChannel();
    return p.waitForFinished(60000) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
}

// One version of the application folder: this program, its version, and the updater beside it.
bool makeVersion(const QString &folder, const QString &version, const QString &program,
                 const QString &updater, bool crashes)
{
    QDir().mkpath(folder);
    const QString target = folder + QStringLiteral("/demo-host");
    if (!QFile::copy(program, target)
        || !QFile::copy(updater, folder + QStringLiteral("/UpdateInstaller")))
        return false;
    writeText(folder + QStringLiteral("/version.txt"), version.toUtf8());
    if (crashes)
        writeText(folder + QStringLiteral("/crash-at-start"), "this version does not start\n");
    return true;
}

// Answers each message box with the first of `choices` it offers, and tells about it.
void answerBoxes(QObject *owner, const QStringList &choices)
{
    auto *timer = new QTimer(owner);
    QObject::connect(timer, &QTimer::timeout, [choices] {
        auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
        if (!box)
            return;
        say(QStringLiteral("   box \"%1\": %2").arg(box->windowTitle(), box->text()));
        for (QAbstractButton *b : box->buttons()) {
            if (choices.contains(b->text()) || box->buttons().size() == 1) {
                say(QStringLiteral("   -> %1").arg(b->text()));
                b->click();
                return;
            }
        }
    });
    timer->start(50);
}

} // namespace

int runCompleteDriver(const QString &program, const QString &updater, const QDir &out)
{
    say(QStringLiteral("\n== The complete self-update (CompleteInstall): 2.9 -> 2.10, then a 2.11 "
                       "that crashes at start is rolled back"));
    QHttpServer server;
    QDir www;
    server.route(QStringLiteral("/<arg>"), [&www](const QString &name) {
        QFile f(www.filePath(name));
        if (name.contains(QLatin1String("..")) || !f.open(QIODevice::ReadOnly))
            return QHttpServerResponse(QHttpServerResponse::StatusCode::NotFound);
        return QHttpServerResponse("application/octet-stream", f.readAll());
    });
    if (!server.listen(QHostAddress::LocalHost, 80)) {
        say(QStringLiteral("(127.0.0.1:80 cannot be bound here, and packages always download from "
                           "port 80: skipped)"));
        return 0;
    }
    // Absolute: each version runs in its own folder and finds the state by this path.
    QDir work(out.absoluteFilePath(QStringLiteral("complete")));
    work.removeRecursively();
    work.mkpath(QStringLiteral("www"));
    work.mkpath(QStringLiteral("state"));
    www = QDir(work.filePath(QStringLiteral("www")));
    const QString installed = work.filePath(QStringLiteral("installed/Viewer"));
    bool ok = makeVersion(installed, QStringLiteral("2.9"), program, updater, false);
    for (const QString &v : {QStringLiteral("2.10"), QStringLiteral("2.11")}) {
        const QString build = work.filePath(QStringLiteral("build-") + v);
        ok = ok && makeVersion(build + QStringLiteral("/Viewer"), v, program, updater, v == u"2.11")
            && run(QStringLiteral("bsdtar"),
                   {QStringLiteral("-a"), QStringLiteral("-cf"),
                    www.filePath(QStringLiteral("viewer-%1.zip").arg(v)), QStringLiteral("-C"),
                    build, QStringLiteral("Viewer")});
    }
    const QString pub = work.filePath(QStringLiteral("demo.pub"));
    const QString key = work.filePath(QStringLiteral("demo.key"));
    ok = ok && run(QStringLiteral("minisign"), {"-G", "-f", "-W", "-p", pub, "-s", key});
    if (!ok) {
        say(QStringLiteral("could not lay out the versions (bsdtar and minisign are needed)"));
        return 1;
    }
    const auto publish = [&](int serial, const QStringList &versions) {
        QByteArray xml = "<softwareList serial='" + QByteArray::number(serial) + "' expires='"
            + QDate::currentDate().addDays(30).toString(Qt::ISODate).toLatin1()
            + "' base-url='http://127.0.0.1/'>\n <package-set type='Application' name='Viewer' "
              "status='STABLE'>\n";
        for (const QString &v : versions) {
            QFile zip(www.filePath(QStringLiteral("viewer-%1.zip").arg(v)));
            zip.open(QIODevice::ReadOnly);
            const QByteArray body = zip.readAll();
            xml += "  <package release='" + v.toLatin1() + "' url='viewer-" + v.toLatin1()
                + ".zip' file-size='" + QByteArray::number(body.size()) + "' release-date='2026-11-"
                + (v == u"2.10" ? "10" : "20") + "' sha256='"
                + QCryptographicHash::hash(body, QCryptographicHash::Sha256).toHex() + "'/>\n";
        }
        writeText(www.filePath(QStringLiteral("list.xml")),
                  xml + " </package-set>\n</softwareList>\n");
        run(QStringLiteral("minisign"),
            {"-S", "-s", key, "-m", www.filePath(QStringLiteral("list.xml"))});
        say(QStringLiteral("Published catalogue serial %1 (%2), signed with minisign")
                .arg(serial)
                .arg(versions.join(QStringLiteral(", "))));
    };
    publish(1, {QStringLiteral("2.10")});

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DEMO_STATE"), work.filePath(QStringLiteral("state")));
    env.insert(QStringLiteral("DEMO_SERVER"), QStringLiteral("http://127.0.0.1/list.xml"));
    env.insert(QStringLiteral("DEMO_KEY"), readText(pub).section(QLatin1Char('\n'), 1, 1));
    env.insert(QStringLiteral("DEMO_PICTURES"), out.absolutePath());
    // The updater's journal and notes go to a state folder of this walk's own.
    env.insert(QStringLiteral("XDG_STATE_HOME"), work.filePath(QStringLiteral("xdg-state")));
    const QString updaterLog = work.filePath(QStringLiteral("UpdateInstaller.log"));
    env.insert(QStringLiteral("UPDATEINSTALLER_LOG"), updaterLog);
    QProcess first;
    first.setProcessEnvironment(env);
    first.setProcessChannelMode(QProcess::ForwardedChannels);
    first.start(installed + QStringLiteral("/demo-host"), {});
    const QDir state(work.filePath(QStringLiteral("state")));
    if (!waitFor([&] { return state.exists(QStringLiteral("running-2.10")); }, 120000)) {
        say(QStringLiteral("2.10 did not come up"));
        return 1;
    }
    publish(2, {QStringLiteral("2.10"), QStringLiteral("2.11")});
    writeText(state.filePath(QStringLiteral("go-2.11")), "go\n");
    if (!waitFor([&] { return state.exists(QStringLiteral("rolled-back-2.10")); }, 120000)) {
        say(QStringLiteral("the roll-back to 2.10 was not seen"));
        return 1;
    }
    const QString now = readText(installed + QStringLiteral("/version.txt"));
    say(QStringLiteral("Installed now: %1, the update to 2.11 rolled back; the application folder "
                       "%2 is whole.")
            .arg(now, installed));
    say(QStringLiteral("The updater's own account (%1):").arg(updaterLog));
    for (const QString &line : readText(updaterLog).split(QLatin1Char('\n'))) {
        if (!line.contains(QLatin1String("step done")))
            say(QStringLiteral("   ") + line.section(QLatin1Char(' '), 1));
    }
    first.waitForFinished(5000);
    return now == u"2.10" ? 0 : 1;
}

int runCompleteStep()
{
    const QString here = QCoreApplication::applicationDirPath();
    const QString version = readText(here + QStringLiteral("/version.txt"));
    if (QFile::exists(here + QStringLiteral("/crash-at-start"))) {
        say(QStringLiteral("5. Camera Viewer %1 starts ... and crashes before it is ready.")
                .arg(version));
        return 3;
    }
    const QDir state(qEnvironmentVariable("DEMO_STATE"));
    const QDir pictures(qEnvironmentVariable("DEMO_PICTURES"));
    const bool confirming = qEnvironmentVariableIsSet("SOFTWAREUPDATE_HEALTH_FILE");
    // The updater's note for this application folder, in the user's private state folder.
    const bool rolledBack
        = QFile::exists(qv::UpdateState::folderFor(here, false) + QStringLiteral("/rolled-back"));
    // One settings store for every version, as one user's would be.
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope,
                       state.filePath(QStringLiteral("settings")));
    qv::SoftwareUpdateClient::sSoftUpQSettingsFormat = QSettings::IniFormat;
    qv::SoftwareUpdateClient::setInstallMode(qv::SoftwareUpdateClient::CompleteInstall);

    QMainWindow window;
    window.setWindowTitle(QStringLiteral("Camera Viewer ") + version);
    window.setCentralWidget(
        new QLabel(QStringLiteral("Camera Viewer %1\nrunning").arg(version), &window));
    window.resize(480, 320);
    window.show();
    answerBoxes(&window,
                {QStringLiteral("Proceed"), QStringLiteral("Restart now"), QStringLiteral("OK")});
    qv::SoftwareUpdateClient client(QStringLiteral("Viewer"), qv::VersionNumber::fromText(version),
                                    qEnvironmentVariable("DEMO_SERVER"), &window);
    client.setTrustedKeys({qEnvironmentVariable("DEMO_KEY")});
    client.setResumeDownloads(true);
    client.setDownloadRetries(3);
    // Asked before the update ends this process: a real host saves its work here. Once the
    // process has ended, the updater replaces the application and starts the new version.
    bool quitting = false;
    client.setQuitHandler([&quitting] {
        say(QStringLiteral("   the host agrees to quit for the update"));
        quitting = true;
        return true;
    });
    QTest::qWait(200);
    const QString shot = pictures.filePath(
        QStringLiteral("complete-%1-%2.png")
            .arg(version,
                 rolledBack ? QStringLiteral("after-roll-back") : QStringLiteral("running")));
    window.grab().save(shot);
    say(QStringLiteral("%1. Camera Viewer %2 is running%3 (picture: %4)")
            .arg(version == u"2.9" ? QStringLiteral("1")
                     : rolledBack  ? QStringLiteral("6")
                                   : QStringLiteral("3"))
            .arg(version)
            .arg(confirming ? QStringLiteral(", and confirmed to the updater that it runs")
                            : QString())
            .arg(shot));
    if (rolledBack) {
        QTest::qWait(500); // the client tells the user once
        writeText(state.filePath(QStringLiteral("rolled-back-") + version), "yes\n");
        return 0;
    }
    if (version != u"2.9") {
        writeText(state.filePath(QStringLiteral("running-") + version), "yes\n");
        if (!waitFor([&] { return state.exists(QStringLiteral("go-2.11")); }, 120000))
            return 1;
    }
    say(QStringLiteral("%1. Camera Viewer %2 checks for updates:")
            .arg(version == u"2.9" ? 2 : 4)
            .arg(version));
    client.checkForUpdate(0);
    if (!waitFor(
            [] {
                for (QWidget *w : QApplication::topLevelWidgets()) {
                    if (qobject_cast<qv::SoftwareUpdateAvailableDialog *>(w) && w->isVisible())
                        return true;
                }
                return false;
            },
            30000)) {
        say(QStringLiteral("   nothing offered"));
        return 1;
    }
    for (QWidget *w : QApplication::topLevelWidgets()) {
        auto *list = qobject_cast<qv::SoftwareUpdateAvailableDialog *>(w);
        if (!list || !list->isVisible())
            continue;
        auto *table = list->findChild<QTableWidget *>(QStringLiteral("tableWidget"));
        say(QStringLiteral("   offered (signature verified): %1 | %2 | %3")
                .arg(table->item(0, 0)->text(), table->item(0, 1)->text(),
                     table->item(0, 2)->text()));
        const QString listShot
            = pictures.filePath(QStringLiteral("complete-%1-offer.png").arg(version));
        list->grab().save(listShot);
        say(QStringLiteral(
                "   Install (download, verify, unpack, then the restart question); picture: ")
            + listShot);
        Q_EMIT list->installPackage(0);
        break;
    }
    if (waitFor([&quitting] { return quitting; }, 60000))
        return 0;
    say(QStringLiteral("   the update did not hand over"));
    return 1;
}
