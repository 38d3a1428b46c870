// The catalogue parser. Any value may be given on an enclosing set and is inherited by every
// package inside it, as a child element or as an attribute (the element wins).
//
// The public find* functions walk the DOM as the format defines it. Parsing a whole catalogue
// walks the same levels but through an index of each level's value children, built once per
// level: a set with 100,000 packages would otherwise be scanned for every value of every package.

#include "DownloadManager.h"

#include "Logging.h"

#include <qv/Exceptions.h>
#include <qv/XmlUtils.h>

#include <QBuffer>
#include <QDomDocument>

#include <array>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

namespace qv {

const QString DownloadManager::DOCUMENT_TAG = QStringLiteral("softwareList");
const QString DownloadManager::PACKAGE_SET = QStringLiteral("package-set");
const QString DownloadManager::PACKAGE = QStringLiteral("package");
const QString DownloadManager::FILE = QStringLiteral("file");
const QString DownloadManager::TYPE = QStringLiteral("type");
const QString DownloadManager::NAME = QStringLiteral("name");
const QString DownloadManager::NAME_PUBLIC = QStringLiteral("public-name");
const QString DownloadManager::RELEASE_NOTES = QStringLiteral("release-notes");
const QString DownloadManager::README = QStringLiteral("readme");
const QString DownloadManager::LANGUAGE = QStringLiteral("language");
const QString DownloadManager::RELEASE_VERSION = QStringLiteral("release");
const QString DownloadManager::RELEASE_VERSION_PUBLIC = QStringLiteral("public-release");
const QString DownloadManager::RELEASE_STATUS = QStringLiteral("status");
const QString DownloadManager::RELEASE_DATE = QStringLiteral("release-date");
const QString DownloadManager::URL = QStringLiteral("url");
const QString DownloadManager::BASE_URL = QStringLiteral("base-url");
const QString DownloadManager::FILE_SIZE = QStringLiteral("file-size");
const QString DownloadManager::PLATFORM = QStringLiteral("platform");
const QString DownloadManager::COMMENT = QStringLiteral("comment");
const QString DownloadManager::SHA256 = QStringLiteral("sha256");
const QString DownloadManager::SERIAL = QStringLiteral("serial");
const QString DownloadManager::EXPIRES = QStringLiteral("expires");
const QString DownloadManager::DELTA = QStringLiteral("delta");
const QString DownloadManager::FROM_RELEASE = QStringLiteral("from-release");

namespace {

// The value tags, numbered so that a level can keep them in arrays.
enum Tag {
    TagFile,
    TagType,
    TagName,
    TagNamePublic,
    TagReleaseNotes,
    TagReadme,
    TagLanguage,
    TagRelease,
    TagReleasePublic,
    TagStatus,
    TagReleaseDate,
    TagUrl,
    TagBaseUrl,
    TagFileSize,
    TagPlatform,
    TagComment,
    TagSha256,
    TagDelta,
    TagFromRelease,
    TagCount
};

int tagId(const QString &name)
{
    static const QHash<QString, int> ids {
        {DownloadManager::FILE, TagFile},
        {DownloadManager::TYPE, TagType},
        {DownloadManager::NAME, TagName},
        {DownloadManager::NAME_PUBLIC, TagNamePublic},
        {DownloadManager::RELEASE_NOTES, TagReleaseNotes},
        {DownloadManager::README, TagReadme},
        {DownloadManager::LANGUAGE, TagLanguage},
        {DownloadManager::RELEASE_VERSION, TagRelease},
        {DownloadManager::RELEASE_VERSION_PUBLIC, TagReleasePublic},
        {DownloadManager::RELEASE_STATUS, TagStatus},
        {DownloadManager::RELEASE_DATE, TagReleaseDate},
        {DownloadManager::URL, TagUrl},
        {DownloadManager::BASE_URL, TagBaseUrl},
        {DownloadManager::FILE_SIZE, TagFileSize},
        {DownloadManager::PLATFORM, TagPlatform},
        {DownloadManager::COMMENT, TagComment},
        {DownloadManager::SHA256, TagSha256},
        {DownloadManager::DELTA, TagDelta},
        {DownloadManager::FROM_RELEASE, TagFromRelease},
    };
    return ids.value(name, -1);
}

// One level of the inheritance walk: an element (or the document) with its value children and
// value attributes indexed by tag, children in document order.
class Level {
public:
    explicit Level(const QDomNode &node)
    {
        for (QDomNode n = node.firstChild(); !n.isNull(); n = n.nextSibling()) {
            if (!n.isElement())
                continue;
            const QDomElement e = n.toElement();
            const int tag = tagId(e.tagName());
            if (tag < 0)
                continue;
            // File and translated-URL elements are read through levels of their own.
            const bool hasText
                = tag != TagFile && tag != TagReleaseNotes && tag != TagReadme && tag != TagDelta;
            m_children[tag].append(Child {e, hasText ? e.text() : QString()});
        }
        const QDomNamedNodeMap attributes = node.attributes();
        for (int i = 0, n = attributes.count(); i < n; ++i) {
            const QDomNode a = attributes.item(i);
            const int tag = tagId(a.nodeName());
            if (tag >= 0) {
                m_attributes[tag] = a.nodeValue();
                m_attributeMask |= 1u << tag;
            }
        }
    }

