// Feeds arbitrary bytes to the catalogue parser and both selection paths. Besides crashes and
// sanitizer reports, it checks that the indexed whole-catalogue parse agrees with the plain walk
// over the DOM for every package.

#include <DownloadManager.h>
#include <qv/Exceptions.h>
#include <qv/XmlUtils.h>

#include <QBuffer>
#include <QCoreApplication>
#include <QDomDocument>
#include <QLoggingCategory>

#include <cstdlib>
#include <functional>
#include <memory>

using qv::DownloadManager;
using qv::PackageInfo;
using qv::PackageInfoList;

namespace {

void collect(const QDomElement &set, QList<QDomElement> &packages)
{
    for (QDomElement p = set.firstChildElement("package"); !p.isNull();
         p = p.nextSiblingElement("package"))
        packages << p;
    for (QDomElement s = set.firstChildElement("package-set"); !s.isNull();
         s = s.nextSiblingElement("package-set"))
        collect(s, packages);
}

void require(bool condition, const char *what)
{
    if (!condition) {
        fprintf(stderr, "mismatch: %s\n", what);
        abort();
    }
}

void compareWithWalk(const QByteArray &bytes, const PackageInfoList &parsed)
{
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    std::unique_ptr<QDomDocument> doc;
    try {
        doc.reset(qv::XmlUtils::parseXml(&buffer, nullptr));
    } catch (const qv::ParseException &) {
        require(parsed.isEmpty(), "refused document gave packages");
        return;
    }
    QList<QDomElement> packages;
    collect(doc->documentElement(), packages);
    require(packages.size() == parsed.size(), "package count");
    for (int i = 0; i < packages.size(); ++i) {
        const QDomElement &e = packages.at(i);
        const PackageInfo &p = parsed.at(i);
        require(p.type == DownloadManager::findString(e, "type"), "type");
        require(p.name == DownloadManager::findString(e, "name"), "name");
        require(p.status == DownloadManager::findString(e, "status"), "status");
        require(p.release == DownloadManager::findString(e, "release"), "release");
        require(p.comment == DownloadManager::findString(e, "comment"), "comment");
        require(p.sha256 == DownloadManager::findString(e, "sha256").trimmed().toLower(), "sha256");
        QStringSet platforms, languages;
        DownloadManager::findAllStrings(e, "platform", platforms);
        DownloadManager::findAllStrings(e, "language", languages);
        require(p.platforms == platforms, "platforms");
        require(p.languages == languages, "languages");
        UrlMap notes;
        DownloadManager::findAllTranslatedUrls(e, "release-notes", notes);
        require(p.releaseNotes.keys() == notes.keys() && p.releaseNotes.values() == notes.values(),
                "release notes");
        require(p.url
                    == QUrl(DownloadManager::findString(e, "base-url")
                            + DownloadManager::findString(e, "url")),
                "url");
        require(p.releaseDate
                    == DownloadManager::parseReleaseDate(
                        DownloadManager::findString(e, "release-date")),
                "date");
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static QCoreApplication app(*argc, *argv);
    QLoggingCategory::setFilterRules(QStringLiteral("qv.softwareupdate.*=false"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    PackageInfoList list = DownloadManager::parseXML(&buffer);
    compareWithWalk(bytes, list);

    const PackageInfo app(QString(), "Viewer", "2.9", "STABLE", QDateTime(), {"linux"}, {}, "", "");
    PackageInfoList candidates
        = DownloadManager::findPackageCandidates(list, app, "Application", {"zip", "tar.gz"});
    const PackageInfo camera(QString(), QString(), "5.0", "", QDateTime(), {"M1004"}, {}, "", "");
    candidates += DownloadManager::findPackageCandidates(list, camera, "Camera Firmware", {});
    DownloadManager::eliminateDuplicatePackages(candidates);
    const PackageInfo filter("", "", "1.0", "STABLE", QDateTime(QDate(2010, 1, 1), QTime(0, 0)), {},
                             {"ja"}, "", "");
    const PackageInfoList best = DownloadManager::findBestMatches(list, filter);
    require(DownloadManager::countNew(best) == best.size(), "fresh records are new");
    for (const PackageInfo &p : list) {
        p.releaseNotesUrl("de_DE", "en_US");
        p.displayReleaseVersion(true);
        p.timeToString(Qt::ISODate);
    }
    return 0;
}
