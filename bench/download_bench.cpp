// Downloads 1 GiB from a loopback server with DownloadManager::startDownload, plain and verified
// against the published SHA-256 (trusted keys set), and, from the same server in the same run,
// with curl; prints the throughput ratios ours/curl and how much our peak memory grew during the
// download. Needs 127.0.0.1:80 (package downloads always use port 80; bench/run.sh gives the
// benchmark a network namespace of its own where it can).

#include "BenchUtil.h"

#include <DownloadManager.h>

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QLoggingCategory>
#include <QProcess>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>

namespace {

constexpr qint64 kSize = qint64(1) << 30;

QByteArray bodyChunk()
{
    QByteArray chunk(256 * 1024, 'x');
    for (int i = 0; i < chunk.size(); i += 4096)
        chunk[i] = char(i / 4096);
    return chunk;
}

// The SHA-256 of the served body, as a catalogue would publish it.
QString bodySha256()
{
    const QByteArray chunk = bodyChunk();
    QCryptographicHash hash(QCryptographicHash::Sha256);
    for (qint64 sent = 0; sent < kSize; sent += chunk.size())
        hash.addData(chunk);
    return QString::fromLatin1(hash.result().toHex());
}

// Serves GET requests with a body of kSize bytes, generated as it is sent.
class BulkServer : public QTcpServer {
public:
    BulkServer()
    {
        m_chunk = bodyChunk();
        connect(this, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *s = nextPendingConnection())
                serve(s);
        });
    }

private:
    void serve(QTcpSocket *socket)
    {
        auto *sent = new qint64(-1);
        connect(socket, &QTcpSocket::disconnected, socket, [socket, sent] {
            delete sent;
            socket->deleteLater();
        });
        const auto pump = [this, socket, sent] {
            if (*sent < 0) {
                if (!socket->canReadLine() && !socket->bytesAvailable())
                    return;
                socket->readAll();
                socket->write(
                    "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: "
                    + QByteArray::number(kSize) + "\r\nConnection: close\r\n\r\n");
                *sent = 0;
            }
            while (*sent < kSize && socket->bytesToWrite() < 4 * m_chunk.size()) {
                const qint64 n = qMin<qint64>(m_chunk.size(), kSize - *sent);
                socket->write(m_chunk.constData(), n);
                *sent += n;
            }
            if (*sent >= kSize && socket->bytesToWrite() == 0)
                socket->disconnectFromHost();
        };
        connect(socket, &QTcpSocket::readyRead, socket, pump);
        connect(socket, &QTcpSocket::bytesWritten, socket, pump);
    }

    QByteArray m_chunk;
};

double oursSeconds(const QString &target, qint64 *peakGrowthKiB, const QString &sha256)
{
    qv::DownloadManager manager(QUrl(QStringLiteral("http://127.0.0.1/list.xml")));
    qv::PackageInfo package;
    package.url = QUrl(QStringLiteral("http://127.0.0.1/big.bin"));
    package.fileSize = kSize;
    if (!sha256.isEmpty()) {
        // Any readable key turns verification on; downloads check the hash, not a signature.
        const QByteArray key = "Ed" + QByteArray(40, '\1');
        manager.setTrustedKeys({QString::fromLatin1(key.toBase64())});
        package.sha256 = sha256;
    }
    QSignalSpy done(&manager, qOverload<>(&qv::DownloadManager::downloadSuccess));
    QSignalSpy failed(&manager, qOverload<int>(&qv::DownloadManager::downloadFailure));
    const qint64 before = bench::statusKiB("VmRSS:");
    bench::resetPeak();
    QElapsedTimer t;
    t.start();
    manager.startDownload(package, target);
    while (done.isEmpty() && failed.isEmpty())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
    const double seconds = t.nsecsElapsed() / 1e9;
    *peakGrowthKiB = bench::statusKiB("VmHWM:") - before;
    if (!failed.isEmpty() || QFileInfo(target).size() != kSize)
        std::printf("!! our download failed (%lld bytes)\n", QFileInfo(target).size());
    QFile::remove(target);
    return seconds;
}

double curlSeconds(const QString &target)
{
    QElapsedTimer t;
    t.start();
    const int rc = QProcess::execute(QStringLiteral("curl"),
                                     {QStringLiteral("-s"), QStringLiteral("--noproxy"),
                                      QStringLiteral("*"), QStringLiteral("-o"), target,
                                      QStringLiteral("http://127.0.0.1/big.bin")});
    const double seconds = t.nsecsElapsed() / 1e9;
    if (rc != 0 || QFileInfo(target).size() != kSize)
        std::printf("!! curl failed (rc %d)\n", rc);
    QFile::remove(target);
    return seconds;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("qv.softwareupdate.*=false"));

    QThread serverThread;
    BulkServer *server = new BulkServer;
    server->moveToThread(&serverThread);
    serverThread.start();
    bool listening = false;
    QMetaObject::invokeMethod(
        server, [server, &listening] { listening = server->listen(QHostAddress::LocalHost, 80); },
        Qt::BlockingQueuedConnection);
    if (!listening) {
        std::printf("download bench skipped: cannot listen on 127.0.0.1:80\n");
        serverThread.quit();
        serverThread.wait();
        return 0;
    }

    QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/download-bench-XXXXXX"));
    const QString target = dir.filePath(QStringLiteral("body.bin"));
    const QString sha256 = bodySha256();
    double ours = 1e300, verified = 1e300, curl = 1e300;
    qint64 growth = 0, verifiedGrowth = 0;
    for (int round = 0; round < 3; ++round) {
        qint64 g = 0;
        ours = qMin(ours, oursSeconds(target, &g, QString()));
        growth = qMax(growth, g);
        verified = qMin(verified, oursSeconds(target, &g, sha256));
        verifiedGrowth = qMax(verifiedGrowth, g);
        curl = qMin(curl, curlSeconds(target));
    }
    const double mib = double(kSize) / (1 << 20);
    std::printf("== 1 GiB package download from 127.0.0.1:80 (best of 3)\n");
    std::printf("ours %.0f MiB/s, curl %.0f MiB/s, ratio ours/curl %.2f (goal >= 0.9)\n",
                mib / ours, mib / curl, curl / ours);
    std::printf(
        "verified (SHA-256 while streaming) %.0f MiB/s, ratio verified/curl %.2f (goal >= 0.9)\n",
        mib / verified, curl / verified);
    std::printf("peak memory growth during our download: %.1f MiB, verified %.1f MiB (goal < 32)\n",
                growth / 1024.0, verifiedGrowth / 1024.0);

    QMetaObject::invokeMethod(
        server, [server] { delete server; }, Qt::BlockingQueuedConnection);
    serverThread.quit();
    serverThread.wait();
    return 0;
}
