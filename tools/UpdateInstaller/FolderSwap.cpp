#include "FolderSwap.h"

#include <qv/ApplicationLayout.h>
#include <qv/UpdateState.h>

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <QElapsedTimer>

#include <csignal>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utility>

#ifndef RENAME_EXCHANGE
#define RENAME_EXCHANGE (1 << 1)
#endif

using namespace qv;

namespace {

QByteArray encoded(const QString &path)
{
    return QFile::encodeName(path);
}

// lstat: what is at `path` itself, a symbolic link not followed. 0 when nothing is there.
mode_t typeAt(const QString &path)
{
    struct stat st;
    return lstat(encoded(path).constData(), &st) == 0 ? (st.st_mode & S_IFMT) : 0;
}

bool isThere(const QString &path)
{
    return typeAt(path) != 0;
}

// The identity of what is at `path` (device and inode): a folder keeps it through renames and
// exchanges, so it tells afterwards where a folder went.
QByteArray identityOf(const QString &path)
{
    struct stat st;
    if (lstat(encoded(path).constData(), &st) != 0)
        return QByteArray();
    return QByteArray::number(qulonglong(st.st_dev)) + ':'
        + QByteArray::number(qulonglong(st.st_ino));
}

dev_t deviceOf(const QString &path)
{
    struct stat st;
    return lstat(encoded(path).constData(), &st) == 0 ? st.st_dev : dev_t(-1);
}

// Swaps two folders in one step: at no instant is either path empty. The test hook
// UPDATEINSTALLER_NO_EXCHANGE stands for a file system that has no exchange.
bool exchangeFolders(const QString &a, const QString &b)
{
    if (qEnvironmentVariableIsSet("UPDATEINSTALLER_NO_EXCHANGE")) {
        errno = EINVAL;
        return false;
    }
    return syscall(SYS_renameat2, AT_FDCWD, encoded(a).constData(), AT_FDCWD,
                   encoded(b).constData(), RENAME_EXCHANGE)
        == 0;
}

bool sameOrInside(const QString &path, const QString &folder)
{
    return path == folder || path.startsWith(folder + QLatin1Char('/'));
}

QString absoluteClean(const QString &path)
{
    return path.isEmpty() ? path : QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

// Removes what is at `path` without following a symbolic link, also below folders that are
// read-only for their owner.
bool removeTree(const QString &path)
{
    const mode_t type = typeAt(path);
    if (type == 0)
        return true;
    if (type != S_IFDIR)
        return unlink(encoded(path).constData()) == 0;
    chmod(encoded(path).constData(), S_IRWXU);
    const QStringList entries = QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::System
                                                     | QDir::NoDotAndDotDot);
    bool ok = true;
    for (const QString &entry : entries)
        ok = removeTree(path + QLatin1Char('/') + entry) && ok;
    return rmdir(encoded(path).constData()) == 0 && ok;
}

// The first entry below `folder` that is neither a file, a folder nor a link (a FIFO would
// block a copy forever), or an empty text.
QString findSpecialFile(const QString &folder)
{
    QDirIterator it(folder, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const mode_t type = typeAt(path);
        if (type != S_IFREG && type != S_IFDIR && type != S_IFLNK)
            return path;
    }
    return QString();
}

// A recursive copy that keeps permissions, and symbolic links exactly as they are written.
bool copyTree(const QString &from, const QString &to)
{
    if (!QDir().mkpath(to))
        return false;
    QDirIterator it(from, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString source = it.next();
        const QString target = to + QLatin1Char('/') + QDir(from).relativeFilePath(source);
        switch (typeAt(source)) {
        case S_IFLNK: {
            QByteArray link(4096, Qt::Uninitialized);
            const ssize_t n
                = readlink(encoded(source).constData(), link.data(), size_t(link.size()));
            if (n <= 0 || symlink(link.left(n).constData(), encoded(target).constData()) != 0)
                return false;
            break;
        }
        case S_IFDIR:
            if (!QDir().mkpath(target))
                return false;
            break;
        case S_IFREG:
            if (!QFile::copy(source, target))
                return false;
            QFile::setPermissions(target, QFileInfo(source).permissions());
            break;
        default:
            return false;
        }
    }
    return true;
}

} // namespace

