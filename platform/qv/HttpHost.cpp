#include "HttpHost.h"

#include "NodeDB.h"
#include "Preferences.h"

#include <QSettings>
#include <QUrlQuery>

namespace qv {

HttpAccessHistory HttpAccessHistory::proxies;

HttpAccess::HttpAccess(const QString &host, int port, const QString &user, const QString &password)
    : m_host(host), m_port(port), m_user(user), m_password(password)
{
}

void HttpAccess::setUrl(const QUrl &url)
{
    m_secure = url.scheme().compare(u"https", Qt::CaseInsensitive) == 0;
    m_host = url.host();
    m_port = url.port(m_secure ? 443 : 80);
    m_user = url.userName();
    m_password = url.password();
}

void HttpAccess::setAddress(const QString &host, int port, bool secure)
{
    m_host = host;
    m_port = port;
    m_secure = secure;
}

void HttpAccess::parseAddress(const QString &address, int defaultPort)
{
    const QString text = address.trimmed();
    const QUrl url
        = QUrl::fromUserInput(text.contains(u"://") ? text : QStringLiteral("http://") + text);
    m_host = text.isEmpty() || !url.isValid() ? QString() : url.host();
    m_port = url.port(defaultPort);
    if (!url.userName().isEmpty()) {
        m_user = url.userName();
        m_password = url.password();
    }
}

HttpAccess::operator QString() const
{
    if (m_host.isEmpty())
        return QString();
    QUrl url;
    url.setScheme(m_secure ? QStringLiteral("https") : QStringLiteral("http"));
    url.setHost(m_host);
    if (m_port != (m_secure ? 443 : 80))
        url.setPort(m_port);
    return url.toString();
}

bool HttpAccess::operator==(const HttpAccess &other) const
{
    return m_host == other.m_host && m_port == other.m_port && m_user == other.m_user
        && m_password == other.m_password && m_secure == other.m_secure;
}

void HttpAccessHistory::add(const HttpAccess &access)
{
    m_entries.removeAll(access);
    m_entries.prepend(access);
    while (m_entries.size() > 10)
        m_entries.removeLast();
}

HttpHost::HttpHost(const HttpAccess &server, const HttpAccess &proxy, const QString &path)
    : server(server),
      proxyPreference(proxy.isEmpty() ? NoProxy : OwnProxy),
      proxy(proxy),
      path(path)
{
}

QString HttpHost::makeURL(const QString &relativePath, const QMap<QString, QVariant> &parameters,
                          bool full) const
{
    // An absolute path replaces the host's path; a relative one goes below it.
    QString pathAndQuery = path;
    if (relativePath.startsWith(u'/')) {
        pathAndQuery = relativePath;
    } else if (!relativePath.isEmpty()) {
        if (!pathAndQuery.endsWith(u'/'))
            pathAndQuery += u'/';
        pathAndQuery += relativePath;
    }
    if (!parameters.isEmpty()) {
        QUrlQuery query;
        for (auto it = parameters.cbegin(); it != parameters.cend(); ++it)
            query.addQueryItem(it.key(), it.value().toString());
        pathAndQuery
            += (pathAndQuery.contains(u'?') ? u'&' : u'?') + query.toString(QUrl::FullyEncoded);
    }
    if (!full)
        return pathAndQuery;
    const QString base = server;
    if (base.isEmpty())
        return pathAndQuery;
    if (!pathAndQuery.isEmpty() && !pathAndQuery.startsWith(u'/'))
        return base + u'/' + pathAndQuery;
    return base + pathAndQuery;
}

void HttpHost::updateProxy(const QUrl &)
{
    switch (proxyPreference) {
    case OwnProxy:
        m_effectiveProxy = proxy.isEmpty()
            ? QNetworkProxy(QNetworkProxy::NoProxy)
            : QNetworkProxy(QNetworkProxy::HttpProxy, proxy.host(), quint16(proxy.port()),
                            proxy.user(), proxy.password());
        break;
    case ApplicationProxy:
        m_effectiveProxy = NodeDB::getDB().globalProxy().toQNetworkProxy();
        break;
    case NoProxy:
        m_effectiveProxy = QNetworkProxy(QNetworkProxy::NoProxy);
        break;
    }
}

void HttpHost::load(const QSettings &settings)
{
    const QString serverText
        = Preferences::stringValue(settings, QStringLiteral("server"), QString());
    if (!serverText.isEmpty())
        server.setUrl(QUrl(serverText));
    path = Preferences::stringValue(settings, QStringLiteral("path"), path);
    const int preference
        = Preferences::intValue(settings, QStringLiteral("proxy-pref"), proxyPreference);
    if (preference >= NoProxy && preference <= ApplicationProxy)
        proxyPreference = ProxyPreference(preference);
    const QString proxyText
        = Preferences::stringValue(settings, QStringLiteral("proxy"), QString());
    if (!proxyText.isEmpty())
        proxy.parseAddress(proxyText, 80);
    const QString user
        = Preferences::stringValue(settings, QStringLiteral("proxy-user"), proxy.user());
    const QString password
        = Preferences::stringValue(settings, QStringLiteral("proxy-password"), proxy.password());
    proxy = HttpAccess(proxy.host(), proxy.port(), user, password);
}

void HttpHost::store(QSettings &settings, bool withPassword) const
{
    settings.setValue(QStringLiteral("server"), QString(server));
    settings.setValue(QStringLiteral("path"), path);
    settings.setValue(QStringLiteral("proxy-pref"), int(proxyPreference));
    settings.setValue(QStringLiteral("proxy"),
                      proxy.isEmpty() ? QString()
                                      : proxy.host() + u':' + QString::number(proxy.port()));
    settings.setValue(QStringLiteral("proxy-user"), proxy.user());
    if (withPassword)
        settings.setValue(QStringLiteral("proxy-password"), proxy.password());
}

} // namespace qv
