// Downloads that survive real networks: a partial file kept with a record, resumed with a range
// request, and transient failures tried again after a back-off. Both are opt-in; without them a
// download runs exactly as in DownloadManager.cpp.

#include "DownloadManager.h"

#include "Logging.h"

#include <qv/FileUtils.h>
#include <qv/Sha256.h>
#include <qv/UpdateState.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QRegularExpression>
#include <QSaveFile>
#include <QTimer>

#include <unistd.h>

namespace qv {

// One package's download across its attempts.
struct DownloadManager::Job {
    PackageInfo package;
    QString target; ///< where the finished file goes
    QString part; ///< where it is written: the target, or the kept file when resuming
    QString record; ///< the kept file's record (resume only)
    QString validator; ///< the server's ETag or Last-Modified for the kept bytes
    qint64 offset = 0; ///< bytes kept before this attempt
    qint64 committed = 0; ///< bytes recorded as written (handed to the system)
    qint64 durable = 0; ///< bytes recorded as on disk (synced)
    int retriesLeft = 0;
    int retries = 0; ///< retries made so far
    bool startOver = false; ///< the answer refused the range: fetch the whole file, at once
    QFile *file = nullptr; ///< this attempt's output, owned by its request
    std::unique_ptr<QFile> recordFile; ///< the record, open once it exists
};

namespace {

// Bytes between two records of the written offset: with chunks of 256 KiB, a killed process
// refetches less than 1 MiB. The disk is synced every kSyncEvery bytes: a power cut refetches
// at most that much.
const qint64 kCommitEvery = 768 * 1024;
const qint64 kSyncEvery = 32 << 20;

// This boot of the machine: what a process wrote to a file survives its kill, not a power cut.
QString bootId()
{
    QFile f(QStringLiteral("/proc/sys/kernel/random/boot_id"));
    return f.open(QIODevice::ReadOnly) ? QString::fromLatin1(f.readAll().trimmed()) : QString();
}
const int kKeepDays = 30;

void downloadLine(Log::ELevel level, const QString &line)
{
    LogQt::write(lcDownload(), level, QStringLiteral("DownloadManager -> ") + line);
}

QString keyOf(const PackageInfo &package)
{
    const QByteArray identity = package.url.toEncoded() + '\n' + package.sha256.toLatin1();
    return QString::fromLatin1(
        QCryptographicHash::hash(identity, QCryptographicHash::Sha256).toHex().left(32));
}

QJsonObject readRecord(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly) || f.size() > 64 * 1024)
        return {};
    return QJsonDocument::fromJson(f.readAll()).object();
}

// The seconds a Retry-After header asks for (a number, or an HTTP date); -1 without one.
int retryAfter(const QString &value)
{
    bool number = false;
    const int seconds = value.trimmed().toInt(&number);
    if (number)
        return qMax(0, seconds);
    const QDateTime when = QDateTime::fromString(value.trimmed(), Qt::RFC2822Date);
    return when.isValid() ? int(qMax<qint64>(0, QDateTime::currentDateTimeUtc().secsTo(when))) : -1;
}

bool transientStatus(int status)
{
    return status == 408 || status == 429 || status == 500 || status == 502 || status == 503
        || status == 504;
}

} // namespace

QString DownloadManager::resumeFolder()
{
    return UpdateState::userStateFolder() + QStringLiteral("/SoftwareUpdate/downloads");
}

void DownloadManager::startDownload(const PackageInfo &package, const QString &filePath)
{
    if ((!resumeDownloads && retryCount == 0) || !FileUtils::isPlainFilePath(filePath)
        || QFileInfo(filePath).isSymLink()) {
        startPlainDownload(package, filePath);
        return;
    }
    auto job = std::make_shared<Job>();
    job->package = package;
    job->target = filePath;
    job->retriesLeft = retryCount;
    startAttempt(job);
}

