#include "PackageInfo.h"

#include <qv/VersionNumber.h>

#include <QCoreApplication>
#include <QFileInfo>

namespace qv {

PackageInfo::PackageInfo(const QString &type, const QString &name, const QString &release,
                         const QString &status, const QDateTime &releaseDate,
                         const QStringSet &platforms, const QStringSet &languages,
                         const QString &suffix, const QString &comment)
    : type(type),
      name(name),
      publicName(name),
      platforms(platforms),
      release(release),
      publicRelease(release),
      status(status),
      releaseDate(releaseDate),
      languages(languages),
      suffix(suffix),
      comment(comment)
{
}

QString PackageInfo::displayName(bool usePublic) const
{
    return usePublic && !publicName.isEmpty() ? publicName : name;
}

QString PackageInfo::displayReleaseVersion(bool usePublic) const
{
    if (usePublic && !publicRelease.isEmpty())
        return publicRelease;
    if (!release.isEmpty())
        return QuorvelSoftwareVersion::applicationVersion(release, QStringLiteral("?"), 0);
    return publicRelease;
}

QString PackageInfo::timeToString(Qt::DateFormat format) const
{
    if (releaseDate.time() == QTime(0, 0))
        return releaseDate.date().toString(format);
    return releaseDate.toString(format);
}

QString PackageInfo::fileName() const
{
    return QFileInfo(url.path()).fileName();
}

QString PackageInfo::stringID() const
{
    return QStringLiteral("%1-%2-%3").arg(1).arg(releaseDate.toString(Qt::ISODate)).arg(fileSize);
}

bool PackageInfo::operator==(const PackageInfo &other) const
{
    return stringID() == other.stringID();
}

bool PackageInfo::matchesPackage(const QString &a, const QString &b) const
{
    return a.indexOf(a, 0, Qt::CaseInsensitive) >= 0 && b.indexOf(b, 0, Qt::CaseInsensitive) >= 0;
}

bool PackageInfo::isInstallable() const
{
    return isInstallable(suffix);
}

bool PackageInfo::isInstallable(const QString &suffix)
{
    return suffix.compare(u"zip", Qt::CaseInsensitive) == 0
        || suffix.compare(u"rpm", Qt::CaseInsensitive) == 0;
}

int PackageInfo::compareVersion(const QString &a, const QString &b)
{
    return QString::compare(a, b, Qt::CaseSensitive);
}

int PackageInfo::compareRelease(const QString &a, const QString &b)
{
    return -QString::compare(a, b, Qt::CaseSensitive);
}

QUrl PackageInfo::translatedUrl(const UrlMap &map, const QString &language,
                                const QString &fallbackLanguage)
{
    const QString keys[] = {language, language.left(2), fallbackLanguage, fallbackLanguage.left(2)};
    for (const QString &key : keys) {
        const auto it = map.constFind(key);
        if (it != map.cend())
            return it.value();
    }
    return QUrl();
}

QUrl PackageInfo::readmeUrl(const QString &language, const QString &fallbackLanguage) const
{
    return translatedUrl(readme, language, fallbackLanguage);
}

QUrl PackageInfo::releaseNotesUrl(const QString &language, const QString &fallbackLanguage) const
{
    return translatedUrl(releaseNotes, language, fallbackLanguage);
}

namespace {

const char kDisplayContext[] = "Download";

QString displayWord(const QString &text, bool translate)
{
    return translate ? QCoreApplication::translate(kDisplayContext, text.toUtf8().constData())
                     : text;
}

} // namespace

QStringList PackageInfo::allPlatforms(const QList<PackageInfo> &list, bool)
{
    QStringSet set;
    for (const PackageInfo &p : list)
        StringUtils::appendAll(set, p.platforms, QString::fromLatin1(kDisplayContext));
    return set.values();
}

QStringList PackageInfo::allLanguages(const QList<PackageInfo> &list, bool)
{
    QStringSet set;
    for (const PackageInfo &p : list)
        StringUtils::appendAll(set, p.languages, QString::fromLatin1(kDisplayContext));
    return set.values();
}

QStringList PackageInfo::allReleases(const QList<PackageInfo> &list, bool translate)
{
    QStringSet set;
    for (const PackageInfo &p : list)
        set.insert(displayWord(p.release, translate));
    return set.values();
}

QStringList PackageInfo::allTypes(const QList<PackageInfo> &list, bool translate)
{
    QStringSet set;
    for (const PackageInfo &p : list)
        set.insert(displayWord(p.type, translate));
    return set.values();
}

} // namespace qv

namespace {

// Registered at library load, under the names queued connections use.
const int s_packageInfoTypes = [] {
    qRegisterMetaType<qv::PackageInfo>("qv::PackageInfo");
    return qRegisterMetaType<qv::PackageInfoList>("qv::PackageInfoList");
}();

} // namespace
