#pragma once

#include "PlatformExport.h"

#include <QByteArray>
#include <QByteArrayView>

#include <memory>

namespace qv {

/// SHA-256 computed incrementally with OpenSSL's libcrypto, which uses the processor's SHA
/// instructions where it has them: fast enough to hash a download while it streams at full
/// speed (Qt's own implementation reaches about a fifth of that).
class QV_PLATFORM_EXPORT Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256 &) = delete;
    Sha256 &operator=(const Sha256 &) = delete;

    void addData(QByteArrayView data);
    /// The 32-byte digest of everything added; the hash cannot take more data afterwards.
    QByteArray result();

    static QByteArray hash(QByteArrayView data);
    /// True for a digest as catalogues and manifests write it: 64 lower-case hex digits.
    static bool isHexDigest(const QString &text);

private:
    struct Context;
    std::unique_ptr<Context> m_context;
    QByteArray m_result;
};

} // namespace qv
