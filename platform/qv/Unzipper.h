#pragma once

#include "PlatformExport.h"

#include <QObject>
#include <QString>

#include <memory>

class QThread;

namespace qv {

class ZipReader;

/// Unpacks an archive in the background. Work starts at once on a worker thread; the outcome
/// arrives on the creating thread as unzippingDone() with the target folder, or
/// unzippingFailed() with a message. Connecting right after construction is safe.
class QV_PLATFORM_EXPORT Unzipper : public QObject {
    Q_OBJECT

public:
    /// `overwrite` false refuses to replace existing files in `targetFolder`.
    Unzipper(const QString &archive, const QString &targetFolder, bool overwrite);
    /// Stops a running extraction and waits for the worker.
    ~Unzipper() override;

    /// Deletes the archive file.
    bool removeZipFile();

Q_SIGNALS:
    void unzippingDone(const QString &folder);
    void unzippingFailed(const QString &message);

private:
    QString m_archive;
    QThread *m_worker = nullptr;
    std::shared_ptr<ZipReader> m_reader;
};

} // namespace qv
