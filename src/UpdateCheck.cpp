// When the client checks, and the check itself: the catalogue request, its answer and the
// outcome shown in the settings dialog.

#include "SoftwareUpdateClient.h"

#include "CatalogueTrust.h"
#include "ClientSupport.h"
#include "DownloadManager.h"
#include "Logging.h"
#include "SoftwareUpdateDialog.h"

#include <qv/QtHelpers.h>
#include <qv/XmlUtils.h>

#include <QBuffer>
#include <QCoreApplication>
#include <QLocale>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTimer>

#include <memory>

namespace qv {

namespace {

// With trusted keys, a check ends: at most this many redirects, all within this deadline.
const int kMaxRedirects = 20;
const int kCheckDeadline = 60000;
const char kTooLarge[] = "suc_tooLarge";
const char kSignature[] = "suc_signature";
enum Outcome { UpdatesFound, NothingNewer, CheckFailed };

// An answer larger than `limit` is not read to its end: the reply is aborted and marked.
void dropWhenLargerThan(QNetworkReply *reply, qint64 limit)
{
    const auto check = [reply, limit] {
        if (reply->bytesAvailable() > limit
            || reply->header(QNetworkRequest::ContentLengthHeader).toLongLong() > limit) {
            reply->setProperty(kTooLarge, true);
            reply->abort();
        }
    };
    QObject::connect(reply, &QNetworkReply::metaDataChanged, reply, check);
    QObject::connect(reply, &QNetworkReply::readyRead, reply, check);
}

QString longDate(const QDateTime &when)
{
    return QLocale::system().toString(when, QLocale::LongFormat);
}

} // namespace

using client::errorLine;
using client::kApplicationKind;
using client::kCameraKind;
using client::progressLine;
using client::Text;

// Scheduling.

void SoftwareUpdateClient::doInitialCheck(int msDelay)
{
    SoftwareUpdateSettings settings;
    getCurrentSettings(&settings);
    if (settings.doUpdateCheck && settings.updateInterval == AtApplicationStart)
        checkForUpdate(msDelay);
}

void SoftwareUpdateClient::checkForUpdate(int millisecondsDelay)
{
    SoftwareUpdateSettings settings;
    getCurrentSettings(&settings);
    if (!settings.doUpdateCheck)
        return;
    if (millisecondsDelay <= 0) {
        doBackgroundCheck();
        return;
    }
    // The delay timers stay children of the client after they fire.
    auto *timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, &SoftwareUpdateClient::doBackgroundCheck);
    timer->setSingleShot(true);
    timer->start(millisecondsDelay);
}

void SoftwareUpdateClient::doBackgroundCheck()
{
    if (!m_updateDialog)
        checkForUpdate();
}

void SoftwareUpdateClient::checkForUpdate()
{
    SoftwareUpdateSettings settings;
    getCurrentSettings(&settings);
    settings.lastCheck = QDateTime::currentDateTime();
    if (m_updateDialog) {
        // The URL as typed in the dialog, applied or not.
        performUpdateCheck(QUrl(m_updateDialog->getDialogSettings().serverURL));
        setCurrentSettings(&settings);
    } else if (settings.doUpdateCheck) {
        performUpdateCheck(QUrl(settings.serverURL));
        setCurrentSettings(&settings);
    }
}

void SoftwareUpdateClient::queryLastUpdate(int delay)
{
    SoftwareUpdateSettings settings;
    getCurrentSettings(&settings);
    if (m_updateDialog || settings.updateInterval == AtApplicationStart)
        return;
    const QDateTime last = settings.lastCheck;
    const QDateTime now = QDateTime::currentDateTime();
    if (settings.updateInterval == Weekly) {
        if (last.addDays(7) < now) {
            checkForUpdate(delay);
            progressLine(
                QStringLiteral("SoftwareUpdateClient::queryLastUpdate() -> weekly update fired"));
        }
    } else if (settings.updateInterval == Monthly) {
        if (last.addMonths(1) < now) {
            checkForUpdate(delay);
            progressLine(
                QStringLiteral("SoftwareUpdateClient::queryLastUpdate() -> monthly update fired"));
        }
    } else if (settings.updateInterval == Daily) {
        if (last.addDays(1) < now) {
            checkForUpdate(delay);
            progressLine(
                QStringLiteral("SoftwareUpdateClient::queryLastUpdate() -> daily update fired"));
        }
    }
}

