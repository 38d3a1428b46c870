#pragma once

// Helpers that several test programs share: test data, modal boxes, open dialogs, port 80.

// Qt's test, widget and network modules whole, and the system calls tests use, for every test
// program: each includes only the project's own headers besides.
#include <QtNetwork>
#include <QtTest>
#include <QtWidgets>

#include <algorithm>

#include <sys/stat.h>
#include <unistd.h>

// Waits look every 10 ms (Qt's own wait 50 ms at a time, which adds up over a suite), and end as
// soon as their condition holds; on failure the check runs once more to report. Tests run two at
// a time, and on machines that build beside them: the default is 20 s rather than Qt's 5 s.
#undef QTRY_VERIFY2_WITH_TIMEOUT
#define QTRY_VERIFY2_WITH_TIMEOUT(expr, message, timeout)                                          \
    do {                                                                                           \
        if (!QTest::qWaitFor([&] { return bool(expr); }, timeout))                                 \
            QVERIFY2(expr, message);                                                               \
    } while (false)
#undef QTRY_VERIFY_WITH_TIMEOUT
#define QTRY_VERIFY_WITH_TIMEOUT(expr, timeout) QTRY_VERIFY2_WITH_TIMEOUT(expr, "", timeout)
#undef QTRY_COMPARE_WITH_TIMEOUT
#define QTRY_COMPARE_WITH_TIMEOUT(expr, expected, timeout)                                         \
    do {                                                                                           \
        if (!QTest::qWaitFor([&] { return (expr) == (expected); }, timeout))                       \
            QCOMPARE(expr, expected);                                                              \
    } while (false)
#undef QTRY_VERIFY
#define QTRY_VERIFY(expr) QTRY_VERIFY_WITH_TIMEOUT(expr, 20000)
#undef QTRY_VERIFY2
#define QTRY_VERIFY2(expr, message) QTRY_VERIFY2_WITH_TIMEOUT(expr, message, 20000)
#undef QTRY_COMPARE
#define QTRY_COMPARE(expr, expected) QTRY_COMPARE_WITH_TIMEOUT(expr, expected, 20000)

