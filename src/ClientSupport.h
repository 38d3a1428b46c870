#pragma once

// Small helpers shared by the client's flows (check, update-available, installation).

#include "Logging.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QSettings>
#include <QString>
#include <QStringList>

namespace qv::client {

/// The package kinds of the catalogue.
inline const QString kApplicationKind = QStringLiteral("Application");
inline const QString kCameraKind = QStringLiteral("Camera Firmware");

/// The client's visible texts: Text::tr() translates in the context "SoftwareUpdateClient",
/// where lupdate finds them.
class Text {
    Q_DECLARE_TR_FUNCTIONS(SoftwareUpdateClient)
};

inline const QString kUpdaterName = QStringLiteral("UpdateInstaller");

// Settings keys of complete installs: the release handed to the updater, the releases rolled
// back, the temporary folders the next start removes, and an update accepted for later
// (unpacked folder, unpack target, release, pid of the process that accepted it).
inline const QString kUpdateInstalling = QStringLiteral("updateInstalling");
inline const QString kRolledBackVersions = QStringLiteral("rolledBackVersions");
inline const QString kUpdateLeftovers = QStringLiteral("updateLeftovers");
inline const QString kInstallOnQuit = QStringLiteral("installOnQuit");

/// The update accepted for later in `store`, when its unpacked folder is still there; else empty.
inline QStringList pendingInstall(const QSettings &store)
{
    const QStringList pending = store.value(kInstallOnQuit).toStringList();
    return pending.size() == 4 && QFileInfo(pending.at(0)).isDir() ? pending : QStringList();
}

/// A copy of the UpdateInstaller installed beside the running program, in a new private (0700)
/// temporary folder: the only updater that is ever run with trusted keys. Empty (and logged)
/// when it cannot be made.
QString privateUpdaterCopy();

inline void progressLine(const QString &line)
{
    LogQt::write(lcClient(), Log::Debug, line);
}

inline void errorLine(const QString &line)
{
    LogQt::write(lcClient(), Log::Error, line);
}

} // namespace qv::client
