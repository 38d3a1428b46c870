// Unpacking and installer launch: the background unpacking of a downloaded package, the
// hand-over to the updater program, and a ZIP package's self-service installation.

#include "DownloadManager.h"

#include "Logging.h"

#include <qv/Exceptions.h>
#include <qv/FileUtils.h>
#include <qv/Unzipper.h>
#include <qv/ZipReader.h>

#include <QApplication>
#include <QDir>
#include <QFileInfo>
#include <QMessageBox>
#include <QProgressDialog>

#include <unistd.h>

namespace qv {

void DownloadManager::unzipPackage(const QString &packageFile)
{
    unzipPackageInto(packageFile, FileUtils::createTempDir());
}

void DownloadManager::unzipPackageInto(const QString &packageFile, const QString &folder)
{
    if (folder.isEmpty() || (!QDir(folder).exists() && !QDir().mkpath(folder))) {
        LogQt::write(
            lcDownload(), Log::Error,
            QStringLiteral(
                "DownloadManager::unzipPackage() -> Could not create folder to unzip into!"));
        return;
    }
    LogQt::write(lcDownload(), Log::Debug,
                 QStringLiteral("DownloadManager::installPackage() -> trying to extract ")
                     + packageFile + QStringLiteral(" to ") + folder);
    // One unpacking per manager: the unzipper is kept for the manager's lifetime, and a folder
    // made for a second one is not left behind.
    if (unzipper) {
        FileUtils::erase(folder);
        return;
    }
    unpackFolder = folder;
    unzipper = new Unzipper(packageFile, folder, false);
    unzipper->setParent(this);
    connect(unzipper, &Unzipper::unzippingDone, this, &DownloadManager::unzippingFinished);
    connect(unzipper, &Unzipper::unzippingFailed, this, &DownloadManager::unzippingFailed);
}

void DownloadManager::unzippingFinished(const QString &folder)
{
    unzipper->removeZipFile();
    Q_EMIT unzippingDone(folder);
}

void DownloadManager::unzippingFailed(const QString &message)
{
    // Whatever was unpacked before the failure is of no use to anybody.
    FileUtils::erase(unpackFolder);
    Q_EMIT unpackingFailed(message);
    if (!unpackErrorBox)
        return;
    QMessageBox box(
        QMessageBox::Critical, QCoreApplication::applicationName(),
        QCoreApplication::translate("DownloadManager", "Downloaded file could not be unpacked:<br>")
            + message,
        QMessageBox::Ok);
    box.exec();
}

void DownloadManager::startUpdate(const QString &updateApplicationPath,
                                  const QString &installationPath,
                                  const QString &tempApplicationPath, const QString &newApplication)
{
    const QByteArray program = updateApplicationPath.toLocal8Bit();
    const QByteArray oldDir = installationPath.toLocal8Bit();
    const QByteArray newDir = tempApplicationPath.toLocal8Bit();
    const QByteArray exe = newApplication.toLocal8Bit();
    execl(program.constData(), program.constData(), "-oldDir", oldDir.constData(), "-newDir",
          newDir.constData(), "-exe", exe.constData(), static_cast<char *>(nullptr));
}

void DownloadManager::installLater(const PackageInfo &info, bool confirmInstall)
{
    installPackageInfo = info;
    installPackageInfo.spareFlag = confirmInstall;
}

void DownloadManager::installLater(const QString &packageFile, const QString &updaterExe,
                                   const QString &targetFolder, const QString &applicationExe)
{
    installPackageInfo.localFile = packageFile;
    installTexts[0] = updaterExe;
    installTexts[1] = targetFolder;
    installTexts[2] = applicationExe;
}

bool DownloadManager::hasInstallPackage() const
{
    const QFileInfo file(installPackageInfo.localFile);
    return !installPackageInfo.localFile.isEmpty() && file.exists()
        && file.size() == installPackageInfo.fileSize;
}

void DownloadManager::runInstaller(const QString &installerFile)
{
    if (installerFile.endsWith(QLatin1String("zip"))) {
        runZipInstaller(installerFile);
        return;
    }
    // No other installer type is started from here on this platform.
    throw ExceptionQt(QStringLiteral("execl() failed"));
}

void DownloadManager::runZipInstaller(const QString &installerFile)
{
    QString folder = QDir(QCoreApplication::applicationDirPath()).absolutePath();
    const QString archiveName = QFileInfo(installerFile).fileName();
    if (!FileUtils::openDirectoryDialog(
            folder,
            QCoreApplication::translate("DownloadManager", "Select Installation Path for '%1'")
                .arg(archiveName),
            QString(), nullptr))
        return;
    try {
        const QString temp = FileUtils::createTempDir();
        ZipReader reader(installerFile, nullptr);
        reader.open(QIODevice::ReadOnly);
        // The wait cursor stays set: the process is handed over below.
        QApplication::setOverrideCursor(Qt::WaitCursor);
        QProgressDialog progress(nullptr, {});
        progress.setLabelText(
            QCoreApplication::translate("DownloadManager", "Unpacking '%1'").arg(archiveName));
        reader.attachProgressDialog(&progress);
        reader.extractFiles(reader.fileList(QRegularExpression()), temp, false);
        if (reader.wasCanceled())
            return;

        const QString found = findDefaultExecutable(QDir(temp));
        const QString program = found.isEmpty() ? QCoreApplication::applicationFilePath()
                                                : folder + QLatin1Char('/') + found;
        const QByteArray tempPath = FileUtils::nativePath(temp).toLocal8Bit();
        const QString target = FileUtils::nativePath(folder);
        const QByteArray programPath = FileUtils::nativePath(program).toLocal8Bit();
        // The shell receives the words as separate arguments, and the chosen folder as the
        // string's 16-bit character data; the vector is kept exactly so.
        execl("sh", "sh", "cp", "-fr", tempPath.constData(),
              reinterpret_cast<const char *>(target.utf16()), "&&rm", "-fr", tempPath.constData(),
              "&&", programPath.constData(), static_cast<char *>(nullptr));
    } catch (const IOException &e) {
        QMessageBox box(QMessageBox::Critical, QStringLiteral("Unpacking failed"), e.message(),
                        QMessageBox::Ok);
        box.exec();
        throw IOException(e);
    }
}

QString DownloadManager::findDefaultExecutable(const QDir &dir)
{
    const QStringList programs = dir.entryList(QDir::Files | QDir::Executable, QDir::Size);
    if (!programs.isEmpty())
        return programs.first();
    const QStringList folders = dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QString &sub : folders) {
        const QString found = findDefaultExecutable(QDir(dir.filePath(sub)));
        if (!found.isEmpty())
            return sub + QLatin1Char('/') + found;
    }
    return QString();
}

} // namespace qv
