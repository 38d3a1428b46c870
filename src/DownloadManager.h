#pragma once

#include "PackageInfo.h"
#include "softwareupdateclient_export.h"

#include <qv/HttpClient.h>
#include <qv/HttpHost.h>
#include <qv/Minisign.h>

#include <QByteArray>
#include <QDateTime>
#include <QDomElement>
#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

class QDir;
class QIODevice;
class QSettings;
class QTimer;

namespace qv {

class Unzipper;

/// Catalogue queries, package downloads, unpacking and installer hand-over. The catalogue parser
/// and the package selection rules are static members, usable without an instance.
///
/// One HTTP client executes the manager's requests one at a time: a query, a package download or
/// a release-notes fetch. The history of packages already offered, the last check and the last
/// catalogue answer persist with storeHistory() and come back with the settings constructor.
class SOFTWAREUPDATECLIENT_EXPORT DownloadManager : public QObject {
    Q_OBJECT

public:
    /// The context of one running query, carried by its HTTP request.
    struct RequestData {
        PackageInfo filter;
        QObject *callbackReceiver = nullptr;
        const char *callbackSlot = nullptr;
    };

    /// The built-in address of the maker's update server.
    static const QString UPDATE_URL;

    // Tag names of the catalogue.
    static const QString DOCUMENT_TAG;
    static const QString PACKAGE_SET;
    static const QString PACKAGE;
    static const QString FILE;
    static const QString TYPE;
    static const QString NAME;
    static const QString NAME_PUBLIC;
    static const QString RELEASE_NOTES;
    static const QString README;
    static const QString LANGUAGE;
    static const QString RELEASE_VERSION;
    static const QString RELEASE_VERSION_PUBLIC;
    static const QString RELEASE_STATUS;
    static const QString RELEASE_DATE;
    static const QString URL;
    static const QString BASE_URL;
    static const QString FILE_SIZE;
    static const QString PLATFORM;
    static const QString COMMENT;
    // Trust values: a package's hash, and the document element's publication number and expiry.
    static const QString SHA256;
    static const QString SERIAL;
    static const QString EXPIRES;
    static const QString DELTA; ///< a child of a package: a delta from an older release
    static const QString FROM_RELEASE;

    /// Meta-type id of qv::PackageInfoList, registered when the library loads.
    static int qMetaTypes;

    /// A manager for `host`, its server path set to `path`.
    DownloadManager(const qv::HttpHost &host, const QString &path);
    /// A manager for the catalogue at `server`.
    explicit DownloadManager(const QUrl &server);
    /// A manager restored from the group "Download" of `settings` and from the copy of the last
    /// answer in `cacheFile` (an empty name keeps no copy).
    DownloadManager(QSettings &settings, const QString &cacheFile);
    /// A bare manager for downloads and unpacking: no server, and no progress or start relays.
    DownloadManager();
    ~DownloadManager() override;

    qv::HttpHost &server() { return host; }
    const qv::HttpHost &server() const { return host; }
    /// Takes the catalogue URL; the proxy preference becomes "the application's proxy" (2).
    void setServer(const QUrl &url);
    void setProxy(qv::HttpHost::ProxyPreference preference, const QString &address);
    /// True while a query or a download runs.
    bool isQueryBusy() const;
    bool isRegularCheck() const { return regularCheck; }
    void setRegularCheck(bool regular) { regularCheck = regular; }
    /// The full catalogue URL.
    QString queryUrl() const;
    /// When the last answer was processed (null before any).
    QDateTime lastCheckTime() const { return lastCheck; }
    /// The value of the last "set-cookie" header of an answer.
    QString lastCookie() const { return cookie; }
    /// The HTTP client, for its transfer limits.
    HttpClient &client() { return httpClient; }

    /// The minisign public keys (base64 lines of minisign.pub files) that catalogues must be
    /// signed with; an empty list turns verification off (the default unless the build names
    /// keys, SUC_TRUSTED_KEYS). With keys, a query also fetches "<catalogue URL>.minisig" and
    /// delivers nothing unless it verifies, its serial is not lower than one accepted before from
    /// that server, and it has not expired; packages without a sha256 are not delivered; and a
    /// download succeeds only when its SHA-256 is the published one (else the file is erased and
    /// downloadVerificationFailed() follows downloadFailure()); a short one is erased too. A key
    /// that cannot be read is refused with a log line; trust stays on.
    void setTrustedKeys(const QStringList &publicKeys);
    QStringList trustedKeys() const { return trustedKeyTexts; }

