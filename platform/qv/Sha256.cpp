#include "Sha256.h"

#include <openssl/evp.h>

#include <QString>

#include <algorithm>

namespace qv {

struct Sha256::Context {
    EVP_MD_CTX *ctx = EVP_MD_CTX_new();
    ~Context() { EVP_MD_CTX_free(ctx); }
};

Sha256::Sha256() : m_context(new Context)
{
    EVP_DigestInit_ex(m_context->ctx, EVP_sha256(), nullptr);
}

Sha256::~Sha256() = default;

void Sha256::addData(QByteArrayView data)
{
    if (m_result.isEmpty())
        EVP_DigestUpdate(m_context->ctx, data.data(), size_t(data.size()));
}

QByteArray Sha256::result()
{
    if (m_result.isEmpty()) {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int size = 0;
        EVP_DigestFinal_ex(m_context->ctx, digest, &size);
        m_result = QByteArray(reinterpret_cast<const char *>(digest), int(size));
    }
    return m_result;
}

QByteArray Sha256::hash(QByteArrayView data)
{
    Sha256 h;
    h.addData(data);
    return h.result();
}

bool Sha256::isHexDigest(const QString &text)
{
    return text.size() == 64 && std::all_of(text.cbegin(), text.cend(), [](QChar c) {
               return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f');
           });
}

} // namespace qv