namespace suc::test {

/// A whole file; empty when it cannot be read.
inline QByteArray readFile(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

/// Writes `data` to `path`, its folder made first, with the permission bits `mode`; false when it
/// cannot.
inline bool writeFile(const QString &path, const QByteArray &data, int mode = 0644)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(data) == data.size()
        && f.flush() && ::chmod(QFile::encodeName(path).constData(), mode_t(mode)) == 0;
}

/// What a program said (its output and errors together) and its exit code, -100 when it did not
/// end normally within `timeoutMs`. The event loop runs meanwhile: the program may be talking to
/// a server of the test.
struct Run {
    int code;
    QString out;
};
inline Run run(const QString &program, const QStringList &args, const QByteArray &input = {},
               int timeoutMs = 120000)
{
    QProcess p;
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start(program, args);
    p.write(input);
    p.closeWriteChannel();
    QEventLoop loop;
    QObject::connect(&p, &QProcess::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    const bool started = p.waitForStarted();
    if (started && p.state() != QProcess::NotRunning)
        loop.exec();
    const bool ended
        = started && p.state() == QProcess::NotRunning && p.exitStatus() == QProcess::NormalExit;
    return {ended ? p.exitCode() : -100, QString::fromUtf8(p.readAll())};
}

/// A file of tests/data, whole; empty when it cannot be read.
inline QByteArray testData(const QString &name)
{
    return readFile(QStringLiteral(SUC_TEST_DATA_DIR "/") + name);
}

/// Adds the columns and rows of the table tests/data/tables/`name`.json to the running _data()
/// function: {"columns": [["name", "type"], ...], "rows": [["row tag", value, ...], ...]}. A value
/// is converted as QVariant converts it (a QDateTime from ISO text, a QStringList from an array);
/// QList<int> takes an array, QVariant the value as it stands. A table that cannot be read fails
/// the test.
inline void addRows(const QString &name)
{
    const QByteArray text = testData("tables/" + name + ".json");
    QJsonParseError error;
    const QJsonObject table = QJsonDocument::fromJson(text, &error).object();
    if (table.isEmpty())
        QFAIL(qPrintable("tests/data/tables/" + name + ".json: " + error.errorString()));
    QList<QMetaType> types;
    // Known by name once registered: QList<int> may not be yet in a program that never used it.
    qRegisterMetaType<QList<int>>();
    // Qt Test keeps the column names' pointers: they must outlive the table.
    static QList<QByteArray> names;
    for (const QJsonValue &column : table.value("columns").toArray()) {
        const QJsonArray pair = column.toArray();
        types << QMetaType::fromName(pair.at(1).toString().toLatin1());
        names << pair.at(0).toString().toLatin1();
        QTest::addColumnInternal(types.last().id(), names.last().constData());
    }
    for (const QJsonValue &rowValue : table.value("rows").toArray()) {
        const QJsonArray row = rowValue.toArray();
        QTestData &data = QTest::newRow(qPrintable(row.at(0).toString()));
        for (int i = 0; i < types.size(); ++i) {
            QVariant value = row.at(i + 1).toVariant();
            if (types.at(i) == QMetaType::fromType<QList<int>>()) {
                QList<int> numbers;
                for (const QVariant &n : value.toList())
                    numbers << n.toInt();
                value = QVariant::fromValue(numbers);
            } else if (types.at(i) == QMetaType::fromType<QVariant>()) {
                data.append(types.at(i).id(), &value);
                continue;
            } else if (value.isNull()) {
                value = QVariant(types.at(i));
            } else {
                value.convert(types.at(i));
            }
            data.append(types.at(i).id(), value.constData());
        }
    }
}

/// The running row's value in `column`: for a value used once, where QFETCH would only name it.
template<typename T> const T &row(const char *column)
{
    return *static_cast<const T *>(QTest::qData(column, qMetaTypeId<T>()));
}

/// The visible top-level dialog of type T, or null.
template<typename T> T *openDialog()
{
    for (QWidget *w : QApplication::topLevelWidgets()) {
        if (auto *d = qobject_cast<T *>(w); d && d->isVisible())
            return d;
    }
    return nullptr;
}

/// The rows of the package list as the user sees them: the first cell, or every cell joined
/// with " | " and hidden rows marked.
inline QStringList tableRows(const QTableWidget *table, bool allCells)
{
    QStringList rows;
    for (int r = 0; table && r < table->rowCount(); ++r) {
        QStringList cells;
        for (int c = 0; c < (allCells ? table->columnCount() : 1); ++c)
            cells << table->item(r, c)->text();
        rows << cells.join(" | ")
                + (allCells && table->isRowHidden(r) ? " (hidden: another language)" : "");
    }
    return rows;
}

/// Hides every window at once and deletes them: a dialog waiting for deletion is never taken for
/// the next test's open one.
inline void closeAllWindows()
{
    for (QWidget *w : QApplication::topLevelWidgets()) {
        w->hide();
        w->deleteLater();
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

/// Answers every modal message box that opens: clicks the button whose text is one of
/// `choices` (with none given, the accepting one), and keeps each box's "title | text".
class BoxAnswerer : public QObject {
public:
    explicit BoxAnswerer(const QStringList &choices = {}) : m_choices(choices)
    {
        auto *timer = new QTimer(this);
        connect(timer, &QTimer::timeout, this, [this] {
            auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            if (!box)
                return;
            seen << box->windowTitle() + " | " + box->text();
            const QList<QAbstractButton *> buttons = box->buttons();
            for (QAbstractButton *b : buttons) {
                if (m_choices.contains(b->text())
                    || (m_choices.isEmpty() && box->buttonRole(b) == QMessageBox::AcceptRole)) {
                    b->click();
                    return;
                }
            }
            buttons.first()->click();
        });
        timer->start(10);
    }
    QStringList seen;

private:
    QStringList m_choices;
};

/// Keeps every log message while it lives (and passes each on, so QTest::ignoreMessage still
/// works): a test waits for a line with QTRY_VERIFY(log.saw(...)) instead of sleeping.
class LogWatcher {
public:
    LogWatcher() : m_previous(qInstallMessageHandler(handler)) { s_self = this; }
    ~LogWatcher()
    {
        qInstallMessageHandler(m_previous);
        s_self = nullptr;
    }
    bool saw(const QString &part) const
    {
        QMutexLocker lock(&m_mutex);
        return std::any_of(m_lines.cbegin(), m_lines.cend(),
                           [&part](const QString &line) { return line.contains(part); });
    }

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
    {
        if (LogWatcher *self = s_self) {
            {
                QMutexLocker lock(&self->m_mutex);
                self->m_lines << message;
            }
            self->m_previous(type, context, message);
        }
    }
    inline static LogWatcher *s_self = nullptr;
    QtMessageHandler m_previous;
    mutable QMutex m_mutex;
    QStringList m_lines;
};

/// A key pair made by the real minisign tool, which also signs: fixtures are never signed by
/// our own code alone.
class MinisignTool {
public:
    explicit MinisignTool(const QString &folder, const QString &name = QStringLiteral("key"))
        : m_pub(folder + "/" + name + ".pub"), m_sec(folder + "/" + name + ".key")
    {
        QDir().mkpath(folder);
        QFile::remove(m_pub);
        run({"-G", "-f", "-W", "-p", m_pub, "-s", m_sec});
    }
    bool isValid() const { return !publicKey().isEmpty(); }
    /// The base64 line of the public key, as a host configures it.
    QString publicKey() const
    {
        return QString::fromLatin1(readFile(m_pub).split('\n').value(1).trimmed());
    }
    QString secretKeyFile() const { return m_sec; }
    QString publicKeyFile() const { return m_pub; }
    /// Writes `file`.minisig, pre-hashed or in the legacy form, with minisign's own trusted
    /// comment, which names the file ("file:list.xml").
    bool sign(const QString &file, bool legacy = false) const
    {
        return run(QStringList {"-S", "-s", m_sec, "-m", file}
                   + (legacy ? QStringList {"-l"} : QStringList()));
    }

private:
    static bool run(const QStringList &args) { return test::run("minisign", args).code == 0; }
    QString m_pub;
    QString m_sec;
};

/// Every entry below `dir`, relative and sorted.
inline QStringList filesBelow(const QString &dir)
{
    QStringList out;
    QDirIterator it(dir, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System | QDir::Hidden,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        out << QDir(dir).relativeFilePath(it.next());
    out.sort();
    return out;
}

} // namespace suc::test

/// Binds `server` to 127.0.0.1:80, where package downloads always go, or skips the test. The
/// test programs that use it run in a network namespace of their own (PrivateNetwork.h), so
/// nothing outside can hold the port.
#define SUC_LISTEN_ON_PORT_80(server)                                                              \
    do {                                                                                           \
        if (!(server).listen(QHostAddress::LocalHost, 80))                                         \
            QSKIP("package downloads always use port 80, and 127.0.0.1:80 cannot be bound here "   \
                  "(run as root to get a network namespace of its own)");                          \
    } while (false)
