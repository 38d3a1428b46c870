// Every public signal and slot of the client, and the manager's signals, connect by function
// pointer, the way a host writes it: a name with two signatures would not compile here. The
// pairs by design take qOverload: the client's checkForUpdate() and checkForUpdate(int) (or
// checkNow()), the manager's downloadSuccess and downloadFailure.

#include <DownloadManager.h>
#include <SoftwareUpdateClient.h>

#include <QObject>
#include <QWidget>

namespace {

// Signals of every type the client's slots take.
class Source : public QObject {
    Q_OBJECT
Q_SIGNALS:
    void nothing();
    void number(int value);
    void flag(bool on);
    void package(const qv::PackageInfo &package);
    void version(qv::VersionNumber version);
    void cameras(SoftUpCurrentCameraVersions versions);
    void window(QWidget *parent);
    void flags(Qt::WindowFlags flags);
    void dialog(Qt::WindowFlags flags, bool modal);
    void text(const QString &text);
    void twoTexts(const QString &first, const QString &second);
};

} // namespace

int connectEverySignalAndSlot(qv::SoftwareUpdateClient *client)
{
    using C = qv::SoftwareUpdateClient;
    auto *source = new Source;
    source->setParent(client);
    auto *sink = new QObject(client);
    const auto any = [] {};
    const QList<QMetaObject::Connection> connections {
        QObject::connect(client, &C::checkStarted, sink, any),
        QObject::connect(client, &C::updatesAvailable, sink, any),
        QObject::connect(client, &C::upToDate, sink, any),
        QObject::connect(client, &C::checkFailed, sink, any),
        QObject::connect(client, &C::packageDownloadProgress, sink, any),
        QObject::connect(client, &C::installationStarted, sink, any),
        QObject::connect(client, &C::installFailed, sink, any),
        QObject::connect(client, &C::readyToRestart, sink, any),
        QObject::connect(client, &C::updateRolledBack, sink, any),
        QObject::connect(source, &Source::nothing, client, &C::showAvailableUpdates),
        QObject::connect(source, &Source::nothing, client, &C::checkNow),
        QObject::connect(source, &Source::package, client, &C::install),
        QObject::connect(source, &Source::nothing, client, &C::restartNow),
        QObject::connect(source, &Source::nothing, client, qOverload<>(&C::checkForUpdate)),
        QObject::connect(source, &Source::number, client, qOverload<int>(&C::checkForUpdate)),
        QObject::connect(source, &Source::number, client, &C::doInitialCheck),
        QObject::connect(source, &Source::dialog, client, &C::queryForUpdate),
        QObject::connect(source, &Source::nothing, client, &C::enableSoftwareUpdate),
        QObject::connect(source, &Source::nothing, client, &C::disableSoftwareUpdate),
        QObject::connect(source, &Source::version, client, &C::setVersionNumber),
        QObject::connect(source, &Source::cameras, client, &C::setCurrentCameraVersions),
        QObject::connect(source, &Source::window, client, &C::setParent),
        QObject::connect(source, &Source::flags, client, &C::setWindowFlags),
        QObject::connect(source, &Source::nothing, client, &C::forgetRolledBackVersions),
        QObject::connect(source, &Source::flag, client, &C::setInstallOnQuit),
    };
    using M = qv::DownloadManager;
    auto *manager = new M;
    manager->setParent(sink);
    const QList<QMetaObject::Connection> managerConnections {
        QObject::connect(manager, &M::packageFound, sink, any),
        QObject::connect(manager, &M::noPackageFound, sink, any),
        QObject::connect(manager, &M::queryStarted, sink, any),
        QObject::connect(manager, &M::queryFinished, sink, any),
        QObject::connect(manager, &M::downloadStarted, sink, any),
        QObject::connect(manager, &M::downloadProgress, sink, any),
        QObject::connect(manager, qOverload<qv::PackageInfo, QString>(&M::downloadSuccess), sink,
                         any),
        QObject::connect(manager, qOverload<>(&M::downloadSuccess), sink, any),
        QObject::connect(manager, qOverload<qv::PackageInfo, QString>(&M::downloadFailure), sink,
                         any),
        QObject::connect(manager, qOverload<int>(&M::downloadFailure), sink, any),
        QObject::connect(manager, &M::downloadAborted, sink, any),
        QObject::connect(manager, &M::releaseNotesDownloaded, sink, any),
        QObject::connect(manager, &M::unzippingDone, sink, any),
        QObject::connect(manager, &M::downloadVerificationFailed, sink, any),
        QObject::connect(manager, &M::unpackingFailed, sink, any),
        QObject::connect(source, &Source::nothing, manager, &M::abortDownload),
        QObject::connect(source, &Source::text, manager, &M::unzipPackage),
        QObject::connect(source, &Source::twoTexts, manager, &M::unzipPackageInto),
    };
    int connected = 0;
    for (const QMetaObject::Connection &c : connections + managerConnections)
        connected += c ? 1 : 0;
    delete source;
    delete sink;
    return connected == connections.size() + managerConnections.size() ? connected : -1;
}

#include "connections.moc"
