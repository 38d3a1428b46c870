#pragma once

#include <QByteArray>
#include <QString>

/// Signs files the way minisign does, with a minisign secret key file, so that each tool
/// verifies the other's signatures. Only the pre-hashed form is written (minisign's default).
class SecretKey {
public:
    /// Reads a minisign secret key file; an encrypted one needs its password (with a null
    /// `password` it is only found to be encrypted). On failure isValid() is false and error()
    /// says why.
    static SecretKey load(const QString &path, const QByteArray &password);
    bool isValid() const { return m_secret.size() == 64; }
    QString error() const { return m_error; }
    bool isEncrypted() const { return m_encrypted; }

    /// The text of a .minisig file for `message`.
    QByteArray sign(const QByteArray &message, const QString &trustedComment) const;

private:
    QByteArray m_id; ///< 8 bytes
    QByteArray m_secret; ///< 64 bytes (Ed25519 secret key with its public half)
    bool m_encrypted = false;
    QString m_error;
};