FolderSwap::FolderSwap(const Options &options, QTextStream &log, Starter starter, StepHook hook)
    : m_options(options), m_log(log), m_starter(std::move(starter)), m_hook(std::move(hook))
{
    m_options.oldDir = absoluteClean(m_options.oldDir);
    m_options.newDir = absoluteClean(m_options.newDir);
    // The folders that must share the application's file system stand beside it; the files
    // that steer the update stand in the user's private state folder.
    m_backup = m_options.oldDir + QStringLiteral(".update-backup");
    m_incoming = m_options.oldDir + QStringLiteral(".update-incoming");
    m_discard = m_options.oldDir + QStringLiteral(".update-discard");
    m_state = m_options.oldDir.isEmpty() ? QString() : UpdateState::folderFor(m_options.oldDir);
    const QString state = m_state.isEmpty() ? QStringLiteral("/nonexistent") : m_state;
    m_journal = state + QStringLiteral("/journal");
    m_lock = state + QStringLiteral("/lock");
    m_health = state + QStringLiteral("/health");
    m_rolledBack = state + QStringLiteral("/rolled-back");
}

FolderSwap::~FolderSwap()
{
    if (m_lockFd >= 0)
        close(m_lockFd);
}

void FolderSwap::say(const QString &line)
{
    m_log << QDateTime::currentDateTime().toString(Qt::ISODateWithMs) << ' ' << line << Qt::endl;
}

void FolderSwap::step(const char *name)
{
    say(QStringLiteral("step done: ") + QLatin1String(name));
    if (m_hook)
        m_hook(name);
}

int FolderSwap::refuse(const QString &why)
{
    say(QStringLiteral("refused: ") + why);
    return 1;
}

bool FolderSwap::validateArguments(QString *why) const
{
    const QString &exe = m_options.exe;
    if (exe.isEmpty() || exe.contains(QLatin1Char('/')) || exe == u"." || exe == u"..") {
        *why = QStringLiteral("the program %1 is not a plain file name").arg(exe);
        return false;
    }
    if (typeAt(m_options.oldDir) == S_IFLNK) {
        *why
            = QStringLiteral("the application folder %1 is a symbolic link; name the folder itself")
                  .arg(m_options.oldDir);
        return false;
    }
    return true;
}

bool FolderSwap::validateNew(QString *why) const
{
    const QString newDir = m_options.newDir;
    if (newDir.isEmpty()) {
        *why = QStringLiteral("no new application folder was given (-newDir is empty)");
        return false;
    }
    if (typeAt(newDir) == S_IFLNK) {
        *why = QStringLiteral("the new application folder %1 is a symbolic link").arg(newDir);
        return false;
    }
    if (!QFileInfo(newDir).isDir()) {
        *why = QStringLiteral("the new application folder %1 does not exist").arg(newDir);
        return false;
    }
    const QString newPath = QFileInfo(newDir).canonicalFilePath();
    const QString oldPath = QFileInfo(m_options.oldDir).canonicalFilePath();
    if (newPath == oldPath || newDir == m_options.oldDir) {
        *why = QStringLiteral("the old and the new application folder are the same");
        return false;
    }
    // Either inside the other would be moved into itself, or removed with it.
    for (const auto &[a, b] : {std::pair(newPath, oldPath), std::pair(newDir, m_options.oldDir)}) {
        if (!a.isEmpty() && !b.isEmpty() && (sameOrInside(a, b) || sameOrInside(b, a))) {
            *why = QStringLiteral("one of the application folders lies inside the other");
            return false;
        }
    }
    for (const QString &own :
         {m_backup, m_incoming, m_journal, m_lock, m_discard, m_health, m_rolledBack}) {
        if (sameOrInside(newDir, own) || sameOrInside(own, newDir)
            || (!newPath.isEmpty()
                && sameOrInside(newPath, absoluteClean(QFileInfo(own).absoluteFilePath())))) {
            *why = QStringLiteral(
                       "the new application folder %1 is a path the updater uses itself (%2)")
                       .arg(newDir, own);
            return false;
        }
    }
    // The same rule the client checked the unpacked package with.
    const qv::ApplicationLayout::Verdict layout
        = qv::ApplicationLayout::check(newDir, m_options.exe);
    if (layout.problem != qv::ApplicationLayout::Problem::None) {
        *why = QStringLiteral("the new application folder is refused: ")
            + qv::ApplicationLayout::describe(layout, m_options.exe);
        return false;
    }
    const QString special = findSpecialFile(newDir);
    if (!special.isEmpty()) {
        *why = QStringLiteral(
                   "the new application folder holds %1, which is not a file, folder or link")
                   .arg(special);
        return false;
    }
    return true;
}

