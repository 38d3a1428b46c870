#include <DownloadManager.h>
#include <TestSupport.h>
#include <qv/LogQt.h>

#include <QDomDocument>

using namespace qv;
using namespace suc::test;

namespace {

PackageInfoList parseBytes(const QByteArray &bytes)
{
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    return DownloadManager::parseXML(&buffer);
}

QString sorted(const QStringSet &set)
{
    QStringList l = set.values();
    l.sort();
    return l.join(' ');
}

QString urls(const UrlMap &map)
{
    QStringList out;
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        out << it.key() + '=' + it.value().toString();
    return out.join(' ');
}

// The fields of a record as text, by the names the tables use.
QMap<QString, QString> fields(const PackageInfo &p)
{
    return {{"type", p.type},
            {"name", p.name},
            {"publicName", p.publicName},
            {"platforms", sorted(p.platforms)},
            {"url", p.url.toString()},
            {"release", p.release},
            {"status", p.status},
            {"releaseDate", p.releaseDate.toString(Qt::ISODate)},
            {"fileSize", QString::number(p.fileSize)},
            {"languages", sorted(p.languages)},
            {"releaseNotes", urls(p.releaseNotes)},
            {"readme", urls(p.readme)},
            {"suffix", p.suffix},
            {"comment", p.comment},
            {"sha256", p.sha256},
            {"releaseNotes(de)", p.releaseNotesUrl("de_DE", "en").toString()}};
}

} // namespace

