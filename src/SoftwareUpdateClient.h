#pragma once

#include "PackageInfo.h"
#include "SoftwareUpdateSettings.h"
#include "softwareupdateclient_export.h"

#include <qv/Minisign.h>

#include <QElapsedTimer>
#include <QList>
#include <QLocale>
#include <QNetworkProxy>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QSettings>
#include <QString>
#include <QUrl>

#include <atomic>
#include <functional>

class QNetworkAccessManager;
class QNetworkReply;
class QProgressDialog;
class QThread;
class QTimer;
class QWidget;

namespace qv {

class DownloadManager;
class SoftwareUpdateAvailableDialog;
class SoftwareUpdateDialog;

/// The host application's front object for software updates.
///
/// Create one, with the product name, the running version, the update server to use when the
/// settings hold none, and the host window. The constructor reads and writes the settings and
/// starts the hourly check timer when automatic checking is on; it checks nothing itself. Call
/// doInitialCheck() once the host is ready, and queryForUpdate() to open the settings dialog.
///
/// Settings live at the top level of the host's own store, opened with the host's organization
/// and application names ("Quorvel" and "softwareUpdate" when the host has set none), in the
/// format and scope of the two static members below.
class SOFTWAREUPDATECLIENT_EXPORT SoftwareUpdateClient : public QObject {
    Q_OBJECT

public:
    /// Format and scope of the settings store; change them before creating the client.
    static QSettings::Format sSoftUpQSettingsFormat;
    static QSettings::Scope sSoftUpQSettingsScope;

    /// How downloaded application packages are installed. DesignedInstall (the default) keeps
    /// the default build lists (tar.gz, rpm, deb and tar.bz2, none installable). CompleteInstall
    /// offers "zip" and the default four, and installs "zip" and "tar.gz": the package is
    /// verified (with trusted keys), unpacked, the folder holding a program named like the
    /// running one is handed to UpdateInstaller with a health check, and the update is rolled
    /// back when the new version does not confirm that it runs.
    enum InstallMode { DesignedInstall, CompleteInstall };
    Q_ENUM(InstallMode)
    /// Call before creating the client.
    static void setInstallMode(InstallMode mode);
    static InstallMode installMode();
    /// Seconds the new version has to confirm that it runs (CompleteInstall), unless
    /// setHealthTimeout() says otherwise.
    static const int kHealthTimeout = 60;

    /// Tells the updater that this new version runs (CompleteInstall): until then, or until the
    /// health timeout, the update can still be rolled back. Cheap, and only the first call does
    /// anything; a process the updater did not start has nothing to confirm.
    static void confirmUpdateRuns();
    /// Whether the client confirms by itself when it is created (the default). A host that wants
    /// to be sure it works turns this off before creating the client, and calls
    /// confirmUpdateRuns() once its main window is up and its data opened.
    static void setConfirmAutomatically(bool on);
    static bool confirmsAutomatically();

    SoftwareUpdateClient(const QString &product, VersionNumber version, const QString &serverURL,
                         QWidget *parent);
    ~SoftwareUpdateClient() override;

    /// Fills `settings` from the store; absent or unreadable values take their defaults.
    void getCurrentSettings(SoftwareUpdateSettings *settings) const;
    /// Writes `settings` to the store. Keys are only ever written, never removed: a null string or
    /// an empty list leaves the stored value as it was.
    void setCurrentSettings(const SoftwareUpdateSettings *settings) const;

    /// "STABLE" unless beta releases are wanted; empty (any status) when they are.
    QString transformReleaseStatus(bool beta) const;
    /// The proxy for every request: the host's global proxy, never the system's.
    QNetworkProxy networkProxy() const;

    Qt::WindowFlags windowFlags() const { return m_windowFlags; }

    /// Sends the catalogue request; the outcome arrives later (up to date, packages found,
    /// an error or a timeout after 15 s).
    void performUpdateCheck(const QUrl &url);
    /// How long one catalogue request may take before the check fails as a timeout (15,000 ms
    /// unless changed; a test or a host on a slow link may change it).
    void setRequestTimeout(int milliseconds) { m_requestTimeout = qMax(1, milliseconds); }
    /// Reads the catalogue and keeps the newer packages for the application and each camera;
    /// 1 when the catalogue held no package at all.
    int parseServerResponse(QNetworkReply *reply);
    void productUpToDate();

