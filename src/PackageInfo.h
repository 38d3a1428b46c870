#pragma once

#include "softwareupdateclient_export.h"

#include <qv/StringUtils.h>

#include <QDateTime>
#include <QList>
#include <QMetaType>
#include <QMultiMap>
#include <QString>
#include <QStringList>
#include <QUrl>

/// Language code to URL. Several URLs may stand under one language; a lookup yields the most
/// recently inserted one.
using UrlMap = QMultiMap<QString, QUrl>;

namespace qv {

/// One downloadable package of the update catalogue. The same record serves as the filter of a
/// query: its name, release, status, date, platforms and languages describe the installed product,
/// and empty fields do not filter.
class SOFTWAREUPDATECLIENT_EXPORT PackageInfo {
public:
    enum Flag {
        PackageKnown = 1, ///< listed by an earlier query
        BestMatchMark = 2, ///< cleared on the best-match copies of a query; no other meaning
    };

    PackageInfo() = default;
    /// `name` also sets `publicName`, `release` also sets `publicRelease`.
    PackageInfo(const QString &type, const QString &name, const QString &release,
                const QString &status, const QDateTime &releaseDate, const QStringSet &platforms,
                const QStringSet &languages, const QString &suffix, const QString &comment);

    QString type;
    QString name;
    QString publicName;
    QStringSet platforms;
    QUrl url;
    QString release;
    QString publicRelease;
    QString status;
    QDateTime releaseDate;
    qint64 fileSize = 0;
    QStringSet languages;
    UrlMap releaseNotes;
    UrlMap readme;
    qint32 flags = 0;
    QString localFile;
    bool spareFlag = false;
    QString suffix;
    QString comment;
    /// SHA-256 of the package file (64 lower-case hex digits) from the catalogue's "sha256";
    /// empty when it names none. Checked when trusted keys are configured.
    QString sha256;

    /// A delta package that turns an installed release into this one (a "delta" child).
    struct Delta {
        QString fromRelease;
        QUrl url;
        qint64 fileSize = 0;
        QString sha256;
    };
    QList<Delta> deltas;

    QString displayName(bool usePublic) const;
    QString displayReleaseVersion(bool usePublic) const;
    /// The date alone when the release time is midnight, else date and time.
    QString timeToString(Qt::DateFormat format) const;
    QString fileName() const;
    /// Identity text "1-<release date ISO>-<file size>": equal packages share it.
    QString stringID() const;
    bool operator==(const PackageInfo &other) const;
    bool operator!=(const PackageInfo &other) const { return !(*this == other); }

    /// Always true: each text is searched within itself.
    bool matchesPackage(const QString &a, const QString &b) const;
    bool isInstallable() const;
    QUrl readmeUrl(const QString &language, const QString &fallbackLanguage) const;
    QUrl releaseNotesUrl(const QString &language, const QString &fallbackLanguage) const;

    /// Candidate rule: exact name and status, numerically newer release, platform prefixes and a
    /// wanted suffix.
    bool filterPackageCandidate(const PackageInfo &filter, const QStringList &wantedSuffixes) const;
    /// Best-match rule: release after the filter's in text order, admitted status, not older, and
    /// none of the filter's (excluded) languages.
    bool matchesFilter(const PackageInfo &filter) const;
    /// True when this package is to be preferred to `other`.
    bool isBetterMatch(const PackageInfo &other) const;

    static bool isInstallable(const QString &suffix);
    static int compareVersion(const QString &a, const QString &b);
    static int compareRelease(const QString &a, const QString &b);
    static QUrl translatedUrl(const UrlMap &map, const QString &language,
                              const QString &fallbackLanguage);
    static QStringList allPlatforms(const QList<PackageInfo> &list, bool translate);
    static QStringList allLanguages(const QList<PackageInfo> &list, bool translate);
    static QStringList allReleases(const QList<PackageInfo> &list, bool translate);
    static QStringList allTypes(const QList<PackageInfo> &list, bool translate);
};

using PackageInfoList = QList<PackageInfo>;

} // namespace qv

using PackageInfoList = qv::PackageInfoList;

Q_DECLARE_METATYPE(qv::PackageInfo)
