#pragma once

#include "PlatformExport.h"

#include <QList>
#include <QMap>
#include <QNetworkProxy>
#include <QString>
#include <QUrl>
#include <QVariant>

class QSettings;

namespace qv {

/// Where to reach a server or a proxy: host, port and optional credentials.
class QV_PLATFORM_EXPORT HttpAccess {
public:
    HttpAccess() = default;
    HttpAccess(const QString &host, int port, const QString &user = QString(),
               const QString &password = QString());

    /// Takes scheme, host, port (80, or 443 for https, when the URL names none) and credentials.
    void setUrl(const QUrl &url);
    /// Sets host and port; `secure` selects https instead of http.
    void setAddress(const QString &host, int port, bool secure);
    /// Reads "host", "host:port" or a URL; a missing port becomes `defaultPort`.
    void parseAddress(const QString &address, int defaultPort);

    QString host() const { return m_host; }
    int port() const { return m_port; }
    QString user() const { return m_user; }
    QString password() const { return m_password; }
    bool isSecure() const { return m_secure; }
    bool isEmpty() const { return m_host.isEmpty(); }

    /// "http://host:port" (credentials left out), or an empty text without a host.
    operator QString() const;
    bool operator==(const HttpAccess &other) const;

private:
    QString m_host;
    int m_port = 80;
    QString m_user;
    QString m_password;
    bool m_secure = false;
};

/// The proxies used so far, most recent first, without duplicates, at most ten.
class QV_PLATFORM_EXPORT HttpAccessHistory {
public:
    static HttpAccessHistory proxies;

    void add(const HttpAccess &access);
    QList<HttpAccess> entries() const { return m_entries; }

private:
    QList<HttpAccess> m_entries;
};

/// A server together with the way to reach it: the server access, the path on the server, and
/// the proxy preference with a proxy of its own.
class QV_PLATFORM_EXPORT HttpHost {
public:
    enum ProxyPreference {
        NoProxy = 0, ///< connect directly
        OwnProxy = 1, ///< use this host's proxy access
        ApplicationProxy = 2, ///< use the host application's global proxy (qv::NodeDB)
    };

    HttpHost() = default;
    /// A host reached through `proxy` (OwnProxy), or directly when `proxy` is empty.
    HttpHost(const HttpAccess &server, const HttpAccess &proxy, const QString &path);

    HttpAccess server;
    ProxyPreference proxyPreference = NoProxy;
    HttpAccess proxy;
    QString path;

    /// The URL of `relativePath` under the host's path (an absolute path, starting with "/",
    /// replaces the host's path), with `parameters` as query items. With
    /// `full` the text starts with scheme and authority; without, it is path and query only.
    QString makeURL(const QString &relativePath, const QMap<QString, QVariant> &parameters,
                    bool full) const;
    /// Recomputes the proxy in force for requests to `target` from the preference.
    void updateProxy(const QUrl &target);
    /// The proxy in force since the last updateProxy().
    QNetworkProxy networkProxy() const { return m_effectiveProxy; }

    /// Reads the keys "server", "path", "proxy-pref", "proxy", "proxy-user" and "proxy-password"
    /// of the current group; missing or unreadable keys leave the value as it is.
    void load(const QSettings &settings);
    /// Writes those keys; the proxy password only when `withPassword` is true.
    void store(QSettings &settings, bool withPassword) const;

private:
    QNetworkProxy m_effectiveProxy {QNetworkProxy::NoProxy};
};

} // namespace qv
