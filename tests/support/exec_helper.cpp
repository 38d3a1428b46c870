// Stands in for a host application in the tests of the calls that replace the running process,
// and for a host's new version started by the updater:
//   exec_helper host
//   exec_helper startUpdate <updater> <oldDir> <newDir> <exe>   (through the slot, by name)
//   exec_helper runZipInstaller <archive> <folder to choose>
// Exit code 3 means the call returned (the process was not replaced), 4 that runZipInstaller
// rethrew an archive error.

#include <DownloadManager.h>
#include <SoftwareUpdateClient.h>
#include <qv/Exceptions.h>

#include <QAbstractButton>
#include <QApplication>
#include <QFileDialog>
#include <QMessageBox>
#include <QStandardPaths>
#include <QTimer>

#include <cstdio>

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
        // Answers the folder chooser with the given folder, and a message box with Ok after
        // printing its title and text.
        auto *answer = new QTimer(&app);
        QObject::connect(answer, &QTimer::timeout, [choice] {
            if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
                std::printf("box: %s | %s\n", qPrintable(box->windowTitle()),
                            qPrintable(box->text()));
                std::fflush(stdout);
                box->button(QMessageBox::Ok)->click();
            } else if (auto *dialog
                       = qobject_cast<QFileDialog *>(QApplication::activeModalWidget())) {
                dialog->setDirectory(choice);
                dialog->selectFile(choice);
                QMetaObject::invokeMethod(dialog, "accept");
            }
        });
        answer->start(20);
        qv::DownloadManager manager;
        try {
            manager.runZipInstaller(args.at(2));
        } catch (const qv::IOException &) {
            return 4;
        }
        return 3;
    }
    std::fprintf(stderr, "usage: exec_helper startUpdate|runZipInstaller ...\n");
    return 2;
}
