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

// Never served: hidden files and folders (".git", ".env") and minisign secret keys.
static bool isPrivate(const QString &path)
{
    const QStringList sections = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    for (const QString &section : sections) {
        if (section.startsWith(QLatin1Char('.')))
            return true;
    }
    return path.endsWith(QLatin1String(".key"), Qt::CaseInsensitive);
}

void StaticServer::answer(QTcpSocket *socket)
{
    if (socket->property("answered").toBool() || !socket->canReadLine())
        return;
    socket->setProperty("answered", true);
    const QList<QByteArray> request = socket->readLine(8192).trimmed().split(' ');
    const QByteArray method = request.value(0);
    const QString path
        = QUrl::fromPercentEncoding(QUrl(QString::fromLatin1(request.value(1))).path().toUtf8());
    const QString file = QFileInfo(m_root.filePath(path.mid(1))).canonicalFilePath();
    auto *f = new QFile(file, socket);
    const bool inside = !file.isEmpty() && file.startsWith(m_root.path() + QLatin1Char('/'));
    const auto log = [this, &method, &request](int status, qint64 bytes) {
        if (m_log)
            m_log(QStringLiteral("%1 %2 %3 %4")
                      .arg(QString::fromLatin1(method.left(16)),
                           QString::fromLatin1(request.value(1).left(2048)))
                      .arg(status)
                      .arg(bytes));
    };
    if (method != "GET" && method != "HEAD") {
        log(405, 0);
        socket->write("HTTP/1.0 405 Method Not Allowed\r\nAllow: GET, HEAD\r\nContent-Length: "
                      "0\r\nConnection: close\r\n\r\n");
        socket->disconnectFromHost();
        return;
    }
    if (!inside || isPrivate(path) || isPrivate(m_root.relativeFilePath(file))
        || !QFileInfo(file).isFile() || !f->open(QIODevice::ReadOnly)) {
        log(404, 0);
        socket->write("HTTP/1.0 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
        socket->disconnectFromHost();
        return;
    }
    socket->write("HTTP/1.0 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: "
                  + QByteArray::number(f->size()) + "\r\nConnection: close\r\n\r\n");
    if (method == "HEAD") {
        log(200, 0);
        socket->disconnectFromHost();
        return;
    }
    log(200, f->size());
    // The file streams as the socket drains: a large package is never held in memory.
    const auto more = [socket, f] {
        if (socket->bytesToWrite() > (1 << 20))
            return;
        if (f->atEnd()) {
            socket->disconnectFromHost();
            return;
        }
        socket->write(f->read(256 * 1024));
    };
    connect(socket, &QTcpSocket::bytesWritten, socket, more);
    more();
}
