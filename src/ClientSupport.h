#pragma once

// Small helpers shared by the client's flows (check, update-available, installation).

#include "Logging.h"

#include <QCoreApplication>
#include <QString>

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
