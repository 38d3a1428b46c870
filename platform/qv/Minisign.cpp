#include "Minisign.h"

#include <QStringList>

#include <sodium.h>

namespace qv {

namespace {

const QByteArray kUntrusted = "untrusted comment: ";
const QByteArray kTrusted = "trusted comment: ";

bool sodiumReady()
{
    static const bool ready = sodium_init() >= 0;
    return ready;
}

QByteArray strictBase64(const QByteArray &text)
{
    const auto decoded
        = QByteArray::fromBase64Encoding(text.trimmed(), QByteArray::AbortOnBase64DecodingErrors);
    return decoded ? decoded.decoded : QByteArray();
}

QString idText(const QByteArray &id)
{
    // minisign prints the little-endian 64-bit id as one hex number
    QByteArray reversed(id.size(), 0);
    std::reverse_copy(id.cbegin(), id.cend(), reversed.begin());
    return QString::fromLatin1(reversed.toHex().toUpper());
}

bool verifyDetached(const QByteArray &signature, const QByteArray &message, const QByteArray &key)
{
    return crypto_sign_verify_detached(
               reinterpret_cast<const unsigned char *>(signature.constData()),
               reinterpret_cast<const unsigned char *>(message.constData()),
               quint64(message.size()), reinterpret_cast<const unsigned char *>(key.constData()))
        == 0;
}

} // namespace

MinisignKey MinisignKey::fromText(const QString &text)
{
    MinisignKey key;
    QByteArray line = text.toLatin1().trimmed();
    // A whole minisign.pub: the key is the line after the comment.
    const QList<QByteArray> lines = line.split('\n');
    if (lines.size() == 2 && lines.first().startsWith(kUntrusted))
        line = lines.at(1).trimmed();
    const QByteArray raw = strictBase64(line);
    if (raw.size() != 42 || !raw.startsWith("Ed"))
        return key;
    key.m_id = raw.mid(2, 8);
    key.m_key = raw.mid(10, 32);
    return key;
}

QString MinisignKey::idText() const
{
    return qv::idText(m_id);
}

Minisign::Verification Minisign::verify(const QByteArray &message, const QByteArray &signatureFile,
                                        const QList<MinisignKey> &keys)
{
    Verification out;
    if (!sodiumReady() || signatureFile.size() > maxSignatureSize)
        return out;
    QList<QByteArray> lines = signatureFile.split('\n');
    for (QByteArray &l : lines) {
        if (l.endsWith('\r'))
            l.chop(1);
    }
    while (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    if (lines.size() != 4 || !lines.at(0).startsWith(kUntrusted)
        || !lines.at(2).startsWith(kTrusted))
        return out;
    const QByteArray signature = strictBase64(lines.at(1));
    const QByteArray global = strictBase64(lines.at(3));
    if (signature.size() != 74 || global.size() != 64)
        return out;
    const QByteArray algorithm = signature.left(2);
    if (algorithm != "Ed" && algorithm != "ED")
        return out;
    const QByteArray id = signature.mid(2, 8);
    const QByteArray sig = signature.mid(10, 64);
    const QByteArray trustedComment = lines.at(2).mid(kTrusted.size());
    out.keyId = qv::idText(id);
    out.trustedComment = QString::fromUtf8(trustedComment);

    const MinisignKey *key = nullptr;
    for (const MinisignKey &k : keys) {
        if (k.isValid() && k.m_id == id)
            key = &k;
    }
    if (!key) {
        out.result = UnknownKey;
        return out;
    }
    QByteArray signedBytes = message;
    if (algorithm == "ED") {
        signedBytes = QByteArray(crypto_generichash_BYTES_MAX, 0);
        crypto_generichash(reinterpret_cast<unsigned char *>(signedBytes.data()),
                           size_t(signedBytes.size()),
                           reinterpret_cast<const unsigned char *>(message.constData()),
                           quint64(message.size()), nullptr, 0);
    }
    out.result = verifyDetached(sig, signedBytes, key->m_key)
            && verifyDetached(global, sig + trustedComment, key->m_key)
        ? Valid
        : BadSignature;
    return out;
}

QString Minisign::describe(Result result)
{
    switch (result) {
    case Valid:
        return QStringLiteral("valid signature");
    case Malformed:
        return QStringLiteral("no valid minisign signature file");
    case UnknownKey:
        return QStringLiteral("signed by a key that is not trusted");
    case BadSignature:
        return QStringLiteral("the signature does not match");
    }
    return QString();
}

} // namespace qv
