#pragma once

#include "HttpHost.h"
#include "PlatformExport.h"
#include "Sha256.h"
#include "Smart.h"

#include <QBuffer>
#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPair>
#include <QPointer>
#include <QQueue>
#include <QUrl>
#include <QVariant>

#include <functional>
#include <memory>
#include <typeinfo>

class QNetworkAccessManager;
class QNetworkReply;
class QTimer;

/// One HTTP request of the HttpClient and, once it has run, its response: a job in the manner of
/// KJob. It says when it is done with finished(), and how it ended with error() and
/// errorString(); its body is bodyDevice().
///
/// Ownership, once for all: the request owns what it is given as a handle (the output device's
/// smart pointer) and what it adopts (adoptUserData()); both go when the last RequestPtr goes.
/// An output device given as a bare pointer, and user data set with setUserData(), stay the
/// caller's.
namespace qv {

class QV_PLATFORM_EXPORT RequestData : public QObject {
    Q_OBJECT

public:
    enum Error {
        NoError,
        NetworkError, ///< refused, unreachable, cut off, or an HTTP error status from the network
                      ///< layer
        Stalled, ///< no byte for the stall timeout, or too few within the speed window
        WriteError, ///< the output device refused the body (a full disk)
        BodyTooLarge, ///< a body kept in memory passed the client's limit and was dropped
        Refused, ///< the headers handler turned the answer down before its body was written
    };
    Q_ENUM(Error)

    using Header = QList<QPair<QByteArray, QByteArray>>;

    /// Response header lookups; names compare case-insensitively, the last occurrence wins.
    class QV_PLATFORM_EXPORT ResponseHeader {
    public:
        bool hasKey(const QString &name) const;
        QString value(const QString &name) const;
        Header pairs;
    };

    RequestData();
    ~RequestData() override;

    int statusCode() const { return m_statusCode; }
    /// The device the body streams into, or null when the body is kept in memory.
    QIODevice *outputDevice() const { return m_output; }
    void setOutputDevice(QIODevice *device) { m_output = device; }
    /// The URL of the request first, then every redirection target followed.
    QList<QUrl> urls() const { return m_urls; }
    const ResponseHeader &responseHeader() const { return m_header; }
    /// The body kept in memory (empty when it streamed into an output device), open for reading.
    QBuffer *getResponseBuffer();
    QString getResponseText() const;
    /// The body: the output device, or the buffer of a body kept in memory.
    QIODevice *bodyDevice() { return m_output ? m_output : getResponseBuffer(); }
    Error error() const { return m_errorCode; }
    /// Why the request failed; empty when it completed.
    QString errorString() const { return m_error; }
    qint64 bytesReceived() const { return m_received; }
    /// A limit of this request's body kept in memory, below the client's (-1: the client's).
    void setMaximumMemoryBody(qint64 bytes) { m_maxBody = bytes; }
    /// Hashes the body with SHA-256 as it streams into the output device (no second pass over
    /// the file).
    void hashBody() { m_hash = std::make_shared<qv::Sha256>(); }
    /// Hashes on from `state`, a hash already fed with what the output device holds before the
    /// body (a resumed download).
    void hashBodyFrom(std::shared_ptr<qv::Sha256> state) { m_hash = std::move(state); }
    /// The SHA-256 of what was written; empty unless hashBody() was called.
    QByteArray bodyHash() const { return m_hash ? m_hash->result() : QByteArray(); }
    /// A header sent with the request ("Range", "If-Range").
    void setRequestHeader(const QByteArray &name, const QByteArray &value)
    {
        m_requestHeaders.append({name, value});
    }
    /// Called once the status and headers are in (statusCode() and responseHeader() are set),
    /// before any byte of the body is written; returning false ends the request as Refused.
    /// It may prepare the output device and the hash (start over, or go on after a prefix).
    void setHeadersHandler(std::function<bool(RequestData &)> handler)
    {
        m_headersHandler = std::move(handler);
    }
    /// Called after each chunk of the body is written to (and flushed into) the output device.
    void setWrittenHandler(std::function<void()> handler) { m_writtenHandler = std::move(handler); }
    /// True when a body kept in memory passed the client's limit and was dropped.
    bool bodyTooLarge() const { return m_errorCode == BodyTooLarge; }

    /// One pointer for the caller's own use.
    void *userData() const { return m_userData; }
    /// Sets the user data; the caller keeps owning what it points to.
    void setUserData(void *data)
    {
        m_adopted.reset();
        m_userDataType = nullptr;
        m_userData = data;
    }
    /// Sets the user data and takes it over: it is deleted with the request.
    template<typename T> void adoptUserData(T *data)
    {
        m_adopted = std::shared_ptr<T>(data);
        m_userDataType = &typeid(T);
        m_userData = data;
    }
    /// The adopted user data when it is a T, else null: requests are told apart by what they
    /// carry.
    template<typename T> T *userDataAs() const
    {
        return m_userDataType && *m_userDataType == typeid(T) ? static_cast<T *>(m_userData)
                                                              : nullptr;
    }

Q_SIGNALS:
    /// The request has ended, completed or failed (not when it was dropped by reset()).
    void finished();

private:
    friend class HttpClient;

