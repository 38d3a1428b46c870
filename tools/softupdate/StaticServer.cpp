#include "StaticServer.h"

#include <QFile>
#include <QFileInfo>
#include <QTcpSocket>
#include <QUrl>

StaticServer::StaticServer(const QString &folder, QObject *parent)
    : QTcpServer(parent), m_root(QFileInfo(folder).canonicalFilePath())
{
    connect(this, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = nextPendingConnection()) {
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { answer(socket); });
        }
    });
}

void StaticServer::answer(QTcpSocket *socket)
{
    if (socket->property("answered").toBool() || !socket->canReadLine())
        return;
    socket->setProperty("answered", true);
    const QList<QByteArray> request = socket->readLine(8192).trimmed().split(' ');
    const QString path
        = QUrl::fromPercentEncoding(QUrl(QString::fromLatin1(request.value(1))).path().toUtf8());
    const QString file = QFileInfo(m_root.filePath(path.mid(1))).canonicalFilePath();
    QByteArray head;
    QFile f(file);
    const bool inside = !file.isEmpty() && file.startsWith(m_root.path() + QLatin1Char('/'));
    if (request.value(0) != "GET" || !inside || !QFileInfo(file).isFile()
        || !f.open(QIODevice::ReadOnly)) {
        socket->write("HTTP/1.0 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    } else {
        socket->write(
            "HTTP/1.0 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: "
            + QByteArray::number(f.size()) + "\r\nConnection: close\r\n\r\n");
        while (!f.atEnd())
            socket->write(f.read(1 << 20));
    }
    socket->disconnectFromHost();
}
