#include "FileUtils.h"

#include "Exceptions.h"

#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QSaveFile>
#include <QTemporaryDir>

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

bool FileUtils::erase(const QString &path)
{
    if (path.isEmpty())
        return false;
    const QFileInfo info(path);
    if (info.isDir() && !info.isSymLink())
        QDir(path).removeRecursively();
    else if (info.exists() || info.isSymLink())
        QFile::remove(path);
    return !QFileInfo::exists(path) && !QFileInfo(path).isSymLink();
}

QByteArray FileUtils::readBytes(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw IOException(QStringLiteral("cannot read %1: %2").arg(path, file.errorString()));
    return file.readAll();
}

void FileUtils::writeBytes(const QByteArray &data, const QString &path)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(data) != data.size() || !file.commit())
        throw IOException(QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
}

} // namespace qv
