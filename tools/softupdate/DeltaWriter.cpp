#include "DeltaWriter.h"

#include <qv/DeltaPackage.h>
#include <qv/Exceptions.h>
#include <qv/Sha256.h>
#include <qv/ZipReader.h>

#include <zstd.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QMap>
#include <QProcess>
#include <QSaveFile>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using qv::DeltaPackage;
using Entry = DeltaPackage::Entry;
using Operation = DeltaPackage::Operation;
using Codec = DeltaPackage::Codec;

struct Node {
    Operation kind = Operation::Add; ///< Add for a file, Link or Folder
    int mode = 0644;
    QString target;
};

// Every file, link and folder under `root`, by relative path.
bool collect(const QString &root, QMap<QString, Node> *out, QString *error)
{
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString relative = path.mid(root.size() + 1);
        struct stat st;
        if (::lstat(QFile::encodeName(path).constData(), &st) != 0) {
            *error = QStringLiteral("cannot read %1").arg(path);
            return false;
        }
        Node node;
        node.mode = int(st.st_mode & 0777);
        if (S_ISLNK(st.st_mode)) {
            node.kind = Operation::Link;
            // As written, not resolved.
            char target[4096];
            const ssize_t length
                = ::readlink(QFile::encodeName(path).constData(), target, sizeof target - 1);
            node.target = QFile::decodeName(QByteArray(target, int(qMax<ssize_t>(0, length))));
        } else if (S_ISDIR(st.st_mode)) {
            node.kind = Operation::Folder;
        } else if (!S_ISREG(st.st_mode)) {
            *error = QStringLiteral("%1 is neither a file, a folder nor a link").arg(relative);
            return false;
        } else if (st.st_size > DeltaPackage::kMaxFileSize) {
            *error = QStringLiteral("%1 is larger than 1 GiB").arg(relative);
            return false;
        }
        out->insert(relative, node);
    }
    return true;
}

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// zstd, with `prefix` (the installed file) as what the new file is described against.
QByteArray zstdEncode(const QByteArray &data, const QByteArray *prefix, int level)
{
    ZSTD_CCtx *context = ZSTD_createCCtx();
    ZSTD_CCtx_setParameter(context, ZSTD_c_compressionLevel, level);
    if (prefix) {
        const qint64 largest = qMax(data.size(), prefix->size());
        int windowLog = 10;
        while (windowLog < 30 && (qint64(1) << windowLog) < largest)
            ++windowLog;
        ZSTD_CCtx_setParameter(context, ZSTD_c_windowLog, windowLog);
        if (largest > (8 << 20))
            ZSTD_CCtx_setParameter(context, ZSTD_c_enableLongDistanceMatching, 1);
        ZSTD_CCtx_refPrefix(context, prefix->constData(), size_t(prefix->size()));
    }
    QByteArray out(qsizetype(ZSTD_compressBound(size_t(data.size()))), Qt::Uninitialized);
    const size_t written = ZSTD_compress2(context, out.data(), size_t(out.size()), data.constData(),
                                          size_t(data.size()));
    ZSTD_freeCCtx(context);
    if (ZSTD_isError(written))
        return QByteArray();
    out.truncate(qsizetype(written));
    return out;
}

// Debian's bsdiff, when it is installed; an empty result otherwise.
QByteArray bsdiffEncode(const QString &oldFile, const QString &newFile, const QString &scratch)
{
    static const QString tool = QStandardPaths::findExecutable(QStringLiteral("bsdiff"));
    if (tool.isEmpty())
        return QByteArray();
    const QString patch = scratch + QStringLiteral("/patch");
    QProcess run;
    run.start(tool, {oldFile, newFile, patch});
    if (!run.waitForFinished(-1) || run.exitStatus() != QProcess::NormalExit || run.exitCode() != 0)
        return QByteArray();
    const QByteArray out = readAll(patch);
    QFile::remove(patch);
    return out;
}

// A package is unpacked into `scratch`; a folder is taken as it is.
QString versionFolder(const QString &path, const QString &scratch, QString *error)
{
    const QFileInfo info(path);
    if (info.isDir())
        return DeltaWriter::applicationFolder(QDir::cleanPath(info.absoluteFilePath()));
    try {
        qv::ZipReader archive(path);
        archive.open(QIODevice::ReadOnly);
        archive.extractAll(scratch, false);
    } catch (const qv::ExceptionQt &e) {
        *error = QStringLiteral("cannot unpack %1: %2").arg(path, e.message());
        return QString();
    }
    return DeltaWriter::applicationFolder(scratch);
}

} // namespace

