// Package selection. Two paths are kept side by side:
// - candidates (the client's own check): exact name and status, numeric version order, platform
//   prefixes, wanted suffixes, and only the newest release;
// - best matches (host queries): text-ordered version and status, release date, excluded
//   languages, and one best package per type and platform.

#include "DownloadManager.h"

#include "CatalogueTrust.h"

#include <qv/VersionNumber.h>

#include <QBuffer>
#include <QMap>

namespace qv {

namespace {

} // namespace

bool PackageInfo::filterPackageCandidate(const PackageInfo &filter,
                                         const QStringList &wantedSuffixes) const
{
    if (!filter.name.isEmpty() && name != filter.name)
        return false;
    if (!filter.release.isEmpty()
        && VersionNumber::fromText(release) <= VersionNumber::fromText(filter.release))
        return false;
    if (!filter.status.isEmpty() && status != filter.status)
        return false;
    if (!filter.platforms.isEmpty()
        && !StringUtils::intersectsOnBeginning(filter.platforms, platforms))
        return false;
    return wantedSuffixes.isEmpty() || wantedSuffixes.contains(suffix, Qt::CaseSensitive);
}

bool PackageInfo::matchesFilter(const PackageInfo &filter) const
{
    if (!filter.release.isEmpty() && compareVersion(release, filter.release) <= 0)
        return false;
    if (!filter.status.isEmpty() && compareRelease(status, filter.status) < 0)
        return false;
    if (!filter.releaseDate.isNull() && releaseDate < filter.releaseDate)
        return false;
    // The filter's languages name languages whose packages are excluded.
    return filter.languages.isEmpty() || !StringUtils::intersectsWith(languages, filter.languages);
}

bool PackageInfo::isBetterMatch(const PackageInfo &other) const
{
    if (compareVersion(release, other.release) > 0)
        return true;
    if (compareRelease(status, other.status) > 0)
        return true;
    return other.releaseDate < releaseDate;
}

PackageInfoList DownloadManager::findPackageCandidates(PackageInfoList &packages,
                                                       const PackageInfo &filter,
                                                       const QString &type,
                                                       const QStringList &wantedSuffixes)
{
    PackageInfoList result;
    for (PackageInfo &p : packages) {
        if (p.filterPackageCandidate(filter, wantedSuffixes)) {
            p.type = type;
            result.append(p);
        }
    }
    QString highest = QStringLiteral("0");
    VersionNumber highestVersion = VersionNumber::fromText(highest);
    for (const PackageInfo &p : std::as_const(result)) {
        const VersionNumber v = VersionNumber::fromText(p.release);
        if (v > highestVersion) {
            highest = p.release;
            highestVersion = v;
        }
    }
    // Only the newest release survives, compared as text: 2.1 and 2.1.0 do not both stay.
    result.removeIf([&highest](const PackageInfo &p) { return p.release != highest; });
    return result;
}

void DownloadManager::eliminateDuplicatePackages(PackageInfoList &packages)
{
    if (packages.size() < 2)
        return;
    PackageInfoList unique;
    QSet<QString> seen;
    for (const PackageInfo &p : std::as_const(packages)) {
        const QString id = p.stringID();
        if (!seen.contains(id)) {
            seen.insert(id);
            unique.append(p);
        }
    }
    packages = unique;
}

PackageInfoList DownloadManager::findBestMatches(const PackageInfoList &packages,
                                                 const PackageInfo &filter)
{
    QMap<QString, qsizetype> best; // key "type/platform" to an index into `packages`
    for (qsizetype i = 0; i < packages.size(); ++i) {
        const PackageInfo &p = packages.at(i);
        if (!p.matchesFilter(filter))
            continue;
        for (const QString &platform : p.platforms) {
            const QString key = p.type + QLatin1Char('/') + platform;
            auto it = best.find(key);
            if (it == best.end())
                best.insert(key, i);
            else if (p.isBetterMatch(packages.at(it.value())))
                it.value() = i;
        }
    }
    PackageInfoList result;
    QSet<qsizetype> taken;
    for (const qsizetype index : std::as_const(best)) {
        if (!taken.contains(index)) {
            taken.insert(index);
            result.append(packages.at(index));
        }
    }
    return result;
}

int DownloadManager::countNew(const PackageInfoList &packages)
{
    return int(std::count_if(packages.cbegin(), packages.cend(), [](const PackageInfo &p) {
        return !(p.flags & PackageInfo::PackageKnown);
    }));
}

PackageInfoList DownloadManager::recentPackages(const PackageInfo &)
{
    if (lastAnswer.isEmpty() || !cachedAnswerTrusted())
        return PackageInfoList();
    QBuffer buffer(&lastAnswer);
    buffer.open(QIODevice::ReadOnly);
    PackageInfoList list = parseXML(&buffer);
    if (!trustedKeyTexts.isEmpty())
        CatalogueTrust::dropUnhashed(list, "DownloadManager::recentPackages()");
    for (PackageInfo &p : list)
        p.flags |= PackageInfo::PackageKnown;
    return list;
}

PackageInfoList DownloadManager::recentPackages(QString type, QString name, QString release,
                                                QString status, QDateTime releaseDate,
                                                QStringSet platforms, QStringSet languages)
{
    PackageInfo filter {QString(),    QString(),    QString(), QString(), QDateTime(),
                        QStringSet(), QStringSet(), QString(), QString()};
    filter.type = type;
    filter.name = name;
    filter.release = release;
    filter.status = status;
    filter.releaseDate = releaseDate;
    filter.platforms = platforms;
    filter.languages = languages;
    return recentPackages(filter);
}

} // namespace qv
