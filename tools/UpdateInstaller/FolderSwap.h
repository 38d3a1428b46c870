#pragma once

#include <QString>
#include <QTextStream>

#include <functional>

/// Replaces an application folder with a new version as a transaction.
///
/// The old folder is moved aside to "<old>.update-backup", the new one is moved (or, across file
/// systems, copied through "<old>.update-incoming") into its place, the new program is started,
/// and only then is the backup removed. On any failure the old folder is put back and the old
/// program started. A journal "<old>.update-journal" records the progress, so that a run that was
/// killed half-way completes or rolls back when started again with the same arguments. At no
/// point is the only complete copy of an application deleted.
class FolderSwap
{
public:
    struct Options
    {
        QString oldDir;
        QString newDir;
        QString exe;
    };
    /// Starts a program; true when it started.
    using Starter = std::function<bool(const QString &program, const QString &workingDir)>;
    /// Called after each named step; a test hook may stop the process there.
    using StepHook = std::function<void(const char *step)>;

    FolderSwap(const Options &options, QTextStream &log, Starter starter, StepHook hook);

    /// Runs (or resumes) the swap. 0 when the new version runs, 1 when the old one was kept.
    int run();

private:
    enum class State { None, Started, Moved, Launched };

    bool validateNew(QString *why) const;
    State readJournal();
    bool writeJournal(State state);
    bool moveNewIntoPlace();
    void rollBack(const QString &why);
    void cleanUp();
    bool startProgram(const QString &folder);
    void step(const char *name);
    void say(const QString &line);

    Options m_options;
    QString m_backup;
    QString m_incoming;
    QString m_journal;
    QTextStream &m_log;
    Starter m_starter;
    StepHook m_hook;
};
