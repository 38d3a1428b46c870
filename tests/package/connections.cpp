// Every public signal and slot of the client, and the manager's signals, connect by function
// pointer, the way a host writes it: a name with two signatures would not compile here. The
// pairs by design take qOverload: the client's checkForUpdate() and checkForUpdate(int) (or
// checkNow()), the manager's downloadSuccess and downloadFailure.

#include <DownloadManager.h>
#include <SoftwareUpdateClient.h>

#include <tuple>

int connectEverySignalAndSlot(qv::SoftwareUpdateClient *client)
{
    using C = qv::SoftwareUpdateClient;
    using M = qv::DownloadManager;
    // Taking a member's address compiles only while its name has one signature.
    const auto members = std::make_tuple(
        &C::checkStarted, &C::updatesAvailable, &C::upToDate, &C::checkFailed,
        &C::packageDownloadProgress, &C::installationStarted, &C::installFailed, &C::readyToRestart,
        &C::updateRolledBack, &C::showAvailableUpdates, &C::checkNow, &C::install, &C::restartNow,
        qOverload<>(&C::checkForUpdate), qOverload<int>(&C::checkForUpdate), &C::doInitialCheck,
        &C::queryForUpdate, &C::enableSoftwareUpdate, &C::disableSoftwareUpdate,
        &C::setVersionNumber, &C::setCurrentCameraVersions, &C::setParent, &C::setWindowFlags,
        &C::forgetRolledBackVersions, &C::setInstallOnQuit, &M::packageFound, &M::noPackageFound,
        &M::queryStarted, &M::queryFinished, &M::downloadStarted, &M::downloadProgress,
        qOverload<qv::PackageInfo, QString>(&M::downloadSuccess), qOverload<>(&M::downloadSuccess),
        qOverload<qv::PackageInfo, QString>(&M::downloadFailure),
        qOverload<int>(&M::downloadFailure), &M::downloadAborted, &M::releaseNotesDownloaded,
        &M::unzippingDone, &M::downloadVerificationFailed, &M::unpackingFailed, &M::abortDownload,
        &M::unzipPackage, &M::unzipPackageInto);
    // And a signal connects to a slot, with the arguments a host passes.
    M manager;
    const bool connected = QObject::connect(client, &C::updatesAvailable, client,
                                            [client](const qv::PackageInfoList &packages) {
                                                if (!packages.isEmpty())
                                                    client->install(packages.first());
                                            })
        && QObject::connect(&manager, qOverload<int>(&M::downloadFailure), client,
                            qOverload<int>(&C::checkForUpdate))
        && QObject::connect(&manager, &M::queryFinished, &manager, &M::abortDownload);
    return connected ? int(std::tuple_size_v<decltype(members)>) : -1;
}