void DownloadManager::startAttempt(const std::shared_ptr<Job> &job)
{
    job->offset = 0;
    job->committed = 0;
    job->durable = 0;
    job->recordFile.reset();
    auto *file = new QFile;
    if (resumeDownloads) {
        const QString folder = resumeFolder();
        QDir().mkpath(folder);
        QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        const QString key = keyOf(job->package);
        // Never more than two packages' worth: this one and the most recent other.
        int others = 0;
        const QFileInfoList records
            = QDir(folder).entryInfoList({QStringLiteral("*.json")}, QDir::Files, QDir::Time);
        for (const QFileInfo &record : records) {
            if (record.completeBaseName() != key && ++others > 1) {
                QFile::remove(record.absoluteFilePath());
                QFile::remove(folder + QLatin1Char('/') + record.completeBaseName()
                              + QStringLiteral(".part"));
            }
        }
        job->part = folder + QLatin1Char('/') + key + QStringLiteral(".part");
        job->record = folder + QLatin1Char('/') + key + QStringLiteral(".json");
        const QJsonObject record = readRecord(job->record);
        // After a kill in this boot the written bytes count; after a reboot (a power cut) only
        // those synced to disk.
        const QString boot = bootId();
        const qint64 durable = record.value(QStringLiteral("committed")).toInteger();
        const qint64 committed = !boot.isEmpty() && record.value(QStringLiteral("boot")) == boot
            ? record.value(QStringLiteral("written")).toInteger()
            : durable;
        const bool samePackage
            = record.value(QStringLiteral("url")).toString() == job->package.url.toString()
            && record.value(QStringLiteral("sha256")).toString() == job->package.sha256
            && record.value(QStringLiteral("size")).toInteger() == job->package.fileSize;
        if (!job->startOver && samePackage && committed > 0 && committed < job->package.fileSize
            && QFileInfo(job->part).size() >= committed && !QFileInfo(job->part).isSymLink()) {
            job->offset = committed;
            job->committed = committed;
            job->durable = qMin(durable, committed);
            job->validator = record.value(QStringLiteral("validator")).toString();
        } else {
            QFile::remove(job->record);
            QFile::remove(job->part);
            job->validator.clear();
        }
        file->setFileName(job->part);
        // What lies beyond the committed offset (a power cut's garbage) is cut off first.
        if (file->open(QIODevice::ReadWrite) && file->resize(job->offset))
            file->seek(job->offset);
    } else {
        job->part = job->target;
        file->setFileName(job->target);
        file->open(QIODevice::WriteOnly | QIODevice::Truncate);
    }
    job->startOver = false;
    job->file = file;
    qvb::smart<QIODevice> handle(file);
    httpClient.setHost(hostOf(job->package.url));
    RequestPtr request = httpClient.prepareGet(HttpClient::encodedUrlPath(job->package.url),
                                               QMap<QString, QVariant>(), this,
                                               SLOT(downloadResult(RequestPtr)), file, handle);
    request->adoptUserData(new PackageInfo(job->package));
    if (!trustedKeyTexts.isEmpty()) {
        // The kept part is hashed once; the hash goes on over what arrives.
        auto hash = std::make_shared<Sha256>();
        QFile kept(job->part);
        if (job->offset > 0 && kept.open(QIODevice::ReadOnly)) {
            for (qint64 left = job->offset; left > 0;) {
                const QByteArray chunk = kept.read(qMin<qint64>(left, 1 << 20));
                if (chunk.isEmpty())
                    break;
                hash->addData(chunk);
                left -= chunk.size();
            }
        }
        request->hashBodyFrom(hash);
    }
    if (job->offset > 0) {
        request->setRequestHeader("Range", "bytes=" + QByteArray::number(job->offset) + '-');
        if (!job->validator.isEmpty())
            request->setRequestHeader("If-Range", job->validator.toLatin1());
        downloadLine(Log::Debug,
                     QStringLiteral("resuming %1 at byte %2 of %3")
                         .arg(job->package.url.toString())
                         .arg(job->offset)
                         .arg(job->package.fileSize));
    }
    const bool hashing = !trustedKeyTexts.isEmpty();
    Job *raw = job.get();
    request->setHeadersHandler([this, raw, hashing](qv::RequestData &answer) {
        const bool accepted = acceptAnswer(*raw, answer);
        if (accepted && raw->offset == 0 && hashing)
            answer.hashBody(); // the whole file comes: a fresh hash
        return accepted;
    });
    // The committed offset follows the written bytes closely: a kill refetches little.
    if (resumeDownloads)
        request->setWrittenHandler([this, raw] { commitPartial(*raw, true); });
    jobs.insert(request.data(), job);
    currentJob = job;
    httpClient.execute(request);
}

