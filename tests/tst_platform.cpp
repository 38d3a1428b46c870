#include <qv/Exceptions.h>
#include <qv/FileUtils.h>
#include <qv/LogQt.h>
#include <qv/Minisign.h>
#include <qv/Preferences.h>
#include <qv/QtHelpers.h>
#include <qv/StringUtils.h>
#include <qv/VersionNumber.h>

#include <TestSupport.h>

using namespace suc::test;

Q_LOGGING_CATEGORY(lcTest, "qv.softwareupdate.test")

namespace {
QStringList s_captured;
QtMessageHandler s_previous = nullptr;
void capture(QtMsgType type, const QMessageLogContext &ctx, const QString &msg)
{
    if (qstrcmp(ctx.category, "qv.softwareupdate.test") == 0)
        s_captured << QString::number(int(type)) + QLatin1Char(':') + msg;
    else if (s_previous)
        s_previous(type, ctx, msg);
}
// The lines of the test category that `write` logs at the threshold `level`.
QStringList captured(int level, const std::function<void()> &write)
{
    const int before = qv::LogQt::level();
    qv::LogQt::setLevel(level);
    s_captured.clear();
    s_previous = qInstallMessageHandler(capture);
    write();
    qInstallMessageHandler(s_previous);
    qv::LogQt::setLevel(before);
    return s_captured;
}
} // namespace

class Receiver : public QObject {
    Q_OBJECT
public:
    QStringList calls;
public Q_SLOTS:
    void done(const QString &text) { calls << text; }
};

