#pragma once

#include <QDir>
#include <QTcpServer>

#include <functional>

/// Serves the regular files below one folder over HTTP/1.0 GET and HEAD, for testing: nothing
/// outside the folder (no "..", no links out), no hidden file and no "*.key", one answer per
/// connection; files stream as the connection takes them.
class StaticServer : public QTcpServer {
public:
    explicit StaticServer(const QString &folder, QObject *parent = nullptr);
    /// Called with one line per request: method, path, status and the bytes of the body.
    void setLog(std::function<void(const QString &)> log) { m_log = std::move(log); }

private:
    void answer(QTcpSocket *socket);

    QDir m_root;
    std::function<void(const QString &)> m_log;
};
