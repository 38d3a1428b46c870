// Stands in for a host application in the tests of the calls that replace the running process,
// and for a host's new version started by the updater:
//   exec_helper host
//   exec_helper startUpdate <updater> <oldDir> <newDir> <exe>   (through the slot, by name)
//   exec_helper runZipInstaller <archive> <folder to choose>
//   exec_helper completeInstall <catalogue URL> <trusted key> [later-crash]
//                                    (check, Install, Restart now; or Restart later, then end
//                                     without a normal quit)
//   exec_helper start <trusted key>  (a host that only starts, in CompleteInstall)
// Exit code 3 means the call returned (the process was not replaced), 4 that runZipInstaller
// rethrew an archive error.

#include <DownloadManager.h>
#include <SoftwareUpdateClient.h>
#include <qv/Exceptions.h>

#include <QAbstractButton>
#include <QApplication>
#include <QDir>
#include <QFileDialog>
#include <QMessageBox>
#include <QSettings>
#include <QStandardPaths>
#include <QTimer>

#include <cstdio>
#include <functional>

#include <unistd.h>

namespace {

// Answers every message box with the first of its buttons named in `choices`, after printing
// its title and text; `otherwise` runs when no box is open. After an "Installation failed" box
// the program ends with 5; a "Restart later" answer ends it at once, without a normal quit.
void answerBoxes(QObject *parent, const QStringList &choices, std::function<void()> otherwise)
{
    auto *answer = new QTimer(parent);
    QObject::connect(answer, &QTimer::timeout, [choices, otherwise] {
        auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
        if (!box)
            return otherwise();
        std::printf("box: %s | %s\n", qPrintable(box->windowTitle()), qPrintable(box->text()));
        std::fflush(stdout);
        if (box->windowTitle() == u"Installation failed")
            QTimer::singleShot(0, [] { QCoreApplication::exit(5); });
        if (choices.contains("Restart later") && box->windowTitle() == u"Restart required")
            QTimer::singleShot(0, [] { _exit(0); });
        for (QAbstractButton *b : box->buttons()) {
            if (choices.contains(b->text()))
                return b->click();
        }
    });
    answer->start(20);
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    const QStringList args = QCoreApplication::arguments();
    if (args.value(1) == u"host") {
        // A host in its new version: creating the client confirms to the updater that it runs.
        QStandardPaths::setTestModeEnabled(true);
        qv::SoftwareUpdateClient client("Viewer", qv::VersionNumber("3.0"), "http://127.0.0.1:9/x",
                                        nullptr);
        return 0;
    }
    if (args.value(1) == u"startUpdate" && args.size() == 6) {
        // Called by its slot name, as a host may.
        qv::DownloadManager manager;
        QMetaObject::invokeMethod(&manager, "startUpdate", Q_ARG(QString, args.at(2)),
                                  Q_ARG(QString, args.at(3)), Q_ARG(QString, args.at(4)),
                                  Q_ARG(QString, args.at(5)));
        return 3;
    }
    if (args.value(1) == u"runZipInstaller" && args.size() == 4) {
        const QString choice = args.at(3);
        // Answers the folder chooser with the given folder, and every box with OK.
        answerBoxes(&app, {"OK"}, [choice] {
            auto *dialog = qobject_cast<QFileDialog *>(QApplication::activeModalWidget());
            if (!dialog)
                return;
            // The folder itself, with nothing typed: what the dialog then answers.
            // (Selecting it as a file would move the dialog to its parent folder.)
            if (QDir(dialog->directory()).absolutePath() != QDir(choice).absolutePath()
                || dialog->selectedFiles() != QStringList {QDir(choice).absolutePath()})
                dialog->setDirectory(choice);
            else
                QMetaObject::invokeMethod(dialog, "accept");
        });
        qv::DownloadManager manager;
        try {
            manager.runZipInstaller(args.at(2));
        } catch (const qv::IOException &) {
            return 4;
        }
        return 3;
    }
    const bool start = args.value(1) == u"start" && args.size() == 3;
    if (start || (args.value(1) == u"completeInstall" && (args.size() == 4 || args.size() == 5))) {
        // A host of version 2.9 in CompleteInstall. "start": it only runs (an update left for
        // later goes in now). "completeInstall": it installs what its signed catalogue offers,
        // answering every box (printed) with Proceed, Restart now or OK; exit 5 after an
        // "Installation failed" box; "Restart now" replaces the process with the updater. With
        // "later-crash", "Restart later" is chosen and the host ends without a normal quit.
        const bool later = args.value(4) == u"later-crash";
        QStandardPaths::setTestModeEnabled(true);
        QCoreApplication::setOrganizationName("SucTestHelper");
        QCoreApplication::setApplicationName("Viewer");
        qv::SoftwareUpdateClient::sSoftUpQSettingsFormat = QSettings::IniFormat;
        qv::SoftwareUpdateClient::setInstallMode(qv::SoftwareUpdateClient::CompleteInstall);
        qv::SoftwareUpdateClient client("Viewer", qv::VersionNumber("2.9"),
                                        start ? "http://127.0.0.1:9/x" : args.at(2), nullptr);
        client.setTrustedKeys({args.at(start ? 2 : 3)});
        if (start) {
            QTimer::singleShot(10000, [] { QCoreApplication::exit(3); });
            return app.exec();
        }
        client.setInteractive(false);
        QApplication::setQuitOnLastWindowClosed(false); // the boxes are its only windows
        answerBoxes(&app, {"Proceed", later ? "Restart later" : "Restart now", "OK"}, [] {});
        QObject::connect(&client, &qv::SoftwareUpdateClient::updatesAvailable, &client, [&client] {
            QMetaObject::invokeMethod(&client, "installPackage", Qt::QueuedConnection,
                                      Q_ARG(int, 0));
        });
        client.checkForUpdate(0);
        QTimer::singleShot(30000, [] { QCoreApplication::exit(3); });
        return app.exec();
    }
    std::fprintf(stderr,
                 "usage: exec_helper startUpdate|runZipInstaller|completeInstall|start ...\n");
    return 2;
}