void SoftwareUpdateClient::queryForUpdate(Qt::WindowFlags flags, bool modal)
{
    if (!m_updateDialog) {
        m_updateDialog = new SoftwareUpdateDialog(m_parent, flags ? flags : m_windowFlags);
        m_updateDialog->setModal(modal);
        connect(m_updateDialog, &SoftwareUpdateDialog::checkForUpdate, this,
                qOverload<>(&SoftwareUpdateClient::checkForUpdate));
        connect(m_updateDialog, &SoftwareUpdateDialog::applySettings, this,
                &SoftwareUpdateClient::applyDialogSettings);
        connect(m_updateDialog, &QDialog::rejected, this,
                &SoftwareUpdateClient::deleteUpdateDialog);
        connect(m_updateDialog, &QDialog::accepted, this,
                &SoftwareUpdateClient::deleteUpdateDialog);
        connect(m_updateDialog, &QObject::destroyed, this,
                &SoftwareUpdateClient::setUpdateDialogNull);
        connect(m_updateDialog, &SoftwareUpdateDialog::forceUpdateAvailable, this,
                &SoftwareUpdateClient::updateAvailable);
    }
    m_updateDialog->setNotificationText(QString());
    SoftwareUpdateSettings settings;
    getCurrentSettings(&settings);
    SoftwareUpdateDialogSettings record;
    record.doUpdateCheck = settings.doUpdateCheck;
    record.checkForBeta = settings.checkForBeta;
    record.updateInterval = settings.updateInterval;
    record.serverURL = settings.serverURL;
    record.currentVersion = settings.versionNumber.toShortVersion();
    record.lastCheck = longDate(settings.lastCheck);
    m_updateDialog->setDialogSettings(record);
    m_updateDialog->setVisible(true);
    m_updateDialog->activateWindow();
}

void SoftwareUpdateClient::openSettingsDialogFromUpdateAvailableDialog()
{
    queryForUpdate(dialogFlags(false), true);
}

void SoftwareUpdateClient::deleteUpdateDialog()
{
    if (!m_updateDialog)
        return;
    m_updateDialog->hide();
    m_updateDialog->deleteLater();
}

void SoftwareUpdateClient::setUpdateDialogNull(QObject *)
{
    m_updateDialog = nullptr;
}

// The request and its answer.

void SoftwareUpdateClient::performUpdateCheck(const QUrl &url)
{
    if (m_updateDialog) {
        SoftwareUpdateSettings settings;
        getCurrentSettings(&settings);
        m_updateDialog->enableProgress();
        m_updateDialog->setNotificationText(QString());
        // The stored time is the previous check's: the new one is written after this call.
        SoftwareUpdateDialogSettings record = m_updateDialog->getDialogSettings();
        record.lastCheck = longDate(settings.lastCheck);
        m_updateDialog->setDialogSettings(record);
    }
    progressLine(QStringLiteral("SoftwareUpdateClient::performUpdateCheck() -> ") + url.toString());
    if (!m_redirecting) {
        m_checkServerUrl = url;
        m_checkRunning = true;
        m_redirectCount = 0;
        m_checkClock.start();
        Q_EMIT checkStarted();
    }
    m_redirecting = false;

    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("text/xml"));
    // Redirects are followed here, one by one, not by Qt.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    QNetworkReply *reply = networkManager()->get(request);
    // An answer larger than any catalogue is not read to its end: it is malformed.
    dropWhenLargerThan(reply, XmlLimits().maxBytes);
    startRequestTimeout();
}

