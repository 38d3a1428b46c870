#include "DeltaPackage.h"

#include "Sha256.h"

#define ZSTD_STATIC_LINKING_ONLY // the custom allocators, to count the codecs' heap
#include <bzlib.h>
#include <zstd.h>

#include <QDir>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QStorageInfo>
#include <QtEndian>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace qv {

namespace {

// The codecs' heap, counted through their allocator hooks.
std::atomic<qint64> heapNow {0};
std::atomic<qint64> heapPeak {0};

void *countedAlloc(size_t size)
{
    auto *block = static_cast<char *>(std::malloc(size + 16));
    if (!block)
        return nullptr;
    *reinterpret_cast<size_t *>(block) = size;
    const qint64 now = heapNow += qint64(size);
    qint64 peak = heapPeak.load();
    while (now > peak && !heapPeak.compare_exchange_weak(peak, now)) { }
    return block + 16;
}

void countedFree(void *address)
{
    if (!address)
        return;
    char *block = static_cast<char *>(address) - 16;
    heapNow -= qint64(*reinterpret_cast<size_t *>(block));
    std::free(block);
}

void *zstdAlloc(void *, size_t size)
{
    return countedAlloc(size);
}
void zstdFree(void *, void *address)
{
    countedFree(address);
}
void *bzAlloc(void *, int n, int m)
{
    return countedAlloc(size_t(n) * size_t(m));
}
void bzFree(void *, void *address)
{
    countedFree(address);
}

const QString kFrom = QStringLiteral("from");
const QString kTo = QStringLiteral("to");
const QString kFiles = QStringLiteral("files");
const QString kDelete = QStringLiteral("delete");
const QString kPath = QStringLiteral("path");
const QString kOp = QStringLiteral("op");
const QString kMode = QStringLiteral("mode");
const QString kSize = QStringLiteral("size");
const QString kSha256 = QStringLiteral("sha256");
const QString kSource = QStringLiteral("source");
const QString kSourceSha256 = QStringLiteral("source-sha256");
const QString kCodec = QStringLiteral("codec");
const QString kOffset = QStringLiteral("offset");
const QString kLength = QStringLiteral("length");
const QString kTarget = QStringLiteral("target");

const QStringList &operationNames()
{
    static const QStringList names {QStringLiteral("copy"), QStringLiteral("patch"),
                                    QStringLiteral("add"), QStringLiteral("link"),
                                    QStringLiteral("folder")};
    return names;
}

QByteArray hexDigest(const QJsonValue &value)
{
    const QString text = value.toString();
    return Sha256::isHexDigest(text) ? QByteArray::fromHex(text.toLatin1()) : QByteArray();
}

// A whole number from the manifest within [0, max], else -1.
qint64 count(const QJsonValue &value, qint64 max)
{
    if (!value.isDouble())
        return -1;
    const double d = value.toDouble();
    if (d < 0 || d > double(max) || d != double(qint64(d)))
        return -1;
    return qint64(d);
}

// A file mapped into memory: read-only for sources and the delta, read-write for results.
class Mapped {
public:
    Mapped() = default;
    Mapped(const Mapped &) = delete;
    Mapped &operator=(const Mapped &) = delete;
    ~Mapped() { close(); }

