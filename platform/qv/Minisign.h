#pragma once

#include "PlatformExport.h"

#include <QByteArray>
#include <QList>
#include <QString>

namespace qv {

/// A minisign public key (Ed25519): the base64 line of a minisign.pub file.
class QV_PLATFORM_EXPORT MinisignKey {
public:
    /// Reads the base64 line, or a whole minisign.pub text (its comment line is skipped). A text
    /// that is no key gives a key that is not valid.
    static MinisignKey fromText(const QString &text);

    bool isValid() const { return m_key.size() == 32; }
    /// The key id as minisign prints it (16 hex digits).
    QString idText() const;

private:
    friend class Minisign;
    QByteArray m_id; ///< 8 bytes, as stored
    QByteArray m_key; ///< 32 bytes
};

/// Verifies minisign signatures with libsodium: both forms minisign writes (the legacy "Ed" over
/// the bytes, the pre-hashed "ED" over their BLAKE2b-512 hash), and the global signature over
/// the trusted comment.
class QV_PLATFORM_EXPORT Minisign {
public:
    enum Result {
        Valid,
        Malformed, ///< not a minisign signature file (or larger than maxSignatureSize)
        UnknownKey, ///< signed by a key that is not among the trusted ones
        BadSignature, ///< the signature or the trusted comment does not verify
    };
    struct Verification {
        Result result = Malformed;
        QString trustedComment;
        QString keyId; ///< of the signature, as minisign prints it
    };

    /// No signature file is larger: its four lines hold two comments and 138 bytes of base64.
    static constexpr qint64 maxSignatureSize = 64 * 1024;

    /// Checks `signatureFile` (the text of a .minisig) for `message` against `keys`.
    static Verification verify(const QByteArray &message, const QByteArray &signatureFile,
                               const QList<MinisignKey> &keys);
    /// A short English text for a result, for log lines.
    static QString describe(Result result);
};

} // namespace qv
