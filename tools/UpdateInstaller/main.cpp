// UpdateInstaller -oldDir <application folder> -newDir <unpacked new version> -exe <program>
//                 [-healthTimeout <seconds>] [-settle] [-waitFor <pid> -noStart]
//
// Replaces the application folder with the new version and starts the program; see FolderSwap.
// Every step is written to SoftwareUpdate/UpdateInstaller.log in the user's state folder (or to
// the file named by UPDATEINSTALLER_LOG).

#include "FolderSwap.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QProcess>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include <unistd.h>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    FolderSwap::Options options;
    const QStringList args = QCoreApplication::arguments();
    options.settle = args.contains(QStringLiteral("-settle"));
    options.noStart = args.contains(QStringLiteral("-noStart"));
    qint64 waitFor = 0;
    for (qsizetype i = 1; i + 1 < args.size(); ++i) {
        if (args.at(i) == u"-oldDir")
            options.oldDir = args.at(++i);
        else if (args.at(i) == u"-newDir")
            options.newDir = args.at(++i);
        else if (args.at(i) == u"-exe")
            options.exe = args.at(++i);
        else if (args.at(i) == u"-healthTimeout")
            options.healthTimeout = qMax(1, args.at(++i).toInt());
        else if (args.at(i) == u"-waitFor")
            waitFor = args.at(++i).toLongLong();
    }

    // The user's state folder ($XDG_STATE_HOME, else ~/.local/state): the program's own folder
    // is the one being replaced, and may not be writable.
    QString logPath = qEnvironmentVariable("UPDATEINSTALLER_LOG");
    if (logPath.isEmpty()) {
        QString state = qEnvironmentVariable("XDG_STATE_HOME");
        if (state.isEmpty())
            state = QDir::homePath() + QStringLiteral("/.local/state");
        QDir().mkpath(state + QStringLiteral("/SoftwareUpdate"));
        logPath = state + QStringLiteral("/SoftwareUpdate/UpdateInstaller.log");
    }
    QFile logFile(logPath);
    if (!logFile.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Text))
        logFile.open(stderr, QIODevice::WriteOnly | QIODevice::Text);
    QTextStream log(&logFile);

    if (options.oldDir.isEmpty()) {
        std::fprintf(stderr,
                     "usage: UpdateInstaller -oldDir <folder> -newDir <folder> -exe <program>\n");
        log << "refused: no application folder (-oldDir) given" << Qt::endl;
        return 2;
    }

    // A test hook: UPDATEINSTALLER_STOP_AFTER=<step> kills the process right after that step.
    const QByteArray stopAfter = qgetenv("UPDATEINSTALLER_STOP_AFTER");
    const auto hook = [&stopAfter, &log](const char *step) {
        if (!stopAfter.isEmpty() && stopAfter == step) {
            log.flush();
            std::raise(SIGKILL);
        }
    };
    const auto starter = [](const QString &program, const QString &folder) {
        return QProcess::startDetached(program, {}, folder);
    };
    // Installed when the host quits: nothing moves before that process has ended.
    if (waitFor > 0) {
        log << QDateTime::currentDateTime().toString(Qt::ISODateWithMs) << " waiting for process "
            << waitFor << " to end" << Qt::endl;
        while (kill(pid_t(waitFor), 0) == 0 || errno == EPERM)
            usleep(100 * 1000);
    }
    FolderSwap swap(options, log, starter, hook);
    const int result = swap.run();
    if (result != 0)
        std::fprintf(stderr, "UpdateInstaller: the update was not installed; see %s\n",
                     qPrintable(logPath));
    return result;
}