    /// Downloads that survive real networks (off by default: a failed or cut download ends as
    /// it always has). With resume on, a download goes into a private per-user folder
    /// (resumeFolder()) with a record of its URL, size, sha256, the server's validator (ETag or
    /// Last-Modified) and the bytes committed to disk; a later download of the same package (URL
    /// and sha256), in this session or the next, asks only for the rest ("Range" with
    /// "If-Range") and hashes on over the kept part. A server that sends the whole file, a
    /// range other than asked, or 416 makes it start over; a final file that is not the
    /// published one is erased with its record. The finished file is moved to the path given.
    void setResumeDownloads(bool on) { resumeDownloads = on; }
    bool resumesDownloads() const { return resumeDownloads; }
    /// How often a transient failure is tried again (0, the default: never): no answer, a
    /// connection reset or cut, a stall, HTTP 408, 429, 500, 502, 503 and 504; after 1 s, 2 s,
    /// 4 s ... (at most 60 s, or the server's Retry-After up to 5 min). downloadRetrying() tells
    /// each wait; abortDownload() ends them.
    void setDownloadRetries(int count) { retryCount = qMax(0, count); }
    int downloadRetries() const { return retryCount; }
    /// How long one second of the back-off lasts (1000 ms unless changed; 1 to 1000): tests
    /// shorten the waits. downloadRetrying() still tells them in seconds.
    void setRetryUnit(int milliseconds) { retryUnitMs = qBound(1, milliseconds, 1000); }
    /// Where resumable downloads are kept: SoftwareUpdate/downloads in the user's state folder.
    static QString resumeFolder();
    /// Removes the kept partial downloads older than 30 days or of packages not in `catalogue`,
    /// and all but the two most recent others (a check calls it).
    static void pruneResumeFolder(const qv::PackageInfoList &catalogue);

    /// Writes the history to the group "Download" and the last answer to `cacheFile`.
    void storeHistory(QSettings &settings, const QString &cacheFile);

    /// True when the package set aside by installLater() is on disk with its announced size.
    bool hasInstallPackage() const;
    /// The package set aside by installLater().
    qv::PackageInfo &installPackage() { return installPackageInfo; }
    const qv::PackageInfo &installPackage() const { return installPackageInfo; }
    /// The updater, target folder and application set aside by installLater() with paths.
    QStringList installPaths() const { return {installTexts[0], installTexts[1], installTexts[2]}; }

    /// The relative path of the program to start in `dir`: its largest executable file, else the
    /// first found in its subfolders; empty when there is none.
    QString findDefaultExecutable(const QDir &dir);

    // Catalogue parser.

    /// The packages of the catalogue on `device` (open for reading), in document order. A document
    /// that cannot be read gives an empty list and the log line "XML parser error".
    static PackageInfoList parseXML(QIODevice *device);
    /// The same, and whether the document could be read at all (false for junk).
    static PackageInfoList parseXML(QIODevice *device, bool *wellFormed);
    /// Appends the packages of `set`, then those of its nested sets, depth first.
    static void parseSet(QDomElement set, PackageInfoList &out);
    /// Fills the catalogue fields of `info` from one package element and its ancestors.
    static void parsePackage(QDomElement package, PackageInfo &info);
    /// The first child element "file" of `node`, else `node`.
    static QDomNode startSearchAt(QDomNode node);
    /// The nearest definition of a single value: child element first, then attribute, walking up.
    static QString findString(QDomNode node, QString tag);
    /// Unites every word of every value of `tag` on `node` and its ancestors into `out`.
    static int findAllStrings(QDomNode node, QString tag, QStringSet &out);
    /// Inserts a (language, URL) pair per definition, inner levels first; returns the count.
    static int findAllTranslatedUrls(QDomNode node, QString tag, UrlMap &out);
    /// Bytes; "MB" and "kB" (any case) scale the truncated number by 2^20 and 2^10.
    static qint64 parseFileSize(QString text);
    /// "yyyy-MM-dd hh:mm:ss", else "yyyy-MM-dd" at midnight, else null.
    static QDateTime parseReleaseDate(QString text);
    /// The package file type from its URL: "zip", "exe", "tar.gz", "mpkg", ...
    static QString parsePackageSuffix(QString urlText);