    // A regular file, never through a link in its last part.
    bool openRead(const QString &path, QString *error)
    {
        m_fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        struct stat st;
        if (m_fd < 0 || ::fstat(m_fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            *error = QStringLiteral("cannot read %1 (%2)")
                         .arg(path,
                              m_fd < 0 ? QString::fromLocal8Bit(std::strerror(errno))
                                       : QStringLiteral("not a regular file"));
            return false;
        }
        return map(st.st_size, PROT_READ, path, error);
    }

    // A new file of `size` bytes, owner-only until it is complete.
    bool create(const QString &path, qint64 size, QString *error)
    {
        m_fd = ::open(QFile::encodeName(path).constData(),
                      O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (m_fd < 0 || ::ftruncate(m_fd, size) != 0) {
            *error = QStringLiteral("cannot write %1 (%2)")
                         .arg(path, QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
        return map(size, PROT_READ | PROT_WRITE, path, error);
    }

    bool finish(int mode, const QString &path, QString *error)
    {
        const bool unmapped = !m_data || ::munmap(m_data, size_t(m_size)) == 0;
        m_data = nullptr;
        const bool done = ::fchmod(m_fd, mode_t(mode)) == 0 && unmapped;
        const bool closed = ::close(m_fd) == 0;
        m_fd = -1;
        if (!done || !closed)
            *error = QStringLiteral("cannot complete %1").arg(path);
        return done && closed;
    }

    void close()
    {
        if (m_data)
            ::munmap(m_data, size_t(m_size));
        if (m_fd >= 0)
            ::close(m_fd);
        m_data = nullptr;
        m_fd = -1;
    }

    uchar *data() const { return m_data; }
    qint64 size() const { return m_size; }

private:
    bool map(qint64 size, int protection, const QString &path, QString *error)
    {
        m_size = size;
        if (size == 0)
            return true;
        void *address = ::mmap(nullptr, size_t(size), protection, MAP_SHARED, m_fd, 0);
        if (address == MAP_FAILED) {
            *error = QStringLiteral("cannot map %1").arg(path);
            return false;
        }
        m_data = static_cast<uchar *>(address);
        ::madvise(address, size_t(size), MADV_SEQUENTIAL);
        return true;
    }

    int m_fd = -1;
    uchar *m_data = nullptr;
    qint64 m_size = 0;
};

QByteArray sha256Of(const uchar *data, qint64 size)
{
    Sha256 hash;
    // In pieces: a QByteArrayView holds at most what a qsizetype counts, and pages come in order.
    for (qint64 at = 0; at < size; at += 64 << 20)
        hash.addData(QByteArrayView(data + at, qMin<qint64>(64 << 20, size - at)));
    return hash.result();
}

// The sign-and-magnitude 64-bit numbers of BSDIFF40.
qint64 offtin(const uchar *p)
{
    quint64 y = p[7] & 0x7f;
    for (int i = 6; i >= 0; --i)
        y = y * 256 + p[i];
    return (p[7] & 0x80) ? -qint64(y) : qint64(y);
}

// One of the three bzip2 streams of a BSDIFF40 patch.
class BzStream {
public:
    bool open(const uchar *data, qint64 length)
    {
        if (length < 0 || quint64(length) > 0xffffffffu)
            return false;
        std::memset(&m_stream, 0, sizeof m_stream);
        m_stream.bzalloc = bzAlloc;
        m_stream.bzfree = bzFree;
        m_stream.next_in = reinterpret_cast<char *>(const_cast<uchar *>(data));
        m_stream.avail_in = unsigned(length);
        m_open = BZ2_bzDecompressInit(&m_stream, 0, 0) == BZ_OK;
        return m_open;
    }
    ~BzStream()
    {
        if (m_open)
            BZ2_bzDecompressEnd(&m_stream);
    }

    // Exactly `n` bytes into `out`.
    bool read(uchar *out, qint64 n)
    {
        while (n > 0) {
            const unsigned chunk = unsigned(qMin<qint64>(n, 1 << 30));
            m_stream.next_out = reinterpret_cast<char *>(out);
            m_stream.avail_out = chunk;
            while (m_stream.avail_out > 0) {
                if (m_ended)
                    return false;
                const int rc = BZ2_bzDecompress(&m_stream);
                if (rc == BZ_STREAM_END)
                    m_ended = true;
                else if (rc != BZ_OK || (m_stream.avail_in == 0 && m_stream.avail_out > 0))
                    return false;
            }
            out += chunk;
            n -= chunk;
        }
        return true;
    }

private:
    bz_stream m_stream;
    bool m_open = false;
    bool m_ended = false;
};

// Work shared by the two workers: the next item and the first error.
struct Work {
    std::atomic<int> next {0};
    std::atomic_bool failed {false};
    std::mutex lock;
    QString error;
    const std::atomic_bool *canceled = nullptr;

    void fail(const QString &message)
    {
        const std::lock_guard<std::mutex> guard(lock);
        if (!failed.exchange(true))
            error = message;
    }
    bool stopped() const { return failed || (canceled && *canceled); }
};

template<typename F> void onTwoCores(int items, Work &work, F &&task)
{
    auto worker = [&] {
        for (int i = work.next++; i < items && !work.stopped(); i = work.next++) {
            QString error;
            if (!task(i, &error))
                work.fail(error);
        }
    };
    std::thread second(worker);
    worker();
    second.join();
}

// The installed file a copy or patch starts from, as the publisher had it.
bool checkSource(const QString &installed, const QString &source, const QByteArray &expected,
                 QString *error)
{
    Mapped file;
    if (!file.openRead(installed + QLatin1Char('/') + source, error))
        return false;
    if (sha256Of(file.data(), file.size()) != expected) {
        *error = QStringLiteral("the installed file %1 is not the one the delta was made from")
                     .arg(source);
        return false;
    }
    return true;
}

bool buildFile(const DeltaPackage::Entry &e, const uchar *payloads, const QString &installed,
               const QString &staging, QString *error)
{
    const QString path = staging + QLatin1Char('/') + e.path;
    const int slash = e.path.lastIndexOf(QLatin1Char('/'));
    if (slash > 0 && !QDir().mkpath(staging + QLatin1Char('/') + e.path.left(slash))) {
        *error = QStringLiteral("cannot create the folder of %1").arg(e.path);
        return false;
    }
    Mapped out;
    if (!out.create(path, e.size, error))
        return false;
    if (e.operation == DeltaPackage::Operation::Add && e.codec == DeltaPackage::Codec::Raw) {
        if (e.length != e.size) {
            *error = QStringLiteral("the payload of %1 is not its size").arg(e.path);
            return false;
        }
        if (e.size > 0)
            std::memcpy(out.data(), payloads + e.offset, size_t(e.size));
    } else {
        Mapped source;
        if (e.operation != DeltaPackage::Operation::Add
            && !source.openRead(installed + QLatin1Char('/') + e.source, error))
            return false;
        if (e.operation == DeltaPackage::Operation::Copy) {
            if (source.size() != e.size) {
                *error = QStringLiteral("the installed file %1 changed").arg(e.source);
                return false;
            }
            if (e.size > 0)
                std::memcpy(out.data(), source.data(), size_t(e.size));
        } else if (!DeltaPackage::decode(e.codec, source.data(), source.size(), payloads + e.offset,
                                         e.length, out.data(), e.size, error)) {
            *error = e.path + QStringLiteral(": ") + *error;
            return false;
        }
    }
    if (sha256Of(out.data(), e.size) != e.sha256) {
        *error = QStringLiteral("%1 does not have the SHA-256 of the manifest").arg(e.path);
        return false;
    }
    return out.finish(e.mode, path, error);
}

} // namespace

QString DeltaPackage::codecName(Codec codec)
{
    switch (codec) {
    case Codec::Raw:
        return QStringLiteral("raw");
    case Codec::Zstd:
        return QStringLiteral("zstd");
    case Codec::Bsdiff:
        return QStringLiteral("bsdiff");
    default:
        return QString();
    }
}

DeltaPackage::Codec DeltaPackage::codecFromName(const QString &name)
{
    for (Codec c : {Codec::Raw, Codec::Zstd, Codec::Bsdiff})
        if (name == codecName(c))
            return c;
    return Codec::None;
}

bool DeltaPackage::isSafeRelativePath(const QString &path)
{
    if (path.isEmpty() || path.size() > 4096 || path.contains(QChar(0))
        || path.contains(QLatin1Char('\\')))
        return false;
    for (const QStringView part : QStringView(path).split(QLatin1Char('/')))
        if (part.isEmpty() || part == u"." || part == u"..")
            return false;
    return true;
}

namespace {

// A link's target, taken from the link's folder, stays inside the application folder.
bool linkStaysInside(const QString &path, const QString &target)
{
    if (target.isEmpty() || target.startsWith(QLatin1Char('/')) || target.contains(QChar(0))
        || target.size() > 4096)
        return false;
    QStringList parts = path.split(QLatin1Char('/'));
    parts.removeLast();
    for (const QString &part : target.split(QLatin1Char('/'))) {
        if (part.isEmpty() || part == u".")
            continue;
        if (part != u"..")
            parts << part;
        else if (parts.isEmpty())
            return false;
        else
            parts.removeLast();
    }
    return true;
}

bool readEntry(const QJsonObject &o, qint64 payloadSize, DeltaPackage::Entry *e, QString *error)
{
    using Operation = DeltaPackage::Operation;
    using Codec = DeltaPackage::Codec;
    e->path = o.value(kPath).toString();
    const int op = operationNames().indexOf(o.value(kOp).toString());
    bool ok = DeltaPackage::isSafeRelativePath(e->path) && op >= 0;
    e->operation = Operation(op);
    bool modeRead = false;
    e->mode = o.value(kMode).toString().toInt(&modeRead, 8);
    if (!ok || !modeRead || e->mode < 0 || (e->mode & ~0777)) {
        *error = QStringLiteral("an entry has an unsafe path, an unknown operation or a bad mode: "
                                "\"%1\"")
                     .arg(e->path.left(200));
        return false;
    }
    if (e->operation == Operation::Folder)
        return true;
    if (e->operation == Operation::Link) {
        e->target = o.value(kTarget).toString();
        if (!linkStaysInside(e->path, e->target)) {
            *error
                = QStringLiteral("the link %1 points outside the application folder").arg(e->path);
            return false;
        }
        return true;
    }
    e->size = count(o.value(kSize), DeltaPackage::kMaxFileSize);
    e->sha256 = hexDigest(o.value(kSha256));
    if (e->size < 0 || e->sha256.isEmpty()) {
        *error = QStringLiteral("%1 has no valid size or SHA-256").arg(e->path);
        return false;
    }
    if (e->operation == Operation::Copy || e->operation == Operation::Patch) {
        e->source = o.value(kSource).toString();
        if (!DeltaPackage::isSafeRelativePath(e->source)) {
            *error = QStringLiteral("%1 starts from an unsafe path").arg(e->path);
            return false;
        }
    }
    if (e->operation == Operation::Copy) {
        e->sourceSha256 = e->sha256;
        return true;
    }
    if (e->operation == Operation::Patch)
        e->sourceSha256 = hexDigest(o.value(kSourceSha256));
    const QString codec = o.value(kCodec).toString();
    e->codec = DeltaPackage::codecFromName(codec);
    const bool codecFits = e->operation == Operation::Patch
        ? (e->codec == Codec::Zstd || e->codec == Codec::Bsdiff)
        : (e->codec == Codec::Zstd || e->codec == Codec::Raw);
    if (!codecFits) {
        *error = QStringLiteral("%1: unknown codec \"%2\"").arg(e->path, codec.left(40));
        return false;
    }
    e->offset = count(o.value(kOffset), payloadSize);
    e->length = count(o.value(kLength), payloadSize);
    if (e->offset < 0 || e->length < 0 || e->offset + e->length > payloadSize
        || (e->operation == Operation::Patch && e->sourceSha256.isEmpty())) {
        *error = QStringLiteral("the payload of %1 lies outside the delta").arg(e->path);
        return false;
    }
    return true;
}

} // namespace

bool DeltaPackage::readManifest(const QByteArray &data, Manifest *manifest, QString *error)
{
    return readManifest(reinterpret_cast<const uchar *>(data.constData()), data.size(), manifest,
                        error);
}

bool DeltaPackage::readManifest(const uchar *data, qint64 size, Manifest *manifest, QString *error)
{
    *manifest = Manifest();
    const QByteArray text = manifestText(data, size, error);
    if (text.isEmpty())
        return false;
    const qint64 length = qFromLittleEndian<quint32>(data + 8);
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(text, &parseError);
    const QJsonObject root = document.object();
    if (parseError.error != QJsonParseError::NoError || !root.value(kFiles).isArray()) {
        *error = QStringLiteral("the manifest is not readable");
        return false;
    }
    manifest->fromRelease = root.value(kFrom).toString();
    manifest->toRelease = root.value(kTo).toString();
    const qint64 payloadSize = size - kHeaderSize - length;
    QHash<QString, Operation> kinds;
    const QJsonArray files = root.value(kFiles).toArray();
    manifest->entries.reserve(files.size());
    for (const QJsonValue &value : files) {
        Entry e;
        if (!readEntry(value.toObject(), payloadSize, &e, error))
            return false;
        if (kinds.contains(e.path)) {
            *error = QStringLiteral("%1 is listed twice").arg(e.path);
            return false;
        }
        kinds.insert(e.path, e.operation);
        manifest->entries.append(e);
    }
    // Nothing is written beneath a file or through a link.
    for (const Entry &e : std::as_const(manifest->entries)) {
        for (int slash = e.path.indexOf(QLatin1Char('/')); slash > 0;
             slash = e.path.indexOf(QLatin1Char('/'), slash + 1)) {
            const auto kind = kinds.constFind(e.path.left(slash));
            if (kind != kinds.cend() && *kind != Operation::Folder) {
                *error = QStringLiteral("%1 lies beneath a file or a link").arg(e.path);
                return false;
            }
        }
    }
    for (const QJsonValue &value : root.value(kDelete).toArray()) {
        const QString path = value.toString();
        if (!isSafeRelativePath(path)) {
            *error = QStringLiteral("an unsafe path is listed for deletion");
            return false;
        }
        manifest->deleted << path;
    }
    return true;
}

QByteArray DeltaPackage::manifestJson(const Manifest &manifest)
{
    QJsonArray files;
    for (const Entry &e : manifest.entries) {
        QJsonObject o {{kPath, e.path},
                       {kOp, operationNames().at(int(e.operation))},
                       {kMode, QString::number(e.mode, 8).rightJustified(4, QLatin1Char('0'))}};
        if (e.operation == Operation::Link) {
            o.insert(kTarget, e.target);
        } else if (e.operation != Operation::Folder) {
            o.insert(kSize, double(e.size));
            o.insert(kSha256, QString::fromLatin1(e.sha256.toHex()));
        }
        if (e.operation == Operation::Copy || e.operation == Operation::Patch)
            o.insert(kSource, e.source);
        if (e.operation == Operation::Patch)
            o.insert(kSourceSha256, QString::fromLatin1(e.sourceSha256.toHex()));
        if (e.operation == Operation::Patch || e.operation == Operation::Add) {
            o.insert(kCodec, codecName(e.codec));
            o.insert(kOffset, double(e.offset));
            o.insert(kLength, double(e.length));
        }
        files.append(o);
    }
    const QJsonObject root {{kFrom, manifest.fromRelease},
                            {kTo, manifest.toRelease},
                            {kFiles, files},
                            {kDelete, QJsonArray::fromStringList(manifest.deleted)}};
    return QJsonDocument(root).toJson(QJsonDocument::Compact);
}

QByteArray DeltaPackage::header(const QByteArray &manifestJson)
{
    QByteArray packed(qsizetype(ZSTD_compressBound(size_t(manifestJson.size()))),
                      Qt::Uninitialized);
    const size_t written = ZSTD_compress(packed.data(), size_t(packed.size()),
                                         manifestJson.constData(), size_t(manifestJson.size()), 19);
    packed.truncate(ZSTD_isError(written) ? 0 : qsizetype(written));
    QByteArray out(kMagic, 8);
    uchar length[4];
    qToLittleEndian<quint32>(quint32(packed.size()), length);
    out.append(reinterpret_cast<const char *>(length), 4);
    return out + packed;
}

QByteArray DeltaPackage::manifestText(const uchar *data, qint64 size, QString *error)
{
    const qint64 length = size < kHeaderSize ? 0 : qFromLittleEndian<quint32>(data + 8);
    const unsigned long long declared
        = kHeaderSize + length > size ? 0 : ZSTD_getFrameContentSize(data + kHeaderSize, length);
    if (size < kHeaderSize || std::memcmp(data, kMagic, 8) != 0) {
        *error = QStringLiteral("not a delta package");
        return QByteArray();
    }
    if (kHeaderSize + length > size || declared == 0 || declared > kMaxManifest) {
        *error = QStringLiteral("the manifest is larger than the delta allows");
        return QByteArray();
    }
    QByteArray text(qsizetype(declared), Qt::Uninitialized);
    const ZSTD_customMem memory {zstdAlloc, zstdFree, nullptr};
    ZSTD_DCtx *context = ZSTD_createDCtx_advanced(memory);
    const size_t got = context ? ZSTD_decompressDCtx(context, text.data(), size_t(text.size()),
                                                     data + kHeaderSize, size_t(length))
                               : 0;
    ZSTD_freeDCtx(context);
    if (!context || ZSTD_isError(got) || got != size_t(declared)) {
        *error = QStringLiteral("the manifest is not readable");
        return QByteArray();
    }
    return text;
}

QByteArray DeltaPackage::manifestText(const QByteArray &delta)
{
    QString error;
    return manifestText(reinterpret_cast<const uchar *>(delta.constData()), delta.size(), &error);
}

bool DeltaPackage::decode(Codec codec, const uchar *source, qint64 sourceSize, const uchar *payload,
                          qint64 payloadLength, uchar *out, qint64 outSize, QString *error)
{
    if (codec == Codec::Bsdiff)
        return bspatch(source, sourceSize, payload, payloadLength, out, outSize, error);
    if (codec != Codec::Zstd) {
        *error = QStringLiteral("unknown codec");
        return false;
    }
    const ZSTD_customMem memory {zstdAlloc, zstdFree, nullptr};
    ZSTD_DCtx *context = ZSTD_createDCtx_advanced(memory);
    if (!context) {
        *error = QStringLiteral("zstd: out of memory");
        return false;
    }
    ZSTD_DCtx_setParameter(context, ZSTD_d_windowLogMax, 30);
    const unsigned long long declared = ZSTD_getFrameContentSize(payload, size_t(payloadLength));
    size_t result = 0;
    if (declared != (unsigned long long)outSize) {
        *error = QStringLiteral("zstd: the frame does not declare the file's size");
    } else {
        if (source && sourceSize > 0)
            ZSTD_DCtx_refPrefix(context, source, size_t(sourceSize));
        result = ZSTD_decompressDCtx(context, out, size_t(outSize), payload, size_t(payloadLength));
        if (ZSTD_isError(result))
            *error = QStringLiteral("zstd: ") + QString::fromLatin1(ZSTD_getErrorName(result));
        else if (result != size_t(outSize))
            *error = QStringLiteral("zstd: short output");
    }
    ZSTD_freeDCtx(context);
    return error->isEmpty();
}

bool DeltaPackage::bspatch(const uchar *source, qint64 sourceSize, const uchar *patch,
                           qint64 patchLength, uchar *out, qint64 outSize, QString *error)
{
    const auto fail = [error](const char *why) {
        *error = QStringLiteral("bsdiff: ") + QLatin1String(why);
        return false;
    };
    if (patchLength < 32 || std::memcmp(patch, "BSDIFF40", 8) != 0)
        return fail("not a BSDIFF40 patch");
    const qint64 controlLength = offtin(patch + 8);
    const qint64 diffLength = offtin(patch + 16);
    if (controlLength < 0 || diffLength < 0 || controlLength > patchLength - 32
        || diffLength > patchLength - 32 - controlLength)
        return fail("corrupt header");
    if (offtin(patch + 24) != outSize)
        return fail("the patch is for another size");
    BzStream control, diff, extra;
    if (!control.open(patch + 32, controlLength)
        || !diff.open(patch + 32 + controlLength, diffLength)
        || !extra.open(patch + 32 + controlLength + diffLength,
                       patchLength - 32 - controlLength - diffLength))
        return fail("cannot read its streams");
    // Positions stay far from overflow: every step is checked against the file sizes.
    constexpr qint64 kLimit = qint64(1) << 50;
    qint64 newPos = 0;
    qint64 oldPos = 0;
    while (newPos < outSize) {
        uchar triple[24];
        if (!control.read(triple, 24))
            return fail("truncated control stream");
        const qint64 add = offtin(triple);
        const qint64 copy = offtin(triple + 8);
        const qint64 seek = offtin(triple + 16);
        if (add < 0 || copy < 0 || add > outSize - newPos || copy > outSize - newPos - add
            || seek < -kLimit || seek > kLimit)
            return fail("corrupt control data");
        if (!diff.read(out + newPos, add))
            return fail("truncated diff stream");
        // Bytes of the old file added where the old file has them.
        const qint64 from = qMax<qint64>(0, -oldPos);
        const qint64 to = qMin<qint64>(add, sourceSize - oldPos);
        for (qint64 i = from; i < to; ++i)
            out[newPos + i] += source[oldPos + i];
        newPos += add;
        oldPos += add;
        if (!extra.read(out + newPos, copy))
            return fail("truncated extra stream");
        newPos += copy;
        oldPos += seek;
        if (oldPos < -kLimit || oldPos > kLimit)
            return fail("corrupt control data");
    }
    return true;
}

qint64 DeltaPackage::codecHeapPeak()
{
    return heapPeak.load();
}

bool DeltaPackage::apply(const QString &deltaFile, const QString &installed, const QString &staging,
                         QString *error, const QByteArray &sha256, const std::atomic_bool *canceled)
{
    Mapped delta;
    Manifest manifest;
    if (!delta.openRead(deltaFile, error))
        return false;
    if (!sha256.isEmpty() && sha256Of(delta.data(), delta.size()) != sha256) {
        *error = QStringLiteral("the delta is not the one the catalogue published");
        return false;
    }
    if (!readManifest(delta.data(), delta.size(), &manifest, error))
        return false;
    const uchar *payloads
        = delta.data() + kHeaderSize + qFromLittleEndian<quint32>(delta.data() + 8);

    // The sources, each hashed once, before anything is built.
    QHash<QString, QByteArray> sources;
    qint64 total = 0;
    for (const Entry &e : std::as_const(manifest.entries)) {
        total += e.size;
        if (e.operation == Operation::Copy || e.operation == Operation::Patch) {
            const auto known = sources.constFind(e.source);
            if (known != sources.cend() && *known != e.sourceSha256) {
                *error = QStringLiteral("%1 is given two different hashes").arg(e.source);
                return false;
            }
            sources.insert(e.source, e.sourceSha256);
        }
    }
    const qint64 available = QStorageInfo(staging).bytesAvailable();
    if (available >= 0 && available < total + total / 20 + (16 << 20)) {
        *error = QStringLiteral("not enough disk space: %1 bytes needed, %2 free")
                     .arg(total)
                     .arg(available);
        return false;
    }
    const QStringList sourcePaths = sources.keys();
    Work check;
    check.canceled = canceled;
    onTwoCores(int(sourcePaths.size()), check, [&](int i, QString *message) {
        return checkSource(installed, sourcePaths.at(i), sources.value(sourcePaths.at(i)), message);
    });
    if (check.failed) {
        *error = check.error;
        return false;
    }

    // Folders first (writable until the end), then the files, then the links.
    QList<const Entry *> folders, files, links;
    for (const Entry &e : std::as_const(manifest.entries))
        (e.operation == Operation::Folder     ? folders
             : e.operation == Operation::Link ? links
                                              : files)
            << &e;
    // Parents before what they hold.
    std::sort(folders.begin(), folders.end(),
              [](const Entry *a, const Entry *b) { return a->path < b->path; });
    for (const Entry *e : std::as_const(folders)) {
        if (!QDir().mkpath(staging + QLatin1Char('/') + e->path)) {
            *error = QStringLiteral("cannot create the folder %1").arg(e->path);
            return false;
        }
    }
    Work build;
    build.canceled = canceled;
    onTwoCores(int(files.size()), build, [&](int i, QString *message) {
        return buildFile(*files.at(i), payloads, installed, staging, message);
    });
    if (canceled && *canceled && !build.failed)
        build.fail(QStringLiteral("canceled"));
    if (build.failed) {
        *error = build.error;
        return false;
    }
    for (const Entry *e : std::as_const(links)) {
        const QString path = staging + QLatin1Char('/') + e->path;
        const int slash = e->path.lastIndexOf(QLatin1Char('/'));
        if ((slash > 0 && !QDir().mkpath(staging + QLatin1Char('/') + e->path.left(slash)))
            || ::symlink(QFile::encodeName(e->target).constData(),
                         QFile::encodeName(path).constData())
                != 0) {
            *error = QStringLiteral("cannot create the link %1").arg(e->path);
            return false;
        }
    }
    // Deepest first, so that a read-only folder does not stop the ones inside it.
    for (auto it = folders.crbegin(); it != folders.crend(); ++it)
        ::chmod(QFile::encodeName(staging + QLatin1Char('/') + (*it)->path).constData(),
                mode_t((*it)->mode));
    return true;
}

} // namespace qv