class TestCatalogue : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { LogQt::setLevel(Log::Warning); }

    void inheritanceAndPrecedence_data() { addRows("catalogue-fields"); }
    void inheritanceAndPrecedence()
    {
        QFETCH(int, index);
        QFETCH(QString, fieldName);
        const PackageInfoList list = parseBytes(testData(row<QString>("file")));
        QVERIFY(index < list.size() && fields(list.at(index)).contains(fieldName));
        QTEST(fields(list.at(index)).value(fieldName), "expected");
    }

    void nestedSetOrder()
    {
        QStringList names;
        for (const PackageInfo &p : parseBytes(testData("nested.xml")))
            names << p.name;
        QCOMPARE(names, QStringList({"R1", "R2", "A1", "A2", "A1a", "B1"}));
    }

    // The whole-catalogue parse indexes each level once; it must give what the walk over the
    // DOM gives, package by package.
    void parseAgreesWithTheDomWalk_data() { addRows("catalogue-parse-agrees-with-the-dom-walk"); }
    void parseAgreesWithTheDomWalk()
    {
        const QByteArray bytes = testData(row<QString>("file"));
        QDomDocument doc;
        QVERIFY(doc.setContent(bytes));
        QList<QDomElement> packages;
        std::function<void(const QDomElement &)> collect = [&](const QDomElement &set) {
            for (QDomElement p = set.firstChildElement("package"); !p.isNull();
                 p = p.nextSiblingElement("package"))
                packages << p;
            for (QDomElement s = set.firstChildElement("package-set"); !s.isNull();
                 s = s.nextSiblingElement("package-set"))
                collect(s);
        };
        collect(doc.documentElement());
        const PackageInfoList parsed = parseBytes(bytes);
        QCOMPARE(parsed.size(), packages.size());
        for (int i = 0; i < packages.size(); ++i) {
            const QDomElement &e = packages.at(i);
            const PackageInfo &p = parsed.at(i);
            const std::pair<const char *, QString PackageInfo::*> singles[] = {
                {"type", &PackageInfo::type},
                {"name", &PackageInfo::name},
                {"public-name", &PackageInfo::publicName},
                {"release", &PackageInfo::release},
                {"public-release", &PackageInfo::publicRelease},
                {"status", &PackageInfo::status},
                {"comment", &PackageInfo::comment},
            };
            QCOMPARE(p.sha256, DownloadManager::findString(e, "sha256").trimmed().toLower());
            for (const auto &[tag, member] : singles)
                QCOMPARE(p.*member, DownloadManager::findString(e, tag));
            QStringSet platforms, languages;
            DownloadManager::findAllStrings(e, "platform", platforms);
            DownloadManager::findAllStrings(e, "language", languages);
            QCOMPARE(p.platforms, platforms);
            QCOMPARE(p.languages, languages);
            UrlMap notes, readme;
            DownloadManager::findAllTranslatedUrls(e, "release-notes", notes);
            DownloadManager::findAllTranslatedUrls(e, "readme", readme);
            QCOMPARE(urls(p.releaseNotes), urls(notes));
            QCOMPARE(urls(p.readme), urls(readme));
            QCOMPARE(p.url,
                     QUrl(DownloadManager::findString(e, "base-url")
                          + DownloadManager::findString(e, "url")));
            PackageInfo single;
            DownloadManager::parsePackage(e, single);
            QCOMPARE(single.stringID(), p.stringID());
            QCOMPARE(single.suffix, p.suffix);
        }
    }

    void fileSizes_data() { addRows("catalogue-file-sizes"); }
    void fileSizes() { QTEST(DownloadManager::parseFileSize(row<QString>("text")), "bytes"); }

    void releaseDates_data() { addRows("catalogue-release-dates"); }
    void releaseDates()
    {
        QFETCH(QDateTime, expected);
        const QDateTime got = DownloadManager::parseReleaseDate(row<QString>("text"));
        QCOMPARE(got.isNull(), expected.isNull());
        if (!expected.isNull())
            QCOMPARE(got, expected);
    }

    void suffixes_data() { addRows("catalogue-suffixes"); }
    void suffixes()
    {
        QFETCH(QString, url);
        QFETCH(QString, suffix);
        if (row<bool>("warned")) {
            QTest::ignoreMessage(
                QtCriticalMsg,
                qPrintable(
                    "DownloadManager::parsePackageType() -> parsed suspicious package suffix '"
                    + suffix + "' in " + url));
        }
        QCOMPARE(DownloadManager::parsePackageSuffix(url), suffix);
    }

    // Every file of tests/data/hostile-xml, and documents too large to keep as files.
    void badDocumentsGiveEmptyList_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        const QDir hostile(QStringLiteral(SUC_TEST_DATA_DIR "/hostile-xml"));
        for (const QString &name : hostile.entryList(QDir::Files))
            QTest::newRow(qPrintable(name)) << testData("hostile-xml/" + name);
        QTest::newRow("100000 levels") << QByteArray("<package-set>").repeated(100000)
                + "<package/>" + QByteArray("</package-set>").repeated(100000);
        QTest::newRow("huge attribute")
            << "<s><package name='" + QByteArray(2 << 20, 'x') + "'/></s>";
        QTest::newRow("huge text")
            << "<s><package><name>" + QByteArray(2 << 20, 'x') + "</name></package></s>";
        QTest::newRow("over 32 MiB") << "<s>" + QByteArray("<package/>").repeated(3400000) + "</s>";
        QTest::newRow("over a million elements")
            << "<s>" + QByteArray("<p/>").repeated(1000001) + "</s>";
    }
    void badDocumentsGiveEmptyList()
    {
        QFETCH(QByteArray, bytes);
        QTest::ignoreMessage(QtWarningMsg, "DownloadManager::parseXML() -> XML parser error");
        QVERIFY(parseBytes(bytes).isEmpty());
    }

    void limitsStillAcceptRealCatalogues()
    {
        QCOMPARE(parseBytes("<softwareList>" + QByteArray("<package-set>").repeated(60)
                            + "<package name='deep'/>" + QByteArray("</package-set>").repeated(60)
                            + "</softwareList>")
                     .size(),
                 1);
        QCOMPARE(parseBytes("<s><package name='a &amp; b &#x41;'/></s>").value(0).name,
                 QString("a & b A"));
        QCOMPARE(parseBytes("<softwareList base-url='http://h/'><package-set type='A' name='V'>"
                            + QByteArray("<package release='1.0'><file url='v/1.zip' "
                                         "file-size='1'/></package>")
                                  .repeated(20000)
                            + "</package-set></softwareList>")
                     .size(),
                 20000);
        const QString utf16 = QStringLiteral("\uFEFF<s><package name='Kamera \u00FC'/></s>");
        QCOMPARE(
            parseBytes(QByteArray(reinterpret_cast<const char *>(utf16.utf16()), utf16.size() * 2))
                .value(0)
                .name,
            QString("Kamera \u00FC"));
    }

    // Selection (on the realistic catalogue unless a row names another).

    void candidates_data() { addRows("catalogue-candidates"); }
    void candidates()
    {
        QFETCH(QStringList, platforms);
        PackageInfoList catalogue = parseBytes(testData(row<QString>("file")));
        const PackageInfo filter(QString(), row<QString>("name"), row<QString>("release"),
                                 row<QString>("status"), QDateTime(),
                                 QStringSet(platforms.cbegin(), platforms.cend()), {}, "", "");
        const PackageInfoList found = DownloadManager::findPackageCandidates(
            catalogue, filter, "Wanted", row<QStringList>("suffixes"));
        QStringList files;
        for (const PackageInfo &p : found) {
            files << p.fileName();
            QCOMPARE(p.type, QString("Wanted"));
        }
        QTEST(files, "expected");
        // The qualifying records of the catalogue itself take the type too.
        const auto retyped = std::count_if(catalogue.cbegin(), catalogue.cend(),
                                           [](const PackageInfo &p) { return p.type == "Wanted"; });
        QVERIFY(retyped >= found.size());
    }

    void duplicates()
    {
        PackageInfo a, b, c;
        a.name = "first";
        a.fileSize = 1;
        b.fileSize = 2;
        c.name = "third, same identity as first";
        c.fileSize = 1;
        PackageInfoList list {a, b, c};
        DownloadManager::eliminateDuplicatePackages(list);
        QCOMPARE(list.size(), 2);
        QCOMPARE(list.at(0).name, QString("first"));
        QCOMPARE(list.at(1).fileSize, 2);
    }

    void bestMatches_data() { addRows("catalogue-best-matches"); }
    void bestMatches()
    {
        QFETCH(QStringList, excludedLanguages);
        const PackageInfoList catalogue = parseBytes(testData(row<QString>("file")));
        const PackageInfo filter(
            "", "", row<QString>("release"), row<QString>("status"), QDateTime(), {},
            QStringSet(excludedLanguages.cbegin(), excludedLanguages.cend()), "", "");
        QStringList files;
        for (const PackageInfo &p : DownloadManager::findBestMatches(catalogue, filter))
            files << p.fileName();
        QTEST(files, "expected");
    }

    void betterMatchRules_data() { addRows("catalogue-better-match-rules"); }
    void betterMatchRules()
    {
        PackageInfo a("App", "n", row<QString>("releaseA"), row<QString>("statusA"),
                      QDateTime(QDate(2013, 1, row<int>("dayA")), QTime(0, 0)), {"linux"}, {},
                      "zip", "A");
        a.fileSize = 1;
        PackageInfo b("App", "n", row<QString>("releaseB"), row<QString>("statusB"),
                      QDateTime(QDate(2013, 1, row<int>("dayB")), QTime(0, 0)), {"linux"}, {},
                      "zip", "B");
        b.fileSize = 2;
        const PackageInfoList best = DownloadManager::findBestMatches({a, b}, PackageInfo());
        QCOMPARE(best.size(), 1);
        QTEST(best.first().comment, "winner");
    }

    void matchesFilter_data() { addRows("catalogue-matches-filter"); }
    void matchesFilter()
    {
        QFETCH(QStringList, languages);
        PackageInfo p("App", "n", "2.0", row<QString>("status"),
                      QDateTime(QDate(2013, 1, 2), QTime(0, 0)), {},
                      QStringSet(languages.cbegin(), languages.cend()), "", "");
        const PackageInfo filter("", "", "1.0", "STABLE", QDateTime(QDate(2013, 1, 1), QTime(0, 0)),
                                 {}, {"de"}, "", "");
        QTEST(p.matchesFilter(filter), "matches");
        PackageInfo older = p;
        older.releaseDate = QDateTime(QDate(2012, 12, 31), QTime(0, 0));
        QVERIFY(!older.matchesFilter(filter));
    }
};

QTEST_GUILESS_MAIN(TestCatalogue)
#include "tst_catalogue.moc"
