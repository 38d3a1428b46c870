#pragma once

// Where the updater and the client keep what one update of an application folder leaves behind
// (journal, lock, health confirmation, roll-back note), and how those files are read and
// written. Header-only: UpdateInstaller uses it without the rest of the library.
//
// The files live in a folder only the user can enter, never beside the application, and are
// opened without following a symbolic link: nobody else can plant, redirect or pre-empt them.

#include <QByteArray>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qv::UpdateState {

/// The user's state folder: $XDG_STATE_HOME when it is absolute, else ~/.local/state.
inline QString userStateFolder()
{
    const QString state = qEnvironmentVariable("XDG_STATE_HOME");
    return QDir::isAbsolutePath(state) ? QDir::cleanPath(state)
                                       : QDir::homePath() + QStringLiteral("/.local/state");
}

/// The folder's path with its parent's links resolved: the same text whether the folder itself
/// is there or moved aside during a swap.
inline QString canonicalFolder(const QString &folder)
{
    const QFileInfo info(QDir::cleanPath(QFileInfo(folder).absoluteFilePath()));
    const QString parent = QFileInfo(info.path()).canonicalFilePath();
    return (parent.isEmpty() ? info.path() : parent) + QLatin1Char('/') + info.fileName();
}

/// True when `path` is a folder of this user that only this user can enter (mode 0700), made so
/// when it is missing or too open. A link or another user's folder there is never used.
inline bool ensurePrivateFolder(const QString &path)
{
    const QByteArray name = QFile::encodeName(path);
    if (mkdir(name.constData(), 0700) != 0 && errno != EEXIST)
        return false;
    struct stat st;
    if (lstat(name.constData(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid())
        return false;
    return (st.st_mode & 077) == 0 || chmod(name.constData(), 0700) == 0;
}

/// The private folder of the updates of `applicationFolder` (created when `create`), keyed by
/// its canonical path; empty when it cannot be made private.
inline QString folderFor(const QString &applicationFolder, bool create = true)
{
    const QString base = userStateFolder() + QStringLiteral("/SoftwareUpdate");
    const QByteArray key = QCryptographicHash::hash(canonicalFolder(applicationFolder).toUtf8(),
                                                    QCryptographicHash::Sha256)
                               .toHex()
                               .left(32);
    const QString folder = base + QStringLiteral("/updates/") + QString::fromLatin1(key);
    if (!create)
        return folder;
    QDir().mkpath(base);
    if (!ensurePrivateFolder(base + QStringLiteral("/updates")) || !ensurePrivateFolder(folder))
        return QString();
    return folder;
}

/// Opens `path` with `flags` | O_NOFOLLOW | O_CLOEXEC; a link or a folder found there (planted,
/// or left by a crash) is removed first when `replace`. -1 on failure.
inline int openPrivate(const QString &path, int flags, bool replace)
{
    const QByteArray name = QFile::encodeName(path);
    int fd = open(name.constData(), flags | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 && replace && (errno == ELOOP || errno == EISDIR || errno == EEXIST)) {
        struct stat st;
        if (lstat(name.constData(), &st) == 0 && S_ISDIR(st.st_mode))
            QDir(path).removeRecursively();
        else
            unlink(name.constData());
        fd = open(name.constData(), flags | O_NOFOLLOW | O_CLOEXEC, 0600);
    }
    return fd;
}

/// Replaces the file at `path` with `data` atomically (a new file, then a rename over whatever
/// was there, which is never followed). False when it could not be written.
inline bool writePrivate(const QString &path, const QByteArray &data)
{
    const QString temporary = path + QStringLiteral(".new-") + QString::number(getpid());
    const int fd = openPrivate(temporary, O_WRONLY | O_CREAT | O_EXCL, true);
    if (fd < 0)
        return false;
    bool ok = write(fd, data.constData(), size_t(data.size())) == ssize_t(data.size());
    ok = fsync(fd) == 0 && ok;
    ok = close(fd) == 0 && ok;
    const auto replace = [&] {
        return rename(QFile::encodeName(temporary).constData(), QFile::encodeName(path).constData())
            == 0;
    };
    if (ok && replace())
        return true;
    // A folder in the way (planted, or left by a crash) goes; a link is replaced by the rename.
    if (ok && (errno == EISDIR || errno == ENOTEMPTY || errno == EEXIST)) {
        QDir(path).removeRecursively();
        if (replace())
            return true;
    }
    unlink(QFile::encodeName(temporary).constData());
    return false;
}

/// The content of the regular file at `path` (at most `limit` bytes), never through a link;
/// a null array when there is no such file.
inline QByteArray readPrivate(const QString &path, qint64 limit = 64 * 1024)
{
    const int fd = openPrivate(path, O_RDONLY | O_NONBLOCK, false);
    if (fd < 0)
        return QByteArray();
    struct stat st;
    QByteArray data;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        data.resize(qsizetype(qMin<qint64>(limit, st.st_size)));
        const ssize_t n = read(fd, data.data(), size_t(data.size()));
        data.resize(n < 0 ? 0 : qsizetype(n));
        if (data.isNull())
            data = QByteArray("");
    }
    close(fd);
    return data;
}

/// Removes the entry at `path` (a file, a link, or a folder planted there), never following it.
inline void removePrivate(const QString &path)
{
    struct stat st;
    if (lstat(QFile::encodeName(path).constData(), &st) != 0)
        return;
    if (S_ISDIR(st.st_mode))
        QDir(path).removeRecursively();
    else
        unlink(QFile::encodeName(path).constData());
}

} // namespace qv::UpdateState