bool FolderSwap::lock()
{
    m_lockFd = UpdateState::openPrivate(m_lock, O_RDWR | O_CREAT, true);
    return m_lockFd >= 0 && flock(m_lockFd, LOCK_EX | LOCK_NB) == 0;
}

FolderSwap::Journal FolderSwap::readJournal() const
{
    Journal journal;
    const QByteArray content = UpdateState::readPrivate(m_journal);
    if (content.isNull())
        return journal;
    const QStringList lines = QString::fromUtf8(content).split(QLatin1Char('\n'));
    const QString state = lines.value(0).trimmed();
    journal.state = state == u"launched" ? State::Launched
        : state == u"checking"           ? State::Checking
        : state == u"moved"              ? State::Moved
        : state == u"staged"             ? State::Staged
                                         : State::Started;
    journal.options = {lines.value(1), lines.value(2), lines.value(3)};
    journal.pid = lines.value(4).toLongLong();
    journal.token = lines.value(5).toLatin1();
    journal.staging = lines.value(6);
    journal.stagedId = lines.value(7).toLatin1();
    return journal;
}

bool FolderSwap::writeJournal(State state, qint64 pid, const QByteArray &token)
{
    const char *text = state == State::Launched ? "launched"
        : state == State::Checking              ? "checking"
        : state == State::Moved                 ? "moved"
        : state == State::Staged                ? "staged"
                                                : "started";
    const QByteArray content = QByteArray(text) + '\n' + m_options.oldDir.toUtf8() + '\n'
        + m_options.newDir.toUtf8() + '\n' + m_options.exe.toUtf8() + '\n' + QByteArray::number(pid)
        + '\n' + token + '\n' + m_staging.toUtf8() + '\n' + m_stagedId + '\n';
    return UpdateState::writePrivate(m_journal, content);
}

bool FolderSwap::discard(const QString &path)
{
    if (!isThere(path))
        return true;
    // Renamed first: a removal cut short leaves a name that nothing ever restores.
    removeTree(m_discard);
    QString target = m_discard;
    if (isThere(target))
        target += QLatin1Char('.') + QString::number(getpid());
    if (rename(encoded(path).constData(), encoded(target).constData()) != 0) {
        say(QStringLiteral("could not set %1 aside for removal").arg(path));
        return false;
    }
    step("discard");
    if (!removeTree(target))
        say(QStringLiteral("could not remove all of %1; it is left for a later run").arg(target));
    return true;
}

bool FolderSwap::startProgram(const QString &folder)
{
    const QString program = folder + QLatin1Char('/') + m_options.exe;
    if (m_options.settle || m_options.noStart) {
        say(QStringLiteral("not starting %1 (%2)")
                .arg(program,
                     m_options.settle ? QStringLiteral("it is running already")
                                      : QStringLiteral("installed when it quit")));
        return true;
    }
    const bool ok = m_starter(program, folder);
    say(QStringLiteral("%1 %2").arg(
        ok ? QStringLiteral("started") : QStringLiteral("could not start"), program));
    return ok;
}