    // Package selection.

    /// The packages that pass filterPackageCandidate (their `type` set to `type`, in `packages`
    /// too), reduced to those of the newest release.
    static PackageInfoList findPackageCandidates(PackageInfoList &packages,
                                                 const PackageInfo &filter, const QString &type,
                                                 const QStringList &wantedSuffixes);
    /// Removes later duplicates (same identity), keeping the first of each.
    static void eliminateDuplicatePackages(PackageInfoList &packages);
    /// One best package per type and platform among those matching `filter`.
    static PackageInfoList findBestMatches(const PackageInfoList &packages,
                                           const PackageInfo &filter);
    /// The number of packages not marked as known.
    static int countNew(const PackageInfoList &packages);

public Q_SLOTS:
    void queryUpdate(QString filterTypes = QString(), QString filterNames = QString(),
                     QString filterReleaseVersion = QString(),
                     QString filterReleaseStatus = QString(), QDateTime filterTime = QDateTime(),
                     QStringSet filterPlatform = QStringSet(),
                     QStringSet filterLanguages = QStringSet(), QObject *callbackReceiver = nullptr,
                     const char *callbackSlot = nullptr);
    /// Asks the server for its catalogue. The answer comes as packageFound() or noPackageFound(),
    /// then queryFinished(), and, when given, as a queued call of `callbackSlot` on
    /// `callbackReceiver` with the whole qv::PackageInfoList. Packages seen in no earlier answer
    /// arrive unmarked (countNew()). Test isQueryBusy() first: queries are not refused.
    void queryUpdate(qv::PackageInfo filter, QObject *callbackReceiver = nullptr,
                     const char *callbackSlot = nullptr);
    /// A query for firmware ("system") packages; the languages are passed as platform filter.
    void queryCameraFirmwareUpdate(QString filterVersion = QString(),
                                   QString filterRelease = QString(),
                                   QStringSet filterLanguages = QStringSet());

    /// Downloads the package to `filePath`, always from port 80 of the package URL's host (with
    /// trusted keys, from the URL's own scheme and port).
    /// A package with an announced size reports downloadStarted(), then downloadSuccess() when
    /// at least that many bytes arrived, else downloadFailure(). Nothing is written anywhere but
    /// at `filePath`: a path with an empty, "." or ".." section, or one that is a symbolic link,
    /// is refused (never opened), and the download then fails like one into an unwritable file.
    /// A slot connected to the outcome signals may delete the manager.
    void startDownload(const qv::PackageInfo &package, const QString &filePath);
    /// Stops the running request and emits downloadAborted(); the partial file stays.
    void abortDownload();
    /// Fetches the page and emits releaseNotesDownloaded() with its text, or an empty text.
    void downloadReleaseNotes(const QUrl &url);

    /// Unpacks the package into a new temporary folder in the background; unzippingDone() tells
    /// where. A manager unpacks at most one package in its lifetime.
    void unzipPackage(const QString &packageFile);
    /// The same into `targetFolder`, which must exist (and is removed when unpacking fails).
    void unzipPackageInto(const QString &packageFile, const QString &targetFolder);
    /// Whether a failed unpacking is shown in a box (the default) besides unzippingFailed().
    void setUnpackErrorBox(bool on) { unpackErrorBox = on; }
    /// Replaces the running process with the updater program, passing "-oldDir"
    /// `installationPath`, "-newDir" `tempApplicationPath` and "-exe" `newApplication`. Returns
    /// only when the program could not be started.
    static void startUpdate(const QString &updateApplicationPath, const QString &installationPath,
                            const QString &tempApplicationPath, const QString &newApplication);
    /// Sets a package aside for the host to install later.
    void installLater(const qv::PackageInfo &info, bool confirmInstall);
    void installLater(const QString &packageFile, const QString &updaterExe,
                      const QString &targetFolder, const QString &applicationExe = QString());
    /// Starts an installer file: a ".zip" goes to runZipInstaller(); anything else throws
    /// qv::ExceptionQt("execl() failed").
    void runInstaller(const QString &installerFile);
    /// Unpacks a ZIP package, asks for the installation folder, and hands over to a shell that
    /// copies the files there and starts the program.
    void runZipInstaller(const QString &installerFile);

