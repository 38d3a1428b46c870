#include "SoftwareUpdateClient.h"

#include "CatalogueTrust.h"
#include "Logging.h"
#include "PackageTypes.h"

#include <qv/FileUtils.h>
#include <qv/NodeDB.h>
#include <qv/Preferences.h>
#include <qv/QtHelpers.h>
#include <qv/UpdateState.h>

#include "ClientSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QThread>
#include <QTimer>
#include <QTranslator>

#include <memory>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace qv {

using client::errorLine;
using client::kRolledBackVersions;
using client::kUpdateInstalling;
using client::kUpdateLeftovers;
using client::progressLine;
using client::Text;

namespace {

// Store keys. "subVersion" and "quietMode" are reserved names that nothing reads or writes.
const QString kProduct = QStringLiteral("product");
const QString kVersionNumber = QStringLiteral("versionNumber");
[[maybe_unused]] const QString kSubVersion = QStringLiteral("subVersion");
[[maybe_unused]] const QString kQuietMode = QStringLiteral("quietMode");
const QString kServerURL = QStringLiteral("serverURL");
const QString kDoUpdateCheck = QStringLiteral("doUpdateCheck");
const QString kCheckForBeta = QStringLiteral("checkForBeta");
const QString kUpdateInterval = QStringLiteral("updateInterval");
const QString kLastCheck = QStringLiteral("lastCheck");
const QString kSupportedPlatforms = QStringLiteral("supportedPlatforms");
const QString kSupportedPackageTypes = QStringLiteral("supportedPackageTypes");
const QString kInstallablePackageTypes = QStringLiteral("installablePackageTypes");
const QString kCurrentCameraVersions = QStringLiteral("currentCameraVersions");

const int kCheckTimerInterval = 3600 * 1000;

QStringList splitList(const QVariant &value)
{
    return Preferences::toText(value).split(QLatin1Char(','), Qt::SkipEmptyParts,
                                            Qt::CaseSensitive);
}

} // namespace

// Whether a new client confirms to the updater by itself that this version runs.
static bool gConfirmAutomatically = true;

QSettings::Format SoftwareUpdateClient::sSoftUpQSettingsFormat = QSettings::Format(0);
QSettings::Scope SoftwareUpdateClient::sSoftUpQSettingsScope = QSettings::Scope(0);

SoftwareUpdateClient::SoftwareUpdateClient(const QString &product, VersionNumber version,
                                           const QString &serverURL, QWidget *parent)
    : QObject(nullptr),
      m_parent(parent),
      m_checkTimer(new QTimer(this)),
      m_windowFlags(dialogFlags(true))
{
    // Build-time lists. They grow on every construction, so a second client in one process
    // stores every type twice.
    static QStringList compatiblePlatforms;
    static QStringList supportedPackageTypes;
    static QStringList installablePackageTypes;

    SoftwareUpdateSettings settings;
    getCurrentSettings(&settings);
    settings.product = product;
    settings.versionNumber = version;
    settings.supportedPlatforms = compatiblePlatforms;
    // Without the complete install, the installable list is a single empty entry: the list is
    // not empty, so it is written, as an empty value.
    supportedPackageTypes << PackageTypes::offered(installMode() == CompleteInstall);
    installablePackageTypes << PackageTypes::installable(installMode() == CompleteInstall);
    settings.supportedPackageTypes = supportedPackageTypes;
    settings.installablePackageTypes = installablePackageTypes;
    if (settings.serverURL.isNull())
        settings.serverURL = serverURL;
    setCurrentSettings(&settings);

    setTrustedKeys(CatalogueTrust::builtInKeys());
    confirmHealthAndNoticeRollBack();
    connect(m_checkTimer, &QTimer::timeout, this, [this] { queryLastUpdate(); });
    if (settings.doUpdateCheck)
        enableSoftwareUpdate();
    else
        disableSoftwareUpdate();
}

