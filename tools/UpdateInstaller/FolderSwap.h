#pragma once

#include <QString>
#include <QTextStream>

#include <functional>

/// Replaces an application folder with a new version as a transaction.
///
/// The new version is first staged on the application's own file system while the old one stays
/// in place and runnable (the new folder itself when it is there, else a copy in
/// "<old>.update-incoming"). Then one renameat2(RENAME_EXCHANGE) swaps the staged folder and the
/// application folder, and the old version, now where the staged one was, is set aside as
/// "<old>.update-backup"; at no instant is the application path empty. Where the file system
/// cannot exchange, the old folder is moved aside and the staged one moved in (logged). The new
/// program is started, and only then is the backup removed. On any failure the old folder is
/// put back (by the same exchange) and the old program started. A journal records the progress,
/// the arguments and the staged folder's identity, so that a run that was killed half-way
/// completes or rolls back when started again with the same arguments; a journal of other
/// arguments is an earlier update, finished or rolled back before this one starts. An exclusive
/// lock keeps two runs from working on one folder at once.
///
/// The journal, the lock, the health confirmation and the roll-back note live in the user's
/// private state folder for this application folder (qv::UpdateState), opened without following
/// links; nobody else can plant or redirect them.
///
/// At no point is the only complete copy of an application deleted, and nothing outside the
/// named folders and these paths of the updater's own is touched: removals never follow a
/// symbolic link, and a folder that is to go is first renamed to "<old>.update-discard", so that
/// a removal cut short never leaves a partial copy under a name that a later run would restore.
class FolderSwap {
public:
    struct Options {
        QString oldDir;
        QString newDir;
        QString exe;
        /// With more than 0, the new program must confirm within this many seconds that it runs
        /// (by writing the secret of SOFTWAREUPDATE_HEALTH_TOKEN into the file named in
        /// SOFTWAREUPDATE_HEALTH_FILE); if it does not, or exits first, it is stopped and the old
        /// version put back.
        int healthTimeout = 0;
        /// Settles an interrupted update instead of installing: the version in the application
        /// folder stays (it is the one running), the other is dropped, nothing is started.
        bool settle = false;
        /// Installs without starting the program (an install when the host quits): no health
        /// check, and a roll-back starts nothing either.
        bool noStart = false;
    };
    /// Starts a program; true when it started.
    using Starter = std::function<bool(const QString &program, const QString &workingDir)>;
    /// Called after each named step; a test hook may stop the process there.
    using StepHook = std::function<void(const char *step)>;

    FolderSwap(const Options &options, QTextStream &log, Starter starter, StepHook hook);
    ~FolderSwap();

    /// Runs (or resumes) the swap. 0 when the new version runs, 1 when the old one was kept (or
    /// another run holds the folder).
    int run();

private:
    enum class State { None, Started, Staged, Moved, Checking, Launched };
    struct Journal {
        State state = State::None;
        Options options;
        qint64 pid = 0; ///< of the new program while it is being checked
        QByteArray token; ///< the secret its confirmation must carry
        QString staging; ///< where the new version was staged on the application's file system
        QByteArray stagedId; ///< that folder's identity (device and inode) before the exchange
    };

    bool validateArguments(QString *why) const;
    bool validateNew(QString *why) const;
    bool lock();
    Journal readJournal() const;
    bool writeJournal(State state, qint64 pid = 0, const QByteArray &token = QByteArray());
    bool confirmed(const QByteArray &token) const;
    int settle(const Journal &journal);
    int startAndCheck();
    int notConfirmed(qint64 pid, const QString &why);
    void settleEarlierUpdate(const Journal &earlier);
    int swap();
    bool stage();
    int exchangeIntoPlace();
    int resumeStaged(const Journal &journal);
    int startNewVersion();
    bool moveNewIntoPlace();
    void rollBack(const QString &why);
    void cleanUp();
    bool discard(const QString &path);
    bool startProgram(const QString &folder);
    int refuse(const QString &why);
    void step(const char *name);
    void say(const QString &line);

    Options m_options;
    QString m_backup;
    QString m_incoming;
    QString m_journal;
    QString m_lock;
    QString m_discard;
    QString m_state;
    QString m_staging; ///< the staged new version, beside the application (this run's)
    QByteArray m_stagedId;
    QString m_health;
    QString m_rolledBack;
    int m_lockFd = -1;
    QTextStream &m_log;
    Starter m_starter;
    StepHook m_hook;
};
