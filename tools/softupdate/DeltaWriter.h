#pragma once

#include <QString>

/// Writes delta packages: the new version of an application described against an older one,
/// file by file (see qv::DeltaPackage for the format).
class DeltaWriter {
public:
    enum class Codecs { Best, Zstd, Bsdiff };

    struct Options {
        Codecs codecs = Codecs::Best;
        int level = 19; ///< zstd's level for patches and added files
        qint64 bsdiffLimit = qint64(256) << 20; ///< larger files get zstd patches only
        QString fromRelease;
        QString toRelease;
    };

    struct Summary {
        qint64 size = 0;
        int copied = 0;
        int zstdPatches = 0;
        int bsdiffPatches = 0;
        int added = 0;
        int links = 0;
        int deleted = 0;
    };

    /// `oldPath` and `newPath` are packages (ZIP or tar.gz) or folders; a package's single top
    /// folder is the application folder. False with `error` set when a version cannot be read
    /// or holds what a delta cannot carry (a link pointing outside, a file above 1 GiB).
    static bool write(const QString &oldPath, const QString &newPath, const QString &output,
                      const Options &options, Summary *summary, QString *error);
    /// The application folder of an unpacked version: single top folders are stepped into.
    static QString applicationFolder(const QString &root);
};
