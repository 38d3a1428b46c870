#pragma once

// Small helpers shared by the client's flows (check, update-available, installation).

#include "Logging.h"

#include <QCoreApplication>
#include <QString>

namespace qv::client {

/// The package kinds of the catalogue.
inline const QString kApplicationKind = QStringLiteral("Application");
inline const QString kCameraKind = QStringLiteral("Camera Firmware");

/// A visible text, translated in the client's context.
inline QString text(const char *source)
{
    return QCoreApplication::translate("SoftwareUpdateClient", source);
}

inline void progressLine(const QString &line)
{
    LogQt::write(lcClient(), Log::Debug, line);
}

inline void errorLine(const QString &line)
{
    LogQt::write(lcClient(), Log::Error, line);
}

} // namespace qv::client
