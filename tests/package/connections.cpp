// Every public signal and slot of the client connects by function pointer, the way a host
// writes it: a name with two signatures would not compile here. (checkForUpdate() and
// checkForUpdate(int) are the one pair by design; checkNow() is the unambiguous name.)

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
    int connected = 0;
    for (const QMetaObject::Connection &c : connections)
        connected += c ? 1 : 0;
    delete source;
    delete sink;
    return connected == connections.size() ? connected : -1;
}

#include "connections.moc"