SoftwareUpdateClient::~SoftwareUpdateClient()
{
    // A new version being built from a delta stops at its next file.
    if (m_deltaThread) {
        m_deltaCancel = true;
        m_deltaThread->wait();
        delete m_deltaThread;
    }
    // A check still waiting for its answer ends with the client.
    delete m_networkManager;
}

QSettings *SoftwareUpdateClient::openStore()
{
    QString organization = QCoreApplication::organizationName();
    if (organization.isEmpty())
        organization = QStringLiteral("Quorvel");
    QString application = QCoreApplication::applicationName();
    if (application.isEmpty())
        application = QStringLiteral("softwareUpdate");
    return new QSettings(sSoftUpQSettingsFormat, sSoftUpQSettingsScope, organization, application);
}

void SoftwareUpdateClient::getCurrentSettings(SoftwareUpdateSettings *s) const
{
    *s = SoftwareUpdateSettings();
    s->doUpdateCheck = false;

    const std::unique_ptr<QSettings> store(openStore());
    const auto textOf = [&store](const QString &key) {
        const QVariant v = store->value(key);
        QString text = Preferences::toText(v);
        // A key that is present reads as a non-null text even when empty.
        if (v.isValid() && text.isNull())
            text = QLatin1String("");
        return text;
    };

    // Qt's own conversion, as stored booleans have always been read: any text but "", "0" and
    // "false" reads as true ("no" too).
    s->doUpdateCheck
        = textOf(kDoUpdateCheck).isEmpty() ? true : store->value(kDoUpdateCheck).toBool();
    s->checkForBeta
        = textOf(kCheckForBeta).isEmpty() ? false : store->value(kCheckForBeta).toBool();
    s->updateInterval = Preferences::intValue(*store, kUpdateInterval, 0);
    s->serverURL = textOf(kServerURL);
    const QVariant version = store->value(kVersionNumber);
    s->versionNumber = version.isNull() ? VersionNumber("0")
                                        : VersionNumber::fromText(Preferences::toText(version));
    s->product = textOf(kProduct);
    s->lastCheck = store->value(kLastCheck).toDateTime();
    s->supportedPlatforms = splitList(store->value(kSupportedPlatforms));
    s->supportedPackageTypes = splitList(store->value(kSupportedPackageTypes));
    s->installablePackageTypes = splitList(store->value(kInstallablePackageTypes));

    const QStringList cameras = splitList(store->value(kCurrentCameraVersions));
    for (const QString &camera : cameras) {
        // The model is section 0 as it stands (":1.0" has the model ""); the version skips
        // empty sections.
        const QString model = camera.section(QLatin1Char(':'), 0, 0);
        const QString version = camera.section(QLatin1Char(':'), 1, 1, QString::SectionSkipEmpty);
        s->currentCameraVersions.append(qMakePair(model, VersionNumber::fromText(version)));
    }
}

void SoftwareUpdateClient::setCurrentSettings(const SoftwareUpdateSettings *s) const
{
    const std::unique_ptr<QSettings> store(openStore());
    store->setValue(kDoUpdateCheck, QVariant(s->doUpdateCheck));
    store->setValue(kCheckForBeta, QVariant(s->checkForBeta));
    store->setValue(kUpdateInterval, QVariant(s->updateInterval));
    if (!s->serverURL.isNull())
        store->setValue(kServerURL, s->serverURL);
    if (s->versionNumber != VersionNumber())
        store->setValue(kVersionNumber, s->versionNumber.toString());
    if (!s->product.isNull())
        store->setValue(kProduct, s->product);
    if (!s->lastCheck.isNull())
        store->setValue(kLastCheck, QVariant(s->lastCheck));
    if (!s->supportedPlatforms.isEmpty())
        store->setValue(kSupportedPlatforms, s->supportedPlatforms.join(QLatin1Char(',')));
    if (!s->supportedPackageTypes.isEmpty())
        store->setValue(kSupportedPackageTypes, s->supportedPackageTypes.join(QLatin1Char(',')));
    if (!s->installablePackageTypes.isEmpty())
        store->setValue(kInstallablePackageTypes,
                        s->installablePackageTypes.join(QLatin1Char(',')));
    if (!s->currentCameraVersions.isEmpty()) {
        QStringList pairs;
        for (const auto &camera : s->currentCameraVersions)
            pairs << camera.first + QLatin1Char(':') + camera.second.toString();
        store->setValue(kCurrentCameraVersions, pairs.join(QLatin1Char(',')));
    }
}

