// Unpacks a 256 MiB ZIP (2,000 small files and three large ones) with qv::Unzipper and, in the
// same run, with bsdtar; prints the speed ratio (bsdtar time / our time, best of five each).

#include <qv/Unzipper.h>
#include <qv/ZipReader.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QStorageInfo>
#include <QTemporaryDir>

#include <cstdio>

#include <unistd.h>

namespace {

// Text-like content that compresses about as well as program files do.
QByteArray content(qint64 size, quint32 seed)
{
    QRandomGenerator random(seed);
    static const char words[][9]
        = {"camera", "viewer", "stream", "record", "0x1f2e", "frame", "lens", "focus"};
    QByteArray out;
    out.reserve(size);
    while (out.size() < size) {
        out += words[random.bounded(8)];
        out += char(random.bounded(2) ? ' ' : '\n');
        if (random.bounded(16) == 0)
            out += QByteArray::number(random.generate(), 16);
    }
    out.truncate(size);
    return out;
}

bool write(const QString &path, const QByteArray &data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(data) == data.size();
}

double timeOurs(const QString &zip, const QString &target)
{
    QDir(target).removeRecursively();
    ::sync(); // start each run without the previous run's writes still pending
    QElapsedTimer t;
    t.start();
    qv::Unzipper unzipper(zip, target, false);
    QSignalSpy done(&unzipper, &qv::Unzipper::unzippingDone);
    QSignalSpy failed(&unzipper, &qv::Unzipper::unzippingFailed);
    while (done.isEmpty() && failed.isEmpty())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    const double s = t.nsecsElapsed() / 1e9;
    if (!failed.isEmpty())
        std::printf("!! unzipper failed: %s\n", qPrintable(failed.first().first().toString()));
    return s;
}

double timeBsdtar(const QString &zip, const QString &target)
{
    QDir(target).removeRecursively();
    QDir().mkpath(target);
    ::sync();
    QElapsedTimer t;
    t.start();
    const int rc = QProcess::execute(QStringLiteral("bsdtar"),
                                     {QStringLiteral("-xf"), zip, QStringLiteral("-C"), target});
    const double s = t.nsecsElapsed() / 1e9;
    if (rc != 0)
        std::printf("!! bsdtar failed (%d)\n", rc);
    return s;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/unzip-bench-XXXXXX"));
    const QString source = dir.filePath(QStringLiteral("source"));
    for (int i = 0; i < 2000; ++i)
        write(source + QStringLiteral("/share/part%1/file%2.dat").arg(i % 20).arg(i),
              content(32 * 1024, quint32(i)));
    for (int i = 0; i < 3; ++i)
        write(source + QStringLiteral("/lib/large%1.bin").arg(i),
              content(64 << 20, quint32(10000 + i)));
    const QString zip = dir.filePath(QStringLiteral("package.zip"));
    if (QProcess::execute(QStringLiteral("bsdtar"),
                          {QStringLiteral("-a"), QStringLiteral("-cf"), zip, QStringLiteral("-C"),
                           source, QStringLiteral(".")})
        != 0) {
        std::printf("unzip bench skipped: bsdtar could not make the archive\n");
        return 0;
    }
    QDir(source).removeRecursively();
    qv::ZipReader::setDefaultLimits({qint64(1) << 32, 100000});

    // Unpacked into memory (tmpfs) where there is room, so that disk write-back, which comes and
    // goes, does not decide the comparison.
    QString outBase = dir.path();
    QScopedPointer<QTemporaryDir> shm;
    if (QStorageInfo(QStringLiteral("/dev/shm")).bytesAvailable() > (qint64(1) << 30)) {
        shm.reset(new QTemporaryDir(QStringLiteral("/dev/shm/unzip-bench-XXXXXX")));
        if (shm->isValid())
            outBase = shm->path();
    }
    double ours = 1e300, theirs = 1e300;
    for (int round = 0; round < 5; ++round) {
        ours = qMin(ours, timeOurs(zip, outBase + QStringLiteral("/ours")));
        QDir(outBase + QStringLiteral("/ours")).removeRecursively();
        theirs = qMin(theirs, timeBsdtar(zip, outBase + QStringLiteral("/bsdtar")));
        QDir(outBase + QStringLiteral("/bsdtar")).removeRecursively();
    }
    std::printf("== unpacking a 256 MiB ZIP (%lld MiB packed, 2,003 files; best of 5) into %s\n",
                QFileInfo(zip).size() >> 20, qPrintable(outBase));
    std::printf("Unzipper %.2f s, bsdtar %.2f s, speed ratio ours/bsdtar %.2f (goal >= 0.9)\n",
                ours, theirs, theirs / ours);
    return 0;
}
