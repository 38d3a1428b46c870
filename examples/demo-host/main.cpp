// A camera-viewer stand-in that gives itself software updates with the library.
//
// It serves a small update catalogue on loopback (and, where 127.0.0.1:80 can be bound, the
// package files themselves), then walks through a check: the settings dialog, "Check Now", the
// list of available packages, and the download of the chosen package. With --auto (the default
// without a display) every step is taken by the program itself, narrated on standard output, and
// each window is saved as a PNG into the output folder; otherwise the window waits for the user.
//
// With --complete, the complete self-update follows (CompleteUpdate.cpp).
//
//   demo-host [--auto] [--complete] [--output <folder>]

#include "CompleteUpdate.h"

#include <DownloadManager.h>
#include <SoftwareUpdateAvailableDialog.h>
#include <SoftwareUpdateClient.h>
#include <SoftwareUpdateDialog.h>
#include <qv/LogQt.h>

#include <QAbstractButton>
#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QHttpServer>
#include <QLabel>
#include <QMainWindow>
#include <QMenuBar>
#include <QMessageBox>
#include <QTableWidget>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBrowser>
#include <QTimer>

#include <cstdio>

namespace {

const QByteArray kPackage = QByteArray("#!/bin/sh\necho 'Viewer 2.10'\n").repeated(2000);

QByteArray catalogue(quint16 packagePort)
{
    const QByteArray base = "http://127.0.0.1"
        + (packagePort == 80 ? QByteArray() : ":" + QByteArray::number(packagePort)) + "/software/";
    return "<?xml version='1.0' encoding='UTF-8'?>\n"
           "<softwareList base-url='"
        + base
        + "'>\n"
          " <package-set type='Application' name='Viewer' public-name='Camera Viewer' "
          "platform='linux-x86_64'>\n"
          "  <package status='STABLE' release='2.10' public-release='2.10'>\n"
          "   <file url='viewer-2.10-linux.tar.gz' file-size='"
        + QByteArray::number(kPackage.size())
        + "' release-date='2026-11-02 09:00:00'/>\n"
          "   <release-notes language='en' url='"
        + base
        + "notes/viewer-2.10.html'/>\n"
          "  </package>\n"
          "  <package status='BETA' release='2.11' public-release='2.11 Beta 1'>\n"
          "   <file url='viewer-2.11-linux.tar.gz' file-size='1MB' release-date='2026-11-15'/>\n"
          "  </package>\n"
          " </package-set>\n"
          " <package-set type='Camera Firmware' status='STABLE' platform='M1004' name='M1004 "
          "Firmware'>\n"
          "  <package language='de en' release='5.3'><file url='fw/M1004-5.3-de_en.bin' "
          "file-size='9MB' release-date='2026-10-01'/></package>\n"
          "  <package language='fr' release='5.3'><file url='fw/M1004-5.3-fr.bin' file-size='9MB' "
          "release-date='2026-10-02'/></package>\n"
          " </package-set>\n"
          "</softwareList>\n";
}

void say(const QString &line)
{
    std::printf("%s\n", qPrintable(line));
    std::fflush(stdout);
}

template<typename T> T *visible()
{
    for (QWidget *w : QApplication::topLevelWidgets()) {
        if (auto *t = qobject_cast<T *>(w); t && t->isVisible())
            return t;
    }
    return nullptr;
}

bool waitFor(const std::function<bool()> &condition, int ms = 20000)
{
    QElapsedTimer t;
    t.start();
    while (!condition()) {
        if (t.elapsed() > ms)
            return false;
        QTest::qWait(20);
    }
    return true;
}

// Answers every message box that opens with the button of the given text, and tells about it.
void answerBoxes(QObject *owner, const QString &choice)
{
    auto *timer = new QTimer(owner);
    QObject::connect(timer, &QTimer::timeout, [choice] {
        auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
        if (!box)
            return;
        say(QStringLiteral("  box \"%1\": %2").arg(box->windowTitle(), box->text()));
        for (QAbstractButton *b : box->buttons()) {
            if (b->text() == choice || box->buttons().size() == 1) {
                say(QStringLiteral("  -> %1").arg(b->text()));
                b->click();
                return;
            }
        }
    });
    timer->start(50);
}

int runAuto(qv::SoftwareUpdateClient &client, QMainWindow &window, const QDir &out,
            bool canDownload)
{
    const auto shot = [&out](QWidget *w, const QString &name) {
        const QString path = out.filePath(name);
        w->grab().save(path);
        say(QStringLiteral("  (picture: %1)").arg(path));
    };
    say(QStringLiteral("1. The user opens Help > Check for Updates..."));
    client.queryForUpdate({}, false);
    auto *settings = visible<qv::SoftwareUpdateDialog>();
    if (!settings)
        return 1;
    shot(settings, QStringLiteral("1-settings.png"));

    say(QStringLiteral("2. ... and presses Check Now."));
    Q_EMIT settings->checkForUpdate();
    if (!waitFor([] { return visible<qv::SoftwareUpdateAvailableDialog>() != nullptr; })) {
        say(QStringLiteral("  no packages were offered: ")
            + settings->findChild<QLabel *>(QStringLiteral("updateNotificationLabel"))->text());
        return 1;
    }
    auto *list = visible<qv::SoftwareUpdateAvailableDialog>();
    auto *table = list->findChild<QTableWidget *>(QStringLiteral("tableWidget"));
    say(QStringLiteral("3. The update server offers %1 packages newer than what is installed:")
            .arg(table->rowCount()));
    for (int r = 0; r < table->rowCount(); ++r) {
        QStringList cells;
        for (int c = 0; c < table->columnCount(); ++c)
            cells << table->item(r, c)->text();
        say(QStringLiteral("   %1%2").arg(
            cells.join(QStringLiteral(" | ")),
            table->isRowHidden(r) ? QStringLiteral("   (hidden: another language)") : QString()));
    }
    table->selectRow(0);
    QTest::qWait(50);
    say(QStringLiteral("4. The user selects the first row: ")
        + list->findChild<QTextBrowser *>(QStringLiteral("commentText"))
              ->toPlainText()
              .simplified());
    shot(list, QStringLiteral("2-update-available.png"));

    if (!canDownload) {
        say(QStringLiteral("5. (127.0.0.1:80 cannot be bound here, and packages always download "
                           "from port 80: skipped)"));
        return 0;
    }
    say(QStringLiteral("5. ... and asks to install it (the host's own Install path)."));
    answerBoxes(&window, QStringLiteral("Proceed"));
    Q_EMIT list->installPackage(0);
    const bool downloaded
        = waitFor([] { return visible<qv::SoftwareUpdateAvailableDialog>() == nullptr; });
    say(downloaded ? QStringLiteral(
            "6. The package was downloaded; a .tar.gz is handed to the log on this platform "
            "(see the qv.softwareupdate.client lines above).")
                   : QStringLiteral("6. The download did not finish."));
    return downloaded ? 0 : 1;
}

} // namespace