QString DeltaWriter::applicationFolder(const QString &root)
{
    QString folder = root;
    for (;;) {
        const QFileInfoList entries = QDir(folder).entryInfoList(
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
        if (entries.size() != 1 || !entries.first().isDir() || entries.first().isSymLink())
            return folder;
        folder = entries.first().filePath();
    }
}

bool DeltaWriter::write(const QString &oldPath, const QString &newPath, const QString &output,
                        const Options &options, Summary *summary, QString *error)
{
    QTemporaryDir scratch;
    if (!scratch.isValid()) {
        *error = QStringLiteral("cannot create a temporary folder");
        return false;
    }
    QDir(scratch.path()).mkpath(QStringLiteral("old"));
    QDir(scratch.path()).mkpath(QStringLiteral("new"));
    const QString oldRoot = versionFolder(oldPath, scratch.filePath(QStringLiteral("old")), error);
    const QString newRoot = oldRoot.isEmpty()
        ? QString()
        : versionFolder(newPath, scratch.filePath(QStringLiteral("new")), error);
    QMap<QString, Node> oldNodes, newNodes;
    if (newRoot.isEmpty() || !collect(oldRoot, &oldNodes, error)
        || !collect(newRoot, &newNodes, error))
        return false;

    // The old files by content, so that a renamed file is copied, not sent again.
    QHash<QByteArray, QString> oldByHash;
    QHash<QString, QByteArray> oldHashes;
    for (auto it = oldNodes.cbegin(); it != oldNodes.cend(); ++it) {
        if (it->kind != Operation::Add)
            continue;
        const QByteArray hash = qv::Sha256::hash(readAll(oldRoot + QLatin1Char('/') + it.key()));
        oldHashes.insert(it.key(), hash);
        if (!oldByHash.contains(hash))
            oldByHash.insert(hash, it.key());
    }

    QFile payloads(scratch.filePath(QStringLiteral("payloads")));
    if (!payloads.open(QIODevice::ReadWrite)) {
        *error = QStringLiteral("cannot write in the temporary folder");
        return false;
    }
    DeltaPackage::Manifest manifest;
    manifest.fromRelease = options.fromRelease;
    manifest.toRelease = options.toRelease;
    *summary = Summary();
    const auto addPayload = [&payloads](Entry &e, Codec codec, const QByteArray &data) {
        e.codec = codec;
        e.offset = payloads.pos();
        e.length = data.size();
        return payloads.write(data) == data.size();
    };
    for (auto it = newNodes.cbegin(); it != newNodes.cend(); ++it) {
        Entry e;
        e.path = it.key();
        e.mode = it->mode;
        e.operation = it->kind;
        if (it->kind == Operation::Link) {
            e.target = it->target;
            // The client refuses such a delta; the publisher hears it first.
            DeltaPackage::Manifest probe;
            probe.entries = {e};
            QString refused;
            if (!DeltaPackage::readManifest(DeltaPackage::header(DeltaPackage::manifestJson(probe)),
                                            &probe, &refused)) {
                *error = refused;
                return false;
            }
            ++summary->links;
        }
        if (it->kind != Operation::Add) {
            manifest.entries << e;
            continue;
        }
        const QString newFile = newRoot + QLatin1Char('/') + e.path;
        const QByteArray data = readAll(newFile);
        e.size = data.size();
        e.sha256 = qv::Sha256::hash(data);
        if (oldHashes.value(e.path) == e.sha256 || oldByHash.contains(e.sha256)) {
            e.operation = Operation::Copy;
            e.source = oldHashes.value(e.path) == e.sha256 ? e.path : oldByHash.value(e.sha256);
            e.sourceSha256 = e.sha256;
            ++summary->copied;
            manifest.entries << e;
            continue;
        }
        // The smallest of: the file compressed alone, a zstd patch, a bsdiff patch.
        QByteArray best = zstdEncode(data, nullptr, options.level);
        Codec codec = Codec::Zstd;
        if (best.isEmpty() || best.size() >= data.size()) {
            best = data;
            codec = Codec::Raw;
        }
        const auto old = oldNodes.constFind(e.path);
        if (old != oldNodes.cend() && old->kind == Operation::Add) {
            const QString oldFile = oldRoot + QLatin1Char('/') + e.path;
            const QByteArray source = readAll(oldFile);
            if (options.codecs != Codecs::Bsdiff) {
                const QByteArray patch = zstdEncode(data, &source, options.level);
                if (!patch.isEmpty() && patch.size() < best.size()) {
                    best = patch;
                    codec = Codec::Zstd;
                    e.operation = Operation::Patch;
                }
            }
            if (options.codecs != Codecs::Zstd
                && qMax(source.size(), data.size()) <= options.bsdiffLimit) {
                const QByteArray patch = bsdiffEncode(oldFile, newFile, scratch.path());
                if (!patch.isEmpty()
                    && (patch.size() < best.size() || options.codecs == Codecs::Bsdiff)) {
                    best = patch;
                    codec = Codec::Bsdiff;
                    e.operation = Operation::Patch;
                }
            }
            if (e.operation == Operation::Patch) {
                e.source = e.path;
                e.sourceSha256 = oldHashes.value(e.path);
            }
        }
        if (!addPayload(e, codec, best)) {
            *error = QStringLiteral("cannot write in the temporary folder");
            return false;
        }
        if (e.operation == Operation::Add)
            ++summary->added;
        else if (codec == Codec::Zstd)
            ++summary->zstdPatches;
        else
            ++summary->bsdiffPatches;
        manifest.entries << e;
    }
    for (auto it = oldNodes.cbegin(); it != oldNodes.cend(); ++it) {
        if (!newNodes.contains(it.key())) {
            manifest.deleted << it.key();
            ++summary->deleted;
        }
    }

    const QByteArray json = DeltaPackage::manifestJson(manifest);
    if (json.size() > DeltaPackage::kMaxManifest) {
        *error = QStringLiteral("the new version has too many files for one delta");
        return false;
    }
    QSaveFile out(output);
    bool written = out.open(QIODevice::WriteOnly) && out.write(DeltaPackage::header(json)) >= 0
        && payloads.seek(0);
    while (written && !payloads.atEnd())
        written = out.write(payloads.read(4 << 20)) >= 0;
    if (!written || !out.commit()) {
        *error = QStringLiteral("cannot write %1").arg(output);
        return false;
    }
    summary->size = QFileInfo(output).size();
    return true;
}
