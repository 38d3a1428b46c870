#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QTcpServer>

#include <functional>

class QTcpSocket;

/// A loopback HTTP/1.1 server whose every answer is chosen by the test, including broken ones:
/// a stalled or dripping body, a body cut short or longer than announced, a hang-up, a redirect.
class TestHttpServer : public QTcpServer {
    Q_OBJECT

public:
    struct Response {
        enum Mode {
            Normal, ///< headers and body, then close
            CutShort, ///< announce the body's size plus `missing`, send the body, hang up
            Stall, ///< headers and the first `sendBeforeStall` bytes, then nothing
            Drip, ///< the body one byte every `dripIntervalMs`
            HangUp, ///< close without answering
        };
        int status = 200;
        QByteArray body;
        QList<QPair<QByteArray, QByteArray>> headers;
        Mode mode = Normal;
        qint64 announcedLength = -1; ///< Content-Length; -1 is the body's size, -2 sends none
        qint64 missing = 0;
        qint64 sendBeforeStall = 0;
        int dripIntervalMs = 50;
        int delayMs = 0; ///< the whole answer only after this long

        static Response ok(const QByteArray &body,
                           const QByteArray &type = "application/octet-stream");
        static Response error(int status, const QByteArray &body);
        static Response redirect(int status, const QByteArray &location);
    };

    struct Request {
        QByteArray target;
        QList<QPair<QByteArray, QByteArray>> headers;
        QByteArray header(const QByteArray &name) const;
    };

    using Handler = std::function<Response(const Request &)>;

    explicit TestHttpServer(Handler handler = {}, QObject *parent = nullptr);

    void setHandler(Handler handler) { m_handler = std::move(handler); }
    QList<Request> requests() const { return m_requests; }
    /// "http://127.0.0.1:<port>" followed by `path`.
    QByteArray url(const QByteArray &path = "/") const;

private:
    void onNewConnection();
    void onReadyRead(QTcpSocket *socket);
    void respond(QTcpSocket *socket, const Request &request);
    void send(QTcpSocket *socket, const Response &r);

    Handler m_handler;
    QList<Request> m_requests;
};
