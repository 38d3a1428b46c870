#include "DownloadManager.h"

#include "CatalogueTrust.h"
#include "Logging.h"

#include <qv/Exceptions.h>
#include <qv/FileUtils.h>
#include <qv/Preferences.h>
#include <qv/QtHelpers.h>
#include <qv/XmlUtils.h>

#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QSettings>

namespace qv {

int DownloadManager::qMetaTypes = qRegisterMetaType<PackageInfoList>("qv::PackageInfoList");
const QString DownloadManager::UPDATE_URL = QStringLiteral(SUC_UPDATE_URL);

namespace {
const QString kVersionKey = QStringLiteral("ver");
// Settings of this version or older move to the built-in update server.
const int kLastMigratedVersion = 2;
const int kStoredVersion = 3;
const QString kSerialGroup = QStringLiteral("catalogue-serial");

// A query whose catalogue waits for its signature.
struct SignedQuery {
    DownloadManager::RequestData query;
    QByteArray catalogue;
    QString server;
};
// The catalogue of `catalogueUrl` against the keys and the serials accepted before.
CatalogueTrust::Outcome verifyCatalogue(const QByteArray &catalogue, const QByteArray &signature,
                                        const QUrl &catalogueUrl, const QList<MinisignKey> &keys,
                                        const QHash<QString, qint64> &acceptedSerials)
{
    const QString feed = CatalogueTrust::feedName(catalogueUrl);
    return CatalogueTrust::check(catalogue, signature, keys, feed, [&](const QString &keyId) {
        return acceptedSerials.value(CatalogueTrust::serialKey(keyId, feed), -1);
    });
}

QString signatureFile(const QString &cacheFile)
{
    return cacheFile + QStringLiteral(".minisig");
}
} // namespace

DownloadManager::DownloadManager(const HttpHost &host, const QString &path)
    : httpClient(host), host(host), regularCheck(true)
{
    this->host.path = path;
    connectRelays();
    setTrustedKeys(CatalogueTrust::builtInKeys());
}

DownloadManager::DownloadManager(const QUrl &server) : regularCheck(true)
{
    setServer(server);
    httpClient.setHost(host);
    connectRelays();
    setTrustedKeys(CatalogueTrust::builtInKeys());
}

DownloadManager::DownloadManager(QSettings &settings, const QString &cacheFile)
    : regularCheck(false)
{
    setTrustedKeys(CatalogueTrust::builtInKeys());
    loadHistory(settings, cacheFile);
    connectRelays();
}

DownloadManager::DownloadManager()
{
    setTrustedKeys(CatalogueTrust::builtInKeys());
}

void DownloadManager::setTrustedKeys(const QStringList &publicKeys)
{
    trustedKeyTexts = publicKeys;
    keys = CatalogueTrust::readKeys(publicKeys, "DownloadManager::setTrustedKeys()");
}

DownloadManager::~DownloadManager() = default;

void DownloadManager::connectRelays()
{
    qv::connect(&httpClient, SIGNAL(requestStarted(RequestPtr)), this,
                SLOT(downloadStarting(RequestPtr)), Qt::AutoConnection);
    connect(&httpClient, &HttpClient::downloadProgress, this, &DownloadManager::relayProgress);
}

void DownloadManager::setServer(const QUrl &url)
{
    host.server.setUrl(url);
    host.path = HttpClient::encodedUrlPath(url);
    host.proxyPreference = HttpHost::ApplicationProxy;
}

void DownloadManager::setProxy(HttpHost::ProxyPreference preference, const QString &address)
{
    host.proxyPreference = preference;
    host.proxy.parseAddress(address, 80);
    host.updateProxy(QUrl());
    if (preference != HttpHost::NoProxy && !host.proxy.isEmpty())
        HttpAccessHistory::proxies.add(host.proxy);
}

bool DownloadManager::isQueryBusy() const
{
    return httpClient.isExecutingRequest();
}

QString DownloadManager::queryUrl() const
{
    return host.makeURL(QString(), QMap<QString, QVariant>(), true);
}

// Queries.

void DownloadManager::queryUpdate(QString filterTypes, QString filterNames,
                                  QString filterReleaseVersion, QString filterReleaseStatus,
                                  QDateTime filterTime, QStringSet filterPlatform,
                                  QStringSet filterLanguages, QObject *callbackReceiver,
                                  const char *callbackSlot)
{
    const PackageInfo filter(filterTypes, filterNames, filterReleaseVersion, filterReleaseStatus,
                             filterTime, filterPlatform, filterLanguages, QString(), QString());
    queryUpdate(filter, callbackReceiver, callbackSlot);
}

void DownloadManager::queryUpdate(PackageInfo filter, QObject *callbackReceiver,
                                  const char *callbackSlot)
{
    host.updateProxy(QUrl());
    if (host.proxyPreference != HttpHost::NoProxy && !host.proxy.isEmpty())
        HttpAccessHistory::proxies.add(host.proxy);
    httpClient.setHost(host);
    RequestPtr request
        = httpClient.prepareGet(QString(), QMap<QString, QVariant>(), this,
                                SLOT(queryResult(RequestPtr)), nullptr, qvb::smart<QIODevice>());
    request->adoptUserData(new RequestData {filter, callbackReceiver, callbackSlot});
    Q_EMIT queryStarted(QString(host.server));
    httpClient.execute(request);
}

void DownloadManager::queryCameraFirmwareUpdate(QString filterVersion, QString filterRelease,
                                                QStringSet filterLanguages)
{
    // The language set goes in as the platform filter.
    queryUpdate(QStringLiteral("system"), QString(), filterVersion, filterRelease, QDateTime(),
                filterLanguages, QStringSet(), nullptr, nullptr);
}

void DownloadManager::queryResult(RequestPtr resp)
{
    QBuffer *buffer = resp->getResponseBuffer();
    buffer->seek(0);
    if (resp->responseHeader().hasKey(QStringLiteral("set-cookie")))
        cookie = resp->responseHeader().value(QStringLiteral("set-cookie"));
    RequestData *context = resp->userDataAs<RequestData>();
    RequestData empty;
    if (!trustedKeyTexts.isEmpty() && !resp->bodyTooLarge()) {
        // Nothing is parsed before the signature beside it verifies.
        const QUrl catalogueUrl = resp->urls().value(0);
        const QUrl signatureUrl(resp->urls().last().toString() + QStringLiteral(".minisig"));
        HttpHost target = host;
        target.server.setUrl(signatureUrl);
        target.path = HttpClient::encodedUrlPath(signatureUrl);
        httpClient.setHost(target);
        RequestPtr request = httpClient.prepareGet(QString(), QMap<QString, QVariant>(), this,
                                                   SLOT(signatureResult(RequestPtr)), nullptr,
                                                   qvb::smart<QIODevice>());
        request->setMaximumMemoryBody(Minisign::maxSignatureSize);
        request->adoptUserData(
            new SignedQuery {context ? *context : empty, buffer->data(), catalogueUrl.toString()});
        httpClient.execute(request);
        return;
    }
    // An answer over the catalogue limit was dropped unread: it counts as malformed, and the
    // copy of the last answer stays as it was.
    if (!resp->bodyTooLarge()) {
        lastAnswer = buffer->data();
        lastSignature.clear();
    }
    // The receivers of the signals below may delete the manager.
    const QPointer<DownloadManager> self(this);
    queryResult(buffer, context ? context : &empty);
    if (self)
        Q_EMIT queryFinished();
}

void DownloadManager::signatureResult(RequestPtr request)
{
    SignedQuery *signedQuery = request->userDataAs<SignedQuery>();
    if (!signedQuery)
        return;
    const QByteArray signature
        = request->error() == qv::RequestData::NoError && request->statusCode() == 200
        ? request->getResponseBuffer()->data()
        : QByteArray();
    const CatalogueTrust::Outcome outcome = verifyCatalogue(
        signedQuery->catalogue, signature, QUrl(signedQuery->server), keys, acceptedSerials);
    if (outcome.verdict != CatalogueTrust::Trusted) {
        LogQt::write(
            lcDownload(), Log::Error,
            QStringLiteral("DownloadManager::queryResult() -> refusing the catalogue of %1: %2")
                .arg(signedQuery->server, outcome.reason));
        finishRefusedQuery(signedQuery->query);
        return;
    }
    acceptedSerials.insert(CatalogueTrust::serialKey(
                               outcome.keyId, CatalogueTrust::feedName(QUrl(signedQuery->server))),
                           outcome.serial);
    lastAnswer = signedQuery->catalogue;
    lastSignature = signature;
    QBuffer verified(&signedQuery->catalogue);
    verified.open(QIODevice::ReadOnly);
    const QPointer<DownloadManager> self(this);
    queryResult(&verified, &signedQuery->query);
    if (self)
        Q_EMIT queryFinished();
}

// With trusted keys, the copy of the last answer counts only while it still verifies: it may
// have been written before keys were set, by someone else, or have expired since.
bool DownloadManager::cachedAnswerTrusted()
{
    if (trustedKeyTexts.isEmpty() || lastAnswer.isEmpty())
        return true;
    const CatalogueTrust::Outcome outcome
        = verifyCatalogue(lastAnswer, lastSignature, QUrl(queryUrl()), keys, acceptedSerials);
    if (outcome.verdict == CatalogueTrust::Trusted)
        return true;
    LogQt::write(lcDownload(), Log::Error,
                 QStringLiteral("DownloadManager::recentPackages() -> dropping the kept catalogue "
                                "of %1: %2")
                     .arg(queryUrl(), outcome.reason));
    lastAnswer.clear();
    lastSignature.clear();
    return false;
}

// A refused catalogue delivers what a malformed one does: nothing. The last accepted answer and
// the history stay as they were.
void DownloadManager::finishRefusedQuery(RequestData &query)
{
    if (query.callbackSlot)
        invokeQueued(query.callbackReceiver, query.callbackSlot,
                     Q_ARG(qv::PackageInfoList, PackageInfoList()));
    const QPointer<DownloadManager> self(this);
    Q_EMIT noPackageFound();
    if (self)
        Q_EMIT queryFinished();
}

void DownloadManager::queryResult(QIODevice *input, RequestData *data)
{
    PackageInfoList list = parseXML(input);
    if (!trustedKeyTexts.isEmpty())
        CatalogueTrust::dropUnhashed(list, "DownloadManager::queryResult()");
    lastCheck = QDateTime::currentDateTime();
    for (PackageInfo &p : list) {
        const QString id = p.stringID();
        if (history.contains(id))
            p.flags |= PackageInfo::PackageKnown;
        else
            history.insert(id, QDateTime::currentDateTime());
    }
    // The best matches are worked out and dropped: callback and signals get the whole list.
    PackageInfoList best = findBestMatches(list, data->filter);
    for (PackageInfo &p : best)
        p.flags &= ~PackageInfo::BestMatchMark;
    if (data->callbackSlot)
        invokeQueued(data->callbackReceiver, data->callbackSlot, Q_ARG(qv::PackageInfoList, list));
    if (resumeDownloads)
        pruneResumeFolder(list);
    // Deliberately the last use of the manager: a receiver may delete it.
    if (!list.isEmpty())
        Q_EMIT packageFound(list);
    else
        Q_EMIT noPackageFound();
}

// History.

void DownloadManager::loadHistory(QSettings &settings, const QString &cacheFile)
{
    // The copy is held to the limits of a live answer; a FIFO or a device is never opened for
    // reading (it could block forever).
    if (!cacheFile.isEmpty() && QFile::exists(cacheFile)) {
        try {
            lastAnswer = FileUtils::readBytes(cacheFile, XmlLimits().maxBytes);
            if (QFile::exists(signatureFile(cacheFile)))
                lastSignature
                    = FileUtils::readBytes(signatureFile(cacheFile), Minisign::maxSignatureSize);
        } catch (const IOException &e) {
            LogQt::write(lcDownload(), Log::Warning,
                         QStringLiteral("DownloadManager::loadHistory() -> ") + e.message());
        }
    }
    settings.beginGroup(QStringLiteral("Download"));
    lastCheck = Preferences::dateTimeValue(settings, QStringLiteral("last-check"), QDateTime());
    regularCheck = Preferences::boolValue(settings, QStringLiteral("reg-check"), false);
    host.load(settings);
    const int version = Preferences::intValue(settings, kVersionKey, 0);
    if (version <= kLastMigratedVersion)
        host.proxyPreference = HttpHost::ApplicationProxy;
    if (version <= kLastMigratedVersion) {
        // Settings written by versions 0 to 2 always switch to the built-in update server.
        host.server.setUrl(QUrl(UPDATE_URL));
        host.path = HttpClient::encodedUrlPath(UPDATE_URL);
    }
    const QDateTime limit = QDateTime::currentDateTime().addYears(-2);
    int count = settings.beginReadArray(QStringLiteral("hist"));
    // No answer holds more packages than elements; a larger count is damage, not history.
    if (count > XmlLimits().maxElements) {
        LogQt::write(
            lcDownload(), Log::Warning,
            QStringLiteral("DownloadManager::loadHistory() -> ignoring a history of %1 entries")
                .arg(count));
        count = 0;
    }
    for (int i = 0; i < count; ++i) {
        settings.setArrayIndex(i);
        const QString version
            = Preferences::stringValue(settings, QStringLiteral("version"), QString());
        const QDateTime time
            = Preferences::dateTimeValue(settings, QStringLiteral("time"), QDateTime());
        if (time.isNull() || time < limit)
            continue;
        history.insert(version, time);
    }
    settings.endArray();
    settings.beginGroup(kSerialGroup);
    // Records are per signing key (16 hex digits) and feed; records of older versions, per URL,
    // are left behind.
    static const QRegularExpression keyAndFeed(QStringLiteral("^[0-9A-F]{16}_"));
    for (const QString &key : settings.childKeys()) {
        if (keyAndFeed.match(key).hasMatch())
            acceptedSerials.insert(kSerialGroup + QLatin1Char('/') + key,
                                   settings.value(key).toLongLong());
    }
    settings.endGroup();
    settings.endGroup();
}

void DownloadManager::storeHistory(QSettings &settings, const QString &cacheFile)
{
    if (!cacheFile.isEmpty() && !lastAnswer.isEmpty()) {
        try {
            FileUtils::writeBytes(lastAnswer, cacheFile);
            // The signature goes beside it, so that the copy is verified again when read.
            if (!lastSignature.isEmpty())
                FileUtils::writeBytes(lastSignature, signatureFile(cacheFile));
            else
                FileUtils::erase(signatureFile(cacheFile));
        } catch (const IOException &e) {
            LogQt::write(lcDownload(), Log::Warning,
                         QStringLiteral("DownloadManager::storeHistory() -> ") + e.message());
        }
    }
    settings.beginGroup(QStringLiteral("Download"));
    Preferences::setDateTimeValue(settings, QStringLiteral("last-check"), lastCheck);
    settings.setValue(QStringLiteral("reg-check"), QVariant(regularCheck));
    settings.remove(QStringLiteral("regular-check"));
    settings.setValue(kVersionKey, kStoredVersion);
    host.store(settings, false);
    settings.beginWriteArray(QStringLiteral("hist"), int(history.size()));
    int i = 0;
    for (auto it = history.cbegin(); it != history.cend(); ++it, ++i) {
        settings.setArrayIndex(i);
        settings.setValue(QStringLiteral("version"), it.key());
        Preferences::setDateTimeValue(settings, QStringLiteral("time"), it.value());
    }
    settings.endArray();
    // The highest publication accepted from each server: only while catalogues are verified.
    if (!trustedKeyTexts.isEmpty()) {
        for (auto it = acceptedSerials.cbegin(); it != acceptedSerials.cend(); ++it)
            settings.setValue(it.key(), it.value());
    }
    settings.endGroup();
}

// Package and release-notes downloads.

void DownloadManager::startPlainDownload(const PackageInfo &package, const QString &filePath)
{
    // Owned by the request, as the package copy is; a failed open shows up as a short file. A
    // target that could lead elsewhere than it reads is never opened.
    qvb::smart<QIODevice> handle(new QFile(filePath));
    auto *file = static_cast<QFile *>(handle.data());
    if (FileUtils::isPlainFilePath(filePath) && !QFileInfo(filePath).isSymLink())
        file->open(QIODevice::WriteOnly | QIODevice::Truncate);
    else
        LogQt::write(lcDownload(), Log::Error,
                     QStringLiteral("DownloadManager::startDownload() -> refusing the target ")
                         + filePath);

    // Package downloads always go to port 80 of the package's host, unless catalogues are
    // verified: then the URL is taken as it stands (integrity comes from the hash).
    httpClient.setHost(hostOf(package.url));
    RequestPtr request
        = httpClient.prepareGet(HttpClient::encodedUrlPath(package.url), QMap<QString, QVariant>(),
                                this, SLOT(downloadResult(RequestPtr)), file, handle);
    request->adoptUserData(new PackageInfo(package));
    if (!trustedKeyTexts.isEmpty())
        request->hashBody();
    httpClient.execute(request);
}

HttpHost DownloadManager::hostOf(const QUrl &url) const
{
    HttpHost target = host;
    if (trustedKeyTexts.isEmpty()) {
        target.server.setAddress(url.host(), 80, false);
    } else {
        const bool secure = url.scheme().compare(u"https", Qt::CaseInsensitive) == 0;
        target.server.setAddress(url.host(), url.port(secure ? 443 : 80), secure);
    }
    return target;
}

void DownloadManager::downloadStarting(RequestPtr request)
{
    const PackageInfo *package = request->userDataAs<PackageInfo>();
    auto *file = qobject_cast<QFile *>(request->outputDevice());
    if (package && package->fileSize != 0 && file)
        Q_EMIT downloadStarted(*package, file->fileName());
}

void DownloadManager::downloadResult(RequestPtr request)
{
    if (const std::shared_ptr<Job> job = jobs.take(request.data())) {
        finishAttempt(request, job);
        return;
    }
    // The request owns the package copy and the file, and outlives this call.
    PackageInfo *package = request->userDataAs<PackageInfo>();
    // A package without an announced size never reports an outcome; its file stays as it is.
    if (!package || package->fileSize == 0)
        return;
    auto *file = qobject_cast<QFile *>(request->outputDevice());
    const QString fileName = file ? file->fileName() : QString();
    qint64 size = 0;
    // Only what this download wrote counts: a refused target was never opened.
    const bool written = file && file->isOpen();
    if (written) {
        file->close();
        size = file->size();
    }

    // A receiver may delete the manager, so each emission checks that it is still there.
    const QPointer<DownloadManager> self(this);
    if (quint64(size) < quint64(package->fileSize)) {
        // Checked against a signed catalogue, a short file is no more the published package
        // than a changed one: it does not stay either (nobody may be listening to clean up).
        if (written && !trustedKeyTexts.isEmpty())
            FileUtils::erase(fileName);
        Q_EMIT downloadFailure(*package, fileName);
        if (self)
            Q_EMIT downloadFailure(request->statusCode());
    } else if (!trustedKeyTexts.isEmpty()
               && (package->sha256.isEmpty()
                   || QString::fromLatin1(request->bodyHash().toHex()) != package->sha256)) {
        // Not the published package: it never stays where anything could start it.
        LogQt::write(
            lcDownload(), Log::Error,
            QStringLiteral("DownloadManager::downloadResult() -> %1 is not the published package "
                           "(SHA-256 %2, expected %3); erased")
                .arg(fileName, QString::fromLatin1(request->bodyHash().toHex()),
                     package->sha256.isEmpty() ? QStringLiteral("none") : package->sha256));
        FileUtils::erase(fileName);
        Q_EMIT downloadFailure(*package, fileName);
        if (self)
            Q_EMIT downloadVerificationFailed(*package);
    } else {
        package->localFile = fileName;
        Q_EMIT downloadSuccess(*package, fileName);
        if (self)
            Q_EMIT downloadSuccess();
    }
}

void DownloadManager::abortDownload()
{
    endAttempts();
    // The dropped request takes its package copy and file along; the partial file stays on disk.
    httpClient.reset();
    Q_EMIT downloadAborted();
}

void DownloadManager::downloadReleaseNotes(const QUrl &url)
{
    if (url.isEmpty()) {
        Q_EMIT releaseNotesDownloaded(url, QString());
        return;
    }
    httpClient.setHost(hostOf(url));
    httpClient.get(HttpClient::encodedUrlPath(url), QMap<QString, QVariant>(), this,
                   SLOT(releaseNotesResult(RequestPtr)),
                   reinterpret_cast<QIODevice *>(quintptr(-1)), qvb::smart<QIODevice>());
}

void DownloadManager::releaseNotesResult(RequestPtr request)
{
    const QUrl url = request->urls().value(0);
    Q_EMIT releaseNotesDownloaded(
        url, request->statusCode() == 200 ? request->getResponseText() : QString());
}

} // namespace qv