    QString m_path;
    QMap<QString, QVariant> m_parameters;
    QPointer<QObject> m_receiver;
    QByteArray m_slot;
    QIODevice *m_output = nullptr;
    qvb::smart<QIODevice> m_outputHandle;
    QList<QUrl> m_urls;
    int m_statusCode = 0;
    ResponseHeader m_header;
    QBuffer m_buffer;
    QByteArray m_body;
    QString m_error;
    Error m_errorCode = NoError;
    qint64 m_received = 0;
    void *m_userData = nullptr;
    std::shared_ptr<void> m_adopted;
    std::shared_ptr<qv::Sha256> m_hash;
    Header m_requestHeaders;
    std::function<bool(RequestData &)> m_headersHandler;
    std::function<void()> m_writtenHandler;
    bool m_headersSeen = false;
    qint64 m_maxBody = -1;
    const std::type_info *m_userDataType = nullptr;
};

using RequestPtr = qvb::smart<RequestData>;

} // namespace qv

Q_DECLARE_METATYPE(qv::RequestPtr)

namespace qv {

/// Executes GET requests one at a time against the current host, through the proxy the host
/// names. A body streams into the request's output device chunk by chunk as it arrives, or is
/// kept in memory when the request has none. When a request ends (completed or failed) the
/// receiver's slot is called with it.
///
/// A transfer that stops is ended as failed: when no byte arrives for `stallTimeout()` (30 s by
/// default), or when fewer than `minimumBytes()` (1 KiB) arrive in any window of `speedWindow()`
/// (60 s) from the start of the request. A write error on the output device (a full disk) ends
/// the request too. Every request asks for the body as it is stored ("Accept-Encoding:
/// identity"); nothing is inflated on the way.
class QV_PLATFORM_EXPORT HttpClient : public QObject {
    Q_OBJECT

public:
    HttpClient();
    explicit HttpClient(const qv::HttpHost &host);
    ~HttpClient() override;

    void setHost(const qv::HttpHost &host);
    const qv::HttpHost &host() const { return m_host; }

    /// A GET request of `path` under the host (`parameters` become query items), not yet
    /// started. `output` null, or the all-ones pointer value, keeps the body in memory.
    /// `outputHandle`, when set, keeps the output device alive as long as the request.
    RequestPtr prepareGet(const QString &path, const QMap<QString, QVariant> &parameters,
                          QObject *receiver, const char *slot, QIODevice *output,
                          qvb::smart<QIODevice> outputHandle);
    /// Queues the request; it starts when the requests before it have ended.
    void execute(RequestPtr request);
    RequestPtr get(const QString &path, const QMap<QString, QVariant> &parameters,
                   QObject *receiver, const char *slot, QIODevice *output,
                   qvb::smart<QIODevice> outputHandle);

    bool isExecutingRequest() const { return !m_current.isNull() || !m_queue.isEmpty(); }
    /// The request being executed, or null.
    RequestPtr currentRequest() const { return m_current; }
    /// Drops the executing request and the queued ones without calling their slots.
    void reset();

    void setTransferLimits(int stallTimeoutMs, qint64 minimumBytes, int speedWindowMs);
    /// A body kept in memory longer than this (32 MiB unless changed; -1: no limit) ends its
    /// request as failed, with an empty body, as soon as it is announced or has arrived.
    void setMaximumMemoryBody(qint64 bytes) { m_maxMemoryBody = bytes; }
    qint64 maximumMemoryBody() const { return m_maxMemoryBody; }
    int stallTimeout() const { return m_stallTimeout; }
    qint64 minimumBytes() const { return m_minimumBytes; }
    int speedWindow() const { return m_speedWindow; }

    /// The percent-encoded path and query of a URL.
    static QString encodedUrlPath(const QUrl &url);
    static QString encodedUrlPath(const QString &url);

Q_SIGNALS:
    void requestStarted(RequestPtr request);
    void downloadProgress(int bytes, int totalBytes);

private:
    void startNext();
    void onReadyRead();
    bool headersAccepted();
    void onFinished();
    void checkSpeed();
    void reportProgress();
    void fail(RequestData::Error error, const QString &why);
    void finish();
    void releaseReply();
    bool bodyTooLarge(qint64 announced) const;

    qv::HttpHost m_host;
    QNetworkAccessManager *m_manager;
    QTimer *m_speedTimer;
    QQueue<RequestPtr> m_queue;
    RequestPtr m_current;
    QPointer<QNetworkReply> m_reply;
    qint64 m_windowStartBytes = 0;
    QElapsedTimer m_progressClock;
    int m_stallTimeout = 30000;
    qint64 m_minimumBytes = 1024;
    int m_speedWindow = 60000;
    qint64 m_maxMemoryBody = 32 * 1024 * 1024;
};

} // namespace qv