    /// Every package of the last accepted answer, each marked as known. `filter` is not used.
    qv::PackageInfoList recentPackages(const qv::PackageInfo &filter);
    qv::PackageInfoList recentPackages(QString type, QString name, QString release, QString status,
                                       QDateTime releaseDate, QStringSet platforms,
                                       QStringSet languages);

Q_SIGNALS:
    void packageFound(qv::PackageInfoList allPackages);
    void noPackageFound();
    void queryStarted(QString url);
    void queryFinished();
    void downloadStarted(qv::PackageInfo pack, QString fileName);
    void downloadProgress(int bytes, int totalBytes);
    void downloadSuccess(qv::PackageInfo pack, QString fileName);
    void downloadSuccess();
    void downloadFailure(qv::PackageInfo pack, QString fileName);
    void downloadFailure(int httpStatusCode);
    void downloadAborted();
    void releaseNotesDownloaded(QUrl url, QString text);
    void unzippingDone(QString folder);
    /// The downloaded file was not the published package (its hash differs); it was erased.
    void downloadVerificationFailed(qv::PackageInfo pack);
    /// Unpacking failed (`message` says why); the unpacked part was removed.
    void unpackingFailed(const QString &message);
    /// A transient failure: the download is tried again in `seconds` (retry `attempt`).
    void downloadRetrying(int seconds, int attempt);

private Q_SLOTS:
    void queryResult(RequestPtr resp);
    void queryResult(QIODevice *input, qv::DownloadManager::RequestData *data);
    void downloadStarting(RequestPtr request);
    void downloadResult(RequestPtr request);
    void signatureResult(RequestPtr request);
    void releaseNotesResult(RequestPtr request);
    void unzippingFinished(const QString &folder);
    void unzippingFailed(const QString &message);

private:
    struct Job;
    void connectRelays();
    void startPlainDownload(const qv::PackageInfo &package, const QString &filePath);
    void startAttempt(const std::shared_ptr<Job> &job);
    bool acceptAnswer(Job &job, qv::RequestData &answer);
    void finishAttempt(RequestPtr request, const std::shared_ptr<Job> &job);
    void commitPartial(Job &job, bool onlyWhenDue = false);
    void relayProgress(int bytes, int total);
    void endAttempts();
    void loadHistory(QSettings &settings, const QString &cacheFile);

    HttpClient httpClient;
    qv::HttpHost host;
    QDateTime lastCheck;
    bool regularCheck = false;
    QByteArray lastAnswer;
    QHash<QString, QDateTime> history;
    QString cookie;
    void finishRefusedQuery(RequestData &query);
    bool cachedAnswerTrusted();
    /// The server of a package or release-notes download at `url`.
    qv::HttpHost hostOf(const QUrl &url) const;

    QStringList trustedKeyTexts;
    QList<MinisignKey> keys;
    /// The highest serial accepted, by settings key (signing key and feed), kept while keys are
    /// set.
    QHash<QString, qint64> acceptedSerials;
    QByteArray lastSignature; ///< of lastAnswer, when it was verified
    Unzipper *unzipper = nullptr;
    QString unpackFolder;
    PackageInfo installPackageInfo;
    QString installTexts[3];
    bool unpackErrorBox = true;
    bool resumeDownloads = false;
    int retryCount = 0;
    int retryUnitMs = 1000;
    QHash<qv::RequestData *, std::shared_ptr<Job>> jobs; ///< running resumable or retried downloads
    std::shared_ptr<Job> currentJob; ///< the running one, for progress and commits
    std::shared_ptr<Job> retryingJob; ///< the one waiting for its next attempt
    QTimer *retryTimer = nullptr;
};

} // namespace qv
