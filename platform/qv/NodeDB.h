#pragma once

#include "PlatformExport.h"

#include <QMutex>
#include <QNetworkProxy>
#include <QString>

namespace qv {

/// The host's proxy record.
class QV_PLATFORM_EXPORT NetworkProxy {
public:
    NetworkProxy() = default;
    NetworkProxy(const QString &address, quint16 port, const QString &user = QString(),
                 const QString &password = QString());

    bool useProxy() const { return m_use; }
    QString proxyAddress() const { return m_address; }
    quint16 proxyPort() const { return m_port; }
    QString proxyUser() const { return m_user; }
    QString proxyPassword() const { return m_password; }
    /// An HTTP proxy with address, port, user and password when one is used, else no proxy.
    QNetworkProxy toQNetworkProxy() const;

private:
    bool m_use = false;
    QString m_address;
    quint16 m_port = 0;
    QString m_user;
    QString m_password;
};

/// The host's process-wide configuration. The host sets its global proxy here; the library reads it
/// for every request.
class QV_PLATFORM_EXPORT NodeDB {
public:
    static NodeDB &getDB();

    NetworkProxy globalProxy() const;
    void setGlobalProxy(const NetworkProxy &proxy);

private:
    NodeDB() = default;
    mutable QMutex m_mutex;
    NetworkProxy m_globalProxy;
};

} // namespace qv
