#include <PackageInfo.h>
#include <TestSupport.h>

using namespace suc::test;

using qv::PackageInfo;

class TestPackageInfo : public QObject {
    Q_OBJECT

private Q_SLOTS:

    void identity_data() { addRows("packageinfo-identity"); }
    void identity()
    {
        PackageInfo a({}, "one", "1.0", {}, row<QDateTime>("dateA"), {}, {}, {}, {});
        a.fileSize = row<qint64>("sizeA");
        PackageInfo b({}, "two", "9.9", "BETA", row<QDateTime>("dateB"), {"linux"}, {}, "zip", {});
        b.url = QUrl("http://example.invalid/x.zip");
        b.fileSize = row<qint64>("sizeB");
        QTEST(a == b, "equal");
        QCOMPARE(a != b, !(a == b));
        QTEST(a.stringID(), "idA"); // as kept in the history of offered packages
    }

    void timeToString_data() { addRows("packageinfo-time-to-string"); }
    void timeToString()
    {
        PackageInfo p;
        p.releaseDate = row<QDateTime>("when");
        QTEST(p.timeToString(Qt::ISODate), "text");
    }

    void translatedUrl_data() { addRows("packageinfo-translated-url"); }
    void translatedUrl()
    {
        QFETCH(QString, language);
        QFETCH(QString, fallback);
        UrlMap map;
        map.insert("de_CH", QUrl("http://h/ch"));
        map.insert("de", QUrl("http://h/de"));
        map.insert("en_US", QUrl("http://h/us"));
        map.insert("en", QUrl("http://h/en-older"));
        map.insert("en", QUrl("http://h/en-newest")); // the latest entry of a key wins a lookup
        QTEST(PackageInfo::translatedUrl(map, language, fallback).toString(), "expected");
        PackageInfo p; // the readme's map, not the release notes'
        p.readme = map;
        QCOMPARE(p.readmeUrl(language, fallback),
                 PackageInfo::translatedUrl(map, language, fallback));
        QVERIFY(PackageInfo::translatedUrl(UrlMap(), language, fallback).isEmpty());
    }

    void displayTexts_data() { addRows("packageinfo-display-texts"); }
    void displayTexts()
    {
        QFETCH(bool, usePublic);
        PackageInfo p;
        p.name = row<QString>("name");
        p.publicName = row<QString>("publicName");
        p.release = row<QString>("release");
        p.publicRelease = row<QString>("publicRelease");
        QTEST(p.displayName(usePublic), "shownName");
        QTEST(p.displayReleaseVersion(usePublic), "shownRelease");
    }

    void textOrderVersusStatusOrder_data()
    {
        addRows("packageinfo-text-order-versus-status-order");
    }
    void textOrderVersusStatusOrder()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(int, versionSign);
        const auto sign = [](int v) { return (v > 0) - (v < 0); };
        QCOMPARE(sign(PackageInfo::compareVersion(a, b)), versionSign);
        QCOMPARE(sign(PackageInfo::compareRelease(a, b)), -versionSign);
        QVERIFY(PackageInfo::compareRelease("BETA", "STABLE") > 0);
    }

    void metaTypesRegisteredAtLoad()
    {
        // Under the names that queued connections look up, before anything else used them.
        QCOMPARE(QMetaType::fromName("qv::PackageInfo"), QMetaType::fromType<PackageInfo>());
        QCOMPARE(QMetaType::fromName("qv::PackageInfoList"),
                 QMetaType::fromType<qv::PackageInfoList>());
    }
};

QTEST_GUILESS_MAIN(TestPackageInfo)
#include "tst_packageinfo.moc"
