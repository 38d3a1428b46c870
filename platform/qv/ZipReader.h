#pragma once

#include "PlatformExport.h"

#include <QIODevice>
#include <QObject>
#include <QPointer>
#include <QRegularExpression>
#include <QStringList>

#include <atomic>

class QProgressDialog;

namespace qv {

/// Progress and cancellation shared by the archive readers.
class QV_PLATFORM_EXPORT ZipDevice : public QObject {
    Q_OBJECT

public:
    explicit ZipDevice(QObject *parent = nullptr);

    /// The dialog shows the entries extracted so far; its Cancel button stops the extraction.
    void attachProgressDialog(QProgressDialog *dialog);
    bool wasCanceled() const { return m_canceled; }
    /// Asks a running extraction to stop (from any thread).
    void cancel() { m_canceled = true; }

protected:
    QPointer<QProgressDialog> m_progress;
    std::atomic<bool> m_canceled {false};
};

/// Reads ZIP archives (and, for a file named ".tar.gz", gzip-compressed tar) and extracts them
/// safely. Nothing else is read, an empty file is not an archive, and a warning (a bad CRC) is a
/// failure.
///
/// Extraction always refuses entries that would land outside the target folder: absolute paths,
/// ".." components, writing through symbolic links, and links that lead outside the target
/// where they finally resolve (following the links written before and after them). FIFOs and
/// device nodes are refused, and so is a name that is both a folder and a file; setuid, setgid,
/// sticky and group- or world-write bits are dropped. Sizes declared inside an archive can lie,
/// so the extent of every entry (a sparse one by its full size) and the number of entries are
/// capped (limits()). Every failure arrives as qv::IOException.
class QV_PLATFORM_EXPORT ZipReader : public ZipDevice {
    Q_OBJECT

public:
    struct Limits {
        qint64 maxTotalBytes; ///< bytes written by one extraction
        qint64 maxEntries; ///< entries in one archive
    };
    /// 8 GiB and 100,000 entries unless changed.
    static Limits defaultLimits();
    static void setDefaultLimits(const Limits &limits);

    explicit ZipReader(const QString &file, QObject *parent = nullptr);
    ~ZipReader() override;

    /// Checks that the file can be read as an archive; only reading is supported.
    void open(QIODevice::OpenMode mode);
    /// The entry names matching `pattern` (an empty pattern matches every entry), in archive
    /// order.
    QStringList fileList(const QRegularExpression &pattern = QRegularExpression()) const;
    /// The bytes the entries declare (never less than the archive's own size): what unpacking
    /// needs on disk, give or take what a lying archive hides (extraction stops at limits()).
    qint64 unpackedSize() const;
    /// Extracts the named entries below `targetFolder`; `overwrite` false refuses to replace an
    /// existing file (so an archive naming one file twice is refused).
    void extractFiles(const QStringList &files, const QString &targetFolder, bool overwrite);
    /// Extracts every entry, in one pass over the archive.
    void extractAll(const QString &targetFolder, bool overwrite);

    void setLimits(const Limits &limits) { m_limits = limits; }
    Limits limits() const { return m_limits; }

private:
    void extract(const QStringList *files, qint64 expected, const QString &targetFolder,
                 bool overwrite);

    QString m_file;
    bool m_open = false;
    Limits m_limits;
};

} // namespace qv