    struct Child {
        QDomElement element;
        QString text;
    };

    const QList<Child> &children(int tag) const { return m_children[tag]; }
    bool hasChild(int tag) const { return !m_children[tag].isEmpty(); }
    bool hasAttribute(int tag) const { return m_attributeMask & (1u << tag); }
    const QString &attribute(int tag) const { return m_attributes[tag]; }

    // The words of this level's own values of `tag`: its child elements, then its attribute.
    QStringSet words(int tag) const
    {
        QStringSet set;
        for (const Child &child : m_children[tag])
            set.unite(StringUtils::splitStringSet(child.text, StringUtils::splitWords,
                                                  Qt::SkipEmptyParts));
        if (hasAttribute(tag))
            set.unite(StringUtils::splitStringSet(attribute(tag), StringUtils::splitWords,
                                                  Qt::SkipEmptyParts));
        return set;
    }

    // The level startSearchAt() begins with when asked for this node: its first "file" child.
    const Level *fileLevel() const
    {
        if (!m_fileLevel && hasChild(TagFile))
            m_fileLevel.reset(new Level(m_children[TagFile].first().element));
        return m_fileLevel.get();
    }

    // Levels of the translated-URL children of `tag`, kept for every package that inherits them.
    const std::vector<std::unique_ptr<Level>> &childLevels(int tag) const
    {
        auto &levels = m_childLevels[tag == TagReadme ? 1 : 0];
        if (levels.empty()) {
            for (const Child &c : m_children[tag])
                levels.emplace_back(new Level(c.element));
        }
        return levels;
    }

private:
    std::array<QList<Child>, TagCount> m_children;
    std::array<QString, TagCount> m_attributes;
    quint32 m_attributeMask = 0;
    mutable std::unique_ptr<Level> m_fileLevel;
    mutable std::array<std::vector<std::unique_ptr<Level>>, 2> m_childLevels;
};

// A walk upward: a level and the chain of its ancestors. The union of the word lists from a link
// up to the document is kept with the link, so packages share what their sets have in common.
struct Chain {
    Chain(const Level *level, const Chain *parent) : level(level), parent(parent) { }

    const QStringSet &cumulativeWords(int tag) const
    {
        std::optional<QStringSet> &cached = m_words[tag == TagPlatform ? 0 : 1];
        if (!cached) {
            QStringSet own = level->words(tag);
            if (!parent)
                cached = own;
            else if (own.isEmpty())
                cached = parent->cumulativeWords(tag);
            else
                cached = own.unite(parent->cumulativeWords(tag));
        }
        return *cached;
    }

