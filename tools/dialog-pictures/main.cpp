// Renders the update dialogs with realistic content into PNG files, so that the README can show
// them. Run offscreen:  QT_QPA_PLATFORM=offscreen dialog-pictures <output folder>

#include <SoftwareUpdateAvailableDialog.h>
#include <SoftwareUpdateDialog.h>
#include <qv/QtHelpers.h>

#include <QApplication>
#include <QDir>
#include <QTableWidget>
#include <QTest>

#include <cstdio>

namespace {

bool save(QWidget *w, const QString &path)
{
    w->show();
    QApplication::processEvents();
    const bool ok = w->grab().save(path);
    std::printf("%s %s\n", ok ? "wrote" : "FAILED", qPrintable(path));
    return ok;
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QApplication::setStyle(QStringLiteral("Fusion"));
    const QDir out(argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("docs"));
    out.mkpath(QStringLiteral("."));
    bool ok = true;

    qv::SoftwareUpdateDialogSettings settings;
    settings.doUpdateCheck = true;
    settings.updateInterval = 2;
    settings.serverURL = QStringLiteral("http://updates.example.com/software/softwareList.xml");
    settings.currentVersion = QStringLiteral("2.9");
    settings.lastCheck = QStringLiteral("Monday, 16 November 2026 09:14:02");

    qv::SoftwareUpdateDialog plain(nullptr, qv::dialogFlags(false));
    plain.setDialogSettings(settings);
    plain.setNotificationText(QStringLiteral("Congratulations! Your product is up-to-date!"));
    ok &= save(&plain, out.filePath(QStringLiteral("settings-dialog.png")));

    // The expert rows appear when a modifier key is held while the dialog is built.
    QWidget anchor;
    anchor.show();
    QTest::keyPress(anchor.windowHandle(), Qt::Key_Shift, Qt::ShiftModifier);
    qv::SoftwareUpdateDialog expert(nullptr, qv::dialogFlags(false));
    QTest::keyRelease(anchor.windowHandle(), Qt::Key_Shift, Qt::NoModifier);
    anchor.hide();
    settings.checkForBeta = true;
    expert.setDialogSettings(settings);
    expert.enableProgress();
    ok &= save(&expert, out.filePath(QStringLiteral("settings-dialog-expert.png")));

    qv::SoftwareUpdateAvailableDialog available(nullptr, qv::dialogFlags(false));
    available.setTableEntries({
        {"Viewer 2.10", "41.0 MB", "zip", "Multilingual", "linux-x86_64"},
        {"Viewer 2.11 Beta 1 BETA", "42.0 MB", "tar.gz", "Multilingual", "linux-x86_64"},
        {"M1004 Firmware 5.3", "9.0 MB", "bin", "de, en", "M1004"},
        {"M1004 Firmware 5.3", "9.0 MB", "bin", "fr", "M1004"},
        {"P3301 Firmware 4.11 BETA", "7.0 MB", "bin", "de, en", "P3301"},
    });
    available.setTableHeaders({"Name", "File Size", "File Type", "Languages", "Platforms"});
    available.setHiddenEntries({3});
    available.findChild<QTableWidget *>(QStringLiteral("tableWidget"))->selectRow(0);
    available.setCommentText(
        QStringLiteral("<b>Viewer 2.10, Application</b><br />Published on Sunday, 2 June 2013"
                       "<a href=\"http://dl.example.com/software/viewer/2.10/Viewer-linux.zip\">"
                       "http://dl.example.com/software/viewer/2.10/Viewer-linux.zip</a><br />"));
    available.setRealeaseNotesButtonState(true);
    ok &= save(&available, out.filePath(QStringLiteral("update-available-dialog.png")));
    return ok ? 0 : 1;
}
