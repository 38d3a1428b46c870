#include "Unzipper.h"

#include "Exceptions.h"
#include "ZipReader.h"

#include <QFile>
#include <QPointer>
#include <QThread>

namespace qv {

Unzipper::Unzipper(const QString &archive, const QString &targetFolder, bool overwrite)
    : m_archive(archive), m_reader(std::make_shared<ZipReader>(archive))
{
    QPointer<Unzipper> self(this);
    std::shared_ptr<ZipReader> reader = m_reader;
    m_worker = QThread::create([self, reader, targetFolder, overwrite, receiver = this] {
        QString failure;
        try {
            reader->open(QIODevice::ReadOnly);
            reader->extractAll(targetFolder, overwrite);
        } catch (const ExceptionQt &e) {
            failure = e.message();
        }
        if (reader->wasCanceled())
            return;
        // Delivered on the thread that owns the unzipper, if it still exists then.
        QMetaObject::invokeMethod(
            receiver,
            [self, failure, targetFolder] {
                if (!self)
                    return;
                if (failure.isEmpty())
                    Q_EMIT self->unzippingDone(targetFolder);
                else
                    Q_EMIT self->unzippingFailed(failure);
            },
            Qt::QueuedConnection);
    });
    m_worker->start();
}

Unzipper::~Unzipper()
{
    m_reader->cancel();
    m_worker->wait();
    delete m_worker;
}

bool Unzipper::removeZipFile()
{
    return QFile::remove(m_archive);
}

} // namespace qv