bool FolderSwap::moveNewIntoPlace()
{
    if (QDir().rename(m_options.newDir, m_options.oldDir)) {
        step("move");
        return true;
    }
    // Another file system: copy to a staging folder first, so that the final rename is atomic.
    // The source stays until the new version runs.
    say(QStringLiteral("rename failed, copying %1 to %2").arg(m_options.newDir, m_incoming));
    if (!discard(m_incoming) || !copyTree(m_options.newDir, m_incoming)) {
        discard(m_incoming);
        return false;
    }
    step("copy");
    if (rename(encoded(m_incoming).constData(), encoded(m_options.oldDir).constData()) != 0)
        return false;
    step("move");
    return true;
}

// Only called once this run's journal says the old folder was, or is being, moved aside: the
// backup is then the old version and the application folder, when there, the new one.
void FolderSwap::rollBack(const QString &why)
{
    say(QStringLiteral("rolling back: ") + why);
    discard(m_incoming);
    if (isThere(m_backup) && isThere(m_options.oldDir)
        && exchangeFolders(m_backup, m_options.oldDir)) {
        // The same exchange the other way: the new version now stands at the backup path; it
        // goes back to its own folder, or is dropped when its source is still there.
        step("restore");
        if (isThere(m_options.newDir) || !QDir().rename(m_backup, m_options.newDir))
            discard(m_backup);
    } else if (isThere(m_backup)) {
        if (isThere(m_options.oldDir)) {
            // The new version stands in the old place: give it back to its own folder, or drop
            // it when its source is still there.
            if (isThere(m_options.newDir) || !QDir().rename(m_options.oldDir, m_options.newDir))
                discard(m_options.oldDir);
        }
        if (rename(encoded(m_backup).constData(), encoded(m_options.oldDir).constData()) != 0) {
            say(QStringLiteral("could not put %1 back; the old version stays in %2")
                    .arg(m_options.oldDir, m_backup));
            return;
        }
        step("restore");
    }
    UpdateState::removePrivate(m_journal);
    startProgram(m_options.oldDir);
}

// An interrupted update with other arguments: finished when its new version was started,
// otherwise rolled back. Nothing of its new folder is touched.
void FolderSwap::settleEarlierUpdate(const Journal &earlier)
{
    say(QStringLiteral("settling an earlier update that did not finish (new folder %1)")
            .arg(earlier.options.newDir));
    if (earlier.state == State::Staged && !earlier.stagedId.isEmpty()
        && identityOf(m_options.oldDir) == earlier.stagedId && isThere(earlier.staging)
        && !isThere(m_backup) && exchangeFolders(earlier.staging, m_options.oldDir))
        step("restore"); // its exchange was done, its backup not yet set aside
    discard(m_incoming);
    if (earlier.state != State::Launched && isThere(m_backup)) {
        if (isThere(m_options.oldDir) && !discard(m_options.oldDir))
            return;
        if (rename(encoded(m_backup).constData(), encoded(m_options.oldDir).constData()) != 0)
            return;
        step("restore");
    }
    discard(m_backup);
    UpdateState::removePrivate(m_journal);
}

