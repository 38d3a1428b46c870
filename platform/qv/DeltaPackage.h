#pragma once

#include "PlatformExport.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <atomic>

namespace qv {

/// A delta package: the files of a new application version described against an installed one.
/// One file: the 8-byte magic "SUCDELTA", the manifest's length (4 bytes, little-endian), the
/// manifest (JSON in one zstd frame), then the payloads the manifest points into. Every file of the
/// new version has its path, mode, size, SHA-256 and one operation: copied from a file of the
/// installed version (matched by hash), patched from one (zstd with the source as prefix, or
/// BSDIFF40), added from its payload, a link, or a folder. The manifest also names the installed
/// files the new version no longer has.
class QV_PLATFORM_EXPORT DeltaPackage {
public:
    enum class Operation { Copy, Patch, Add, Link, Folder };
    enum class Codec { None, Raw, Zstd, Bsdiff };

    struct Entry {
        QString path; ///< relative to the application folder, '/'-separated
        Operation operation = Operation::Add;
        int mode = 0644; ///< permission bits only
        qint64 size = 0;
        QByteArray sha256; ///< 32 bytes: the resulting file
        QString source; ///< Copy and Patch: the installed file it starts from
        QByteArray sourceSha256; ///< Patch: 32 bytes
        Codec codec = Codec::None; ///< Patch and Add
        qint64 offset = 0; ///< Patch and Add: the payload, from the end of the manifest
        qint64 length = 0;
        QString target; ///< Link
    };

    struct Manifest {
        QString fromRelease;
        QString toRelease;
        QList<Entry> entries;
        QStringList deleted;
    };

    static constexpr char kMagic[9] = "SUCDELTA";
    static constexpr int kHeaderSize = 12;
    /// The largest manifest read (decompressed): about 25,000 files.
    static constexpr qint64 kMaxManifest = 8 << 20;
    /// The largest file a delta builds (and the zstd window it may use).
    static constexpr qint64 kMaxFileSize = qint64(1) << 30;

    /// Parses and checks the manifest of `data` (the whole delta file): every path stays inside
    /// the application folder, no file lies beneath another file or a link, links point inside,
    /// payloads lie inside the file. False with `error` set otherwise.
    static bool readManifest(const QByteArray &data, Manifest *manifest, QString *error);
    static bool readManifest(const uchar *data, qint64 size, Manifest *manifest, QString *error);
    static QByteArray manifestJson(const Manifest &manifest);
    /// The first bytes of a delta file holding `manifest`; the payloads follow.
    static QByteArray header(const QByteArray &manifestJson);
    /// The manifest's JSON text; empty (with `error` set) when there is none to read.
    static QByteArray manifestText(const uchar *data, qint64 size, QString *error);
    static QByteArray manifestText(const QByteArray &delta);

    /// Builds the new version into the empty folder `staging` from the installed folder
    /// `installed` and the delta file `deltaFile`. Its SHA-256 must be `sha256` (32 bytes; empty:
    /// the caller has checked it) before anything is decoded; every source is hashed before it
    /// is used, every output file is checked against the manifest.
    /// Decoding works on memory-mapped files; the heap stays small whatever the sizes. False with
    /// `error` set on the first problem; the caller discards `staging`. `canceled` stops it.
    static bool apply(const QString &deltaFile, const QString &installed, const QString &staging,
                      QString *error, const QByteArray &sha256 = QByteArray(),
                      const std::atomic_bool *canceled = nullptr);

    /// Decodes one patch into `out` (exactly `outSize` bytes). `source` is the installed file.
    static bool decode(Codec codec, const uchar *source, qint64 sourceSize, const uchar *payload,
                       qint64 payloadLength, uchar *out, qint64 outSize, QString *error);
    /// The classic bsdiff apply loop: a BSDIFF40 patch (bzip2 streams) against `source`.
    static bool bspatch(const uchar *source, qint64 sourceSize, const uchar *patch,
                        qint64 patchLength, uchar *out, qint64 outSize, QString *error);

    /// Peak bytes the codecs held on the heap at once, over the life of the process.
    static qint64 codecHeapPeak();

    static QString codecName(Codec codec);
    static Codec codecFromName(const QString &name);
    /// A relative path that stays inside its root: no "..", ".", empty or absolute parts.
    static bool isSafeRelativePath(const QString &path);
};

} // namespace qv
