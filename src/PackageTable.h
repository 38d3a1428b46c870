#pragma once

// The rows of the list of available packages, as the update-available dialog shows them; shared
// by the client and the publisher's tool, which prints them without any window.

#include "PackageInfo.h"
#include "softwareupdateclient_export.h"

#include <QList>
#include <QString>
#include <QStringList>

namespace qv::PackageTable {

/// One row per package: name and release, size, file type, languages, platforms.
SOFTWAREUPDATECLIENT_EXPORT QList<QStringList> rows(const PackageInfoList &packages);

/// The firmware rows hidden for a user of `language` ("de", "en", ...): those in other
/// languages, when at least one firmware row is in the user's; none otherwise.
SOFTWAREUPDATECLIENT_EXPORT QList<int> foreignLanguageRows(const PackageInfoList &packages,
                                                           const QString &language);

} // namespace qv::PackageTable