    /// The packages of the last check, in table-row order.
    PackageInfoList packageList() const { return m_packageList; }

    /// The minisign public keys (base64 lines of minisign.pub files) that the update catalogue
    /// must be signed with; an empty list turns verification off (the default unless the build
    /// names keys, SUC_TRUSTED_KEYS). With keys, a check also fetches "<catalogue URL>.minisig"
    /// and parses nothing unless it verifies with one of them, its "serial" is not lower than
    /// the highest accepted from this server and it has not "expired"; otherwise the settings
    /// dialog says why and nothing is offered. Packages without a "sha256" are not offered, and
    /// a download is unpacked, started or handed to the updater only when its SHA-256 is the
    /// published one. A key that cannot be read is refused with a log line; trust stays on.
    void setTrustedKeys(const QStringList &publicKeys);
    QStringList trustedKeys() const { return m_trustedKeyTexts; }

    /// Whether checks talk to the user (the default). When false, a check opens no dialog and
    /// shows no box: its outcome goes out only by the signals, and showAvailableUpdates() opens
    /// the list of the last result when the host wants it.
    void setInteractive(bool interactive) { m_interactive = interactive; }
    bool isInteractive() const { return m_interactive; }

    /// The application releases that were installed (CompleteInstall), did not confirm that they
    /// run, and were rolled back: checks do not offer them again (a newer release is offered).
    QStringList rolledBackVersions() const;

    /// Seconds the next version gets to confirm that it runs (kHealthTimeout unless changed; at
    /// least 1), handed to the updater with the install.
    void setHealthTimeout(int seconds) { m_healthTimeout = qMax(1, seconds); }
    int healthTimeout() const { return m_healthTimeout; }

    /// Package downloads that survive real networks (both off by default; see
    /// qv::DownloadManager::setResumeDownloads and setDownloadRetries): a cut download resumes
    /// where it stopped, in this session or the next, and a transient failure is tried again
    /// `count` times after a back-off, the progress dialog saying "Retrying in N s".
    void setResumeDownloads(bool on) { m_resumeDownloads = on; }
    void setDownloadRetries(int count) { m_downloadRetries = qMax(0, count); }
    /// How long one second of the retries' back-off lasts (1000 ms unless changed; 1 to 1000;
    /// see qv::DownloadManager::setRetryUnit): tests shorten it.
    void setRetryUnit(int milliseconds) { m_retryUnitMs = qBound(1, milliseconds, 1000); }

    /// Delta updates (off by default; CompleteInstall with trusted keys only): when the signed
    /// catalogue offers a delta from the installed release, that delta is downloaded instead of
    /// the package, its SHA-256 checked, and the new version built beside the application from
    /// the installed files, each source and each result checked against the delta's manifest.
    /// Any failure discards what was built, marks that delta as bad for good, and downloads the
    /// full package at once: one update for the user, logged, without a box.
    void setDeltaUpdates(bool on) { m_deltaUpdates = on; }
    bool deltaUpdates() const { return m_deltaUpdates; }
    /// The SHA-256 of deltas that failed here and are never tried again.
    QStringList badDeltas() const;

    /// Asked before the library ends the host for an update (restartNow(), "Restart now"): it may
    /// save the user's work and quit, returning true, or refuse, returning false (the update is
    /// then installed when the host quits). The default calls QCoreApplication::quit() and
    /// returns true. The updater waits for the process to end before it replaces anything.
    void setQuitHandler(std::function<bool()> handler);

