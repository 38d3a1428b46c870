#include "FileUtils.h"

#include "Exceptions.h"

#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QSaveFile>
#include <QTemporaryDir>

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qv {

QString FileUtils::createTempDir()
{
    QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/softwareupdate-XXXXXX"));
    if (!dir.isValid())
        return QString();
    dir.setAutoRemove(false);
    return dir.path();
}

QString FileUtils::nativePath(const QString &path)
{
    return QDir::toNativeSeparators(path);
}

bool FileUtils::openDirectoryDialog(QString &path, const QString &title, const QString &,
                                    QWidget *parent)
{
    const QString chosen = QFileDialog::getExistingDirectory(parent, title, path);
    if (chosen.isEmpty())
        return false;
    path = chosen;
    return true;
}

namespace {

bool hasDotSections(const QString &path)
{
    const QStringList sections = path.split(QLatin1Char('/'));
    return std::any_of(sections.cbegin(), sections.cend(), [](const QString &s) {
        return s == QLatin1String(".") || s == QLatin1String("..");
    });
}

QString withoutTrailingSlashes(QString path)
{
    while (path.size() > 1 && path.endsWith(QLatin1Char('/')))
        path.chop(1);
    return path;
}

// Removes what is at `path` without following a symbolic link, also below folders that are
// read-only for their owner.
bool removeTree(const QString &path)
{
    const QFileInfo info(path);
    if (info.isSymLink() || !info.isDir())
        return QFile::remove(path) || !(info.exists() || info.isSymLink());
    QFile::setPermissions(
        path, info.permissions() | QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QFileInfoList entries = QDir(path).entryInfoList(QDir::AllEntries | QDir::Hidden
                                                           | QDir::System | QDir::NoDotAndDotDot);
    bool ok = true;
    for (const QFileInfo &entry : entries)
        ok = removeTree(entry.filePath()) && ok;
    return QDir().rmdir(path) && ok;
}

} // namespace

bool FileUtils::isPlainFilePath(const QString &path)
{
    return !path.endsWith(QLatin1Char('/')) && !path.isEmpty() && !hasDotSections(path);
}

bool FileUtils::liesInside(const QString &path, const QString &within)
{
    if (path.isEmpty() || within.isEmpty() || hasDotSections(path) || hasDotSections(within))
        return false;
    const QString root = withoutTrailingSlashes(within);
    const QString target = withoutTrailingSlashes(path);
    if (target == root)
        return true;
    const QString prefix = root.endsWith(QLatin1Char('/')) ? root : root + QLatin1Char('/');
    if (!target.startsWith(prefix))
        return false;
    // A link below the folder could lead anywhere; the last section may be one (it is removed,
    // not followed).
    const QStringList below = target.mid(prefix.size()).split(QLatin1Char('/'), Qt::SkipEmptyParts);
    QString walk = root;
    for (qsizetype i = 0; i + 1 < below.size(); ++i) {
        walk += QLatin1Char('/') + below.at(i);
        if (QFileInfo(walk).isSymLink())
            return false;
    }
    return true;
}

bool FileUtils::erase(const QString &path, const QString &within)
{
    if (path.isEmpty() || hasDotSections(path))
        return false;
    if (!within.isEmpty() && !liesInside(path, within))
        return false;
    if (!QFileInfo::exists(path) && !QFileInfo(path).isSymLink())
        return true;
    removeTree(withoutTrailingSlashes(path));
    return !QFileInfo::exists(path) && !QFileInfo(path).isSymLink();
}

QByteArray FileUtils::readBytes(const QString &path, qint64 maxBytes)
{
    // Opened without blocking and checked before reading: a FIFO or a device never blocks here.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        throw IOException(QStringLiteral("cannot read %1: %2")
                              .arg(path, QString::fromLocal8Bit(strerror(errno))));
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        throw IOException(QStringLiteral("cannot read %1: not a regular file").arg(path));
    }
    if (maxBytes >= 0 && st.st_size > maxBytes) {
        ::close(fd);
        throw IOException(
            QStringLiteral("cannot read %1: larger than %2 bytes").arg(path).arg(maxBytes));
    }
    QFile file;
    if (!file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        ::close(fd);
        throw IOException(QStringLiteral("cannot read %1: %2").arg(path, file.errorString()));
    }
    QByteArray data = maxBytes >= 0 ? file.read(maxBytes + 1) : file.readAll();
    if (maxBytes >= 0 && data.size() > maxBytes)
        throw IOException(
            QStringLiteral("cannot read %1: larger than %2 bytes").arg(path).arg(maxBytes));
    return data;
}

void FileUtils::writeBytes(const QByteArray &data, const QString &path)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(data) != data.size() || !file.commit())
        throw IOException(QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
}

} // namespace qv
