#include <SoftwareUpdateClient.h>

#include <QApplication>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>
#include <QTimer>

#include <cstdio>

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QStandardPaths::setTestModeEnabled(true);
    QCoreApplication::setOrganizationName("SucPackageHost");
    QCoreApplication::setApplicationName("host");
    qv::SoftwareUpdateClient::sSoftUpQSettingsFormat = QSettings::IniFormat;

    qv::SoftwareUpdateClient client("Viewer", qv::VersionNumber("1.2.3"),
                                    "http://updates.example.test/list.xml", nullptr);
    qv::SoftwareUpdateSettings settings;
    client.getCurrentSettings(&settings);
    QSettings(QSettings::IniFormat, QSettings::UserScope, "SucPackageHost", "host").clear();
    const bool ok = settings.product == QLatin1String("Viewer")
        && settings.versionNumber == qv::VersionNumber("1.2.3")
        && client.findChild<QTimer *>() != nullptr;
    std::printf("package host: client created, settings %s\n", ok ? "read back" : "WRONG");
    // softwareupdate_deploy_updater() put the updater where the ZIP route looks for it.
    const bool deployed
        = QFileInfo(QCoreApplication::applicationDirPath() + "/UpdateInstaller").isExecutable();
    std::printf("package host: UpdateInstaller %s beside the program\n",
                deployed ? "found" : "NOT FOUND");
    return ok && deployed ? 0 : 1;
}