    /// Loads and installs the library's translation for `locale` (any German or French locale;
    /// false for the others, which need none). The translator belongs to the application.
    static bool installTranslator(const QLocale &locale);

Q_SIGNALS:
    /// A check (background or Check Now) has started. Exactly one of the four outcomes below
    /// follows.
    void checkStarted();
    /// The check found packages: those the user would be offered, in table order.
    void updatesAvailable(const qv::PackageInfoList &packages);
    /// The check found nothing newer.
    void upToDate();
    /// The check failed: a timeout, a network error or HTTP status, an answer that is no
    /// catalogue, or a catalogue that is not trusted. `reason` is the text the user would see.
    void checkFailed(const QString &reason);
    /// A package download's progress, in bytes (`total` is -1 while unknown).
    void packageDownloadProgress(qint64 received, qint64 total);
    /// The downloaded package is handed to the routine of its type (started, unpacked, or only
    /// logged, as its type says).
    void installationStarted(const qv::PackageInfo &package);
    /// An install ended without installing anything: `reason` is the text the user would see
    /// (the download failed or was canceled, the file is not the published one, it cannot be
    /// unpacked, its layout is refused, the disk is too full, ...).
    void installFailed(const qv::PackageInfo &package, const QString &reason);
    /// The package is downloaded, verified and unpacked (CompleteInstall): restartNow() installs
    /// it; otherwise it is installed when the host quits.
    void readyToRestart(const qv::PackageInfo &package);
    /// The last update did not confirm that it runs and was rolled back; this is the version
    /// from before. Emitted once, after the constructor, whether or not the client is
    /// interactive (only an interactive one also shows a box).
    void updateRolledBack(const QString &version, const QString &reason);

public Q_SLOTS:
    /// Opens the list of packages of the last check (for a host that checks without dialogs);
    /// nothing when the last check found none.
    void showAvailableUpdates();

    /// Checks now; the same as checkForUpdate(), under a name that has one signature (for
    /// connecting by function pointer).
    void checkNow() { checkForUpdate(); }
    /// Downloads, verifies and installs `package` (one of the last check's), without the
    /// confirmation box. In CompleteInstall it is unpacked and readyToRestart() follows; with
    /// other types and modes the package's routine runs as from the list's Install button. A
    /// failure emits installFailed(); boxes show only when the client is interactive.
    void install(const qv::PackageInfo &package);
    /// Installs the update that is ready (readyToRestart()): asks the quit handler, and when it
    /// agrees, the updater replaces the application once this process has ended and starts the
    /// new version. False when nothing is ready, or the handler refused (the update is then
    /// installed when the host quits).
    bool restartNow();

    /// Checks now (the dialog's "Check Now" lands here too).
    void checkForUpdate();
    /// Checks after the delay (at once for 0 or less), unless automatic checking is off.
    void checkForUpdate(int millisecondsDelay);
    /// The start-up check: runs only when the interval is "at application start".
    void doInitialCheck(int msDelay = 0);
    /// Opens the update settings dialog, or refreshes and raises the open one.
    void queryForUpdate(Qt::WindowFlags flags = {}, bool modal = true);
    /// Starts the hourly background check timer.
    void enableSoftwareUpdate();
    /// Stops the background check timer.
    void disableSoftwareUpdate();
    void setVersionNumber(qv::VersionNumber version);
    void setCurrentCameraVersions(SoftUpCurrentCameraVersions versions);
    /// Replaces the window used as parent of the dialogs.
    void setParent(QWidget *parent);
    /// Replaces the window flags of the dialogs.
    void setWindowFlags(Qt::WindowFlags flags);
    /// Offers the rolled-back releases again from the next check on.
    void forgetRolledBackVersions();
    /// Whether an update unpacked and accepted with "Restart later" is installed when the host
    /// quits normally (CompleteInstall; on by default): the updater waits for the process to end,
    /// swaps the folders and starts nothing. When that session did not quit normally, the update
    /// is installed at the next start instead, as "Restart now" would (once the event loop runs).
    void setInstallOnQuit(bool on) { m_installOnQuit = on; }

private Q_SLOTS:
    void updateAvailable();
    void doBackgroundCheck();
    void applyDialogSettings(const qv::SoftwareUpdateDialogSettings &dialogSettings);
    void downloadUrls(SoftUpIndexList itemIndexes);
    void downloadReleaseNotes(SoftUpIndexList itemIndexes);
    void downloadProgress(int value, int total);
    void downloadError(int httpStatusCode);
    void installPackage(int itemIndex);
    QList<int> determineForeignLanguageRows(qv::PackageInfoList list);
    void downloadFinished();
    void abortDownload();
    void evaluateServerResponse(QNetworkReply *reply);
    void requestTimeout();
    void requestError(QString errorText);
    void queryLastUpdate(int delay = 0);
    void deleteUpdateDialog();
    void deleteUpdateAvailableDialog();
    void deleteNetworkmanager();
    void deleteProgressDialog();
    void startZipInstall();
    void unzippedMPKGPackage(QString unzippedFilePath);
    void manageUpdateAvailableDialog(SoftUpIndexList indexList);
    void showHideForeignLanguageItems(bool state);
    void setUpdateAvailableNull(QObject *obj = nullptr);
    void setUpdateDialogNull(QObject *obj = nullptr);
    void openSettingsDialogFromUpdateAvailableDialog();

private:
    static QSettings *openStore();
    void installEXEPackage();
    void installMPKGPackage();
    void installZIPPackage();
    void installMSIPackage();
    void installDEBPackage();
    void installRPKPackage();
    void installTARGZPackage();
    void removeDownloadFolderWhenUnpacked(DownloadManager *unpacker);
    void installDownloaded(const qv::PackageInfo &package);
    void installCompletePackage();
    bool startPrivateUpdater();
    bool askToQuit();
    void deferInstall();
    bool applicationFolderIsPrivate();
    void setInstallRunning(bool running);
    void startInstall(const qv::PackageInfo &package);
    void failInstall(const QString &title, const QString &text);
    bool layoutAccepted(const QString &unpacked);
    void completePackageUnpacked(const QString &folder);
    const qv::PackageInfo::Delta *usableDelta(const qv::PackageInfo &package) const;
    void applyDelta();
    QString deltaLabel() const;
    void deltaFailed(const QString &reason);
    void confirmHealthAndNoticeRollBack();
    void removeUpdateLeftovers();
    void settleInterruptedUpdate();
    void armInstallOnQuit();
    void installPendingAtStart();
    void installOnQuit();
    QNetworkAccessManager *networkManager();
    void startRequestTimeout();
    void fetchSignature(const QUrl &catalogueUrl);
    void evaluateSignature(QNetworkReply *reply);
    void finishCheck(QIODevice *catalogue);
    int parseCatalogue(QIODevice *catalogue);
    void packageNotPublished();
    void reportOutcome(int outcome, const QString &reason = QString());

