// Delta packages: written by softupdate from a generated application pair, built back by the
// library, and refused whenever a delta or an installed file is not what it claims.

#include "TestSupport.h"

#include <qv/DeltaPackage.h>
#include <qv/Sha256.h>

using namespace qv;
using namespace suc::test;

namespace {

QByteArray noise(int size, quint32 seed)
{
    QByteArray out(size, Qt::Uninitialized);
    QRandomGenerator random(seed);
    random.fillRange(reinterpret_cast<quint32 *>(out.data()), size / 4);
    return out;
}

// Every entry under `root`: kind, mode, and content or link target.
QMap<QString, QString> describe(const QString &root)
{
    QMap<QString, QString> out;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        struct stat st;
        ::lstat(QFile::encodeName(path).constData(), &st);
        char target[256] = {};
        const QString what = S_ISLNK(st.st_mode)
            ? "link " + QString::number(::readlink(QFile::encodeName(path), target, 255)) + target
            : S_ISDIR(st.st_mode)
            ? QStringLiteral("folder")
            : "file " + QString::fromLatin1(Sha256::hash(readFile(path)).toHex());
        out.insert(path.mid(root.size()), QString::number(st.st_mode & 0777, 8) + ' ' + what);
    }
    return out;
}

} // namespace

class DeltaTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QByteArray m_delta; ///< old -> new, best codecs

    QString path(const QString &name) const { return m_dir.filePath(name); }

    static Run softupdate(const QStringList &args) { return run(SUC_SOFTUPDATE, args); }
    // Packs `folder`/App as the package `archive`.
    static bool pack(const QString &archive, const QString &folder)
    {
        return run("bsdtar", {"-a", "-cf", archive, "-C", folder, "App"}).code == 0;
    }

    // Builds `delta` against old/ into a fresh folder; the error, empty when it was built.
    QString apply(const QByteArray &delta, const QByteArray &sha256 = QByteArray())
    {
        writeFile(path("test.delta"), delta);
        QDir(path("built")).removeRecursively();
        QDir().mkpath(path("built"));
        QString error;
        return DeltaPackage::apply(path("test.delta"), path("old/App"), path("built"), &error,
                                   sha256)
            ? QString()
            : error;
    }