QString SoftwareUpdateClient::transformReleaseStatus(bool beta) const
{
    return beta ? QString(QLatin1String("")) : QStringLiteral("STABLE");
}

QNetworkProxy SoftwareUpdateClient::networkProxy() const
{
    return NodeDB::getDB().globalProxy().toQNetworkProxy();
}

namespace {
SoftwareUpdateClient::InstallMode s_installMode = SoftwareUpdateClient::DesignedInstall;
}

void SoftwareUpdateClient::setInstallMode(InstallMode mode)
{
    s_installMode = mode;
}

SoftwareUpdateClient::InstallMode SoftwareUpdateClient::installMode()
{
    return s_installMode;
}

// A new version started by UpdateInstaller confirms here that it runs; an old version that an
// update was rolled back to tells the user once.
QString client::privateUpdaterCopy()
{
    const QString source = QCoreApplication::applicationDirPath() + QLatin1Char('/') + kUpdaterName;
    const QString folder = FileUtils::createTempDir();
    const QString updater = folder + QLatin1Char('/') + kUpdaterName;
    if (!folder.isEmpty() && QFileInfo(source).isFile() && QFile::copy(source, updater)
        && QFile::setPermissions(updater, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner))
        return updater;
    errorLine(QStringLiteral("SoftwareUpdateClient::startInstallApplication() -> could not copy "
                             "%1 to a private folder")
                  .arg(source));
    if (!folder.isEmpty())
        FileUtils::erase(folder);
    return QString();
}

// An update that a power cut or a kill interrupted (its journal is there, and no updater holds
// its lock) is settled before anything else: the version in the folder now, the running one,
// stays.
void SoftwareUpdateClient::settleInterruptedUpdate()
{
    const QString state = UpdateState::folderFor(QCoreApplication::applicationDirPath(), false);
    const QByteArray journal = UpdateState::readPrivate(state + QStringLiteral("/journal"));
    if (journal.isNull())
        return;
    const int lock = UpdateState::openPrivate(state + QStringLiteral("/lock"), O_RDWR, false);
    const bool held = lock >= 0 && flock(lock, LOCK_EX | LOCK_NB) != 0;
    if (lock >= 0)
        ::close(lock);
    if (held)
        return; // an updater is at work, maybe checking this very program
    const QStringList lines = QString::fromUtf8(journal).split(QLatin1Char('\n'));
    const QString updater = client::privateUpdaterCopy();
    if (updater.isEmpty())
        return;
    QProcess settle;
    settle.start(updater,
                 {QStringLiteral("-oldDir"), lines.value(1), QStringLiteral("-newDir"),
                  lines.value(2), QStringLiteral("-exe"), lines.value(3),
                  QStringLiteral("-settle")});
    const bool ended = settle.waitForFinished(120000);
    errorLine(QStringLiteral("SoftwareUpdateClient -> an interrupted update of %1 was settled: %2")
                  .arg(lines.value(1),
                       !ended                       ? QStringLiteral("the updater did not finish")
                           : settle.exitCode() == 0 ? QStringLiteral("the new version stays")
                                                    : QStringLiteral("the old version stays")));
    FileUtils::erase(QFileInfo(updater).path());
}