QNetworkAccessManager *SoftwareUpdateClient::networkManager()
{
    if (!m_networkManager) {
        m_networkManager = new QNetworkAccessManager;
        connect(m_networkManager, &QNetworkAccessManager::finished, this,
                &SoftwareUpdateClient::evaluateServerResponse);
    }
    m_networkManager->setProxy(networkProxy());
    return m_networkManager;
}

void SoftwareUpdateClient::startRequestTimeout()
{
    if (!m_requestTimeoutTimer) {
        m_requestTimeoutTimer = new QTimer(this);
        connect(m_requestTimeoutTimer, &QTimer::timeout, this,
                &SoftwareUpdateClient::requestTimeout);
    }
    m_requestTimeoutTimer->setSingleShot(true);
    // With trusted keys each hop has its 15 s, and the whole check its 60 s.
    const qint64 left = kCheckDeadline - m_checkClock.elapsed();
    m_requestTimeoutTimer->start(m_trustedKeyTexts.isEmpty()
                                     ? m_requestTimeout
                                     : int(qBound(qint64(0), left, qint64(m_requestTimeout))));
}

// The catalogue's signature: fetched beside it when trusted keys are set, following redirects.
void SoftwareUpdateClient::fetchSignature(const QUrl &catalogueUrl)
{
    QNetworkRequest request(QUrl(catalogueUrl.toString() + QStringLiteral(".minisig")));
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setMaximumRedirectsAllowed(kMaxRedirects);
    QNetworkReply *reply = networkManager()->get(request);
    reply->setProperty(kSignature, true);
    dropWhenLargerThan(reply, Minisign::maxSignatureSize);
    startRequestTimeout();
}

void SoftwareUpdateClient::evaluateSignature(QNetworkReply *reply)
{
    if (m_updateDialog)
        m_updateDialog->disbaleProgress();
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QByteArray signature = reply->error() == QNetworkReply::NoError && status == 200
            && !reply->property(kTooLarge).toBool()
        ? reply->readAll()
        : QByteArray();
    // The feed is the catalogue the check asked for, before any redirect.
    const QString feed = CatalogueTrust::feedName(m_checkServerUrl);
    const std::unique_ptr<QSettings> store(openStore());
    const CatalogueTrust::Outcome outcome = CatalogueTrust::check(
        m_pendingCatalogue, signature, m_trustedKeys, feed, [&](const QString &keyId) {
            return store->value(CatalogueTrust::serialKey(keyId, feed), -1).toLongLong();
        });
    QByteArray catalogue;
    catalogue.swap(m_pendingCatalogue);
    if (outcome.verdict != CatalogueTrust::Trusted) {
        m_packageList.clear();
        errorLine(QStringLiteral("SoftwareUpdateClient::evaluateServerResponse() -> refusing the "
                                 "catalogue of %1: %2")
                      .arg(m_checkServerUrl.toString(), outcome.reason));
        if (m_updateDialog)
            m_updateDialog->setNotificationText(CatalogueTrust::userText(outcome.verdict));
        reportOutcome(CheckFailed, CatalogueTrust::userText(outcome.verdict));
        return;
    }
    progressLine(QStringLiteral("SoftwareUpdateClient::evaluateServerResponse() -> catalogue ")
                 + outcome.reason);
    store->setValue(CatalogueTrust::serialKey(outcome.keyId, feed), outcome.serial);
    QBuffer verified(&catalogue);
    verified.open(QIODevice::ReadOnly);
    finishCheck(&verified);
}