private Q_SLOTS:
    void initTestCase()
    {
        // Changed, added, removed, renamed and unchanged files, a link, modes, an empty folder.
        const QByteArray app = noise(400000, 1);
        QVERIFY(writeFile(path("old/App/app"), app, 0755));
        QByteArray changed = app;
        changed.replace(1000, 5, "patch").append(noise(3000, 2));
        QVERIFY(writeFile(path("new/App/app"), changed, 0755));
        const QByteArray library = noise(150000, 3);
        QVERIFY(writeFile(path("old/App/lib/libfoo.so.1"), library));
        QVERIFY(writeFile(path("new/App/lib/libfoo.so.2"), library));
        QVERIFY(QFile::link("libfoo.so.1", path("old/App/lib/libfoo.so")));
        QVERIFY(QFile::link("libfoo.so.2", path("new/App/lib/libfoo.so")));
        for (const char *side : {"old", "new"}) {
            QVERIFY(
                writeFile(path(side + QStringLiteral("/App/data/unchanged.txt")), "the same\n"));
            QVERIFY(writeFile(path(side + QStringLiteral("/App/bin/tool")), "#!/bin/sh\n",
                              side[0] == 'o' ? 0700 : 0755));
            QDir().mkpath(path(side + QStringLiteral("/App/empty")));
        }
        QVERIFY(writeFile(path("old/App/data/removed.txt"), "gone\n"));
        QByteArray text;
        for (int i = 0; i < 5000; ++i)
            text += QByteArray::number(i) + '\n';
        QVERIFY(writeFile(path("new/App/data/added.txt"), text, 0600));
        QCOMPARE(
            softupdate({"delta", path("old/App"), path("new/App"), "-o", path("base.delta")}).code,
            0);
        m_delta = readFile(path("base.delta"));
        for (const char *side : {"old", "new"})
            QVERIFY(pack(path(side + QString(".zip")), path(side)));
    }

    // Folders and packages, each codec: the built folder is the new version, entry for entry.
    void roundTrip_data() { addRows("delta-round-trip"); }
    void roundTrip()
    {
        QFETCH(QString, codec);
        QFETCH(bool, packages);
        QString from = path("old/App"), to = path("new/App");
        if (packages) { // a single top folder, as packages usually have
            from = path("old.zip");
            to = path("new.zip");
        }
        const Run made
            = softupdate({"delta", from, to, "-o", path("trip.delta"), "--codec", codec});
        QCOMPARE(made.code, 0);
        QVERIFY2(made.out.contains(row<QString>("summary"))
                     && made.out.contains("1 links, 2 deleted"),
                 qPrintable(made.out));
        QCOMPARE(apply(readFile(path("trip.delta"))), QString());
        QCOMPARE(describe(path("built")), describe(path("new/App")));
        // Three bzip2 streams and a zstd context at most, whatever the file sizes.
        QVERIFY(DeltaPackage::codecHeapPeak() < 32 << 20);
    }

    // Each flaw stops the build with its reason: nothing unverified, nothing outside the folder.
    void refusals_data() { addRows("delta-refusals"); }
    void refusals()
    {
        QFETCH(QString, edit);
        QFETCH(QString, value);
        QByteArray delta = m_delta;
        QByteArray sha256;
        const int length = qFromLittleEndian<quint32>(delta.constData() + 8);
        QJsonObject manifest = QJsonDocument::fromJson(DeltaPackage::manifestText(delta)).object();
        QJsonArray files = manifest.value("files").toArray();
        const QJsonObject change = QJsonDocument::fromJson(value.toUtf8()).object();
        if (edit == u"entry" || edit == u"payload") {
            for (int i = 0; i < files.size(); ++i) {
                QJsonObject entry = files.at(i).toObject();
                if (entry.value("path") != change.value("entry"))
                    continue;
                const int at = 12 + length + entry.value("offset").toInt();
                for (int i = 14; edit == u"payload" && i < entry.value("length").toInt(); ++i)
                    delta[at + i] ^= 0x55; // the blocks, after the frame header

                const QJsonObject set = change.value("set").toObject();
                for (auto it = set.begin(); it != set.end(); ++it)
                    entry.insert(it.key(), it.value());
                files[i] = entry;
            }
        } else if (edit == u"add-entry") {
            files.append(change);
        } else if (edit == u"installed") {
            QFile f(path("old/App/" + value));
            QVERIFY(f.open(QIODevice::Append));
            f.write("x");
        } else if (edit == u"truncate") { // bytes cut off the end; negative: bytes kept
            delta = value.toInt() > 0 ? delta.chopped(value.toInt()) : delta.left(-value.toInt());
        } else if (edit == u"sha256") {
            sha256 = Sha256::hash(QByteArray(delta + value.toUtf8()));
        }
        if (edit == u"entry" || edit == u"add-entry") {
            manifest.insert("files", files);
            delta = DeltaPackage::header(QJsonDocument(manifest).toJson(QJsonDocument::Compact))
                + delta.mid(12 + length);
        }
        const QString refused = apply(delta, sha256);
        if (edit == u"installed") { // as it was
            QFile f(path("old/App/" + value));
            QVERIFY(f.open(QIODevice::ReadWrite));
            f.resize(f.size() - 1);
        }
        QVERIFY2(refused.contains(row<QString>("error")), qPrintable(refused));
        QVERIFY(!QFileInfo::exists(path("evil")) && !QFileInfo::exists("/tmp/evil-delta"));
    }

    // add --delta-from skips a delta larger than half the package (the package scenarios publish
    // and use one that is smaller), with one option naming two packages.
    void largeDeltasAreNotListed()
    {
        QDir().mkpath(path("site"));
        QVERIFY(QFile::copy(path("old.zip"), path("site/App-1.0.zip")));
        QVERIFY(QFile::copy(path("new.zip"), path("site/App-1.1.zip")));
        QVERIFY(writeFile(path("other/App/app"), noise(400000, 9))); // nothing in common
        QVERIFY(pack(path("site/Other-1.2.zip"), path("other")));
        const QStringList common {"--type", "Application", "--name", "App"};
        QCOMPARE(softupdate(QStringList {"add", path("site/list.xml"), path("site/App-1.0.zip"),
                                         "--release", "1.0"}
                            + common)
                     .code,
                 0);
        // The release of a package without one given: as listed.
        const Run added
            = softupdate(QStringList {"add", path("site/list.xml"), path("site/Other-1.2.zip"),
                                      "--release", "1.2", "--delta-from",
                                      path("site/App-1.1.zip") + "=1.1", path("site/App-1.0.zip")}
                         + common);
        QVERIFY2(added.code == 0 && added.out.contains("skipped the delta from 1.1")
                     && added.out.contains("skipped the delta from 1.0"),
                 qPrintable(added.out));
        QVERIFY(!QFileInfo::exists(path("site/Other-1.2.zip.from-1.1.delta")));
        QVERIFY(!readFile(path("site/list.xml")).contains("<delta"));
    }
};

QTEST_GUILESS_MAIN(DeltaTest)
#include "tst_delta.moc"
