#pragma once

#include "softwareupdateclient_export.h"

#include <qv/VersionNumber.h>

#include <QDateTime>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

/// One pair per camera model: model name and the firmware version installed.
using SoftUpCurrentCameraVersions = QList<QPair<QString, qv::VersionNumber>>;
/// Row indexes into the update-available table (row i is package i of the last check).
using SoftUpIndexList = QList<int>;

namespace qv {

/// The choices of the update interval, in the order of the settings dialog's list; stored as
/// these numbers in "updateInterval".
enum UpdateInterval { AtApplicationStart = 0, Daily = 1, Weekly = 2, Monthly = 3 };

/// The client's stored settings. The store is the single source of truth: every operation reads
/// a fresh record, changes it and writes it back.
struct SOFTWAREUPDATECLIENT_EXPORT SoftwareUpdateSettings {
    QString product;
    VersionNumber versionNumber;
    bool quietMode = false;
    QString serverURL;
    bool doUpdateCheck = true;
    bool checkForBeta = false;
    int updateInterval = AtApplicationStart; ///< an UpdateInterval
    QDateTime lastCheck;
    QStringList supportedPlatforms;
    QStringList supportedPackageTypes;
    QStringList installablePackageTypes;
    SoftUpCurrentCameraVersions currentCameraVersions;
};

/// The record exchanged with the update settings dialog. A null `currentVersion` or `lastCheck`
/// hides that row of the dialog.
struct SOFTWAREUPDATECLIENT_EXPORT SoftwareUpdateDialogSettings {
    bool doUpdateCheck = false;
    bool checkForBeta = false;
    int updateInterval = AtApplicationStart; ///< an UpdateInterval
    QString serverURL;
    QString currentVersion;
    QString lastCheck;
};

} // namespace qv
