#pragma once

#include "PlatformExport.h"

#include <QByteArray>
#include <QString>

class QWidget;

namespace qv {

class QV_PLATFORM_EXPORT FileUtils
{
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
    /// Removes a file, or a folder with everything in it. True when nothing is left at `path`.
    static bool erase(const QString &path);
    /// The whole file; throws qv::IOException when it cannot be read.
    static QByteArray readBytes(const QString &path);
    /// Replaces the file with `data` atomically: a crash never leaves half a file. Throws
    /// qv::IOException when it cannot be written.
    static void writeBytes(const QByteArray &data, const QString &path);
};

} // namespace qv
