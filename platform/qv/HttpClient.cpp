#include "HttpClient.h"

#include "LogQt.h"
#include "QtHelpers.h"

#include <QFileDevice>
#include <QMetaObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTimer>

namespace qv {

namespace {

const int s_requestPtrType = qRegisterMetaType<RequestPtr>("RequestPtr");

bool isMemoryOutput(QIODevice *device)
{
    return !device || device == reinterpret_cast<QIODevice *>(quintptr(-1));
}

} // namespace

bool RequestData::ResponseHeader::hasKey(const QString &name) const
{
    const QByteArray key = name.toLatin1();
    for (const auto &pair : pairs) {
        if (pair.first.compare(key, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

QString RequestData::ResponseHeader::value(const QString &name) const
{
    const QByteArray key = name.toLatin1();
    QString found;
    for (const auto &pair : pairs) {
        if (pair.first.compare(key, Qt::CaseInsensitive) == 0)
            found = QString::fromLatin1(pair.second);
    }
    return found;
}

RequestData::RequestData()
{
    m_buffer.setBuffer(&m_body);
}

RequestData::~RequestData() = default;

QBuffer *RequestData::getResponseBuffer()
{
    if (!m_buffer.isOpen())
        m_buffer.open(QIODevice::ReadOnly);
    return &m_buffer;
}

QString RequestData::getResponseText() const
{
    return QString::fromUtf8(m_body);
}

HttpClient::HttpClient()
    : m_manager(new QNetworkAccessManager(this)), m_speedTimer(new QTimer(this))
{
    m_manager->setRedirectPolicy(QNetworkRequest::NoLessSafeRedirectPolicy);
    connect(m_speedTimer, &QTimer::timeout, this, &HttpClient::checkSpeed);
}

HttpClient::HttpClient(const qv::HttpHost &host) : HttpClient()
{
    setHost(host);
}

HttpClient::~HttpClient()
{
    reset();
}

void HttpClient::setHost(const qv::HttpHost &host)
{
    m_host = host;
}

void HttpClient::setTransferLimits(int stallTimeoutMs, qint64 minimumBytes, int speedWindowMs)
{
    m_stallTimeout = stallTimeoutMs;
    m_minimumBytes = minimumBytes;
    m_speedWindow = speedWindowMs;
}

QString HttpClient::encodedUrlPath(const QUrl &url)
{
    return QString::fromLatin1(
        url.toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority | QUrl::RemoveFragment));
}

QString HttpClient::encodedUrlPath(const QString &url)
{
    return encodedUrlPath(QUrl(url));
}

RequestPtr HttpClient::prepareGet(const QString &path, const QMap<QString, QVariant> &parameters,
                                  QObject *receiver, const char *slot, QIODevice *output,
                                  qvb::smart<QIODevice> outputHandle)
{
    RequestPtr request(new RequestData);
    request->m_path = path;
    request->m_parameters = parameters;
    request->m_receiver = receiver;
    request->m_slot = slot;
    request->m_output = isMemoryOutput(output) ? nullptr : output;
    request->m_outputHandle = outputHandle;
    return request;
}

void HttpClient::execute(RequestPtr request)
{
    if (!request)
        return;
    // The request is aimed at the host current when it is executed.
    request->m_urls = {QUrl(m_host.makeURL(request->m_path, request->m_parameters, true))};
    m_queue.enqueue(request);
    if (!m_current)
        startNext();
}

RequestPtr HttpClient::get(const QString &path, const QMap<QString, QVariant> &parameters,
                           QObject *receiver, const char *slot, QIODevice *output,
                           qvb::smart<QIODevice> outputHandle)
{
    RequestPtr request = prepareGet(path, parameters, receiver, slot, output, outputHandle);
    execute(request);
    return request;
}

void HttpClient::startNext()
{
    // A completion slot may have started the next request already.
    if (m_current || m_queue.isEmpty())
        return;
    m_current = m_queue.dequeue();
    m_host.updateProxy(m_current->m_urls.first());
    m_manager->setProxy(m_host.networkProxy());

    QNetworkRequest request(m_current->m_urls.first());
    request.setTransferTimeout(m_stallTimeout);
    // Bodies are stored exactly as served: asking for "identity" also keeps the network layer
    // from inflating a compressed answer.
    request.setRawHeader("Accept-Encoding", "identity");
    for (const auto &[name, value] : std::as_const(m_current->m_requestHeaders))
        request.setRawHeader(name, value);
    m_reply = m_manager->get(request);
    // Back-pressure: the network thread holds at most this much while the output falls behind.
    m_reply->setReadBufferSize(1 << 20);
    connect(m_reply, &QNetworkReply::readyRead, this, &HttpClient::onReadyRead);
    connect(m_reply, &QNetworkReply::metaDataChanged, this, [this] {
        if (m_reply && m_current
            && bodyTooLarge(m_reply->header(QNetworkRequest::ContentLengthHeader).toLongLong())) {
            fail(RequestData::BodyTooLarge,
                 QStringLiteral("the answer is larger than %1 bytes").arg(m_maxMemoryBody));
        }
    });
    connect(m_reply, &QNetworkReply::finished, this, &HttpClient::onFinished);
    connect(m_reply, &QNetworkReply::redirected, this, [this](const QUrl &to) {
        if (m_current)
            m_current->m_urls.append(to);
    });
    m_windowStartBytes = 0;
    m_progressClock.invalidate();
    if (m_speedWindow > 0 && m_minimumBytes > 0)
        m_speedTimer->start(m_speedWindow);

    const RequestPtr started = m_current;
    Q_EMIT requestStarted(started);
}

bool HttpClient::bodyTooLarge(qint64 announced) const
{
    const qint64 limit = m_current->m_maxBody >= 0 ? m_current->m_maxBody : m_maxMemoryBody;
    return !m_current->m_output && limit >= 0
        && (m_current->m_received > limit || announced > limit);
}

// The status and headers, once, for the request's headers handler; false when it refused them
// (the request has then failed).
bool HttpClient::headersAccepted()
{
    if (m_current->m_headersSeen || !m_current->m_headersHandler)
        return true;
    m_current->m_headersSeen = true;
    m_current->m_statusCode = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    m_current->m_header.pairs = m_reply->rawHeaderPairs();
    if (m_current->m_headersHandler(*m_current))
        return true;
    fail(RequestData::Refused,
         QStringLiteral("the answer was refused: HTTP status %1").arg(m_current->m_statusCode));
    return false;
}

void HttpClient::onReadyRead()
{
    if (!m_reply || !m_current || !headersAccepted())
        return;
    QIODevice *out = m_current->m_output;
    QFileDevice *file = qobject_cast<QFileDevice *>(out);
    static thread_local QByteArray chunk(256 * 1024, Qt::Uninitialized);
    while (m_reply->bytesAvailable() > 0) {
        const qint64 n = m_reply->read(chunk.data(), chunk.size());
        if (n <= 0)
            break;
        m_current->m_received += n;
        if (!out) {
            // A body kept in memory stops at the limit, and what came is dropped.
            if (bodyTooLarge(0)) {
                m_current->m_body.clear();
                m_current->m_body.squeeze();
                fail(RequestData::BodyTooLarge,
                     QStringLiteral("the answer is larger than %1 bytes").arg(m_maxMemoryBody));
                return;
            }
            m_current->m_body.append(chunk.constData(), n);
            continue;
        }
        // Files buffer their writes; flushing each chunk surfaces a full disk at once.
        if (out->write(chunk.constData(), n) != n || (file && !file->flush())) {
            fail(RequestData::WriteError,
                 QStringLiteral("could not write the response: %1").arg(out->errorString()));
            return;
        }
        if (m_current->m_hash)
            m_current->m_hash->addData(QByteArrayView(chunk.constData(), n));
        if (m_current->m_writtenHandler)
            m_current->m_writtenHandler();
    }
    reportProgress();
}

void HttpClient::reportProgress()
{
    // Reported from what was read, at most every 50 ms and once more at the end; the reply's
    // own progress signal may swallow a lone first chunk.
    const qint64 received = m_current->m_received;
    const qint64 total = m_reply->header(QNetworkRequest::ContentLengthHeader).toLongLong();
    const bool complete = total > 0 && received >= total;
    if (m_progressClock.isValid() && m_progressClock.elapsed() < 50 && !complete)
        return;
    m_progressClock.start();
    Q_EMIT downloadProgress(int(qMin<qint64>(received, INT_MAX)),
                            total > 0 ? int(qMin<qint64>(total, INT_MAX)) : -1);
}

void HttpClient::checkSpeed()
{
    if (!m_current)
        return;
    const qint64 now = m_current->m_received;
    if (now - m_windowStartBytes < m_minimumBytes) {
        fail(RequestData::Stalled,
             QStringLiteral("transfer too slow: %1 bytes in %2 ms")
                 .arg(now - m_windowStartBytes)
                 .arg(m_speedWindow));
        return;
    }
    m_windowStartBytes = now;
}

void HttpClient::onFinished()
{
    if (!m_reply || !m_current)
        return;
    const RequestPtr running = m_current;
    onReadyRead();
    // Failed while writing the rest (whoever heard of it may have started the next request).
    if (m_current != running)
        return;
    if (m_reply->error() != QNetworkReply::NoError) {
        m_current->m_error = m_reply->errorString();
        m_current->m_errorCode = m_reply->error() == QNetworkReply::OperationCanceledError
                || m_reply->error() == QNetworkReply::TimeoutError
            ? RequestData::Stalled
            : RequestData::NetworkError;
    }
    finish();
}

void HttpClient::fail(RequestData::Error error, const QString &why)
{
    if (!m_current)
        return;
    m_current->m_error = why;
    m_current->m_errorCode = error;
    qv::LogQt::write(lcPlatform(), qv::Log::Warning, QStringLiteral("HttpClient -> ") + why);
    finish();
}

// Detaches the running reply from this client and lets it go.
void HttpClient::releaseReply()
{
    if (QNetworkReply *reply = m_reply.data()) {
        m_reply.clear();
        reply->disconnect(this);
        reply->abort();
        reply->deleteLater();
    }
}

void HttpClient::finish()
{
    m_speedTimer->stop();
    RequestPtr done = m_current;
    m_current.reset();
    if (m_reply) {
        done->m_statusCode = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        done->m_header.pairs = m_reply->rawHeaderPairs();
        releaseReply();
    }
    // Whoever hears the outcome may delete this client (its owner).
    const QPointer<HttpClient> self(this);
    Q_EMIT done->finished();
    if (!self)
        return;
    if (done->m_receiver && !done->m_slot.isEmpty()) {
        QMetaObject::invokeMethod(done->m_receiver, qv::methodName(done->m_slot).constData(),
                                  Qt::DirectConnection, Q_ARG(RequestPtr, done));
        if (!self)
            return;
    }
    startNext();
}

void HttpClient::reset()
{
    m_queue.clear();
    m_speedTimer->stop();
    m_current.reset();
    releaseReply();
}

} // namespace qv