    const Level *level;
    const Chain *parent;

private:
    mutable std::array<std::optional<QStringSet>, 2> m_words;
};

// The walk that startSearchAt(node) begins for the node of `at`: its "file" child first.
template<typename F> auto withSearchStart(const Chain *at, F &&f)
{
    if (const Level *file = at->level->fileLevel()) {
        const Chain start {file, at};
        return f(&start);
    }
    return f(at);
}

QString chainString(const Chain *c, int tag)
{
    for (; c; c = c->parent) {
        if (c->level->hasChild(tag))
            return c->level->children(tag).first().text;
        if (c->level->hasAttribute(tag))
            return c->level->attribute(tag);
    }
    return QString();
}

QString languageOrEnglish(const QString &language)
{
    return language.isEmpty() ? QStringLiteral("en") : language;
}

int chainAllTranslatedUrls(const Chain *c, int tag, UrlMap &out)
{
    int count = 0;
    for (; c; c = c->parent) {
        for (const auto &childLevel : c->level->childLevels(tag)) {
            const Chain child {childLevel.get(), c};
            withSearchStart(&child, [&](const Chain *start) {
                out.insert(languageOrEnglish(chainString(start, TagLanguage)),
                           QUrl(chainString(start, TagUrl)));
                return 0;
            });
            ++count;
        }
        if (c->level->hasAttribute(tag)) {
            const QString language = withSearchStart(
                c, [](const Chain *start) { return chainString(start, TagLanguage); });
            out.insert(languageOrEnglish(language), QUrl(c->level->attribute(tag)));
            ++count;
        }
    }
    return count;
}

// Release dates repeat across a catalogue, and each local-time conversion costs system calls.
class DateCache {
public:
    QDateTime parse(const QString &text)
    {
        auto it = m_dates.constFind(text);
        if (it == m_dates.cend())
            it = m_dates.insert(text, DownloadManager::parseReleaseDate(text));
        return it.value();
    }

private:
    QHash<QString, QDateTime> m_dates;
};

void fillPackage(const Chain *packageLevel, PackageInfo &info, DateCache &dates)
{
    withSearchStart(packageLevel, [&info, &dates](const Chain *c) {
        info.type = chainString(c, TagType);
        info.name = chainString(c, TagName);
        info.publicName = chainString(c, TagNamePublic);
        info.platforms = c->cumulativeWords(TagPlatform);
        info.release = chainString(c, TagRelease);
        info.publicRelease = chainString(c, TagReleasePublic);
        info.status = chainString(c, TagStatus);
        info.releaseDate = dates.parse(chainString(c, TagReleaseDate));
        info.url = QUrl(chainString(c, TagBaseUrl) + chainString(c, TagUrl));
        info.languages = c->cumulativeWords(TagLanguage);
        chainAllTranslatedUrls(c, TagReleaseNotes, info.releaseNotes);
        chainAllTranslatedUrls(c, TagReadme, info.readme);
        info.fileSize = DownloadManager::parseFileSize(chainString(c, TagFileSize));
        info.suffix = DownloadManager::parsePackageSuffix(info.url.toString());
        info.comment = chainString(c, TagComment);
        info.sha256 = chainString(c, TagSha256).trimmed().toLower();
        return 0;
    });
    // Deltas belong to the package itself (or its file), never to a set.
    for (const Level *level : {packageLevel->level, packageLevel->level->fileLevel()}) {
        for (const auto &child : level ? level->children(TagDelta) : QList<Level::Child>()) {
            const Level delta(child.element);
            const Chain own {&delta, nullptr};
            PackageInfo::Delta d;
            d.fromRelease = chainString(&own, TagFromRelease).trimmed();
            const QString url = chainString(&own, TagUrl).trimmed();
            // A relative URL lies where the package's base URL points.
            d.url = QUrl(url).isRelative() ? QUrl(chainString(packageLevel, TagBaseUrl) + url)
                                           : QUrl(url);
            d.fileSize = DownloadManager::parseFileSize(chainString(&own, TagFileSize));
            d.sha256 = chainString(&own, TagSha256).trimmed().toLower();
            info.deltas.append(d);
        }
    }
}

void parseSetLevels(const QDomElement &set, const Chain *setChain, PackageInfoList &out,
                    DateCache &dates)
{
    for (QDomElement p = set.firstChildElement(DownloadManager::PACKAGE); !p.isNull();
         p = p.nextSiblingElement(DownloadManager::PACKAGE)) {
        const Level packageLevel(p);
        const Chain packageChain {&packageLevel, setChain};
        PackageInfo info;
        fillPackage(&packageChain, info, dates);
        out.append(info);
    }
    for (QDomElement s = set.firstChildElement(DownloadManager::PACKAGE_SET); !s.isNull();
         s = s.nextSiblingElement(DownloadManager::PACKAGE_SET)) {
        const Level nested(s);
        const Chain nestedChain {&nested, setChain};
        parseSetLevels(s, &nestedChain, out, dates);
    }
}

// Levels for `node` and all its ancestors, innermost first, and the chain that links them.
struct AncestorChain {
    explicit AncestorChain(const QDomNode &node)
    {
        std::vector<QDomNode> nodes;
        for (QDomNode n = node; !n.isNull(); n = n.parentNode())
            nodes.push_back(n);
        // Built outermost first, so every link's parent already exists.
        for (auto it = nodes.rbegin(); it != nodes.rend(); ++it) {
            levels.emplace_back(new Level(*it));
            links.emplace_back(
                new Chain(levels.back().get(), links.empty() ? nullptr : links.back().get()));
        }
    }
    const Chain *head() const { return links.empty() ? nullptr : links.back().get(); }

