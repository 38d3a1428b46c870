#pragma once

#include "PackageInfo.h"
#include "softwareupdateclient_export.h"

#include <QByteArray>
#include <QDateTime>
#include <QDomElement>
#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>

class QIODevice;

namespace qv {

/// Catalogue queries, package downloads, unpacking and installer hand-over. The catalogue parser
/// and the package selection rules are static members, usable without an instance.
class SOFTWAREUPDATECLIENT_EXPORT DownloadManager : public QObject
{
    Q_OBJECT

public:
    // Tag names of the catalogue.
    static const QString DOCUMENT_TAG;
    static const QString PACKAGE_SET;
    static const QString PACKAGE;
    static const QString FILE;
    static const QString TYPE;
    static const QString NAME;
    static const QString NAME_PUBLIC;
    static const QString RELEASE_NOTES;
    static const QString README;
    static const QString LANGUAGE;
    static const QString RELEASE_VERSION;
    static const QString RELEASE_VERSION_PUBLIC;
    static const QString RELEASE_STATUS;
    static const QString RELEASE_DATE;
    static const QString URL;
    static const QString BASE_URL;
    static const QString FILE_SIZE;
    static const QString PLATFORM;
    static const QString COMMENT;

    /// Meta-type id of qv::PackageInfoList, registered when the library loads.
    static int qMetaTypes;

    DownloadManager();
    ~DownloadManager() override;

    // Catalogue parser.

    /// The packages of the catalogue on `device` (open for reading), in document order. A document
    /// that cannot be read gives an empty list and the log line "XML parser error".
    static PackageInfoList parseXML(QIODevice *device);
    /// Appends the packages of `set`, then those of its nested sets, depth first.
    static void parseSet(QDomElement set, PackageInfoList &out);
    /// Fills the catalogue fields of `info` from one package element and its ancestors.
    static void parsePackage(QDomElement package, PackageInfo &info);
    /// The first child element "file" of `node`, else `node`.
    static QDomNode startSearchAt(QDomNode node);
    /// The nearest definition of a single value: child element first, then attribute, walking up.
    static QString findString(QDomNode node, QString tag);
    /// Unites every word of every value of `tag` on `node` and its ancestors into `out`.
    static int findAllStrings(QDomNode node, QString tag, QStringSet &out);
    /// Inserts a (language, URL) pair per definition, inner levels first; returns the count.
    static int findAllTranslatedUrls(QDomNode node, QString tag, UrlMap &out);
    /// Bytes; "MB" and "kB" (any case) scale the truncated number by 2^20 and 2^10.
    static qint64 parseFileSize(QString text);
    /// "yyyy-MM-dd hh:mm:ss", else "yyyy-MM-dd" at midnight, else null.
    static QDateTime parseReleaseDate(QString text);
    /// The package file type from its URL: "zip", "exe", "tar.gz", "mpkg", ...
    static QString parsePackageSuffix(QString urlText);

    // Package selection.

    /// The packages that pass filterPackageCandidate (their `type` set to `type`, in `packages`
    /// too), reduced to those of the newest release.
    static PackageInfoList findPackageCandidates(PackageInfoList &packages, const PackageInfo &filter,
                                                 const QString &type,
                                                 const QStringList &wantedSuffixes);
    /// Removes later duplicates (same identity), keeping the first of each.
    static void eliminateDuplicatePackages(PackageInfoList &packages);
    /// One best package per type and platform among those matching `filter`.
    static PackageInfoList findBestMatches(const PackageInfoList &packages, const PackageInfo &filter);
    /// The number of packages not marked as known.
    static int countNew(const PackageInfoList &packages);

public Q_SLOTS:
    /// Every package of the last accepted answer, each marked as known. `filter` is not used.
    qv::PackageInfoList recentPackages(const qv::PackageInfo &filter);
    qv::PackageInfoList recentPackages(QString type, QString name, QString release, QString status,
                                       QDateTime releaseDate, QStringSet platforms,
                                       QStringSet languages);

protected:
    QByteArray lastAnswer;
};

} // namespace qv