int FolderSwap::run()
{
    say(QStringLiteral("update: old %1, new %2, program %3")
            .arg(m_options.oldDir, m_options.newDir, m_options.exe));
    QString why;
    if (!validateArguments(&why)) {
        refuse(why);
        if (typeAt(m_options.oldDir) == S_IFLNK)
            startProgram(m_options.oldDir);
        return 1;
    }
    if (m_state.isEmpty()) {
        refuse(QStringLiteral("cannot make the private folder for the update's own files below %1")
                   .arg(UpdateState::userStateFolder()));
        startProgram(m_options.oldDir);
        return 1;
    }
    if (!lock())
        return refuse(QStringLiteral("another update of %1 is running").arg(m_options.oldDir));

    Journal journal = readJournal();
    if (m_options.settle)
        return settle(journal);
    if (journal.state != State::None
        && (journal.options.oldDir != m_options.oldDir || journal.options.newDir != m_options.newDir
            || journal.options.exe != m_options.exe)) {
        settleEarlierUpdate(journal);
        if (isThere(m_journal))
            return refuse(QStringLiteral("an earlier update of %1 could not be settled; see %2")
                              .arg(m_options.oldDir, m_journal));
        journal = Journal();
    }
    switch (journal.state) {
    case State::Launched:
        say(QStringLiteral("resuming an interrupted update: the new version was started"));
        cleanUp();
        return 0;
    case State::Moved:
        say(QStringLiteral("resuming an interrupted update: the new version is in place"));
        return startNewVersion();
    case State::Checking:
        // Killed while the new version was being checked: it counts only if it confirmed.
        say(QStringLiteral("resuming an interrupted update: the new version was being checked"));
        if (confirmed(journal.token)) {
            UpdateState::removePrivate(m_health);
            cleanUp();
            return 0;
        }
        return notConfirmed(
            journal.pid,
            QStringLiteral("it had not confirmed that it runs when the check was interrupted"));
    case State::Staged:
        return resumeStaged(journal);
    case State::Started:
        if (isThere(m_backup)) {
            say(QStringLiteral("resuming an interrupted update: the old version is set aside"));
            if (!isThere(m_options.oldDir) && (!validateNew(&why) || !moveNewIntoPlace())) {
                rollBack(why.isEmpty() ? QStringLiteral("cannot move the new version into place")
                                       : why);
                return 1;
            }
            return startNewVersion();
        }
        UpdateState::removePrivate(m_journal); // nothing was moved yet: start afresh
        break;
    case State::None:
        break;
    }
    return swap();
}

int FolderSwap::swap()
{
    QString why;
    if (!QFileInfo(m_options.oldDir).isDir())
        return refuse(
            QStringLiteral("the application folder %1 does not exist").arg(m_options.oldDir));
    if (!validateNew(&why)) {
        refuse(why);
        startProgram(m_options.oldDir);
        return 1;
    }
    // Without a journal, a backup, staging or discard folder is left from an earlier run: never
    // a version to restore.
    removeTree(m_discard);
    if (!discard(m_backup) || !discard(m_incoming)) {
        refuse(QStringLiteral("cannot clear what an earlier run left beside %1")
                   .arg(m_options.oldDir));
        startProgram(m_options.oldDir);
        return 1;
    }
    if (!writeJournal(State::Started)) {
        refuse(QStringLiteral("cannot write the journal %1").arg(m_journal));
        UpdateState::removePrivate(m_journal);
        startProgram(m_options.oldDir);
        return 1;
    }
    step("journal");
    // Whatever is slow happens while the old version stays in place and runnable.
    if (!stage()) {
        refuse(QStringLiteral("cannot stage the new version beside %1").arg(m_options.oldDir));
        discard(m_incoming);
        UpdateState::removePrivate(m_journal);
        startProgram(m_options.oldDir);
        return 1;
    }
    return exchangeIntoPlace();
}

// Makes the new version ready on the application's own file system: the new folder itself when
// it is there already, else a copy beside the application.
bool FolderSwap::stage()
{
    const QString parent = QFileInfo(m_options.oldDir).path();
    if (deviceOf(m_options.newDir) == deviceOf(parent)) {
        m_staging = m_options.newDir;
    } else {
        say(QStringLiteral("copying %1 to %2 beside the application, which stays in place")
                .arg(m_options.newDir, m_incoming));
        if (!discard(m_incoming) || !copyTree(m_options.newDir, m_incoming))
            return false;
        step("copy");
        m_staging = m_incoming;
    }
    m_stagedId = identityOf(m_staging);
    if (!writeJournal(State::Staged))
        return false;
    step("stage");
    return true;
}

