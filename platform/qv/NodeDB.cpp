#include "NodeDB.h"

#include "LogQt.h"

namespace qv {

NetworkProxy::NetworkProxy(const QString &address, quint16 port, const QString &user,
                           const QString &password)
    : m_use(!address.isEmpty()),
      m_address(address),
      m_port(port),
      m_user(user),
      m_password(password)
{
}

QNetworkProxy NetworkProxy::toQNetworkProxy() const
{
    if (!m_use)
        return QNetworkProxy(QNetworkProxy::NoProxy, QString(), 0, QString(), QString());
    return QNetworkProxy(QNetworkProxy::HttpProxy, m_address, m_port, m_user, m_password);
}

NodeDB &NodeDB::getDB()
{
    static NodeDB db;
    return db;
}

NetworkProxy NodeDB::globalProxy() const
{
    MutexLocker lock(m_mutex);
    return m_globalProxy;
}

void NodeDB::setGlobalProxy(const NetworkProxy &proxy)
{
    MutexLocker lock(m_mutex);
    m_globalProxy = proxy;
}

} // namespace qv
