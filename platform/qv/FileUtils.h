#pragma once

#include "PlatformExport.h"

#include <QByteArray>
#include <QString>

class QWidget;

namespace qv {

class QV_PLATFORM_EXPORT FileUtils {
public:
    /// A new, empty, uniquely named folder in the system's temporary folder; it is kept (the
    /// caller removes it). An empty text when none could be made.
    static QString createTempDir();
    /// The path with the platform's separators.
    static QString nativePath(const QString &path);
    /// Shows a folder chooser starting at `path` and writes the choice back into it; false when
    /// the user cancelled.
    static bool openDirectoryDialog(QString &path, const QString &title, const QString &filter,
                                    QWidget *parent);
    /// Removes a file, or a folder with everything in it (a symbolic link is removed, never
    /// followed). True when nothing is left at `path`. A path that does not say plainly where it
    /// leads (an empty, "." or ".." section) is refused, and so is one that does not lie inside
    /// `within` when that is given (or passes through a symbolic link below it): nothing is
    /// removed and the result is false.
    static bool erase(const QString &path, const QString &within = QString());
    /// True when `path` names an entry inside the folder `within` (or the folder itself) without
    /// any "." or ".." section and without passing through a symbolic link below `within`.
    static bool liesInside(const QString &path, const QString &within);
    /// True when the path says plainly which entry it names: no "." or ".." section, and a last
    /// section that is not empty.
    static bool isPlainFilePath(const QString &path);
    /// The whole file; throws qv::IOException when it cannot be read, is not a regular file (a
    /// FIFO would block forever) or is larger than `maxBytes`.
    static QByteArray readBytes(const QString &path, qint64 maxBytes = -1);
    /// Replaces the file with `data` atomically: a crash never leaves half a file. Throws
    /// qv::IOException when it cannot be written.
    static void writeBytes(const QByteArray &data, const QString &path);
};

} // namespace qv