void SoftwareUpdateClient::confirmHealthAndNoticeRollBack()
{
    settleInterruptedUpdate();
    removeUpdateLeftovers();
    // An update accepted for later in an earlier session is still waiting.
    const std::unique_ptr<QSettings> store(openStore());
    // When that session did not quit normally (or the update would be in), it goes in now.
    const QStringList pending = client::pendingInstall(*store);
    if (!pending.isEmpty() && installMode() == CompleteInstall) {
        if (pending.at(3) == QString::number(QCoreApplication::applicationPid()))
            armInstallOnQuit(); // accepted through another client of this same session
        else
            QTimer::singleShot(0, this, &SoftwareUpdateClient::installPendingAtStart);
    } else {
        store->remove(client::kInstallOnQuit);
    }
    if (gConfirmAutomatically)
        confirmUpdateRuns();
    const QString state = UpdateState::folderFor(QCoreApplication::applicationDirPath(), false);
    const QString note = state + QStringLiteral("/rolled-back");
    const QByteArray reason = UpdateState::readPrivate(note, 4096);
    if (reason.isNull())
        return;
    UpdateState::removePrivate(note);
    const QString why = QString::fromUtf8(reason).trimmed();
    // The version that did not start is not offered again until a newer one is published.
    const QString failed = Preferences::toText(store->value(kUpdateInstalling));
    store->remove(kUpdateInstalling);
    if (!failed.isEmpty()) {
        QStringList versions = rolledBackVersions();
        if (!versions.contains(failed))
            versions << failed;
        store->setValue(kRolledBackVersions, versions.join(QLatin1Char(',')));
    }
    errorLine(QStringLiteral("SoftwareUpdateClient -> the last update (%1) was rolled back: %2")
                  .arg(failed.isEmpty() ? QStringLiteral("version unknown") : failed, why));
    // Once the host has connected to the client.
    QTimer::singleShot(0, this, [this, failed, why] {
        Q_EMIT updateRolledBack(failed, why);
        if (!m_interactive)
            return;
        QString text = Text::tr("The new version did not start, so the update was rolled back. "
                                "This is the version you had before.");
        if (!failed.isEmpty())
            text += QLatin1Char(' ')
                + Text::tr("Version %1 is not offered again until a newer one is published.")
                      .arg(failed);
        QMessageBox box(QMessageBox::Warning, Text::tr("Update rolled back"), text, QMessageBox::Ok,
                        m_parent, m_windowFlags);
        box.exec();
    });
}

void SoftwareUpdateClient::confirmUpdateRuns()
{
    const QString health = qEnvironmentVariable("SOFTWAREUPDATE_HEALTH_FILE");
    if (health.isEmpty())
        return;
    // The updater's secret is the confirmation; the file is replaced, never followed.
    QByteArray token = qgetenv("SOFTWAREUPDATE_HEALTH_TOKEN");
    if (token.isEmpty())
        token = "running";
    if (UpdateState::writePrivate(health, token + '\n'))
        progressLine(QStringLiteral(
            "SoftwareUpdateClient -> confirmed to the updater that this version runs"));
    std::unique_ptr<QSettings>(openStore())->remove(kUpdateInstalling);
    // Once only, and not for the programs this one starts.
    qunsetenv("SOFTWAREUPDATE_HEALTH_FILE");
    qunsetenv("SOFTWAREUPDATE_HEALTH_TOKEN");
}

void SoftwareUpdateClient::setConfirmAutomatically(bool on)
{
    gConfirmAutomatically = on;
}

bool SoftwareUpdateClient::confirmsAutomatically()
{
    return gConfirmAutomatically;
}

