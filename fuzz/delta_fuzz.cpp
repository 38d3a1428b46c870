// Feeds arbitrary bytes to the delta manifest reader (as a whole delta, or as the manifest's JSON
// text in a delta of 64 payload bytes) and to the BSDIFF40 apply loop. The first byte chooses;
// besides crashes and sanitizer reports, it checks that an accepted manifest holds
// only safe paths and payloads inside the delta, and that a patch never writes past its output.

#include <qv/DeltaPackage.h>

#include <QByteArray>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

using qv::DeltaPackage;

namespace {

void require(bool condition, const char *what)
{
    if (!condition) {
        std::fprintf(stderr, "broken promise: %s\n", what);
        std::abort();
    }
}

void manifest(const uint8_t *data, size_t size)
{
    DeltaPackage::Manifest m;
    QString error;
    if (!DeltaPackage::readManifest(data, qint64(size), &m, &error))
        return;
    for (const DeltaPackage::Entry &e : m.entries) {
        require(DeltaPackage::isSafeRelativePath(e.path), "safe path");
        require((e.mode & ~0777) == 0, "permission bits only");
        if (e.operation == DeltaPackage::Operation::Add
            || e.operation == DeltaPackage::Operation::Patch)
            require(e.offset >= 0 && e.length >= 0 && qint64(size) >= e.offset + e.length,
                    "payload inside the delta");
    }
}

void bspatch(const uint8_t *data, size_t size)
{
    // A fixed old file; the output size is the patch's own claim, kept small.
    static std::vector<uchar> source = [] {
        std::vector<uchar> s(4096);
        for (size_t i = 0; i < s.size(); ++i)
            s[i] = uchar(i * 7 + (i >> 5));
        return s;
    }();
    if (size < 32)
        return;
    qint64 claimed = 0;
    std::memcpy(&claimed, data + 24, 8);
    if (claimed < 0 || claimed > (1 << 20))
        return;
    // A guard zone after the output: the loop must never reach it.
    std::vector<uchar> out(size_t(claimed) + 64, 0xa5);
    QString error;
    DeltaPackage::bspatch(source.data(), qint64(source.size()), data, qint64(size), out.data(),
                          claimed, &error);
    for (size_t i = size_t(claimed); i < out.size(); ++i)
        require(out[i] == 0xa5, "nothing written past the output");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    if (data[0] % 3 == 1) {
        bspatch(data + 1, size - 1);
    } else if (data[0] % 3 == 2) {
        const QByteArray delta = DeltaPackage::header(QByteArray(
                                     reinterpret_cast<const char *>(data + 1), qsizetype(size - 1)))
            + QByteArray(64, 'p');
        manifest(reinterpret_cast<const uint8_t *>(delta.constData()), size_t(delta.size()));
    } else {
        manifest(data + 1, size - 1);
    }
    return 0;
}
