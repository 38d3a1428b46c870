// Delta updates: the new version built beside the application from the installed files and a
// delta package, or else the full package, in the same install.

#include "SoftwareUpdateClient.h"

#include "ClientSupport.h"
#include "Logging.h"
#include "PackageTypes.h"
#include "SoftwareUpdateAvailableDialog.h"

#include <qv/DeltaPackage.h>
#include <qv/FileUtils.h>
#include <qv/Sha256.h>
#include <qv/VersionNumber.h>

#include <QCoreApplication>
#include <QDir>
#include <QLocale>
#include <QTemporaryDir>
#include <QThread>

#include <memory>

namespace qv {

using client::errorLine;
using client::kApplicationKind;
using client::progressLine;
using client::Text;

namespace {

const QString kBadDeltas = QStringLiteral("badDeltas");

} // namespace

QStringList SoftwareUpdateClient::badDeltas() const
{
    const std::unique_ptr<QSettings> store(openStore());
    return store->value(kBadDeltas).toString().split(QLatin1Char(','), Qt::SkipEmptyParts);
}

// A delta of `package` from the installed release that this client may use, or none.
const PackageInfo::Delta *SoftwareUpdateClient::usableDelta(const PackageInfo &package) const
{
    if (!m_deltaUpdates || installMode() != CompleteInstall || m_trustedKeyTexts.isEmpty()
        || package.type != kApplicationKind
        || (package.suffix != u"zip" && package.suffix != u"tar.gz")
        || m_deltasTried.contains(package.release))
        return nullptr;
    SoftwareUpdateSettings settings;
    getCurrentSettings(&settings);

    const QStringList bad = badDeltas();
    for (const PackageInfo::Delta &delta : package.deltas) {
        const QString scheme = delta.url.scheme();
        if (!delta.fromRelease.isEmpty()
            && VersionNumber::fromText(delta.fromRelease) == settings.versionNumber
            && Sha256::isHexDigest(delta.sha256) && !bad.contains(delta.sha256)
            && (scheme == u"http" || scheme == u"https") && delta.url.isValid())
            return &delta;
    }
    return nullptr;
}

// What the progress dialog says while a delta downloads: its size beside the package's.
QString SoftwareUpdateClient::deltaLabel() const
{
    const QLocale locale;
    return Text::tr("Downloading the update: %1 instead of the whole package (%2)...")
        .arg(locale.formattedDataSize(m_delta.fileSize, 1),
             locale.formattedDataSize(m_installPackage.fileSize, 1));
}

// The delta is downloaded and its SHA-256 was checked as it arrived; the new version is built
// beside the application on a worker thread, and checked once more before anything decodes.
void SoftwareUpdateClient::applyDelta()
{
    const QString application = QDir::cleanPath(QCoreApplication::applicationDirPath());
    QTemporaryDir beside(application + QStringLiteral(".update-unpacked-XXXXXX"));
    beside.setAutoRemove(false);
    if (!beside.isValid()) {
        deltaFailed(QStringLiteral("no folder can be made beside %1").arg(application));
        return;
    }
    const QString staging = beside.path();
    m_unpackTarget = staging;
    m_deltaStaging = staging;
    const QString deltaFile = m_downloadedFilePath;
    const QByteArray sha256 = QByteArray::fromHex(m_delta.sha256.toLatin1());
    auto error = std::make_shared<QString>();
    auto built = std::make_shared<bool>(false);
    m_deltaCancel = false;
    QThread *worker = QThread::create([=] {
        *built = DeltaPackage::apply(deltaFile, application, staging, error.get(), sha256,
                                     &m_deltaCancel);
    });
    m_deltaThread = worker;
    connect(worker, &QThread::finished, this, [this, worker, error, built, staging] {
        worker->deleteLater();
        m_deltaThread = nullptr;
        if (!*built) {
            deltaFailed(*error);
            return;
        }
        m_deltaRunning = false;
        m_deltaStaging.clear();
        progressLine(QStringLiteral("SoftwareUpdateClient::applyDelta() -> %1 built from the "
                                    "delta from %2")
                         .arg(m_installPackage.release, m_delta.fromRelease));
        if (FileUtils::erase(m_downloadFolder))
            m_downloadFolder.clear();
        deleteProgressDialog();
        if (m_updateAvailableDialog)
            deleteUpdateAvailableDialog();
        Q_EMIT installationStarted(m_installPackage);
        m_installingRelease = m_installPackage.release;
        completePackageUnpacked(staging);
    });
    worker->start();
}

// Whatever went wrong, the delta is set aside for good and the full package downloaded now.
void SoftwareUpdateClient::deltaFailed(const QString &reason)
{
    errorLine(
        QStringLiteral("SoftwareUpdateClient -> the delta from %1 to %2 (%3) is not used: "
                       "%4; downloading the full package")
            .arg(m_delta.fromRelease, m_installPackage.release, m_delta.url.toString(), reason));
    m_deltaRunning = false;
    {
        const std::unique_ptr<QSettings> store(openStore());
        QStringList bad
            = store->value(kBadDeltas).toString().split(QLatin1Char(','), Qt::SkipEmptyParts);
        if (!bad.contains(m_delta.sha256))
            bad << m_delta.sha256;
        store->setValue(kBadDeltas, bad.join(QLatin1Char(',')));
    }
    // Only what this delta built: a pending update elsewhere stays.
    if (!m_deltaStaging.isEmpty())
        FileUtils::erase(m_deltaStaging);
    m_deltaStaging.clear();
    if (FileUtils::erase(m_downloadFolder))
        m_downloadFolder.clear();
    deleteProgressDialog();
    setInstallRunning(false);
    startInstall(m_installPackage);
}

} // namespace qv