// The temporary folders of a complete install handed to the updater (its unpacked package, the
// updater's copy) go at the next start, whether the update stayed or was rolled back. Only
// folders inside the temporary folder are ever removed.
void SoftwareUpdateClient::removeUpdateLeftovers()
{
    const std::unique_ptr<QSettings> store(openStore());
    const QStringList leftovers = store->value(kUpdateLeftovers).toStringList();
    if (leftovers.isEmpty())
        return;
    // Ours by their names: a temporary folder, or the unpacked version beside the application.
    const QString application = QDir::cleanPath(QCoreApplication::applicationDirPath());
    const QString besidePrefix
        = QFileInfo(application).fileName() + QStringLiteral(".update-unpacked-");
    for (const QString &folder : leftovers) {
        const QString name = QFileInfo(folder).fileName();
        const bool removed = name.startsWith(QLatin1String("softwareupdate-"))
            ? FileUtils::erase(folder, QDir::tempPath())
            : name.startsWith(besidePrefix)
                && FileUtils::erase(folder, QFileInfo(application).path());
        if (removed)
            progressLine(QStringLiteral("SoftwareUpdateClient -> removed ") + folder);
    }
    store->remove(kUpdateLeftovers);
}

QStringList SoftwareUpdateClient::rolledBackVersions() const
{
    const std::unique_ptr<QSettings> store(openStore());
    return splitList(store->value(kRolledBackVersions));
}

void SoftwareUpdateClient::forgetRolledBackVersions()
{
    const std::unique_ptr<QSettings> store(openStore());
    store->remove(kRolledBackVersions);
}

bool SoftwareUpdateClient::installTranslator(const QLocale &locale)
{
    // Found by language and country ("_de_DE"), else by language alone ("_de"): every German
    // and French locale.
    auto *translator = new QTranslator(QCoreApplication::instance());
    if (!translator->load(locale, QStringLiteral("SoftwareUpdateClient"), QStringLiteral("_"),
                          QStringLiteral(":/translations"))) {
        delete translator;
        return false;
    }
    return QCoreApplication::installTranslator(translator);
}

void SoftwareUpdateClient::setTrustedKeys(const QStringList &publicKeys)
{
    m_trustedKeyTexts = publicKeys;
    m_trustedKeys = CatalogueTrust::readKeys(publicKeys, "SoftwareUpdateClient::setTrustedKeys()");
}

void SoftwareUpdateClient::enableSoftwareUpdate()
{
    m_checkTimer->setInterval(kCheckTimerInterval);
    m_checkTimer->start();
}

void SoftwareUpdateClient::disableSoftwareUpdate()
{
    m_checkTimer->stop();
}

void SoftwareUpdateClient::setVersionNumber(VersionNumber version)
{
    SoftwareUpdateSettings settings;
    getCurrentSettings(&settings);
    settings.versionNumber = version;
    setCurrentSettings(&settings);
}

void SoftwareUpdateClient::setCurrentCameraVersions(SoftUpCurrentCameraVersions versions)
{
    SoftwareUpdateSettings settings;
    getCurrentSettings(&settings);
    settings.currentCameraVersions = versions;
    setCurrentSettings(&settings);
}

void SoftwareUpdateClient::setParent(QWidget *parent)
{
    m_parent = parent;
}

void SoftwareUpdateClient::setWindowFlags(Qt::WindowFlags flags)
{
    m_windowFlags = flags;
}

void SoftwareUpdateClient::applyDialogSettings(const SoftwareUpdateDialogSettings &dialogSettings)
{
    SoftwareUpdateSettings settings;
    getCurrentSettings(&settings);
    settings.doUpdateCheck = dialogSettings.doUpdateCheck;
    settings.updateInterval = dialogSettings.updateInterval;
    settings.checkForBeta = dialogSettings.checkForBeta;
    settings.serverURL = dialogSettings.serverURL;
    setCurrentSettings(&settings);
    if (settings.doUpdateCheck)
        enableSoftwareUpdate();
    else
        disableSoftwareUpdate();
}

void SoftwareUpdateClient::deleteNetworkmanager()
{
    if (m_networkManager) {
        // A reply that still arrives belongs to a released check and is not evaluated.
        m_networkManager->disconnect(this);
        m_networkManager->deleteLater();
        m_networkManager = nullptr;
    }
}

} // namespace qv