// Whether this attempt's answer is written: the rest after the kept bytes (206 for the range
// asked), or the whole file (200, the kept bytes then dropped). Anything else is no part of the
// package.
bool DownloadManager::acceptAnswer(Job &job, qv::RequestData &answer)
{
    const int status = answer.statusCode();
    const auto validatorOf = [&answer] {
        const QString etag = answer.responseHeader().value(QStringLiteral("ETag"));
        return etag.isEmpty() ? answer.responseHeader().value(QStringLiteral("Last-Modified"))
                              : etag;
    };
    if (job.offset > 0 && status == 206) {
        static const QRegularExpression range(QStringLiteral("^bytes (\\d+)-(\\d+)/(\\d+|\\*)$"));
        const QRegularExpressionMatch m
            = range.match(answer.responseHeader().value(QStringLiteral("Content-Range")).trimmed());
        if (m.hasMatch() && m.captured(1).toLongLong() == job.offset
            && (m.captured(3) == u"*" || m.captured(3).toLongLong() == job.package.fileSize)) {
            if (!validatorOf().isEmpty())
                job.validator = validatorOf();
            return true;
        }
        downloadLine(Log::Warning,
                     QStringLiteral("%1 answered another range than bytes %2- (%3); starting over")
                         .arg(job.package.url.toString())
                         .arg(job.offset)
                         .arg(answer.responseHeader().value(QStringLiteral("Content-Range"))));
        job.startOver = true;
        return false;
    }
    if (job.offset > 0 && status == 416) {
        downloadLine(Log::Warning,
                     QStringLiteral("%1 refused the range (416); starting over")
                         .arg(job.package.url.toString()));
        job.startOver = true;
        return false;
    }
    if (status != 200)
        return false;
    if (job.offset > 0) {
        downloadLine(Log::Warning,
                     QStringLiteral("%1 sent the whole file (the server ignores "
                                    "ranges, or the file changed); starting over")
                         .arg(job.package.url.toString()));
        job.file->resize(0);
        job.file->seek(0);
        job.offset = 0;
        job.committed = 0;
        job.durable = 0;
    }
    job.validator = validatorOf();
    return true;
}

// The record follows the bytes written: those handed to the system (which survive a killed
// process) and those synced to disk (which survive a power cut). A resume never starts beyond
// either, whatever the file's length then is. `onlyWhenDue` records only every kCommitEvery
// bytes and syncs only every kSyncEvery; otherwise (a cut, an abort) both happen now.
void DownloadManager::commitPartial(Job &job, bool onlyWhenDue)
{
    if (!resumeDownloads || !job.file || !job.file->isOpen())
        return;
    const qint64 written = job.file->pos();
    if ((onlyWhenDue && written - job.committed < kCommitEvery) || written <= job.committed
        || !job.file->flush())
        return;
    if (!onlyWhenDue || written - job.durable >= kSyncEvery) {
        if (::fdatasync(job.file->handle()) != 0)
            return;
        job.durable = written;
    }
    QJsonObject record;
    record.insert(QStringLiteral("url"), job.package.url.toString());
    record.insert(QStringLiteral("sha256"), job.package.sha256);
    record.insert(QStringLiteral("size"), job.package.fileSize);
    record.insert(QStringLiteral("validator"), job.validator);
    record.insert(QStringLiteral("committed"), job.durable);
    record.insert(QStringLiteral("written"), written);
    record.insert(QStringLiteral("boot"), bootId());
    // The record is rewritten in place at a fixed size (a torn record reads as none, and the
    // download then starts over); only the first one is made and renamed into place. It is
    // written after the data it describes, so it never claims more than what is there.
    QByteArray text = QJsonDocument(record).toJson(QJsonDocument::Compact);
    text = text.leftJustified(qMax<qsizetype>(1024, text.size() + 1), ' ');
    if (!job.recordFile) {
        QSaveFile out(job.record);
        if (!out.open(QIODevice::WriteOnly) || out.write(text) != text.size() || !out.commit())
            return;
        job.recordFile = std::make_unique<QFile>(job.record);
        if (!job.recordFile->open(QIODevice::ReadWrite))
            job.recordFile.reset();
    } else if (::pwrite(job.recordFile->handle(), text.constData(), size_t(text.size()), 0)
                   != text.size()
               || (job.durable == written && ::fdatasync(job.recordFile->handle()) != 0)) {
        return;
    }
    job.committed = written;
}