void SoftwareUpdateClient::evaluateServerResponse(QNetworkReply *reply)
{
    m_requestTimeoutTimer->stop();
    deleteNetworkmanager();
    if (reply->property(kSignature).toBool()) {
        evaluateSignature(reply);
        return;
    }

    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    bool redirectWithoutTarget = false;
    if (status == 302 || status == 301 || status == 303 || status == 307) {
        QUrl url = reply->attribute(QNetworkRequest::RedirectionTargetAttribute).toUrl();
        if (!url.isEmpty() && !m_trustedKeyTexts.isEmpty()) {
            // Verified checks end: a relative target is resolved, and a chain of redirects is
            // cut off as a timeout.
            url = reply->url().resolved(url);
            if (++m_redirectCount > kMaxRedirects) {
                errorLine(QStringLiteral("SoftwareUpdateClient::evaluateServerResponse() -> more "
                                         "than %1 redirects; giving up")
                              .arg(kMaxRedirects));
                requestTimeout();
                return;
            }
        }
        if (!url.isEmpty()) {
            progressLine(
                QStringLiteral("SoftwareUpdateClient::evaluateServerResponse() -> redirect url ")
                + url.toString());
            m_redirecting = true;
            performUpdateCheck(url);
            return;
        }
        progressLine(QStringLiteral("SoftwareUpdateClient::evaluateServerResponse() -> could not "
                                    "obtain redirect url from server response"));
        redirectWithoutTarget = true;
    }
    if (m_updateDialog)
        m_updateDialog->disbaleProgress();
    const bool tooLarge = reply->property(kTooLarge).toBool();
    if (tooLarge) {
        errorLine(QStringLiteral("SoftwareUpdateClient::evaluateServerResponse() -> the answer is "
                                 "larger than %1 bytes")
                      .arg(XmlLimits().maxBytes));
        reply->readAll(); // dropped: the catalogue parsed below is empty, so malformed
    }
    // A redirect without a target is read like any answer; Qt flags it as an error of its own.
    if (reply->error() != QNetworkReply::NoError && !redirectWithoutTarget && !tooLarge) {
        requestError(reply->errorString());
        progressLine(QStringLiteral(
                         "SoftwareUpdateClient::evaluateServerResponse() -> reply->errorString(): ")
                     + reply->errorString());
        return;
    }
    // With trusted keys, nothing is parsed before the signature beside it verifies.
    if (!m_trustedKeyTexts.isEmpty() && !tooLarge) {
        m_pendingCatalogue = reply->readAll();
        fetchSignature(reply->url());
        if (m_updateDialog)
            m_updateDialog->enableProgress();
        return;
    }
    finishCheck(reply);
}

void SoftwareUpdateClient::finishCheck(QIODevice *catalogue)
{
    if (parseCatalogue(catalogue) == 1)
        return; // reported by parseCatalogue
    SoftwareUpdateSettings settings;
    getCurrentSettings(&settings);
    if (m_packageList.isEmpty()) {
        progressLine(QStringLiteral(
            "SoftwareUpdateClient::evaluateServerResponse() -> product is up-to-date "));
        productUpToDate();
    } else {
        progressLine(
            QStringLiteral("SoftwareUpdateClient::evaluateServerResponse() -> update available"));
        if (m_interactive)
            updateAvailable();
        reportOutcome(UpdatesFound);
    }
}

int SoftwareUpdateClient::parseServerResponse(QNetworkReply *reply)
{
    return parseCatalogue(reply);
}

