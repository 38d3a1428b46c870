#pragma once

// What makes a folder an application folder the updater may put in place: the one rule that the
// client checks an unpacked package with, and that UpdateInstaller checks its new folder with.
// Header-only: UpdateInstaller uses it without the rest of the library.
//
// The folder must hold the program under its exact name (letter case included), as a regular
// file (not a symbolic link) that its owner may run.

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QString>

#include <sys/stat.h>

namespace qv::ApplicationLayout {

enum class Problem {
    None, ///< the folder is an application folder
    Missing, ///< no program of that name, in any letter case
    WrongCase, ///< a program whose name differs only in letter case (`found` names it)
    NotExecutable, ///< the program has no exec bit (an archive made on Windows)
    NotRegularFile, ///< the program is a symbolic link, a folder or a device
};

struct Verdict {
    Problem problem = Problem::Missing;
    QString folder; ///< the folder the verdict is about
    QString found; ///< for WrongCase, the name that is there
};

/// The rule for one folder.
inline Verdict check(const QString &folder, const QString &program)
{
    Verdict verdict {Problem::None, folder, QString()};
    struct stat st;
    const QByteArray path = QFile::encodeName(folder + QLatin1Char('/') + program);
    if (!program.isEmpty() && ::lstat(path.constData(), &st) == 0) {
        if (!S_ISREG(st.st_mode))
            verdict.problem = Problem::NotRegularFile;
        else if ((st.st_mode & S_IXUSR) == 0)
            verdict.problem = Problem::NotExecutable;
        return verdict;
    }
    verdict.problem = Problem::Missing;
    const QStringList names = QDir(folder).entryList(QDir::Files | QDir::System | QDir::Hidden);
    for (const QString &name : names) {
        if (name.compare(program, Qt::CaseInsensitive) == 0) {
            verdict.problem = Problem::WrongCase;
            verdict.found = name;
        }
    }
    return verdict;
}

/// The first folder at or under `root` (breadth first, links not followed) that passes the rule;
/// when none does, the verdict that comes closest (a program in the wrong case, or not
/// executable, rather than none at all).
inline Verdict find(const QString &root, const QString &program)
{
    Verdict best = check(root, program);
    if (best.problem == Problem::None)
        return best;
    QDirIterator it(root, QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString folder = it.next();
        if (it.fileInfo().isSymLink())
            continue;
        const Verdict verdict = check(folder, program);
        if (verdict.problem == Problem::None)
            return verdict;
        if (best.problem == Problem::Missing && verdict.problem != Problem::Missing)
            best = verdict;
    }
    return best;
}

/// The verdict in plain English, for logs.
inline QString describe(const Verdict &verdict, const QString &program)
{
    switch (verdict.problem) {
    case Problem::None:
        return QString();
    case Problem::Missing:
        return QStringLiteral("%1 holds no program %2").arg(verdict.folder, program);
    case Problem::WrongCase:
        return QStringLiteral("%1 holds %2, not the program %3 (the names differ in letter case)")
            .arg(verdict.folder, verdict.found, program);
    case Problem::NotExecutable:
        return QStringLiteral("the program %1 in %2 is not executable (no exec bit)")
            .arg(program, verdict.folder);
    case Problem::NotRegularFile:
        return QStringLiteral("the program %1 in %2 is not a regular file")
            .arg(program, verdict.folder);
    }
    return QString();
}

} // namespace qv::ApplicationLayout
