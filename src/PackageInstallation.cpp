// Download and installation by package type: confirmation, the download with its progress
// dialog, and the routine each file type gets once the file is complete.

#include "SoftwareUpdateClient.h"

#include "CatalogueTrust.h"
#include "ClientSupport.h"
#include "DownloadManager.h"
#include "Logging.h"
#include "SoftwareUpdateAvailableDialog.h"

#include <qv/ApplicationLayout.h>
#include <qv/Exceptions.h>
#include <qv/FileUtils.h>
#include <qv/HttpHost.h>
#include <qv/QtHelpers.h>
#include <qv/Sha256.h>
#include <qv/ZipReader.h>

#include <QCoreApplication>
#include <QDesktopServices>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QMessageBox>
#include <QProcess>
#include <QProgressDialog>
#include <QPushButton>
#include <QSettings>
#include <QStorageInfo>
#include <QTemporaryDir>

#include <memory>

#include <sys/stat.h>
#include <unistd.h>

namespace qv {

using client::errorLine;
using client::progressLine;
using client::Text;

namespace {

// Replaces the running process with the updater, which checks that the new version runs.
void startUpdaterWithHealthCheck(const QString &updater, const QString &oldDir,
                                 const QString &newDir, const QString &exe, int healthTimeout)
{
    const QByteArray program = updater.toLocal8Bit();
    const QByteArray oldPath = oldDir.toLocal8Bit();
    const QByteArray newPath = newDir.toLocal8Bit();
    const QByteArray name = exe.toLocal8Bit();
    const QByteArray seconds = QByteArray::number(healthTimeout);
    execl(program.constData(), program.constData(), "-oldDir", oldPath.constData(), "-newDir",
          newPath.constData(), "-exe", name.constData(), "-healthTimeout", seconds.constData(),
          static_cast<char *>(nullptr));
}

// The "Restart required" question; true for "Restart now".
bool askRestart(QWidget *parent, Qt::WindowFlags flags, const QString &text)
{
    QMessageBox ask(QMessageBox::Warning, Text::tr("Restart required"), text, QMessageBox::NoButton,
                    parent, flags);
    ask.addButton(Text::tr("Restart later"), QMessageBox::RejectRole);
    QPushButton *now = ask.addButton(Text::tr("Restart now"), QMessageBox::AcceptRole);
    ask.exec();
    return ask.clickedButton() == now;
}

// True when the file at `path` is the package the catalogue published (its SHA-256).
bool fileIsPublishedPackage(const QString &path, const PackageInfo &package)
{
    QFile file(path);
    if (package.sha256.isEmpty() || !file.open(QIODevice::ReadOnly))
        return false;
    Sha256 hash;
    QByteArray chunk;
    while (!(chunk = file.read(1 << 20)).isEmpty())
        hash.addData(chunk);
    return file.error() == QFileDevice::NoError
        && QString::fromLatin1(hash.result().toHex()) == package.sha256;
}

void showError(QWidget *parent, Qt::WindowFlags flags, const QString &title, const QString &text)
{
    QMessageBox box(QMessageBox::Critical, title, text, QMessageBox::Ok, parent, flags);
    box.exec();
}

} // namespace

void SoftwareUpdateClient::installPackage(int itemIndex)
{
    if (itemIndex < 0 || itemIndex >= m_packageList.size()) {
        errorLine(QStringLiteral("SoftwareUpdateClient::installPackage() -> no package in row %1")
                      .arg(itemIndex));
        return;
    }
    const bool complete = installMode() == CompleteInstall;
    // A complete install replaces the application: one at a time, whatever is pressed meanwhile.
    if (complete && m_installRunning) {
        errorLine(QStringLiteral("SoftwareUpdateClient::installPackage() -> an installation is "
                                 "already running; refusing another"));
        return;
    }
    m_selectedRows = {itemIndex};
    const PackageInfo package = m_packageList.at(itemIndex);

    QWidget *dialogParent = m_updateAvailableDialog;
    QMessageBox confirm(
        QMessageBox::Warning, Text::tr("Install Package"),
        complete ? Text::tr("The package is downloaded, verified and unpacked first. You are asked "
                            "before the application closes to be replaced by the new version.")
                 : Text::tr("After downloading the package, the installer will automatically exit "
                            "and restart your application!"),
        QMessageBox::NoButton, dialogParent, sheetDialogFlags(dialogParent));
    QPushButton *cancel = confirm.addButton(Text::tr("Cancel Install"), QMessageBox::RejectRole);
    confirm.addButton(Text::tr("Proceed"), QMessageBox::AcceptRole);
    confirm.exec();
    if (confirm.clickedButton() == cancel) {
        progressLine(
            QStringLiteral("SoftwareUpdateClient::installPackage() -> user rejected installation"));
        return;
    }
    m_quietInstall = false;
    startInstall(package);
}

void SoftwareUpdateClient::install(const PackageInfo &package)
{
    m_quietInstall = !m_interactive;
    m_installPackage = package;
    // Only what the last check offered: with trusted keys, what the signed catalogue published.
    const qsizetype row = m_packageList.indexOf(package);
    if (row < 0 || (installMode() == CompleteInstall && m_installRunning)) {
        errorLine(QStringLiteral("SoftwareUpdateClient::install() -> refused %1: %2")
                      .arg(package.url.toString(),
                           row < 0 ? QStringLiteral("not offered by the last check")
                                   : QStringLiteral("an installation is already running")));
        Q_EMIT installFailed(package,
                             row < 0 ? Text::tr("The package is not one of those offered by the "
                                                "last check.")
                                     : Text::tr("Another update is being installed."));
        return;
    }
    m_selectedRows = {int(row)};
    startInstall(package);
}

// Downloads `package` into a folder of its own, then hands it to the routine of its type.
void SoftwareUpdateClient::startInstall(const PackageInfo &package)
{
    const bool complete = installMode() == CompleteInstall;
    m_installPackage = package;
    m_readyToRestart = false;
    if (complete && (m_installRunning || !applicationFolderIsPrivate()))
        return;
    if (complete)
        setInstallRunning(true);

    const QNetworkProxy proxy = networkProxy();
    const HttpAccess proxyAccess(proxy.hostName(), proxy.port(), QString(), QString());
    const HttpHost host(HttpAccess(), proxyAccess, QString());
    // Never deleted: it lives as long as the process.
    auto *manager = new DownloadManager(host, QString());
    manager->setTrustedKeys(m_trustedKeyTexts);
    manager->setResumeDownloads(m_resumeDownloads);
    manager->setDownloadRetries(m_downloadRetries);
    manager->setRetryUnit(m_retryUnitMs);

    const QString link = package.url.toString();
    // Everything of this download stays inside this folder: the manager refuses a file name
    // that leads out of it ("..", "."), and clean-up removes the folder and nothing else.
    const QString folder = FileUtils::createTempDir();
    m_downloadFolder = folder;
    m_downloadedFilePath = m_downloadFolder + QLatin1Char('/') + link.section(QLatin1Char('/'), -1);
    progressLine(QStringLiteral("SoftwareUpdateClient::downloadPackage() -> ") + link
                 + QStringLiteral(" to ") + m_downloadedFilePath);
    if (m_downloadFolder.isEmpty()) {
        errorLine(QStringLiteral(
            "SoftwareUpdateClient::downloadPackage() -> could not create a temporary folder"));
        downloadError(0);
        return;
    }

    // A quiet install shows no progress dialog, and is told its outcomes all the same.
    if (m_quietInstall || !m_progressDialog) {
        if (!m_quietInstall) {
            m_progressDialog = new QProgressDialog(m_updateAvailableDialog, m_windowFlags);
            m_progressDialog->setLabelText(
                complete ? Text::tr("Downloading and verifying the package...")
                         : Text::tr("Downloading package to temporary folder..."));
        }
        // Each outcome works on this download's own file and folder, whatever another request
        // has started meanwhile.
        const QString file = m_downloadedFilePath;
        const auto own = [this, file, folder] {
            m_downloadedFilePath = file;
            m_downloadFolder = folder;
        };
        connect(manager, &DownloadManager::downloadProgress, this,
                qOverload<int, int>(&SoftwareUpdateClient::downloadProgress));
        connect(manager, qOverload<int>(&DownloadManager::downloadFailure), this,
                [this, own](int status) {
                    own();
                    if (m_deltaRunning)
                        deltaFailed(
                            QStringLiteral("its download failed (HTTP status %1)").arg(status));
                    else
                        downloadError(status);
                });
        connect(manager, qOverload<PackageInfo, QString>(&DownloadManager::downloadSuccess), this,
                [this, own](const PackageInfo &downloaded, const QString &downloadedFile) {
                    own();
                    m_downloadedFilePath = downloadedFile;
                    if (m_deltaRunning)
                        applyDelta();
                    else
                        installDownloaded(downloaded);
                });
        if (m_progressDialog)
            connect(m_progressDialog, &QProgressDialog::canceled, manager,
                    &DownloadManager::abortDownload);
        connect(manager, &DownloadManager::downloadAborted, this, [this, own] {
            own();
            Q_EMIT installFailed(m_installPackage, Text::tr("The download was canceled."));
            abortDownload();
        });
        connect(manager, &DownloadManager::downloadVerificationFailed, this, [this, own] {
            own();
            if (m_deltaRunning)
                deltaFailed(QStringLiteral("the download is not the delta the catalogue "
                                           "published"));
            else
                packageNotPublished();
        });
        connect(manager, &DownloadManager::downloadRetrying, this, [this](int seconds) {
            if (m_progressDialog)
                m_progressDialog->setLabelText(Text::tr("Retrying in %1 s").arg(seconds));
        });
        connect(manager, &DownloadManager::downloadStarted, this, [this, complete] {
            if (m_progressDialog)
                m_progressDialog->setLabelText(
                    m_deltaRunning ? deltaLabel()
                        : complete ? Text::tr("Downloading and verifying the package...")
                                   : Text::tr("Downloading package to temporary folder..."));
        });
    }
    // A delta from the installed release, where the host allows it, in place of the package.
    m_deltaRunning = false;
    if (const PackageInfo::Delta *delta = usableDelta(package)) {
        m_delta = *delta;
        m_deltaRunning = true;
        m_deltasTried.insert(package.release);
        PackageInfo download = package;
        download.url = delta->url;
        download.fileSize = delta->fileSize;
        download.sha256 = delta->sha256;
        download.deltas.clear();
        m_downloadedFilePath = folder + QStringLiteral("/update.delta");
        progressLine(QStringLiteral("SoftwareUpdateClient::downloadPackage() -> the delta from "
                                    "%1: %2 (%3 bytes)")
                         .arg(delta->fromRelease, delta->url.toString())
                         .arg(delta->fileSize));
        if (m_progressDialog)
            m_progressDialog->setLabelText(deltaLabel());
        manager->startDownload(download, m_downloadedFilePath);
        return;
    }
    manager->startDownload(package, m_downloadedFilePath);
}

void SoftwareUpdateClient::downloadProgress(int value, int total)
{
    Q_EMIT packageDownloadProgress(qint64(value), qint64(total));
    if (!m_progressDialog)
        return;
    m_progressDialog->setRange(0, total);
    m_progressDialog->setValue(value);
}

void SoftwareUpdateClient::downloadFinished()
{
    if (m_selectedRows.isEmpty() || m_selectedRows.first() >= m_packageList.size()) {
        deleteProgressDialog();
        if (m_updateAvailableDialog)
            deleteUpdateAvailableDialog();
        return;
    }
    installDownloaded(m_packageList.at(m_selectedRows.first()));
}

// Hands the downloaded file (m_downloadedFilePath, set by its own download) to the routine of
// its type.
void SoftwareUpdateClient::installDownloaded(const PackageInfo &package)
{
    deleteProgressDialog();
    if (m_updateAvailableDialog)
        deleteUpdateAvailableDialog();
    // With trusted keys, the file is hashed once more right before anything unpacks or starts
    // it: what runs is what was verified.
    if (!m_trustedKeyTexts.isEmpty() && !fileIsPublishedPackage(m_downloadedFilePath, package)) {
        errorLine(QStringLiteral("SoftwareUpdateClient::downloadFinished() -> %1 changed after "
                                 "it was verified; erased")
                      .arg(m_downloadedFilePath));
        FileUtils::erase(m_downloadedFilePath);
        packageNotPublished();
        return;
    }
    const QString suffix = package.suffix;
    static const QStringList known {"exe", "mpkg", "zip", "msi", "deb", "rpk", "tar.gz"};
    if (known.contains(suffix))
        Q_EMIT installationStarted(package);
    const bool completeType = suffix == u"zip" || suffix == u"tar.gz";
    if (installMode() == CompleteInstall && completeType && m_trustedKeyTexts.isEmpty()) {
        errorLine(QStringLiteral("SoftwareUpdateClient::downloadFinished() -> a complete install "
                                 "needs trusted keys; %1 is handled as without it")
                      .arg(m_downloadedFilePath));
        setInstallRunning(false);
    }
    if (installMode() == CompleteInstall && completeType && !m_trustedKeyTexts.isEmpty()) {
        m_installingRelease = package.release;
        installCompletePackage();
    } else if (suffix == u"exe") {
        installEXEPackage();
    } else if (suffix == u"mpkg") {
        installMPKGPackage();
    } else if (suffix == u"zip") {
        installZIPPackage();
    } else if (suffix == u"msi") {
        installMSIPackage();
    } else if (suffix == u"deb") {
        installDEBPackage();
    } else if (suffix == u"rpk") {
        installRPKPackage();
    } else if (suffix == u"tar.gz") {
        installTARGZPackage();
    } else {
        failInstall(Text::tr("Download Error"),
                    Text::tr("Unknown package type! Installation cannot proceed!"));
        abortDownload();
    }
}

// The download is not the package the signed catalogue published; the manager erased it.
void SoftwareUpdateClient::packageNotPublished()
{
    failInstall(Text::tr("Download Error"), CatalogueTrust::packageMismatchText());
    abortDownload();
}

// Tells the user (unless the install is a quiet one) and the host why nothing was installed.
void SoftwareUpdateClient::failInstall(const QString &title, const QString &text)
{
    setInstallRunning(false);
    m_readyToRestart = false;
    if (!m_quietInstall)
        showError(m_parent, m_windowFlags, title, text);
    Q_EMIT installFailed(m_installPackage, text);
}

void SoftwareUpdateClient::downloadError(int httpStatusCode)
{
    failInstall(Text::tr("Download Error"),
                Text::tr("Error downloading! Http status code %1").arg(httpStatusCode));
    abortDownload();
}

void SoftwareUpdateClient::abortDownload()
{
    setInstallRunning(false);
    deleteProgressDialog();
    // The download's own folder goes with the file; a file path that leads out of it ("/.."
    // at the end of a link) is never followed.
    const bool removed = m_downloadFolder.isEmpty() ? FileUtils::erase(m_downloadedFilePath)
                                                    : FileUtils::erase(m_downloadFolder);
    if (removed)
        m_downloadFolder.clear();
    else
        errorLine(
            QStringLiteral(
                "SoftwareUpdateClient::abortDownload() -> could not remove downloaded files: ")
            + m_downloadedFilePath);
}

void SoftwareUpdateClient::deleteProgressDialog()
{
    if (!m_progressDialog)
        return;
    m_progressDialog->hide();
    m_progressDialog->deleteLater();
    m_progressDialog = nullptr;
}

void SoftwareUpdateClient::installEXEPackage()
{
    QProcess::startDetached(m_downloadedFilePath, QStringList());
}

void SoftwareUpdateClient::installMPKGPackage()
{
    if (!m_unpackingManager)
        m_unpackingManager = new DownloadManager();
    m_unpackingManager->unzipPackage(m_downloadedFilePath);
    connect(m_unpackingManager, &DownloadManager::unzippingDone, this,
            &SoftwareUpdateClient::unzippedMPKGPackage);
    removeDownloadFolderWhenUnpacked(m_unpackingManager);
}

void SoftwareUpdateClient::removeDownloadFolderWhenUnpacked(DownloadManager *unpacker)
{
    // The unpacked archive is deleted once unpacked; its folder then holds nothing of use.
    connect(unpacker, &DownloadManager::unzippingDone, this, [folder = m_downloadFolder] {
        if (!folder.isEmpty())
            QDir().rmdir(folder);
    });
}

void SoftwareUpdateClient::unzippedMPKGPackage(QString unzippedFilePath)
{
    if (m_unpackingManager) {
        m_unpackingManager->deleteLater();
        m_unpackingManager = nullptr;
    }
    progressLine(
        QStringLiteral("SoftwareUpdateClient::unzippedMPKGPackage() -> unzipped succesfully to ")
        + unzippedFilePath);
    const QDir folder(unzippedFilePath);
    const QFileInfoList installers = folder.entryInfoList({QStringLiteral("*.mpkg")});
    for (const QFileInfo &installer : installers) {
        progressLine(QStringLiteral("SoftwareUpdateClient::installMPKGPackage ")
                     + installer.absoluteFilePath());
        if (!QDesktopServices::openUrl(QUrl::fromLocalFile(installer.absoluteFilePath()))) {
            errorLine(QStringLiteral(
                "SoftwareUpdateClient::installMPKGPackage, can't start package installer!"));
            return;
        }
    }
}

void SoftwareUpdateClient::installZIPPackage()
{
    // Not kept: nobody hears where it unpacks to, so the new-folder argument of the updater
    // stays empty, and the restart question does not wait for the unpacking.
    auto *unpacker = new DownloadManager();
    unpacker->unzipPackage(m_downloadedFilePath);
    removeDownloadFolderWhenUnpacked(unpacker);
    progressLine(QStringLiteral("SoftwareUpdateClient::installZipPackage() -> unzipping ")
                 + m_downloadedFilePath + QStringLiteral(" to ") + m_unpackedFolder);

    m_readyToRestart = true;
    Q_EMIT readyToRestart(m_installPackage);
    if (!m_quietInstall
        && askRestart(m_parent, m_windowFlags,
                      Text::tr("Please restart your application to finish the installation "
                               "process.")))
        startZipInstall();
}

void SoftwareUpdateClient::startZipInstall()
{
    if (!m_trustedKeyTexts.isEmpty()) {
        startPrivateUpdater();
        return;
    }
    const QString applicationFolder = QCoreApplication::applicationDirPath();
    const QString updaterSource = applicationFolder + QLatin1Char('/') + client::kUpdaterName;
    QDir folder(applicationFolder);
    if (folder.exists() && QFile::exists(updaterSource)) {
        folder.cdUp();
        const QString updaterTarget
            = folder.absolutePath() + QLatin1Char('/') + client::kUpdaterName;
        progressLine(
            QStringLiteral(
                "SoftwareUpdateClient::startInstallZip() -> starting zip installation application ")
            + updaterTarget + QStringLiteral(" -> removing ") + applicationFolder
            + QStringLiteral(", renaming ") + m_unpackedFolder + QStringLiteral("  to ")
            + applicationFolder + QStringLiteral(" and restarting ")
            + QCoreApplication::applicationFilePath());
        // An updater already in the parent folder is used as it stands.
        if (QFile::exists(updaterTarget) || QFile::copy(updaterSource, updaterTarget)) {
            const QString executable
                = QCoreApplication::applicationFilePath().section(QLatin1Char('/'), -1);
            if (installMode() == CompleteInstall)
                startUpdaterWithHealthCheck(updaterTarget, applicationFolder, m_unpackedFolder,
                                            executable, m_healthTimeout);
            else
                DownloadManager::startUpdate(updaterTarget, applicationFolder, m_unpackedFolder,
                                             executable);
            return;
        }
        errorLine(QStringLiteral(
                      "SoftwareUpdateClient::startInstallApplication() -> could not copy file to ")
                  + updaterTarget);
    }
    errorLine(QStringLiteral("SoftwareUpdateClient::startInstallApplication() -> one of the "
                             "following file/dir is missing: ")
              + folder.absolutePath() + QStringLiteral(" or ")
              + QFileInfo(updaterSource).fileName());
    failInstall(Text::tr("Installation failed"),
                Text::tr("Installation process failed. If problem persists try manual install."));
}

// With trusted keys the updater that runs is a copy of the one installed beside the program,
// made into a private folder: nothing another user can write is ever run. In CompleteInstall it
// waits for this process to end (the quit handler has agreed to it), then replaces the
// application and starts the new version with a health check.
bool SoftwareUpdateClient::startPrivateUpdater()
{
    const QString applicationFolder = QCoreApplication::applicationDirPath();
    const QString updater = client::privateUpdaterCopy();
    const QString folder = QFileInfo(updater).path();
    if (updater.isEmpty()) {
        failInstall(Text::tr("Installation failed"),
                    Text::tr("Installation process failed. If problem persists try manual "
                             "install."));
        return false;
    }
    progressLine(QStringLiteral("SoftwareUpdateClient::startInstallZip() -> starting %1 for %2 "
                                "with the new version in %3")
                     .arg(updater, applicationFolder, m_unpackedFolder));
    const QString executable = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    if (installMode() == CompleteInstall) {
        if (!askToQuit()) {
            FileUtils::erase(folder);
            return false;
        }
        m_readyToRestart = false;
        // Remembered until the new version confirms, or is rolled back and then not offered again.
        const std::unique_ptr<QSettings> store(openStore());
        store->remove(client::kInstallOnQuit); // installed now, not when the host quits
        store->setValue(client::kUpdateInstalling, m_installingRelease);
        // What the next start removes, whichever version it is: the unpacked package's
        // temporary folder and the updater's copy.
        store->setValue(client::kUpdateLeftovers, QStringList {folder, m_unpackTarget});
        store->sync();
        if (QProcess::startDetached(updater,
                                    {QStringLiteral("-oldDir"), applicationFolder,
                                     QStringLiteral("-newDir"), m_unpackedFolder,
                                     QStringLiteral("-exe"), executable,
                                     QStringLiteral("-healthTimeout"),
                                     QString::number(m_healthTimeout), QStringLiteral("-waitFor"),
                                     QString::number(QCoreApplication::applicationPid())})) {
            progressLine(QStringLiteral("SoftwareUpdateClient -> the updater installs the new "
                                        "version once this process has ended"));
            setInstallRunning(false);
            return true;
        }
    } else {
        DownloadManager::startUpdate(updater, applicationFolder, m_unpackedFolder, executable);
    }
    errorLine(QStringLiteral("SoftwareUpdateClient::startInstallZip() -> could not start ")
              + updater);
    std::unique_ptr<QSettings>(openStore())->remove(client::kUpdateInstalling);
    FileUtils::erase(folder);
    failInstall(Text::tr("Installation failed"),
                Text::tr("Installation process failed. If problem persists try manual install."));
    return false;
}

// The host's word before the library ends it; a refusal leaves the update for the quit.
bool SoftwareUpdateClient::askToQuit()
{
    const bool agreed = m_quitHandler ? m_quitHandler() : (QCoreApplication::quit(), true);
    if (!agreed) {
        progressLine(QStringLiteral("SoftwareUpdateClient -> the host does not quit now; the "
                                    "update waits"));
        deferInstall();
    }
    return agreed;
}

void SoftwareUpdateClient::setQuitHandler(std::function<bool()> handler)
{
    m_quitHandler = std::move(handler);
}

bool SoftwareUpdateClient::restartNow()
{
    if (!m_readyToRestart) {
        errorLine(QStringLiteral("SoftwareUpdateClient::restartNow() -> no update is ready"));
        return false;
    }
    if (installMode() == CompleteInstall && !m_trustedKeyTexts.isEmpty())
        return startPrivateUpdater();
    m_readyToRestart = false;
    startZipInstall(); // returns only when the updater could not be started
    return false;
}

// A complete install replaces the application folder with what the updater is handed; when
// another user could write the folder or its parent, they could plant what runs next.
bool SoftwareUpdateClient::applicationFolderIsPrivate()
{
    const QString folder = QDir::cleanPath(QCoreApplication::applicationDirPath());
    for (const QString &path : {folder, QFileInfo(folder).path()}) {
        struct stat st;
        if (::stat(QFile::encodeName(path).constData(), &st) == 0
            && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0)
            continue;
        errorLine(QStringLiteral("SoftwareUpdateClient::installPackage() -> refusing a complete "
                                 "install: %1 can be written by other users")
                      .arg(path));
        failInstall(Text::tr("Installation failed"),
                    Text::tr("The application folder %1 can be changed by other users, so the "
                             "update cannot be installed safely. Nothing was changed.")
                        .arg(QDir::toNativeSeparators(path)));
        return false;
    }
    return true;
}

void SoftwareUpdateClient::setInstallRunning(bool running)
{
    m_installRunning = running;
    if (m_updateAvailableDialog && running)
        m_updateAvailableDialog->setInstallButtonState(false);
}

// CompleteInstall: the verified package is unpacked, and only then is the user asked. It is
// unpacked beside the application where it can be (the same file system: the updater exchanges
// the folders without copying), else in the temporary folder, and only when the disk holds it.
void SoftwareUpdateClient::installCompletePackage()
{
    const QString application = QDir::cleanPath(QCoreApplication::applicationDirPath());
    QTemporaryDir beside(application + QStringLiteral(".update-unpacked-XXXXXX"));
    beside.setAutoRemove(false);
    const QString target = beside.isValid() ? beside.path() : FileUtils::createTempDir();
    if (!beside.isValid())
        progressLine(QStringLiteral("SoftwareUpdateClient::installCompletePackage() -> cannot "
                                    "unpack beside %1; unpacking in %2")
                         .arg(application, target));
    qint64 needed = 0;
    try {
        ZipReader archive(m_downloadedFilePath);
        archive.open(QIODevice::ReadOnly);
        // What the entries declare, and a margin for the file system's own blocks.
        needed = archive.unpackedSize() + archive.unpackedSize() / 20 + (16 << 20);
    } catch (const ExceptionQt &e) {
        errorLine(QStringLiteral("SoftwareUpdateClient::installCompletePackage() -> ")
                  + e.message()); // the unpacking below reports it to the user
    }
    const qint64 available = QStorageInfo(target).bytesAvailable();
    if (target.isEmpty() || (available >= 0 && available < needed)) {
        errorLine(QStringLiteral("SoftwareUpdateClient::installCompletePackage() -> %1 bytes "
                                 "needed to unpack, %2 free in %3")
                      .arg(needed)
                      .arg(available)
                      .arg(target));
        FileUtils::erase(target);
        abortDownload();
        failInstall(Text::tr("Installation failed"),
                    Text::tr("There is not enough free disk space to unpack the update (%1 MB "
                             "needed, %2 MB free). Nothing was changed.")
                        .arg((needed + (1 << 20) - 1) >> 20)
                        .arg(qMax<qint64>(0, available) >> 20));
        return;
    }
    m_unpackTarget = target;
    auto *unpacker = new DownloadManager();
    unpacker->setParent(this);
    unpacker->setUnpackErrorBox(!m_quietInstall);
    connect(unpacker, &DownloadManager::unpackingFailed, this,
            [this, unpacker](const QString &message) {
                unpacker->deleteLater();
                setInstallRunning(false);
                Q_EMIT installFailed(
                    m_installPackage,
                    Text::tr("The package could not be unpacked: %1").arg(message));
            });
    // The emptied download folder goes first: the restart question may end the process.
    removeDownloadFolderWhenUnpacked(unpacker);
    connect(unpacker, &DownloadManager::unzippingDone, this,
            [this, unpacker](const QString &folder) {
                unpacker->deleteLater();
                completePackageUnpacked(folder);
            });
    unpacker->unzipPackageInto(m_downloadedFilePath, target);
}

void SoftwareUpdateClient::completePackageUnpacked(const QString &folder)
{
    if (!layoutAccepted(folder))
        return;
    m_readyToRestart = true;
    Q_EMIT readyToRestart(m_installPackage);
    if (!m_readyToRestart) // the host restarted from the signal
        return;
    if (!m_quietInstall
        && askRestart(m_parent, m_windowFlags,
                      Text::tr("The new version is unpacked and verified. Restart now to install "
                               "it: the application closes, is replaced, and starts again. If "
                               "the new version does not start, this version comes back."))) {
        restartNow();
        return;
    }
    deferInstall();
}

// The new application folder is the one holding the program, named exactly like the running
// one and executable: the rule the updater applies as well. Anything else is refused here,
// before the user is asked to restart.
bool SoftwareUpdateClient::layoutAccepted(const QString &unpacked)
{
    using namespace ApplicationLayout;
    const QString program = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    const Verdict verdict = find(unpacked, program);
    if (verdict.problem == Problem::None) {
        m_unpackedFolder = verdict.folder;
        progressLine(
            QStringLiteral("SoftwareUpdateClient::installCompletePackage() -> new version in ")
            + verdict.folder);
        return true;
    }
    errorLine(QStringLiteral("SoftwareUpdateClient::installCompletePackage() -> ")
              + describe(verdict, program));
    FileUtils::erase(unpacked);
    QString text;
    if (verdict.problem == Problem::WrongCase)
        text = Text::tr("The package holds %1, not the program %2: the names differ in letter "
                        "case. Nothing was changed.")
                   .arg(verdict.found, program);
    else if (verdict.problem == Problem::NotExecutable)
        text = Text::tr("The program %1 in the package is not marked as executable (a ZIP "
                        "archive made on Windows keeps no such mark). Nothing was changed.")
                   .arg(program);
    else if (verdict.problem == Problem::NotRegularFile)
        text = Text::tr("The program %1 in the package is not a regular file. Nothing was "
                        "changed.")
                   .arg(program);
    else
        text = Text::tr("The package does not contain the program %1. Nothing was changed.")
                   .arg(program);
    failInstall(Text::tr("Installation failed"), text);
    return false;
}

// Not installed now: when the host quits (or, without that, the unpacked version goes at the
// next start).
void SoftwareUpdateClient::deferInstall()
{
    const std::unique_ptr<QSettings> store(openStore());
    if (m_installOnQuit) {
        store->setValue(client::kInstallOnQuit,
                        QStringList {m_unpackedFolder, m_unpackTarget, m_installingRelease,
                                     QString::number(QCoreApplication::applicationPid())});
        armInstallOnQuit();
    } else {
        store->setValue(client::kUpdateLeftovers, QStringList {m_unpackTarget});
    }
    setInstallRunning(false);
}

// An update accepted for later in a session that did not quit normally: it goes in now, at the
// start of this one, as "Restart now" would have put it in (the host has set its keys and
// options by the time the event loop runs this).
void SoftwareUpdateClient::installPendingAtStart()
{
    const std::unique_ptr<QSettings> store(openStore());
    const QStringList pending = client::pendingInstall(*store);
    if (pending.isEmpty() || !m_installOnQuit || m_trustedKeyTexts.isEmpty()
        || installMode() != CompleteInstall)
        return;
    store->remove(client::kInstallOnQuit);
    progressLine(QStringLiteral("SoftwareUpdateClient -> installing the update accepted for "
                                "later in an earlier session: ")
                 + pending.at(0));
    m_unpackedFolder = pending.at(0);
    m_unpackTarget = pending.at(1);
    m_installingRelease = pending.at(2);
    m_quietInstall = !m_interactive;
    m_readyToRestart = true;
    restartNow();
}

void SoftwareUpdateClient::armInstallOnQuit()
{
    if (m_quitHookArmed)
        return;
    m_quitHookArmed = true;
    connect(qApp, &QCoreApplication::aboutToQuit, this, &SoftwareUpdateClient::installOnQuit);
    progressLine(QStringLiteral("SoftwareUpdateClient -> the update is installed when the "
                                "application quits"));
}

// The host quits normally with an update unpacked and accepted for later: a private updater
// waits for this process to end, swaps the folders and starts nothing.
void SoftwareUpdateClient::installOnQuit()
{
    const std::unique_ptr<QSettings> store(openStore());
    const QStringList pending = client::pendingInstall(*store);
    if (!m_installOnQuit || pending.isEmpty())
        return;
    const QString updater = client::privateUpdaterCopy();
    if (updater.isEmpty())
        return;
    store->remove(client::kInstallOnQuit);
    store->setValue(client::kUpdateLeftovers,
                    QStringList {QFileInfo(updater).path(), pending.at(1)});
    store->sync();
    const bool started = QProcess::startDetached(
        updater,
        {QStringLiteral("-oldDir"), QCoreApplication::applicationDirPath(),
         QStringLiteral("-newDir"), pending.at(0), QStringLiteral("-exe"),
         QFileInfo(QCoreApplication::applicationFilePath()).fileName(), QStringLiteral("-waitFor"),
         QString::number(QCoreApplication::applicationPid()), QStringLiteral("-noStart")});
    errorLine(QStringLiteral("SoftwareUpdateClient -> %1 the update in %2 on quit")
                  .arg(started ? QStringLiteral("installing") : QStringLiteral("could not install"),
                       pending.at(0)));
}

void SoftwareUpdateClient::installMSIPackage()
{
    progressLine(QStringLiteral("SoftwareUpdateClient::installMSIPackage() -> trying to run ")
                 + m_downloadedFilePath);
}

void SoftwareUpdateClient::installDEBPackage()
{
    progressLine(QStringLiteral("SoftwareUpdateClient::installDEBPackage() -> trying to run ")
                 + m_downloadedFilePath);
}

void SoftwareUpdateClient::installRPKPackage()
{
    progressLine(QStringLiteral("SoftwareUpdateClient::installRPKPackage() -> trying to run ")
                 + m_downloadedFilePath);
}

void SoftwareUpdateClient::installTARGZPackage()
{
    progressLine(QStringLiteral("SoftwareUpdateClient::installTARGZPackage() -> trying to run ")
                 + m_downloadedFilePath);
}

} // namespace qv
