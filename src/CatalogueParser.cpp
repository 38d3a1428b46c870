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

#include <limits>
#include <map>
#include <memory>

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

namespace {

// One level of the inheritance walk: an element (or the document) with its value children
// indexed by tag, in document order, with their texts.
class Level
{
public:
    explicit Level(const QDomNode &node) : m_node(node), m_element(node.toElement())
    {
        for (QDomNode n = node.firstChild(); !n.isNull(); n = n.nextSibling()) {
            if (!n.isElement())
                continue;
            const QDomElement e = n.toElement();
            const QString tag = e.tagName();
            if (isValueTag(tag))
                m_children[tag].append(Child{ e, e.text() });
        }
    }

    struct Child
    {
        QDomElement element;
        QString text;
    };

    const QList<Child> children(const QString &tag) const { return m_children.value(tag); }
    bool hasChild(const QString &tag) const { return m_children.contains(tag); }
    bool hasAttribute(const QString &tag) const { return m_element.hasAttribute(tag); }
    QString attribute(const QString &tag) const { return m_element.attribute(tag); }

    // The level startSearchAt() begins with when asked for this node: its first "file" child.
    const Level *fileLevel() const
    {
        if (!m_fileLevel && hasChild(DownloadManager::FILE))
            m_fileLevel.reset(new Level(m_children.value(DownloadManager::FILE).first().element));
        return m_fileLevel.get();
    }

    // Levels of the translated-URL children of `tag`, kept for every package that inherits them.
    const std::vector<std::unique_ptr<Level>> &childLevels(const QString &tag) const
    {
        auto &levels = m_childLevels[tag];
        if (levels.empty()) {
            for (const Child &c : m_children.value(tag))
                levels.emplace_back(new Level(c.element));
        }
        return levels;
    }

private:
    static bool isValueTag(const QString &tag)
    {
        static const QSet<QString> tags{
            DownloadManager::FILE, DownloadManager::TYPE, DownloadManager::NAME,
            DownloadManager::NAME_PUBLIC, DownloadManager::RELEASE_NOTES, DownloadManager::README,
            DownloadManager::LANGUAGE, DownloadManager::RELEASE_VERSION,
            DownloadManager::RELEASE_VERSION_PUBLIC, DownloadManager::RELEASE_STATUS,
            DownloadManager::RELEASE_DATE, DownloadManager::URL, DownloadManager::BASE_URL,
            DownloadManager::FILE_SIZE, DownloadManager::PLATFORM, DownloadManager::COMMENT,
        };
        return tags.contains(tag);
    }

    QDomNode m_node;
    QDomElement m_element;
    QHash<QString, QList<Child>> m_children;
    mutable std::unique_ptr<Level> m_fileLevel;
    mutable std::map<QString, std::vector<std::unique_ptr<Level>>> m_childLevels;
};

// A walk upward: a level and the chain of its ancestors.
struct Chain
{
    const Level *level;
    const Chain *parent;
};

// The walk that startSearchAt(node) begins for the node of `at`: its "file" child first.
template<typename F>
auto withSearchStart(const Chain *at, F &&f)
{
    if (const Level *file = at->level->fileLevel()) {
        const Chain start{ file, at };
        return f(&start);
    }
    return f(at);
}

QString chainString(const Chain *c, const QString &tag)
{
    for (; c; c = c->parent) {
        if (c->level->hasChild(tag))
            return c->level->children(tag).first().text;
        if (c->level->hasAttribute(tag))
            return c->level->attribute(tag);
    }
    return QString();
}

int chainAllStrings(const Chain *c, const QString &tag, QStringSet &out)
{
    const auto unite = [&out](const QString &text) {
        out.unite(StringUtils::splitStringSet(text, StringUtils::splitWords, Qt::SkipEmptyParts));
    };
    for (; c; c = c->parent) {
        for (const Level::Child &child : c->level->children(tag))
            unite(child.text);
        if (c->level->hasAttribute(tag))
            unite(c->level->attribute(tag));
    }
    return int(out.size());
}

QString languageOrEnglish(const QString &language)
{
    return language.isEmpty() ? QStringLiteral("en") : language;
}

int chainAllTranslatedUrls(const Chain *c, const QString &tag, UrlMap &out)
{
    int count = 0;
    for (; c; c = c->parent) {
        for (const auto &childLevel : c->level->childLevels(tag)) {
            const Chain child{ childLevel.get(), c };
            withSearchStart(&child, [&](const Chain *start) {
                out.insert(languageOrEnglish(chainString(start, DownloadManager::LANGUAGE)),
                           QUrl(chainString(start, DownloadManager::URL)));
                return 0;
            });
            ++count;
        }
        if (c->level->hasAttribute(tag)) {
            const QString language = withSearchStart(c, [](const Chain *start) {
                return chainString(start, DownloadManager::LANGUAGE);
            });
            out.insert(languageOrEnglish(language), QUrl(c->level->attribute(tag)));
            ++count;
        }
    }
    return count;
}

void fillPackage(const Chain *packageLevel, PackageInfo &info)
{
    withSearchStart(packageLevel, [&info](const Chain *c) {
        info.type = chainString(c, DownloadManager::TYPE);
        info.name = chainString(c, DownloadManager::NAME);
        info.publicName = chainString(c, DownloadManager::NAME_PUBLIC);
        chainAllStrings(c, DownloadManager::PLATFORM, info.platforms);
        info.release = chainString(c, DownloadManager::RELEASE_VERSION);
        info.publicRelease = chainString(c, DownloadManager::RELEASE_VERSION_PUBLIC);
        info.status = chainString(c, DownloadManager::RELEASE_STATUS);
        info.releaseDate = DownloadManager::parseReleaseDate(chainString(c, DownloadManager::RELEASE_DATE));
        info.url = QUrl(chainString(c, DownloadManager::BASE_URL) + chainString(c, DownloadManager::URL));
        chainAllStrings(c, DownloadManager::LANGUAGE, info.languages);
        chainAllTranslatedUrls(c, DownloadManager::RELEASE_NOTES, info.releaseNotes);
        chainAllTranslatedUrls(c, DownloadManager::README, info.readme);
        info.fileSize = DownloadManager::parseFileSize(chainString(c, DownloadManager::FILE_SIZE));
        info.suffix = DownloadManager::parsePackageSuffix(info.url.toString());
        info.comment = chainString(c, DownloadManager::COMMENT);
        return 0;
    });
}

void parseSetLevels(const QDomElement &set, const Chain *setChain, PackageInfoList &out)
{
    for (QDomElement p = set.firstChildElement(DownloadManager::PACKAGE); !p.isNull();
         p = p.nextSiblingElement(DownloadManager::PACKAGE)) {
        const Level packageLevel(p);
        const Chain packageChain{ &packageLevel, setChain };
        PackageInfo info;
        fillPackage(&packageChain, info);
        out.append(info);
    }
    for (QDomElement s = set.firstChildElement(DownloadManager::PACKAGE_SET); !s.isNull();
         s = s.nextSiblingElement(DownloadManager::PACKAGE_SET)) {
        const Level nested(s);
        const Chain nestedChain{ &nested, setChain };
        parseSetLevels(s, &nestedChain, out);
    }
}

// Levels for `node` and all its ancestors, innermost first, and the chain that links them.
struct AncestorChain
{
    explicit AncestorChain(const QDomNode &node)
    {
        for (QDomNode n = node; !n.isNull(); n = n.parentNode())
            levels.emplace_back(new Level(n));
        links.resize(levels.size());
        for (size_t i = 0; i < levels.size(); ++i)
            links[i] = Chain{ levels[i].get(), i + 1 < levels.size() ? &links[i + 1] : nullptr };
    }
    const Chain *head() const { return links.empty() ? nullptr : &links.front(); }