// Puts the staged version in place: one exchange of the two folders where the file system has
// it (the old version then stands where the staged one was, and becomes the backup), else the
// old folder moved aside and the staged one moved in.
int FolderSwap::exchangeIntoPlace()
{
    if (exchangeFolders(m_staging, m_options.oldDir)) {
        step("exchange");
        if (rename(encoded(m_staging).constData(), encoded(m_backup).constData()) != 0) {
            exchangeFolders(m_staging, m_options.oldDir);
            refuse(QStringLiteral("cannot set the old version aside as %1").arg(m_backup));
            UpdateState::removePrivate(m_journal);
            startProgram(m_options.oldDir);
            return 1;
        }
        step("backup");
        return startNewVersion();
    }
    say(QStringLiteral("the file system cannot exchange %1 and %2 (%3): moving one, then the "
                       "other")
            .arg(m_staging, m_options.oldDir, QString::fromLocal8Bit(strerror(errno))));
    if (rename(encoded(m_options.oldDir).constData(), encoded(m_backup).constData()) != 0) {
        refuse(QStringLiteral("cannot move %1 aside").arg(m_options.oldDir));
        UpdateState::removePrivate(m_journal);
        startProgram(m_options.oldDir);
        return 1;
    }
    step("backup");
    if (rename(encoded(m_staging).constData(), encoded(m_options.oldDir).constData()) != 0) {
        rollBack(QStringLiteral("cannot move the new version into place"));
        return 1;
    }
    step("move");
    return startNewVersion();
}

// Resumes an update killed after its new version was staged: the identity of the staged folder
// tells whether it already stands in place.
int FolderSwap::resumeStaged(const Journal &journal)
{
    say(QStringLiteral("resuming an interrupted update: the new version was staged in %1")
            .arg(journal.staging));
    m_staging = journal.staging;
    m_stagedId = journal.stagedId;
    if (!m_stagedId.isEmpty() && identityOf(m_options.oldDir) == m_stagedId) {
        if (isThere(m_staging) && !isThere(m_backup)
            && rename(encoded(m_staging).constData(), encoded(m_backup).constData()) == 0)
            step("backup");
        return startNewVersion();
    }
    if (!isThere(m_options.oldDir) && isThere(m_backup)) {
        if (rename(encoded(m_staging).constData(), encoded(m_options.oldDir).constData()) != 0) {
            rollBack(QStringLiteral("cannot move the new version into place"));
            return 1;
        }
        step("move");
        return startNewVersion();
    }
    if (!m_stagedId.isEmpty() && identityOf(m_staging) == m_stagedId)
        return exchangeIntoPlace();
    // The staged copy is gone: nothing was swapped, so the update starts again.
    UpdateState::removePrivate(m_journal);
    return swap();
}

int FolderSwap::startNewVersion()
{
    if (!writeJournal(State::Moved)) {
        rollBack(QStringLiteral("cannot write the journal"));
        return 1;
    }
    if (m_options.healthTimeout > 0 && !m_options.noStart)
        return startAndCheck();
    if (!startProgram(m_options.oldDir)) {
        rollBack(QStringLiteral("the new program did not start"));
        return 1;
    }
    writeJournal(State::Launched);
    step("start");
    cleanUp();
    return 0;
}