void DownloadManager::finishAttempt(RequestPtr request, const std::shared_ptr<Job> &job)
{
    if (currentJob == job)
        currentJob.reset();
    PackageInfo *package = request->userDataAs<PackageInfo>();
    if (!package || package->fileSize == 0)
        return;
    QFile *file = job->file;
    const qint64 size = file && file->isOpen() ? file->size() : 0;
    const int status = request->statusCode();
    const bool complete = request->error() == qv::RequestData::NoError
        && quint64(size) >= quint64(package->fileSize) && (status == 200 || status == 206);
    const QPointer<DownloadManager> self(this);
    if (complete) {
        file->close();
        if (!trustedKeyTexts.isEmpty()
            && (package->sha256.isEmpty()
                || QString::fromLatin1(request->bodyHash().toHex()) != package->sha256)) {
            downloadLine(Log::Error,
                         QStringLiteral("%1 is not the published package (SHA-256 "
                                        "%2, expected %3); erased with its record")
                             .arg(job->part, QString::fromLatin1(request->bodyHash().toHex()),
                                  package->sha256));
            FileUtils::erase(job->part);
            if (resumeDownloads)
                QFile::remove(job->record);
            Q_EMIT downloadFailure(*package, job->target);
            if (self)
                Q_EMIT downloadVerificationFailed(*package);
            return;
        }
        if (resumeDownloads) {
            QFile::remove(job->target);
            if (!QFile::rename(job->part, job->target)
                && !(QFile::copy(job->part, job->target) && QFile::remove(job->part)))
                downloadLine(Log::Error,
                             QStringLiteral("could not move %1 to %2").arg(job->part, job->target));
            QFile::remove(job->record);
        }
        package->localFile = job->target;
        Q_EMIT downloadSuccess(*package, job->target);
        if (self)
            Q_EMIT downloadSuccess();
        return;
    }
    commitPartial(*job);
    if (file)
        file->close();
    downloadLine(Log::Debug,
                 QStringLiteral("%1: attempt ended with %2 of %3 bytes (%4, HTTP "
                                "status %5)")
                     .arg(job->package.url.toString())
                     .arg(size)
                     .arg(package->fileSize)
                     .arg(request->errorString())
                     .arg(status));
    if (job->startOver) {
        startAttempt(job);
        return;
    }
    const bool transient = transientStatus(status) || status == 0
        || request->error() == qv::RequestData::Stalled || status == 200 || status == 206;
    if (transient && job->retriesLeft > 0) {
        --job->retriesLeft;
        ++job->retries;
        int seconds = qMin(60, 1 << qMin(job->retries - 1, 6));
        const int asked
            = retryAfter(request->responseHeader().value(QStringLiteral("Retry-After")));
        if (asked >= 0)
            seconds = qMin(asked, 300);
        downloadLine(Log::Warning,
                     QStringLiteral("%1 failed (%2, HTTP status %3); retry %4 in %5 s")
                         .arg(job->package.url.toString(), request->errorString())
                         .arg(status)
                         .arg(job->retries)
                         .arg(seconds));
        retryingJob = job;
        if (!retryTimer) {
            retryTimer = new QTimer(this);
            retryTimer->setSingleShot(true);
            connect(retryTimer, &QTimer::timeout, this, [this] {
                if (const std::shared_ptr<Job> next = std::exchange(retryingJob, nullptr))
                    startAttempt(next);
            });
        }
        retryTimer->start(seconds * retryUnitMs);
        Q_EMIT downloadRetrying(seconds, job->retries);
        return;
    }
    Q_EMIT downloadFailure(*package, job->target);
    if (self)
        Q_EMIT downloadFailure(status);
}

// The bytes of the whole file: a resumed attempt counts on from the kept part.
void DownloadManager::relayProgress(int bytes, int total)
{
    const qint64 offset = currentJob ? currentJob->offset : 0;
    Q_EMIT downloadProgress(int(qMin<qint64>(offset + bytes, INT_MAX)),
                            total < 0 ? -1 : int(qMin<qint64>(offset + total, INT_MAX)));
}

// What a resumable download wrote is kept for the next attempt; a waiting retry ends.
void DownloadManager::endAttempts()
{
    if (currentJob)
        commitPartial(*currentJob);
    if (retryTimer)
        retryTimer->stop();
    retryingJob.reset();
    currentJob.reset();
    jobs.clear();
}

void DownloadManager::pruneResumeFolder(const PackageInfoList &catalogue)
{
    QSet<QString> wanted;
    for (const PackageInfo &p : catalogue) {
        wanted.insert(keyOf(p));
        // A delta is kept under its own URL and hash, as the client downloads it.
        for (const PackageInfo::Delta &d : p.deltas) {
            PackageInfo delta = p;
            delta.url = d.url;
            delta.sha256 = d.sha256;
            wanted.insert(keyOf(delta));
        }
    }
    QDir folder(resumeFolder());
    const QFileInfoList records
        = folder.entryInfoList({QStringLiteral("*.json")}, QDir::Files, QDir::Time);
    int kept = 0;
    for (const QFileInfo &record : records) {
        const bool old = record.lastModified().daysTo(QDateTime::currentDateTime()) > kKeepDays;
        if (!old && wanted.contains(record.completeBaseName()) && kept < 2) {
            ++kept;
            continue;
        }
        QFile::remove(record.absoluteFilePath());
        QFile::remove(record.absolutePath() + QLatin1Char('/') + record.completeBaseName()
                      + QStringLiteral(".part"));
        downloadLine(Log::Debug,
                     QStringLiteral("removed the kept download ") + record.completeBaseName());
    }
    // A partial file without its record is of no use.
    const QFileInfoList parts = folder.entryInfoList({QStringLiteral("*.part")}, QDir::Files);
    for (const QFileInfo &part : parts) {
        if (!QFileInfo::exists(part.absolutePath() + QLatin1Char('/') + part.completeBaseName()
                               + QStringLiteral(".json")))
            QFile::remove(part.absoluteFilePath());
    }
}

} // namespace qv