    std::vector<std::unique_ptr<Level>> levels;
    std::vector<Chain> links;
};

} // namespace

PackageInfoList DownloadManager::parseXML(QIODevice *device)
{
    PackageInfoList list;
    try {
        const std::unique_ptr<QDomDocument> document(XmlUtils::parseXml(device, nullptr));
        parseSet(document->documentElement(), list);
    } catch (const ParseException &e) {
        LogQt::write(lcCatalogue(), Log::Warning, QStringLiteral("DownloadManager::parseXML() -> XML parser error"));
        LogQt::write(lcCatalogue(), Log::Debug, QStringLiteral("DownloadManager::parseXML() -> ") + e.message());
    }
    return list;
}

void DownloadManager::parseSet(QDomElement set, PackageInfoList &out)
{
    if (set.isNull())
        return;
    const AncestorChain chain(set);
    parseSetLevels(set, chain.head(), out);
}

void DownloadManager::parsePackage(QDomElement package, PackageInfo &info)
{
    if (package.isNull())
        return;
    const AncestorChain chain(package);
    fillPackage(chain.head(), info);
}

QDomNode DownloadManager::startSearchAt(QDomNode node)
{
    const QDomElement file = node.firstChildElement(FILE);
    return file.isNull() ? node : QDomNode(file);
}

QString DownloadManager::findString(QDomNode node, QString tag)
{
    for (QDomNode current = startSearchAt(node); !current.isNull(); current = current.parentNode()) {
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
    for (QDomNode current = startSearchAt(node); !current.isNull(); current = current.parentNode()) {
        for (QDomElement child = current.firstChildElement(tag); !child.isNull();
             child = child.nextSiblingElement(tag))
            out.unite(StringUtils::splitStringSet(child.text(), StringUtils::splitWords, Qt::SkipEmptyParts));
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
    for (QDomNode current = startSearchAt(node); !current.isNull(); current = current.parentNode()) {
        for (QDomElement child = current.firstChildElement(tag); !child.isNull();
             child = child.nextSiblingElement(tag)) {
            out.insert(languageOrEnglish(findString(child, LANGUAGE)), QUrl(findString(child, URL)));
            ++count;
        }
        const QDomElement element = current.toElement();
        if (element.hasAttribute(tag)) {
            out.insert(languageOrEnglish(findString(current, LANGUAGE)), QUrl(element.attribute(tag)));
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

QDateTime DownloadManager::parseReleaseDate(QString text)
{
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
        LogQt::write(lcCatalogue(), Log::Error,
                     QStringLiteral("DownloadManager::parsePackageType() -> parsed suspicious package suffix '")
                             + suffix + QStringLiteral("' in ") + urlText);
    }
    return suffix;
}

} // namespace qv