class TestPlatform : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void versionCompare_data() { addRows("platform-version-compare"); }
    void versionCompare()
    {
        QFETCH(int, order);
        const qv::VersionNumber va(row<QString>("a").toLatin1().toStdString());
        const qv::VersionNumber vb(row<QString>("b").toLatin1().toStdString());
        QCOMPARE(qv::VersionNumber::compare(va, vb), order);
        QCOMPARE(qv::VersionNumber::compare(vb, va), -order);
        QCOMPARE(va > vb, order > 0);
        QCOMPARE(va <= vb, order <= 0);
    }

    void versionText_data() { addRows("platform-version-text"); }
    void versionText()
    {
        const qv::VersionNumber v(row<QString>("input").toLatin1().toStdString());
        QTEST(v.toString(), "text");
        QTEST(v.toShortVersion(), "shortText");
        QCOMPARE(qv::VersionNumber(v.toString().toStdString()), v);
    }

    void intersections_data() { addRows("platform-intersections"); }
    void intersections()
    {
        QFETCH(QStringList, a);
        QFETCH(QStringList, b);
        const QStringSet sa(a.cbegin(), a.cend());
        const QStringSet sb(b.cbegin(), b.cend());
        QTEST(qv::StringUtils::intersectsOnBeginning(sa, sb), "onBeginning");
        QTEST(qv::StringUtils::intersectsWith(sa, sb), "shared");
    }

    void preferencesFallBack_data() { addRows("platform-preferences-fall-back"); }
    void preferencesFallBack()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("p.ini");
        QVERIFY(writeFile(path, "[General]\n" + row<QString>("iniLine").toUtf8() + "\n"));
        QSettings s(path, QSettings::IniFormat);
        QTEST(qv::Preferences::boolValue(s, "v", true), "boolResult");
        QTEST(qv::Preferences::intValue(s, "v", 7), "intResult");
        const QDateTime fallback(QDate(2000, 1, 1), QTime(0, 0));
        QCOMPARE(qv::Preferences::dateTimeValue(s, "v", fallback) != fallback,
                 row<bool>("dateValid"));
    }

    // Lines are "<QtMsgType>:<text>" (debug 0, warning 1, critical 2).
    void logThreshold_data() { addRows("platform-log-threshold"); }
    void logThreshold()
    {
        QTEST(captured(row<int>("threshold"),
                       [] {
                           qv::LogQt::write(lcTest(), qv::Log::Debug, "A::f() -> one");
                           qv::LogQt::write(lcTest(), qv::Log::Warning, "A::f() -> two");
                           qv::LogQt::write(lcTest(), qv::Log::Error, "A::f() -> three");
                       }),
              "lines");
    }

    void logLinesStayWholeAcrossThreads()
    {
        const QStringList lines = captured(1, [] {
            QList<QThread *> threads;
            for (int t = 0; t < 4; ++t) {
                threads << QThread::create([t] {
                    for (int i = 0; i < 200; ++i)
                        qv::LogQt::write(lcTest(), 1, QStringLiteral("T%1 line %2").arg(t).arg(i));
                });
                threads.last()->start();
            }
            for (QThread *t : threads) {
                t->wait();
                delete t;
            }
        });
        QCOMPARE(lines.filter(QRegularExpression("^0:T\\d line \\d+$")).size(), 800);
    }

    void invokeQueued_data() { addRows("platform-invoke-queued"); }
    void invokeQueued()
    {
        QFETCH(bool, found);
        Receiver r;
        const QString text = QStringLiteral("hello");
        if (!found)
            QTest::ignoreMessage(QtCriticalMsg,
                                 QRegularExpression("no method missing with 1 arguments"));
        QCOMPARE(qv::invokeQueued(&r, row<QByteArray>("slot").constData(), Q_ARG(QString, text)),
                 found);
        QVERIFY(r.calls.isEmpty()); // queued: nothing happens before the event loop runs
        QCoreApplication::processEvents();
        QCOMPARE(r.calls, found ? QStringList {text} : QStringList {});
    }

    // Removal never leaves the place it was given: a path that does not say plainly where it
    // leads, one outside `within`, or one through a link below it removes nothing.
    // "@" is the test folder, which holds dl/pkg.zip, keep.txt, and dl/link -> the test folder.
    void eraseStaysWhereItWasSent_data() { addRows("platform-erase"); }
    void eraseStaysWhereItWasSent()
    {
        QFETCH(QString, path);
        QFETCH(QString, within);
        QTemporaryDir dir;
        for (const char *name : {"dl/pkg.zip", "keep.txt", "dl/ro/f"})
            QVERIFY(writeFile(dir.filePath(name), ""));
        QVERIFY(QFile::link(dir.path(), dir.filePath("dl/link")));
        QVERIFY(QFile::setPermissions(dir.filePath("dl/ro"), QFile::ReadOwner | QFile::ExeOwner));
        path.replace("@", dir.path());
        within.replace("@", dir.path());
        QCOMPARE(qv::FileUtils::erase(path, within), row<bool>("erased"));
        QCOMPARE(filesBelow(dir.path()), row<QStringList>("left"));
        QFile::setPermissions(dir.filePath("dl/ro"),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    // Reading never blocks on a FIFO and never takes more than it was allowed.
    void readBytesRefusesWhatCannotBeAFile_data()
    {
        addRows("platform-read-bytes-refuses-what-cannot-be-a-file");
    }
    void readBytesRefusesWhatCannotBeAFile()
    {
        QFETCH(QString, kind);
        QTemporaryDir dir;
        const QString path = dir.filePath("f");
        if (kind == "fifo")
            QCOMPARE(mkfifo(QFile::encodeName(path).constData(), 0600), 0);
        else if (kind == "folder")
            QVERIFY(QDir().mkpath(path));
        if (kind == "large") {
            QVERIFY(writeFile(path, QByteArray(101, 'x')));
            QCOMPARE(qv::FileUtils::readBytes(path).size(), 101);
        }
        QVERIFY_THROWS_EXCEPTION(qv::IOException, qv::FileUtils::readBytes(path, 100));
    }

    // Signatures written by the minisign tool, in both of its forms, against our verifier.
    // "damage" is what is done to the file or signature first; "result" a qv::Minisign::Result
    // (0 valid, 1 malformed, 2 unknown key, 3 bad signature).
    void minisignSignatures_data() { addRows("platform-minisign"); }
    void minisignSignatures()
    {
        QFETCH(QString, damage);
        QFETCH(int, result);
        QTemporaryDir dir;
        MinisignTool signer(dir.path()), other(dir.path(), "other");
        QVERIFY(signer.isValid() && other.isValid());
        QVERIFY(writeFile(dir.filePath("catalogue.xml"), "<softwareList serial='1'/>"));
        QVERIFY(signer.sign(dir.filePath("catalogue.xml"), row<bool>("legacy")));
        QByteArray signature = readFile(dir.filePath("catalogue.xml.minisig"));
        QByteArray message = "<softwareList serial='1'/>";
        QList<qv::MinisignKey> keys {qv::MinisignKey::fromText(signer.publicKey())};
        if (damage == "second key")
            keys.prepend(qv::MinisignKey::fromText(other.publicKey()));
        else if (damage == "wrong key")
            keys = {qv::MinisignKey::fromText(other.publicKey())};
        else if (damage == "byte")
            message[15] = 'X';
        else if (damage == "comment")
            signature.replace("file:catalogue.xml", "file:catalogue.xmL");
        else if (damage == "junk")
            signature = "untrusted comment: x\nnot base64 at all\ntrusted comment: y\n????\n";
        else if (damage == "huge")
            signature += QByteArray(qv::Minisign::maxSignatureSize, '\n');
        else if (damage == "empty")
            signature.clear();
        QVERIFY(keys.last().isValid());
        QCOMPARE(int(qv::Minisign::verify(message, signature, keys).result), result);
    }
};

QTEST_GUILESS_MAIN(TestPlatform)
#include "tst_platform.moc"