    std::vector<std::unique_ptr<Level>> levels;
    std::vector<std::unique_ptr<Chain>> links;
};

} // namespace

PackageInfoList DownloadManager::parseXML(QIODevice *device)
{
    return parseXML(device, nullptr);
}

PackageInfoList DownloadManager::parseXML(QIODevice *device, bool *wellFormed)
{
    PackageInfoList list;
    if (wellFormed)
        *wellFormed = false;
    try {
        const std::unique_ptr<QDomDocument> document(XmlUtils::parseXml(device, nullptr));
        parseSet(document->documentElement(), list);
        if (wellFormed)
            *wellFormed = true;
    } catch (const ParseException &e) {
        LogQt::write(lcCatalogue(), Log::Warning,
                     QStringLiteral("DownloadManager::parseXML() -> XML parser error"));
        LogQt::write(lcCatalogue(), Log::Debug,
                     QStringLiteral("DownloadManager::parseXML() -> ") + e.message());
    }
    return list;
}

void DownloadManager::parseSet(QDomElement set, PackageInfoList &out)
{
    if (set.isNull())
        return;
    const AncestorChain chain(set);
    DateCache dates;
    parseSetLevels(set, chain.head(), out, dates);
}

void DownloadManager::parsePackage(QDomElement package, PackageInfo &info)
{
    if (package.isNull())
        return;
    const AncestorChain chain(package);
    DateCache dates;
    fillPackage(chain.head(), info, dates);
}

QDomNode DownloadManager::startSearchAt(QDomNode node)
{
    const QDomElement file = node.firstChildElement(FILE);
    return file.isNull() ? node : QDomNode(file);
}

QString DownloadManager::findString(QDomNode node, QString tag)
{
    for (QDomNode current = startSearchAt(node); !current.isNull();
         current = current.parentNode()) {
        const QDomElement child = current.firstChildElement(tag);
        if (!child.isNull())
            return child.text();
        const QDomElement element = current.toElement();
        if (element.hasAttribute(tag))
            return element.attribute(tag);
    }
    return QString();
}

int DownloadManager::findAllStrings(QDomNode node, QString tag, QStringSet &out)
{
    for (QDomNode current = startSearchAt(node); !current.isNull();
         current = current.parentNode()) {
        for (QDomElement child = current.firstChildElement(tag); !child.isNull();
             child = child.nextSiblingElement(tag))
            out.unite(StringUtils::splitStringSet(child.text(), StringUtils::splitWords,
                                                  Qt::SkipEmptyParts));
        const QDomElement element = current.toElement();
        if (element.hasAttribute(tag))
            out.unite(StringUtils::splitStringSet(element.attribute(tag), StringUtils::splitWords,
                                                  Qt::SkipEmptyParts));
    }
    return int(out.size());
}

int DownloadManager::findAllTranslatedUrls(QDomNode node, QString tag, UrlMap &out)
{
    int count = 0;
    for (QDomNode current = startSearchAt(node); !current.isNull();
         current = current.parentNode()) {
        for (QDomElement child = current.firstChildElement(tag); !child.isNull();
             child = child.nextSiblingElement(tag)) {
            out.insert(languageOrEnglish(findString(child, LANGUAGE)),
                       QUrl(findString(child, URL)));
            ++count;
        }
        const QDomElement element = current.toElement();
        if (element.hasAttribute(tag)) {
            out.insert(languageOrEnglish(findString(current, LANGUAGE)),
                       QUrl(element.attribute(tag)));
            ++count;
        }
    }
    return count;
}

qint64 DownloadManager::parseFileSize(QString text)
{
    const auto scaled = [&text](int shift) {
        const double value = text.left(text.size() - 2).toDouble();
        // Truncation happens before scaling: 1.5MB is 1 MiB.
        quint64 whole = 0;
        if (value >= double(std::numeric_limits<quint64>::max()))
            whole = std::numeric_limits<quint64>::max();
        else if (value >= 1)
            whole = quint64(value);
        return qint64(whole << shift);
    };
    if (text.endsWith(QLatin1String("MB"), Qt::CaseInsensitive))
        return scaled(20);
    if (text.endsWith(QLatin1String("kB"), Qt::CaseInsensitive))
        return scaled(10);
    bool ok = false;
    const quint64 bytes = text.toULongLong(&ok, 10);
    return ok ? qint64(bytes) : 0;
}

namespace {

// Canonical dates ("2011-04-05" and "2011-04-05 13:45:00") are read directly; anything else, and
// any local time that does not exist as written, goes through Qt's format parser.
QDateTime canonicalDate(const QString &text)
{
    const auto digits = [&text](int from, int count) {
        int value = 0;
        for (int i = from; i < from + count; ++i) {
            const char16_t c = text.at(i).unicode();
            if (c < u'0' || c > u'9')
                return -1;
            value = value * 10 + (c - u'0');
        }
        return value;
    };
    const qsizetype n = text.size();
    if ((n != 10 && n != 19) || text.at(4) != u'-' || text.at(7) != u'-')
        return QDateTime();
    const QDate date(digits(0, 4), digits(5, 2), digits(8, 2));
    QTime time(0, 0);
    if (n == 19) {
        if (text.at(10) != u' ' || text.at(13) != u':' || text.at(16) != u':')
            return QDateTime();
        time = QTime(digits(11, 2), digits(14, 2), digits(17, 2));
    }
    if (digits(0, 4) < 0 || !date.isValid() || !time.isValid())
        return QDateTime();
    const QDateTime result(date, time);
    return result.isValid() && result.date() == date && result.time() == time ? result
                                                                              : QDateTime();
}

} // namespace

QDateTime DownloadManager::parseReleaseDate(QString text)
{
    const QDateTime canonical = canonicalDate(text);
    if (canonical.isValid())
        return canonical;
    const QDateTime withTime = QDateTime::fromString(text, QStringLiteral("yyyy-MM-dd hh:mm:ss"));
    if (withTime.isValid())
        return withTime;
    return QDateTime::fromString(text, QStringLiteral("yyyy-MM-dd"));
}

QString DownloadManager::parsePackageSuffix(QString urlText)
{
    QString suffix = urlText.section(QLatin1Char('.'), -1, -1, QString::SectionSkipEmpty);
    const QString before = urlText.section(QLatin1Char('.'), -2, -2, QString::SectionSkipEmpty);
    if (suffix == u"zip" && before == u"mpkg")
        suffix = QStringLiteral("mpkg");
    else if (suffix == u"gz" && before == u"tar")
        suffix = QStringLiteral("tar.gz");
    else if (suffix == u"bz2" && before == u"tar")
        suffix = QStringLiteral("tar.bz2");
    if (suffix.size() < 3 || suffix.size() > 7) {
        LogQt::write(
            lcCatalogue(), Log::Error,
            QStringLiteral(
                "DownloadManager::parsePackageType() -> parsed suspicious package suffix '")
                + suffix + QStringLiteral("' in ") + urlText);
    }
    return suffix;
}

} // namespace qv
