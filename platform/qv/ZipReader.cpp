#include "ZipReader.h"

#include "Exceptions.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QMutex>
#include <QPointer>
#include <QProgressDialog>
#include <QSet>

#include <archive.h>
#include <archive_entry.h>

#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <thread>

namespace qv {

namespace {

QMutex s_limitsMutex;
ZipReader::Limits s_defaultLimits {qint64(8) << 30, 100000};

// A ZIP archive open for reading. Only ZIP is read (a package names its type, and nothing else
// hides behind a ".zip"), and a warning of libarchive (a bad CRC, for one) is a failure.
struct ReadArchive {
    explicit ReadArchive(const QString &file) : a(archive_read_new())
    {
        const QFileInfo info(file);
        if (!info.isFile() || info.size() == 0) {
            archive_read_free(a);
            throw IOException(QStringLiteral("%1 is not a readable archive: %2")
                                  .arg(file,
                                       info.isFile() ? QStringLiteral("the file is empty")
                                                     : QStringLiteral("not a regular file")));
        }
        // The package type names the format: a ".tar.gz" is a gzip-compressed tar, anything
        // else a ZIP.
        if (file.endsWith(QLatin1String(".tar.gz"))) {
            archive_read_support_filter_gzip(a);
            archive_read_support_format_tar(a);
        } else {
            archive_read_support_format_zip(a);
        }
        if (archive_read_open_filename(a, QFile::encodeName(file).constData(), 64 * 1024)
            != ARCHIVE_OK) {
            const QString why = error();
            archive_read_free(a);
            throw IOException(QStringLiteral("%1 is not a readable archive: %2").arg(file, why));
        }
    }
    ~ReadArchive() { archive_read_free(a); }
    QString error() const
    {
        const char *e = archive_error_string(a);
        return e ? QString::fromLocal8Bit(e) : QStringLiteral("truncated or damaged data");
    }
    // The next header, or null at the end; a damaged archive throws.
    archive_entry *next()
    {
        archive_entry *entry = nullptr;
        const int r = archive_read_next_header(a, &entry);
        if (r == ARCHIVE_EOF)
            return nullptr;
        if (r != ARCHIVE_OK)
            throw IOException(QStringLiteral("damaged archive: %1").arg(error()));
        return entry;
    }
    archive *a;
};

QString entryName(archive_entry *entry)
{
    const char *raw = archive_entry_pathname(entry);
    return raw ? QFile::decodeName(raw) : QString();
}

// True when `link`, found at `entryPath` inside the target, stays inside the target. The
// working folder is the target: the walk follows the links already written there, as anyone
// opening the link later would (`l2 -> .` makes `l2/..` the target's parent).
bool linkStaysInside(const QByteArray &entryPath, const QByteArray &link)
{
    if (link.isEmpty() || link.startsWith('/'))
        return false;
    QList<QByteArray> resolved;
    QList<QByteArray> pending = entryPath.split('/');
    pending.removeLast();
    pending += link.split('/');
    int expansions = 0;
    while (!pending.isEmpty()) {
        const QByteArray part = pending.takeFirst();
        if (part.isEmpty() || part == ".")
            continue;
        if (part == "..") {
            if (resolved.isEmpty())
                return false;
            resolved.removeLast();
            continue;
        }
        const QByteArray here = (resolved + QList<QByteArray> {part}).join('/');
        struct stat st;
        if (lstat(here.constData(), &st) == 0 && S_ISLNK(st.st_mode)) {
            if (++expansions > 40)
                return false; // a loop, or deliberately deep
            QByteArray target(st.st_size > 0 ? st.st_size : 4096, Qt::Uninitialized);
            const ssize_t n = readlink(here.constData(), target.data(), size_t(target.size()));
            if (n <= 0 || target.at(0) == '/')
                return false;
            target.truncate(n);
            pending = target.split('/') + pending;
            continue;
        }
        resolved.append(part);
    }
    return true;
}

// Entry paths as written, without "./" and trailing slashes.
QByteArray normalisedPath(QByteArray path)
{
    while (path.startsWith("./"))
        path.remove(0, 2);
    while (path.endsWith('/'))
        path.chop(1);
    return path;
}

// The working folder of the calling thread is the target while this object lives. libarchive's
// secure flags accept only relative entry paths, so extraction must happen from inside the
// target. A thread with a filesystem context of its own (unshare(CLONE_FS)) changes folder
// without touching the rest of the process; where that is not allowed (some sandboxes filter
// the call) the process-wide folder is changed under a lock and restored afterwards.
class WorkingFolder {
public:
    explicit WorkingFolder(const QString &target)
    {
        if (unshare(CLONE_FS) != 0) {
            s_mutex.lock();
            m_locked = true;
            char *previous = getcwd(nullptr, 0);
            m_previous = previous ? QByteArray(previous) : QByteArray("/");
            free(previous);
        }
        if (chdir(QFile::encodeName(target).constData()) != 0)
            throw IOException(QStringLiteral("cannot enter %1").arg(target));
    }
    ~WorkingFolder()
    {
        if (m_locked) {
            if (chdir(m_previous.constData()) != 0)
                qWarning("could not return to %s", m_previous.constData());
            s_mutex.unlock();
        }
    }

private:
    static QMutex s_mutex;
    bool m_locked = false;
    QByteArray m_previous;
};

QMutex WorkingFolder::s_mutex;

// The extraction proper, on a thread of its own (see WorkingFolder).
void extractIn(const QString &archiveFile, const QSet<QString> *wanted, const QString &target,
               bool overwrite, const ZipReader::Limits &limits, const std::atomic<bool> &canceled,
               const std::function<void(qint64)> &entryDone, QString &error)
{
    try {
        const WorkingFolder inside(target);
        ReadArchive in(archiveFile);
        std::unique_ptr<archive, int (*)(archive *)> out(archive_write_disk_new(),
                                                         archive_write_free);
        int flags = ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_SECURE_NODOTDOT
            | ARCHIVE_EXTRACT_SECURE_SYMLINKS | ARCHIVE_EXTRACT_SECURE_NOABSOLUTEPATHS;
        if (!overwrite)
            flags |= ARCHIVE_EXTRACT_NO_OVERWRITE;
        archive_write_disk_set_options(out.get(), flags);
        const auto outError = [&out] {
            const char *e = archive_error_string(out.get());
            return e ? QString::fromLocal8Bit(e) : QStringLiteral("unknown error");
        };

        qint64 entries = 0;
        qint64 done = 0;
        qint64 written = 0;
        QHash<QByteArray, bool> isFolder; // every path written, and the folders above them
        QList<QByteArray> links;
        while (archive_entry *entry = in.next()) {
            if (canceled)
                return;
            const QString name = entryName(entry);
            if (wanted && !wanted->contains(name)) {
                archive_read_data_skip(in.a);
                continue;
            }
            if (++entries > limits.maxEntries)
                throw IOException(QStringLiteral("more than %1 entries").arg(limits.maxEntries));
            const QByteArray path = normalisedPath(archive_entry_pathname(entry));
            const mode_t type = archive_entry_filetype(entry);
            if (type != AE_IFREG && type != AE_IFDIR && type != AE_IFLNK)
                throw IOException(
                    QStringLiteral("%1 is a special file (FIFO or device)").arg(name));
            // One name is one thing: a folder and a file of the same name is a damaged package.
            const bool folder = type == AE_IFDIR;
            if (const auto seen = isFolder.constFind(path); seen != isFolder.cend()) {
                if (*seen != folder)
                    throw IOException(QStringLiteral("%1 is both a folder and a file").arg(name));
                if (!folder && !overwrite) { // the same file again: the first stays
                    archive_read_data_skip(in.a);
                    continue;
                }
            }
            for (qsizetype slash = path.indexOf('/'); slash > 0;
                 slash = path.indexOf('/', slash + 1)) {
                if (!isFolder.value(path.left(slash), true))
                    throw IOException(QStringLiteral("%1 is both a folder and a file")
                                          .arg(QString::fromUtf8(path.left(slash))));
                isFolder.insert(path.left(slash), true);
            }
            isFolder.insert(path, folder);

            if (const char *link = archive_entry_symlink(entry);
                link && !linkStaysInside(path, link))
                throw IOException(QStringLiteral("%1 links outside the target folder").arg(name));
            if (const char *link = archive_entry_hardlink(entry);
                link && !linkStaysInside(QByteArray(), link))
                throw IOException(QStringLiteral("%1 links outside the target folder").arg(name));
            // Nothing unpacked runs with another user's rights or can be changed by other users.
            archive_entry_set_perm(entry,
                                   archive_entry_perm(entry)
                                       & ~mode_t(S_ISUID | S_ISGID | S_ISVTX | S_IWGRP | S_IWOTH));
            if (archive_write_header(out.get(), entry) != ARCHIVE_OK)
                throw IOException(QStringLiteral("%1: %2").arg(name, outError()));
            // An entry counts by the extent it covers, so a sparse entry counts by its full size.
            qint64 extent = archive_entry_size_is_set(entry) ? archive_entry_size(entry) : 0;
            const auto checkSize = [&] {
                if (written + extent > limits.maxTotalBytes)
                    throw IOException(
                        QStringLiteral("unpacks to more than %1 bytes").arg(limits.maxTotalBytes));
            };
            checkSize();
            const void *block = nullptr;
            size_t size = 0;
            la_int64_t offset = 0;
            for (;;) {
                const int r = archive_read_data_block(in.a, &block, &size, &offset);
                if (r == ARCHIVE_EOF)
                    break;
                if (r != ARCHIVE_OK)
                    throw IOException(QStringLiteral("%1: %2").arg(name, in.error()));
                extent = qMax(extent, qint64(offset) + qint64(size));
                checkSize();
                if (archive_write_data_block(out.get(), block, size, offset) != ARCHIVE_OK)
                    throw IOException(QStringLiteral("%1: %2").arg(name, outError()));
                if (canceled)
                    return;
            }
            written += extent;
            if (archive_write_finish_entry(out.get()) != ARCHIVE_OK)
                throw IOException(QStringLiteral("%1: %2").arg(name, outError()));
            if (type == AE_IFLNK)
                links.append(path);
            entryDone(++done);
        }
        // A link written early may lead out through one written later (`l1 -> d/..`, then
        // `d -> .`): every link is judged again against the finished tree.
        for (const QByteArray &link : std::as_const(links)) {
            QByteArray target(4096, Qt::Uninitialized);
            const ssize_t n = readlink(link.constData(), target.data(), size_t(target.size()));
            if (n <= 0 || !linkStaysInside(link, target.left(n)))
                throw IOException(QStringLiteral("%1 links outside the target folder")
                                      .arg(QFile::decodeName(link)));
        }
    } catch (const IOException &e) {
        error = e.message();
    }
}

} // namespace

ZipDevice::ZipDevice(QObject *parent) : QObject(parent) { }

void ZipDevice::attachProgressDialog(QProgressDialog *dialog)
{
    m_progress = dialog;
}

ZipReader::Limits ZipReader::defaultLimits()
{
    QMutexLocker lock(&s_limitsMutex);
    return s_defaultLimits;
}

void ZipReader::setDefaultLimits(const Limits &limits)
{
    QMutexLocker lock(&s_limitsMutex);
    s_defaultLimits = limits;
}

ZipReader::ZipReader(const QString &file, QObject *parent)
    : ZipDevice(parent), m_file(file), m_limits(defaultLimits())
{
}

ZipReader::~ZipReader() = default;

void ZipReader::open(QIODevice::OpenMode mode)
{
    if (mode & QIODevice::WriteOnly)
        throw IOException(QStringLiteral("archives can only be read"));
    ReadArchive probe(m_file);
    m_open = true;
}

QStringList ZipReader::fileList(const QRegularExpression &pattern) const
{
    if (!m_open)
        throw IOException(QStringLiteral("%1 is not open").arg(m_file));
    ReadArchive in(m_file);
    QStringList names;
    const bool all = pattern.pattern().isEmpty();
    while (archive_entry *entry = in.next()) {
        const QString name = entryName(entry);
        if (all || pattern.match(name).hasMatch())
            names << name;
        if (names.size() > m_limits.maxEntries)
            throw IOException(QStringLiteral("more than %1 entries").arg(m_limits.maxEntries));
        archive_read_data_skip(in.a);
    }
    return names;
}

qint64 ZipReader::unpackedSize() const
{
    if (!m_open)
        throw IOException(QStringLiteral("%1 is not open").arg(m_file));
    ReadArchive in(m_file);
    qint64 total = 0;
    qint64 entries = 0;
    while (archive_entry *entry = in.next()) {
        if (archive_entry_size_is_set(entry) && archive_entry_size(entry) > 0)
            total += archive_entry_size(entry);
        if (++entries > m_limits.maxEntries)
            throw IOException(QStringLiteral("more than %1 entries").arg(m_limits.maxEntries));
        archive_read_data_skip(in.a);
    }
    return qMax(total, QFileInfo(m_file).size());
}

void ZipReader::extractFiles(const QStringList &files, const QString &targetFolder, bool overwrite)
{
    extract(&files, files.size(), targetFolder, overwrite);
}

void ZipReader::extractAll(const QString &targetFolder, bool overwrite)
{
    extract(nullptr, 0, targetFolder, overwrite);
}

void ZipReader::extract(const QStringList *files, qint64 expected, const QString &targetFolder,
                        bool overwrite)
{
    if (!m_open)
        throw IOException(QStringLiteral("%1 is not open").arg(m_file));
    if (!QDir().mkpath(targetFolder))
        throw IOException(QStringLiteral("cannot create %1").arg(targetFolder));
    QSet<QString> wanted;
    if (files)
        wanted = QSet<QString>(files->cbegin(), files->cend());
    const QString target = QDir(targetFolder).absolutePath();
    QString error;
    // An archive given by a relative path is found from the caller's folder.
    const QString archivePath = QFileInfo(m_file).absoluteFilePath();

    // Without a dialog the caller simply waits. With one, an event loop runs until the worker
    // ends: progress arrives as queued calls, Cancel is heard, and the dialog is the only window
    // that takes input meanwhile.
    QEventLoop loop;
    QObject inbox; // queued calls from the worker land here, and die with it
    QPointer<QProgressDialog> progress = m_progress;
    if (progress) {
        progress->setRange(0, int(qMin<qint64>(expected, INT_MAX)));
        progress->setWindowModality(Qt::ApplicationModal);
        QObject::connect(progress, &QProgressDialog::canceled, &inbox,
                         [this] { m_canceled = true; });
        QObject::connect(progress, &QObject::destroyed, &inbox, [this] { m_canceled = true; });
    }
    const bool reporting = !progress.isNull();
    const auto entryDone = [this, &inbox, progress, reporting](qint64 done) {
        if (reporting) { // on the worker: the dialog itself is only touched on its own thread
            QMetaObject::invokeMethod(
                &inbox,
                [this, progress, done] {
                    // cancel() called directly sets the flag without a signal
                    if (!progress || progress->wasCanceled())
                        m_canceled = true;
                    else
                        progress->setValue(int(qMin<qint64>(done, progress->maximum())));
                },
                Qt::QueuedConnection);
        }
    };
    std::thread worker([&] {
        extractIn(archivePath, files ? &wanted : nullptr, target, overwrite, m_limits, m_canceled,
                  entryDone, error);
        if (reporting)
            QMetaObject::invokeMethod(
                &inbox, [&loop] { loop.quit(); }, Qt::QueuedConnection);
    });
    if (reporting)
        loop.exec();
    worker.join();
    if (m_progress && !m_canceled)
        m_progress->setValue(m_progress->maximum());
    if (!error.isEmpty())
        throw IOException(error);
}

} // namespace qv
