#pragma once

#include <QDir>
#include <QTcpServer>

/// Serves the regular files below one folder over HTTP/1.0 GET, for development: nothing outside
/// the folder (no "..", no links out), no hidden file and no "*.key", one answer per connection;
/// files stream as the connection takes them.
class StaticServer : public QTcpServer {
public:
    explicit StaticServer(const QString &folder, QObject *parent = nullptr);

private:
    void answer(QTcpSocket *socket);

    QDir m_root;
};
