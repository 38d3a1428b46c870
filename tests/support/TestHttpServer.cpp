#include "TestHttpServer.h"

#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

namespace {

// The client shows a server's reason phrase; the tests read only these.
QByteArray reasonPhrase(int status)
{
    return status == 200 ? "OK" : status == 404 ? "Not Found" : "Status";
}

} // namespace

TestHttpServer::Response TestHttpServer::Response::ok(const QByteArray &body,
                                                      const QByteArray &type)
{
    Response r;
    r.body = body;
    r.headers << qMakePair(QByteArray("Content-Type"), type);
    return r;
}

TestHttpServer::Response TestHttpServer::Response::error(int status, const QByteArray &body)
{
    Response r = ok(body, "text/html");
    r.status = status;
    return r;
}

TestHttpServer::Response TestHttpServer::Response::redirect(int status, const QByteArray &location)
{
    Response r;
    r.status = status;
    if (!location.isEmpty())
        r.headers << qMakePair(QByteArray("Location"), location);
    return r;
}

QByteArray TestHttpServer::Request::header(const QByteArray &name) const
{
    for (const auto &h : headers) {
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return h.second;
    }
    return QByteArray();
}

TestHttpServer::TestHttpServer(Handler handler, QObject *parent)
    : QTcpServer(parent), m_handler(std::move(handler))
{
    connect(this, &QTcpServer::newConnection, this, &TestHttpServer::onNewConnection);
}

QByteArray TestHttpServer::url(const QByteArray &path) const
{
    return "http://127.0.0.1:" + QByteArray::number(serverPort()) + path;
}

void TestHttpServer::onNewConnection()
{
    while (QTcpSocket *socket = nextPendingConnection()) {
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
    }
}

void TestHttpServer::onReadyRead(QTcpSocket *socket)
{
    QByteArray buffered = socket->property("buffered").toByteArray() + socket->readAll();
    const qsizetype end = buffered.indexOf("\r\n\r\n");
    if (end < 0) {
        socket->setProperty("buffered", buffered);
        return;
    }
    socket->setProperty("buffered", QByteArray());
    const QList<QByteArray> lines = buffered.left(end).split('\n');
    Request request;
    const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
    request.target = first.value(1);
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines.at(i).indexOf(':');
        if (colon > 0)
            request.headers << qMakePair(lines.at(i).left(colon).trimmed(),
                                         lines.at(i).mid(colon + 1).trimmed());
    }
    m_requests << request;
    respond(socket, request);
}

void TestHttpServer::respond(QTcpSocket *socket, const Request &request)
{
    const Response r
        = m_handler ? m_handler(request) : Response::error(404, "<html>no handler</html>");
    QPointer<QTcpSocket> guard(socket);
    QTimer::singleShot(r.delayMs, this, [this, guard, r] {
        if (guard)
            send(guard, r);
    });
}

void TestHttpServer::send(QTcpSocket *socket, const Response &r)
{
    if (r.mode == Response::HangUp) {
        socket->disconnectFromHost();
        return;
    }
    qint64 length = r.announcedLength >= 0 ? r.announcedLength : r.body.size();
    if (r.mode == Response::CutShort)
        length = r.body.size() + r.missing;
    QByteArray head
        = "HTTP/1.1 " + QByteArray::number(r.status) + ' ' + reasonPhrase(r.status) + "\r\n";
    for (const auto &h : r.headers)
        head += h.first + ": " + h.second + "\r\n";
    if (r.announcedLength != -2)
        head += "Content-Length: " + QByteArray::number(length) + "\r\n";
    head += "Connection: close\r\n\r\n";
    socket->write(head);

    switch (r.mode) {
    case Response::Normal:
    case Response::CutShort:
        socket->write(r.body);
        socket->disconnectFromHost();
        break;
    case Response::Stall:
        socket->write(r.body.left(r.sendBeforeStall));
        break;
    case Response::Drip: {
        auto *timer = new QTimer(socket);
        auto sent = std::make_shared<qint64>(0);
        const QByteArray body = r.body;
        QPointer<QTcpSocket> guard(socket);
        connect(timer, &QTimer::timeout, socket, [guard, timer, sent, body] {
            if (!guard || !timer->isActive())
                return;
            if (*sent < body.size()) {
                guard->write(body.mid((*sent)++, 1));
            } else {
                timer->stop();
                guard->disconnectFromHost();
            }
        });
        timer->start(r.dripIntervalMs);
        break;
    }
    case Response::HangUp:
        break;
    }
}
