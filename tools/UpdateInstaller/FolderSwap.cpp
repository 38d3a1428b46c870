#include "FolderSwap.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace {

// A recursive copy that keeps permissions and symbolic links.
bool copyTree(const QString &from, const QString &to)
{
    if (!QDir().mkpath(to))
        return false;
    QDirIterator it(from, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString source = it.next();
        const QFileInfo info = it.fileInfo();
        const QString target = to + QLatin1Char('/') + QDir(from).relativeFilePath(source);
        if (info.isSymLink()) {
            if (!QFile::link(info.symLinkTarget(), target))
                return false;
        } else if (info.isDir()) {
            if (!QDir().mkpath(target))
                return false;
        } else {
            if (!QFile::copy(source, target))
                return false;
            QFile::setPermissions(target, info.permissions());
        }
    }
    return true;
}

} // namespace

FolderSwap::FolderSwap(const Options &options, QTextStream &log, Starter starter, StepHook hook)
    : m_options(options), m_log(log), m_starter(std::move(starter)), m_hook(std::move(hook))
{
    while (m_options.oldDir.size() > 1 && m_options.oldDir.endsWith(QLatin1Char('/')))
        m_options.oldDir.chop(1);
    m_backup = m_options.oldDir + QStringLiteral(".update-backup");
    m_incoming = m_options.oldDir + QStringLiteral(".update-incoming");
    m_journal = m_options.oldDir + QStringLiteral(".update-journal");
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

bool FolderSwap::validateNew(QString *why) const
{
    const QString newDir = m_options.newDir;
    if (newDir.isEmpty()) {
        *why = QStringLiteral("no new application folder was given (-newDir is empty)");
        return false;
    }
    if (!QFileInfo(newDir).isDir()) {
        *why = QStringLiteral("the new application folder %1 does not exist").arg(newDir);
        return false;
    }
    const QString newPath = QFileInfo(newDir).canonicalFilePath();
    const QString oldPath = QFileInfo(m_options.oldDir).canonicalFilePath();
    if (newPath == oldPath) {
        *why = QStringLiteral("the old and the new application folder are the same");
        return false;
    }
    // Either inside the other would be moved into itself, or removed with it.
    if (!oldPath.isEmpty() && (oldPath.startsWith(newPath + QLatin1Char('/')) || newPath.startsWith(oldPath + QLatin1Char('/')))) {
        *why = QStringLiteral("one of the application folders lies inside the other");
        return false;
    }
    if (m_options.exe.isEmpty() || !QFileInfo(newDir + QLatin1Char('/') + m_options.exe).isFile()) {
        *why = QStringLiteral("the new application folder has no program %1").arg(m_options.exe);
        return false;
    }
    return true;
}

FolderSwap::State FolderSwap::readJournal()
{
    QFile f(m_journal);
    if (!f.open(QIODevice::ReadOnly))
        return State::None;
    const QByteArray state = f.readAll().trimmed();
    if (state == "launched")
        return State::Launched;
    if (state == "moved")
        return State::Moved;
    return State::Started;
}

bool FolderSwap::writeJournal(State state)
{
    const char *text = state == State::Launched ? "launched" : state == State::Moved ? "moved" : "started";
    QSaveFile f(m_journal);
    return f.open(QIODevice::WriteOnly) && f.write(text) > 0 && f.commit();
}

bool FolderSwap::startProgram(const QString &folder)
{
    const QString program = folder + QLatin1Char('/') + m_options.exe;
    const bool ok = m_starter(program, folder);
    say(QStringLiteral("%1 %2").arg(ok ? QStringLiteral("started") : QStringLiteral("could not start"), program));
    return ok;
}

bool FolderSwap::moveNewIntoPlace()
{
    if (QDir().rename(m_options.newDir, m_options.oldDir)) {
        step("move");
        return true;
    }
    // Another file system: copy to a staging folder first, so that the final rename is atomic.
    say(QStringLiteral("rename failed, copying %1 to %2").arg(m_options.newDir, m_incoming));
    QDir(m_incoming).removeRecursively();
    if (!copyTree(m_options.newDir, m_incoming)) {
        QDir(m_incoming).removeRecursively();
        return false;
    }
    step("copy");
    if (!QDir().rename(m_incoming, m_options.oldDir))
        return false;
    step("move");
    QDir(m_options.newDir).removeRecursively();
    return true;
}

void FolderSwap::rollBack(const QString &why)
{
    say(QStringLiteral("rolling back: ") + why);
    QDir(m_incoming).removeRecursively();
    if (QFileInfo::exists(m_backup)) {
        if (QFileInfo::exists(m_options.oldDir)) {
            // The new version stands in the old place: give it back to its own folder, or drop
            // it when its source is still there.
            if (!QFileInfo::exists(m_options.newDir))
                QDir().rename(m_options.oldDir, m_options.newDir);
            else
                QDir(m_options.oldDir).removeRecursively();
        }
        if (!QDir().rename(m_backup, m_options.oldDir)) {
            say(QStringLiteral("could not put %1 back; the old version stays in %2").arg(m_options.oldDir, m_backup));
            return;
        }
        step("restore");
    }
    QFile::remove(m_journal);
    startProgram(m_options.oldDir);
}

int FolderSwap::run()
{
    say(QStringLiteral("update: old %1, new %2, program %3").arg(m_options.oldDir, m_options.newDir, m_options.exe));
    State state = readJournal();
    const bool backupExists = QFileInfo::exists(m_backup);
    const bool oldExists = QFileInfo::exists(m_options.oldDir);
    if (state != State::None)
        say(QStringLiteral("resuming an interrupted update"));

    if (state == State::Launched) {
        // The new program was started before the interruption: only the clean-up is left.
        cleanUp();
        return 0;
    }
    if (state == State::None || (!backupExists && oldExists)) {
        if (!oldExists) {
            say(QStringLiteral("refused: the application folder %1 does not exist").arg(m_options.oldDir));
            return 1;
        }
        QString why;
        if (!validateNew(&why)) {
            say(QStringLiteral("refused: ") + why);
            QFile::remove(m_journal);
            startProgram(m_options.oldDir);
            return 1;
        }
        if (!writeJournal(State::Started)) {
            say(QStringLiteral("refused: cannot write the journal %1").arg(m_journal));
            startProgram(m_options.oldDir);
            return 1;
        }
        step("journal");
        if (QFileInfo::exists(m_backup) && !QDir(m_backup).removeRecursively()) {
            rollBack(QStringLiteral("cannot remove an old backup %1").arg(m_backup));
            return 1;
        }
        if (!QDir().rename(m_options.oldDir, m_backup)) {
            rollBack(QStringLiteral("cannot move %1 aside").arg(m_options.oldDir));
            return 1;
        }
        step("backup");
    }
    if (!QFileInfo::exists(m_options.oldDir)) {
        QString why;
        if (!validateNew(&why) || !moveNewIntoPlace()) {
            rollBack(why.isEmpty() ? QStringLiteral("cannot move the new version into place") : why);
            return 1;
        }
    }
    if (!writeJournal(State::Moved)) {
        rollBack(QStringLiteral("cannot write the journal"));
        return 1;
    }
    if (!startProgram(m_options.oldDir)) {
        rollBack(QStringLiteral("the new program did not start"));
        return 1;
    }
    writeJournal(State::Launched);
    step("start");
    cleanUp();
    return 0;
}

void FolderSwap::cleanUp()
{
    // The new version runs from the application folder: the backup, and a copied source folder
    // that an interruption left behind, are spare copies now.
    QDir(m_backup).removeRecursively();
    if (QFileInfo::exists(m_options.newDir))
        QDir(m_options.newDir).removeRecursively();
    QFile::remove(m_journal);
    step("cleanup");
}
