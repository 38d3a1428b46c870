// A host built only against the installed package. The same program is packed in several
// versions; release.txt beside it says which, and how that version behaves when it starts:
//   "<version>"             confirms that it runs by itself (the default)
//   "<version> broken"      exits at once, before it could confirm
//   "<version> late <ms>"   confirms by hand, that many milliseconds after it started
//
//   package_host connections                checks that a host connects every signal and slot
//   package_host                            runs a while, as the updater starts a version
//   package_host update <catalogue URL> <key> [<health timeout s>] [refuse-quit]
//                                           installs what the catalogue offers, without dialogs
// Every signal of the client is printed as a line, for the scenarios to read.

#include <SoftwareUpdateClient.h>

#include <QApplication>
#include <QFile>
#include <QMessageBox>
#include <QSettings>
#include <QTimer>

#include <cstdio>

int connectEverySignalAndSlot(qv::SoftwareUpdateClient *client);

namespace {

void say(const QString &line)
{
    std::printf("%s\n", qPrintable(line));
    std::fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName("SucPackageHost");
    QCoreApplication::setApplicationName("PackageHost");
    qv::SoftwareUpdateClient::sSoftUpQSettingsFormat = QSettings::IniFormat;
    qv::SoftwareUpdateClient::setInstallMode(qv::SoftwareUpdateClient::CompleteInstall);
    const QStringList args = QCoreApplication::arguments();
    if (args.value(1) == u"connections") { // see connections.cpp
        qv::SoftwareUpdateClient client("Viewer", qv::VersionNumber("1.2.3"), "", nullptr);
        return connectEverySignalAndSlot(&client) > 0 ? 0 : 1;
    }

    QFile release(QCoreApplication::applicationDirPath() + "/release.txt");
    release.open(QIODevice::ReadOnly);
    const QStringList words = QString::fromUtf8(release.readAll()).simplified().split(' ');
    const QString version = words.value(0);
    const QString behaviour = words.value(1);
    say("running " + version);
    if (behaviour == u"broken")
        return 3;
    const int lateMs = behaviour == u"late" ? words.value(2).toInt() : 0;
    if (lateMs > 0)
        qv::SoftwareUpdateClient::setConfirmAutomatically(false);

    qv::SoftwareUpdateClient client("PackageHost", qv::VersionNumber::fromText(version),
                                    args.value(2, "http://127.0.0.1:9/none.xml"), nullptr);
    client.setInteractive(false);
    QApplication::setQuitOnLastWindowClosed(false);
    int boxes = 0;
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, [&boxes] {
        if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
            ++boxes;
            say("box: " + box->text());
            box->reject();
        }
    });
    watch.start(20);
    QObject::connect(&client, &qv::SoftwareUpdateClient::updateRolledBack,
                     [](const QString &failed, const QString &why) {
                         say("updateRolledBack: " + failed + " | " + why);
                     });
    if (lateMs > 0)
        QTimer::singleShot(lateMs, [] {
            qv::SoftwareUpdateClient::confirmUpdateRuns();
            qv::SoftwareUpdateClient::confirmUpdateRuns(); // a second call does nothing
            say("confirmed late");
        });

    if (args.value(1) != u"update") {
        // A version the updater started: it runs a while, then quits.
        QTimer::singleShot(lateMs + 500, [&boxes] {
            say(QStringLiteral("boxes shown: %1").arg(boxes));
            QCoreApplication::quit();
        });
        return app.exec();
    }

    client.setTrustedKeys({args.value(3)});
    client.setDeltaUpdates(args.contains("delta"));
    if (args.size() > 4)
        client.setHealthTimeout(args.value(4).toInt());
    const bool refuseQuit = args.contains("refuse-quit");
    client.setQuitHandler([refuseQuit] {
        say(refuseQuit ? "quit handler: not now" : "quit handler: work saved, quitting");
        if (!refuseQuit)
            QCoreApplication::quit();
        return !refuseQuit;
    });
    qint64 lastProgress = -1;
    QObject::connect(&client, &qv::SoftwareUpdateClient::packageDownloadProgress,
                     [&lastProgress](qint64 received, qint64) { lastProgress = received; });
    QObject::connect(&client, &qv::SoftwareUpdateClient::updatesAvailable,
                     [&client](const qv::PackageInfoList &packages) {
                         say("updatesAvailable: " + packages.first().release);
                         client.install(packages.first());
                     });
    QObject::connect(&client, &qv::SoftwareUpdateClient::upToDate, [] {
        say("upToDate");
        QCoreApplication::quit();
    });
    QObject::connect(&client, &qv::SoftwareUpdateClient::checkFailed, [](const QString &why) {
        say("checkFailed: " + why);
        QCoreApplication::exit(2);
    });
    QObject::connect(&client, &qv::SoftwareUpdateClient::installFailed,
                     [&boxes](const qv::PackageInfo &package, const QString &why) {
                         say("installFailed: " + package.release + " | " + why);
                         QTimer::singleShot(300, [&boxes] {
                             say(QStringLiteral("boxes shown: %1").arg(boxes));
                             QCoreApplication::exit(1);
                         });
                     });
    QObject::connect(&client, &qv::SoftwareUpdateClient::readyToRestart,
                     [&client, &lastProgress, refuseQuit](const qv::PackageInfo &package) {
                         say(QStringLiteral("readyToRestart: %1 (downloaded %2 bytes)")
                                 .arg(package.release)
                                 .arg(lastProgress));
                         const bool restarting = client.restartNow();
                         say(QStringLiteral("restartNow: %1").arg(restarting));
                         if (refuseQuit) // the user quits later: the update goes in then
                             QTimer::singleShot(200, &QCoreApplication::quit);
                     });
    client.checkNow();
    QTimer::singleShot(30000, [] {
        say("timed out");
        QCoreApplication::exit(4);
    });
    return app.exec();
}