    QWidget *m_parent = nullptr;
    QNetworkAccessManager *m_networkManager = nullptr;
    QTimer *m_requestTimeoutTimer = nullptr;
    QTimer *m_checkTimer = nullptr;
    PackageInfoList m_packageList;
    SoftUpIndexList m_selectedRows;
    SoftwareUpdateDialog *m_updateDialog = nullptr;
    SoftwareUpdateAvailableDialog *m_updateAvailableDialog = nullptr;
    QProgressDialog *m_progressDialog = nullptr;
    QString m_downloadedFilePath;
    QString m_downloadFolder; ///< the temporary folder made for the running download
    /// Meant for the unpacked ZIP package; nobody is told where that is, so it stays empty.
    QString m_unpackedFolder;
    Qt::WindowFlags m_windowFlags;
    DownloadManager *m_unpackingManager = nullptr;
    QStringList m_trustedKeyTexts;
    QList<MinisignKey> m_trustedKeys;
    QUrl m_checkServerUrl; ///< the first URL of the running check, before redirects
    bool m_redirecting = false; ///< the next request follows a redirect of the same check
    int m_redirectCount = 0; ///< redirects followed by the running check
    QElapsedTimer m_checkClock; ///< since the running check started
    QByteArray m_pendingCatalogue; ///< a catalogue waiting for its signature
    bool m_interactive = true;
    bool m_checkRunning = false; ///< between checkStarted() and its outcome
    bool m_installRunning = false; ///< a complete install, from Proceed to its hand-over or end
    QString m_installingRelease; ///< the release of the running complete install
    QString m_unpackTarget; ///< where the running complete install unpacks
    bool m_installOnQuit = true;
    int m_requestTimeout = 15000;
    bool m_quitHookArmed = false;
    int m_healthTimeout = kHealthTimeout;
    bool m_resumeDownloads = false;
    int m_downloadRetries = 0;
    int m_retryUnitMs = 1000;
    bool m_deltaUpdates = false;
    qv::PackageInfo::Delta m_delta; ///< the delta being downloaded or applied
    bool m_deltaRunning = false;
    QString m_deltaStaging; ///< the folder the running delta builds into
    QSet<QString> m_deltasTried; ///< releases whose delta this session tried (one attempt each)
    QThread *m_deltaThread = nullptr; ///< builds the new version from the delta
    std::atomic_bool m_deltaCancel {false};
    std::function<bool()> m_quitHandler;
    PackageInfo m_installPackage; ///< the package of the running (or ready) install
    bool m_quietInstall = false; ///< install() on a client that is not interactive: no boxes
    bool m_readyToRestart = false; ///< unpacked, waiting for restartNow() or the quit
};

} // namespace qv
