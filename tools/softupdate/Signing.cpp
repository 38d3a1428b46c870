#include "Signing.h"

#include <QFile>

#include <sodium.h>

namespace {

const QByteArray kUntrusted = "untrusted comment: ";

quint64 littleEndian64(const QByteArray &bytes)
{
    quint64 value = 0;
    for (int i = 7; i >= 0; --i)
        value = (value << 8) | quint8(bytes.at(i));
    return value;
}

QByteArray blake2b(const QByteArray &data, int size)
{
    QByteArray out(size, 0);
    crypto_generichash(reinterpret_cast<unsigned char *>(out.data()), size_t(size),
                       reinterpret_cast<const unsigned char *>(data.constData()),
                       quint64(data.size()), nullptr, 0);
    return out;
}

} // namespace

SecretKey SecretKey::load(const QString &path, const QByteArray &password)
{
    SecretKey key;
    if (sodium_init() < 0) {
        key.m_error = QStringLiteral("libsodium could not be initialised");
        return key;
    }
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly) || f.size() > 4096) {
        key.m_error = QStringLiteral("cannot read the secret key %1").arg(path);
        return key;
    }
    const QList<QByteArray> lines = f.readAll().split('\n');
    const auto decoded = QByteArray::fromBase64Encoding(lines.value(1).trimmed(),
                                                        QByteArray::AbortOnBase64DecodingErrors);
    // Layout: signature algorithm "Ed", key derivation "Sc" (scrypt) or none, checksum "B2",
    // salt (32), ops limit (8), memory limit (8), then key id (8), secret key (64) and
    // checksum (32), those 104 bytes encrypted with the derived stream when there is one.
    const QByteArray raw = decoded ? decoded.decoded : QByteArray();
    if (!lines.value(0).startsWith(kUntrusted) || raw.size() != 158 || !raw.startsWith("Ed")
        || raw.mid(4, 2) != "B2") {
        key.m_error = QStringLiteral("%1 is not a minisign secret key").arg(path);
        return key;
    }
    QByteArray keynum = raw.mid(54, 104);
    const QByteArray kdf = raw.mid(2, 2);
    if (kdf == "Sc") {
        key.m_encrypted = true;
        if (password.isNull()) { // asked for first: the derivation takes seconds
            key.m_error = QStringLiteral("%1 is encrypted: its password is needed").arg(path);
            return key;
        }
        QByteArray stream(keynum.size(), 0);
        if (crypto_pwhash_scryptsalsa208sha256(
                reinterpret_cast<unsigned char *>(stream.data()), quint64(stream.size()),
                password.constData(), quint64(password.size()),
                reinterpret_cast<const unsigned char *>(raw.constData() + 6),
                littleEndian64(raw.mid(38, 8)), size_t(littleEndian64(raw.mid(46, 8))))
            != 0) {
            key.m_error = QStringLiteral("the key derivation failed (out of memory?)");
            return key;
        }
        for (int i = 0; i < keynum.size(); ++i)
            keynum[i] = char(keynum.at(i) ^ stream.at(i));
    } else if (kdf != QByteArray(2, 0)) {
        key.m_error = QStringLiteral("%1 uses an unknown key derivation").arg(path);
        return key;
    }
    const QByteArray checksum = keynum.mid(72, 32);
    if (key.m_encrypted && blake2b("Ed" + keynum.left(72), 32) != checksum) {
        key.m_error = QStringLiteral("wrong password for %1").arg(path);
        return key;
    }
    key.m_id = keynum.left(8);
    key.m_secret = keynum.mid(8, 64);
    sodium_memzero(keynum.data(), size_t(keynum.size()));
    return key;
}

QByteArray SecretKey::sign(const QByteArray &message, const QString &trustedComment) const
{
    const auto detached = [this](const QByteArray &data) {
        QByteArray sig(crypto_sign_BYTES, 0);
        crypto_sign_detached(reinterpret_cast<unsigned char *>(sig.data()), nullptr,
                             reinterpret_cast<const unsigned char *>(data.constData()),
                             quint64(data.size()),
                             reinterpret_cast<const unsigned char *>(m_secret.constData()));
        return sig;
    };
    const QByteArray signature = detached(blake2b(message, crypto_generichash_BYTES_MAX));
    const QByteArray comment = trustedComment.toUtf8();
    const QByteArray global = detached(signature + comment);
    return kUntrusted + "signature from softupdate secret key\n"
        + QByteArray("ED" + m_id + signature).toBase64() + "\ntrusted comment: " + comment + '\n'
        + global.toBase64() + '\n';
}