// Starts the new program as a child, with SOFTWAREUPDATE_HEALTH_FILE in its environment, and
// waits for it to create that file. A program that exits first, or does not confirm in time,
// is stopped and the old version put back.
int FolderSwap::startAndCheck()
{
    UpdateState::removePrivate(m_health);
    const QByteArray program = encoded(m_options.oldDir + QLatin1Char('/') + m_options.exe);
    const QByteArray folder = encoded(m_options.oldDir);
    // Everything the child needs is made before fork(): after it only exec-safe calls.
    QList<QByteArray> environment;
    for (char **e = environ; *e; ++e) {
        if (!QByteArray(*e).startsWith("SOFTWAREUPDATE_HEALTH_"))
            environment << QByteArray(*e);
    }
    // The confirmation counts only with this run's secret: a file or folder put there by
    // anything else is not the new version speaking.
    const QByteArray token = QByteArray::number(QRandomGenerator::system()->generate64(), 16)
        + QByteArray::number(QRandomGenerator::system()->generate64(), 16);
    environment << "SOFTWAREUPDATE_HEALTH_FILE=" + encoded(m_health);
    environment << "SOFTWAREUPDATE_HEALTH_TOKEN=" + token;
    std::vector<char *> envp;
    for (QByteArray &e : environment)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    char *const argv[] = {const_cast<char *>(program.constData()), nullptr};
    const pid_t pid = fork();
    if (pid == 0) {
        if (chdir(folder.constData()) == 0)
            execve(program.constData(), argv, envp.data());
        _exit(127);
    }
    if (pid < 0) {
        rollBack(QStringLiteral("the new program did not start"));
        return 1;
    }
    say(QStringLiteral("started %1 (pid %2); waiting up to %3 s for it to confirm that it runs")
            .arg(QString::fromLocal8Bit(program))
            .arg(pid)
            .arg(m_options.healthTimeout));
    writeJournal(State::Checking, pid, token);
    step("start");
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        if (confirmed(token)) {
            say(QStringLiteral("the new version confirmed that it runs"));
            UpdateState::removePrivate(m_health);
            writeJournal(State::Launched);
            step("confirm");
            cleanUp();
            return 0;
        }
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            const QString how = WIFEXITED(status)
                ? QStringLiteral("exited with code %1").arg(WEXITSTATUS(status))
                : QStringLiteral("was killed by signal %1").arg(WTERMSIG(status));
            if (confirmed(token))
                continue; // it confirmed just before it ended
            return notConfirmed(
                0, QStringLiteral("the new program %1 before confirming that it runs").arg(how));
        }
        if (clock.elapsed() > qint64(m_options.healthTimeout) * 1000)
            return notConfirmed(pid,
                                QStringLiteral("the new program did not confirm within %1 s")
                                    .arg(m_options.healthTimeout));
        usleep(50 * 1000);
    }
}

// The new version failed its check: it is stopped, the old one put back and started, and a
// note left for the old version's client to tell the user once.
int FolderSwap::notConfirmed(qint64 pid, const QString &why)
{
    if (pid > 0 && kill(pid_t(pid), 0) == 0) {
        kill(pid_t(pid), SIGKILL);
        waitpid(pid_t(pid), nullptr, 0);
    }
    UpdateState::writePrivate(m_rolledBack, why.toUtf8() + '\n');
    UpdateState::removePrivate(m_health);
    rollBack(why);
    return 1;
}

// An update interrupted by a power cut or a kill, found by the program's next start: the version
// that stands in the application folder now is the one running, so it stays, and the other is
// dropped. Nothing is started.
int FolderSwap::settle(const Journal &journal)
{
    if (journal.state == State::None) {
        say(QStringLiteral("nothing to settle"));
        return 0;
    }
    m_staging = journal.staging;
    const bool newInPlace = journal.state == State::Moved || journal.state == State::Checking
        || journal.state == State::Launched
        || (journal.state == State::Staged && !journal.stagedId.isEmpty()
            && identityOf(m_options.oldDir) == journal.stagedId);
    if (newInPlace) {
        say(QStringLiteral("settling an interrupted update: the new version stays"));
        if (journal.state == State::Staged && isThere(m_staging) && m_staging != m_options.newDir)
            discard(m_staging); // the old version, where the staged one was
        else if (journal.state == State::Staged && isThere(m_staging))
            rename(encoded(m_staging).constData(), encoded(m_backup).constData());
        UpdateState::removePrivate(m_health);
        cleanUp();
        return 0;
    }
    say(QStringLiteral("settling an interrupted update: the old version stays"));
    if (!isThere(m_options.oldDir) && isThere(m_backup)
        && rename(encoded(m_backup).constData(), encoded(m_options.oldDir).constData()) == 0)
        step("restore");
    discard(m_incoming);
    UpdateState::removePrivate(m_journal);
    return 1;
}

bool FolderSwap::confirmed(const QByteArray &token) const
{
    return !token.isEmpty() && UpdateState::readPrivate(m_health, 256).trimmed() == token;
}

void FolderSwap::cleanUp()
{
    // The new version runs from the application folder: the backup, and a copied source folder,
    // are spare copies now.
    discard(m_backup);
    removeTree(m_discard);
    if (typeAt(m_options.newDir) == S_IFDIR)
        removeTree(m_options.newDir);
    UpdateState::removePrivate(m_journal);
    step("cleanup");
}