int SoftwareUpdateClient::parseCatalogue(QIODevice *catalogue)
{
    m_packageList.clear();
    bool wellFormed = false;
    m_packageList = DownloadManager::parseXML(catalogue, &wellFormed);
    if (!m_trustedKeyTexts.isEmpty())
        CatalogueTrust::dropUnhashed(m_packageList, "SoftwareUpdateClient::parseServerResponse()");
    if (m_packageList.isEmpty()) {
        errorLine(
            QStringLiteral("SoftwareUpdateClient::parseServerResponse() -> no update available"));
        if (m_updateDialog)
            m_updateDialog->setNotificationText(Text::tr("No update available!"));
        if (wellFormed)
            reportOutcome(NothingNewer);
        else
            reportOutcome(CheckFailed,
                          Text::tr("The update server did not answer with an update catalogue."));
        return 1;
    }
    SoftwareUpdateSettings settings;
    getCurrentSettings(&settings);
    // The dialog's unsaved beta choice counts while it is open.
    const bool beta
        = m_updateDialog ? m_updateDialog->getDialogSettings().checkForBeta : settings.checkForBeta;
    const QString status = transformReleaseStatus(beta);

    PackageInfoList cameras;
    for (const auto &camera : std::as_const(settings.currentCameraVersions)) {
        const PackageInfo filter(QString(), QString(), camera.second.toString(), status,
                                 QDateTime(), QStringSet {camera.first}, QStringSet(),
                                 QLatin1String(""), QLatin1String(""));
        cameras += DownloadManager::findPackageCandidates(m_packageList, filter, kCameraKind,
                                                          QStringList());
    }
    DownloadManager::eliminateDuplicatePackages(cameras);

    // Matched by the host's application name, not by the stored product.
    const QStringSet platforms(settings.supportedPlatforms.cbegin(),
                               settings.supportedPlatforms.cend());
    const PackageInfo application(QString(), QCoreApplication::applicationName(),
                                  settings.versionNumber.toString(), status, QDateTime(), platforms,
                                  QStringSet(), QLatin1String(""), QLatin1String(""));
    // A release that was installed and rolled back is not offered again; a newer one is.
    const QStringList rolledBack = rolledBackVersions();
    PackageInfoList offerable = m_packageList;
    offerable.removeIf([&rolledBack](const PackageInfo &p) {
        return p.type == kApplicationKind && rolledBack.contains(p.release);
    });
    const PackageInfoList applications = DownloadManager::findPackageCandidates(
        offerable, application, kApplicationKind, settings.supportedPackageTypes);
    // Downloads kept for resuming go when their package is no longer published.
    if (m_resumeDownloads)
        DownloadManager::pruneResumeFolder(m_packageList);
    m_packageList = applications + cameras;
    return 0;
}

void SoftwareUpdateClient::reportOutcome(int outcome, const QString &reason)
{
    // One outcome per started check, whichever way it ends.
    if (!m_checkRunning)
        return;
    m_checkRunning = false;
    switch (outcome) {
    case UpdatesFound:
        Q_EMIT updatesAvailable(m_packageList);
        break;
    case NothingNewer:
        Q_EMIT upToDate();
        break;
    default:
        Q_EMIT checkFailed(reason);
        break;
    }
}

void SoftwareUpdateClient::requestError(QString errorText)
{
    reportOutcome(CheckFailed, errorText);
    if (m_updateDialog)
        m_updateDialog->setNotificationText(errorText);
    deleteNetworkmanager();
    errorLine(QStringLiteral(
        "SoftwareUpdateClient::requestTimeout() -> Timeout occurred requesting update server!"));
}

void SoftwareUpdateClient::requestTimeout()
{
    reportOutcome(CheckFailed, Text::tr("Timeout error! Update server unreachable!"));
    if (m_updateDialog) {
        m_updateDialog->disbaleProgress();
        m_updateDialog->setNotificationText(Text::tr("Timeout error! Update server unreachable!"));
    }
    deleteNetworkmanager();
    errorLine(QStringLiteral(
        "SoftwareUpdateClient::requestTimeout() -> Timeout occurred requesting update server!"));
}

void SoftwareUpdateClient::productUpToDate()
{
    reportOutcome(NothingNewer);
    if (m_updateDialog)
        m_updateDialog->setNotificationText(
            Text::tr("Congratulations! Your product is up-to-date!"));
    deleteNetworkmanager();
    progressLine(
        QStringLiteral("SoftwareUpdateClient::productUpToDate() -> product is up to date!"));
}

} // namespace qv