// The offscreen platform reports that it cannot resize fixed-size windows; that is no news here.
QtMessageHandler s_standardHandler = nullptr;
void quietHandler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (!message.contains(QLatin1String("propagateSizeHints")))
        s_standardHandler(type, context, message);
}

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Quorvel Demo"));
    QCoreApplication::setApplicationName(QStringLiteral("Viewer"));
    // A version started by the updater in the complete walk finds its part in the environment.
    if (qEnvironmentVariableIsSet("DEMO_STATE")) {
        if (QGuiApplication::platformName() == u"offscreen")
            s_standardHandler = qInstallMessageHandler(quietHandler);
        return runCompleteStep();
    }
    QCommandLineParser parser;
    parser.addHelpOption();
    QCommandLineOption autoOption(QStringLiteral("auto"),
                                  QStringLiteral("Take every step automatically."));
    QCommandLineOption outputOption(QStringLiteral("output"),
                                    QStringLiteral("Folder for the pictures."),
                                    QStringLiteral("folder"), QStringLiteral("demo-output"));
    QCommandLineOption completeOption(
        QStringLiteral("complete"),
        QStringLiteral("Then walk the complete self-update: 2.9 -> 2.10, and a 2.11 rolled back."));
    parser.addOptions({autoOption, outputOption, completeOption});
    parser.process(app);
    const bool automatic
        = parser.isSet(autoOption) || QGuiApplication::platformName() == u"offscreen";
    if (QGuiApplication::platformName() == u"offscreen")
        s_standardHandler = qInstallMessageHandler(quietHandler);

    // Settings go to a scratch folder, never to the user's own.
    QTemporaryDir settingsDir;
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, settingsDir.path());
    qv::SoftwareUpdateClient::sSoftUpQSettingsFormat = QSettings::IniFormat;
    qv::LogQt::setLevel(qv::Log::Debug);

    // The packages, on port 80 where that can be bound.
    QHttpServer packages;
    packages.route(QStringLiteral("/software/<arg>"), [](const QString &) {
        return QHttpServerResponse("application/gzip", kPackage);
    });
    packages.route(QStringLiteral("/software/notes/<arg>"), [](const QString &) {
        return QHttpServerResponse("text/html", "<h1>Viewer 2.10</h1><p>Faster live view.</p>");
    });
    const quint16 packagePort = packages.listen(QHostAddress::LocalHost, 80)
        ? 80
        : packages.listen(QHostAddress::LocalHost);

    QHttpServer updates;
    const QByteArray list = catalogue(packagePort);
    updates.route(QStringLiteral("/softwareList.xml"),
                  [&list] { return QHttpServerResponse("text/xml", list); });
    const quint16 updatePort = updates.listen(QHostAddress::LocalHost);
    const QString serverUrl
        = QStringLiteral("http://127.0.0.1:%1/softwareList.xml").arg(updatePort);
    say(QStringLiteral("Update server: %1 (packages on port %2)").arg(serverUrl).arg(packagePort));

    QMainWindow window;
    window.setWindowTitle(QStringLiteral("Camera Viewer 2.9"));
    window.setCentralWidget(
        new QLabel(QStringLiteral("Camera Viewer 2.9\nHelp > Check for Updates..."), &window));
    window.resize(480, 320);
    qv::SoftwareUpdateClient client(QStringLiteral("Viewer"), qv::VersionNumber("2.9"), serverUrl,
                                    &window);
    client.setCurrentCameraVersions({{QStringLiteral("M1004"), qv::VersionNumber("5.2.1")}});
    // Downloads on poor links: resumed where they stopped, tried again after transient errors.
    client.setResumeDownloads(true);
    client.setDownloadRetries(3);
    QMenu *help = window.menuBar()->addMenu(QStringLiteral("&Help"));
    help->addAction(QStringLiteral("Check for Updates..."), &client,
                    [&client] { client.queryForUpdate(); });
    window.show();
    client.doInitialCheck(2000);

    if (!automatic)
        return app.exec();
    QDir out(parser.value(outputOption));
    out.mkpath(QStringLiteral("."));
    int result = runAuto(client, window, out, packagePort == 80);
    if (result == 0 && parser.isSet(completeOption)) {
        for (QTcpServer *s : packages.servers()) // port 80 is the complete walk's now
            s->close();
        result = runCompleteDriver(QCoreApplication::applicationFilePath(),
                                   QStringLiteral(SUC_UPDATE_INSTALLER), out);
    }
    say(result == 0 ? QStringLiteral("Demo finished.") : QStringLiteral("Demo failed."));
    return result;
}
