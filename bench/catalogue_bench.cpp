// Catalogue parsing speed against a bare DOM parse of the same bytes, and the cost of hostile
// documents. Prints ratios; asserts nothing.

#include "BenchUtil.h"

#include <DownloadManager.h>

#include <QBuffer>
#include <QCoreApplication>
#include <QDomDocument>
#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QProcess>

#include <cstdio>
#include <functional>

using qv::DownloadManager;

namespace {

QByteArray package(int i)
{
    const QByteArray n = QByteArray::number(i);
    return "<package status='" + QByteArray(i % 3 ? "STABLE" : "BETA") + "'><release>2." + n
        + "</release><file url='viewer/2." + n + "/viewer-" + n
        + ".zip' file-size='12MB' release-date='"
        + QDate(2010, 1, 1).addDays(i % 1500).toString(Qt::ISODate).toLatin1()
        + " 10:00:00'/>"
          "<release-notes language='en' url='http://dl.example.test/notes/"
        + n + ".html'/></package>\n";
}

// All packages in one set, or spread over nested sets of 100 with a set per platform.
QByteArray catalogue(int packages, bool nested)
{
    QByteArray xml = "<?xml version='1.0'?>\n<softwareList base-url='http://dl.example.test/'>"
                     "<package-set type='Application' platform='linux win32'><name>Viewer</name>"
                     "<language>de en fr</language>";
    if (!nested) {
        for (int i = 0; i < packages; ++i)
            xml += package(i);
    } else {
        for (int i = 0; i < packages; i += 100) {
            xml += "<package-set platform='p" + QByteArray::number(i / 100)
                + "'><status>STABLE</status>";
            xml += "<package-set comment='inner'>";
            for (int j = i; j < qMin(packages, i + 100); ++j)
                xml += package(j);
            xml += "</package-set></package-set>";
        }
    }
    return xml + "</package-set></softwareList>\n";
}

double bestOf(int runs, const std::function<void()> &f)
{
    double best = 1e300;
    for (int r = 0; r < runs; ++r) {
        QElapsedTimer t;
        t.start();
        f();
        best = qMin(best, t.nsecsElapsed() / 1e6);
    }
    return best;
}

qsizetype parseOnce(const QByteArray &bytes)
{
    QBuffer b;
    b.setData(bytes);
    b.open(QIODevice::ReadOnly);
    return DownloadManager::parseXML(&b).size();
}

void speed()
{
    std::printf("== parseXML against QDomDocument::setContent of the same bytes (best of runs)\n");
    std::printf("%-8s %9s %10s %10s %10s %7s %12s\n", "shape", "packages", "bytes", "dom ms",
                "parse ms", "ratio", "peak RSS MiB");
    for (const bool nested : {false, true}) {
        double at10k = 0;
        for (const int n : {1000, 10000, 100000}) {
            const QByteArray bytes = catalogue(n, nested);
            const int runs = n >= 100000 ? 3 : 7;
            const double dom = bestOf(runs, [&] {
                QDomDocument doc;
                doc.setContent(bytes);
            });
            qsizetype count = 0;
            const double ours = bestOf(runs, [&] { count = parseOnce(bytes); });
            if (count != n)
                std::printf("!! parsed %lld packages of %d\n", qlonglong(count), n);
            std::printf("%-8s %9d %10lld %10.1f %10.1f %7.2f %12.1f\n", nested ? "nested" : "flat",
                        n, qlonglong(bytes.size()), dom, ours, ours / dom,
                        bench::statusKiB("VmHWM:") / 1024.0);
            if (n == 10000)
                at10k = ours;
            if (n == 100000)
                std::printf("%-8s 100k/10k time ratio: %.2f (linear is 10)\n",
                            nested ? "nested" : "flat", ours / at10k);
        }
    }
}

struct Hostile {
    const char *name;
    std::function<QByteArray()> make;
};

QList<Hostile> hostileCases()
{
    return {
        {"deep nesting 100000",
         []() -> QByteArray {
             return QByteArray("<package-set>").repeated(100000)
                 + QByteArray("</package-set>").repeated(100000);
         }},
        {"deep nesting 40000",
         []() -> QByteArray {
             return QByteArray("<package-set>").repeated(40000)
                 + QByteArray("</package-set>").repeated(40000);
         }},
        {"billion laughs",
         []() -> QByteArray {
             QByteArray x = "<!DOCTYPE l [<!ENTITY l0 'lol'>";
             for (int i = 1; i < 10; ++i)
                 x += "<!ENTITY l" + QByteArray::number(i) + " '"
                     + QByteArray("&l" + QByteArray::number(i - 1) + ";").repeated(10) + "'>";
             return x + "]><s><package name='&l9;'/></s>";
         }},
        {"quadratic entity 4000x50000",
         []() -> QByteArray {
             return "<!DOCTYPE s [<!ENTITY a '" + QByteArray(4000, 'a') + "'>]><s><package name='"
                 + QByteArray("&a;").repeated(50000) + "'/></s>";
         }},
        {"external entity",
         []() -> QByteArray {
             return QByteArray("<!DOCTYPE s [<!ENTITY x SYSTEM "
                               "'http://127.0.0.1:9/x'>]><s><package name='&x;'/></s>");
         }},
        {"huge attribute 30 MiB",
         []() -> QByteArray {
             return "<s><package name='" + QByteArray(30 << 20, 'x') + "'/></s>";
         }},
        {"huge text 30 MiB",
         []() -> QByteArray {
             return "<s><package><name>" + QByteArray(30 << 20, 'x') + "</name></package></s>";
         }},
        {"many attributes 1 MiB each",
         []() -> QByteArray {
             QByteArray x = "<s><package ";
             for (int i = 0; i < 30; ++i)
                 x += "a" + QByteArray::number(i) + "='" + QByteArray((1 << 20) - 8, 'y') + "' ";
             return x + "/></s>";
         }},
        {"wide set 300000 empty packages",
         []() -> QByteArray {
             return "<s><package-set type='t' status='x'>"
                 + QByteArray("<package/>").repeated(300000) + "</package-set></s>";
         }},
        {"over the size limit 40 MiB",
         []() -> QByteArray {
             return "<s>" + QByteArray("<package/>").repeated(4 << 20) + "</s>";
         }},
    };
}

void hostile()
{
    const QList<Hostile> cases = hostileCases();
    std::printf("\n== hostile documents (each in a fresh process; goal: under 1 s and 64 MiB "
                "beyond its size)\n");
    std::printf("%-32s %10s %9s %14s %9s\n", "case", "bytes", "ms", "growth MiB", "packages");
    std::fflush(stdout);
    for (int i = 0; i < cases.size(); ++i) {
        QProcess one;
        one.setProcessChannelMode(QProcess::ForwardedChannels);
        one.start(QCoreApplication::applicationFilePath(),
                  {QStringLiteral("hostile-one"), QString::number(i)});
        if (!one.waitForFinished(120000) || one.exitStatus() != QProcess::NormalExit
            || one.exitCode() != 0)
            std::printf("%-32s CRASHED or hung\n", cases.at(i).name);
        std::fflush(stdout);
    }
}

// Parses one hostile document in this process and prints its line.
void hostileOne(int index)
{
    const Hostile &h = hostileCases().at(index);
    const QByteArray bytes = h.make();
    const qint64 before = bench::statusKiB("VmRSS:");
    bench::resetPeak();
    QElapsedTimer t;
    t.start();
    const qsizetype n = parseOnce(bytes);
    const double ms = t.nsecsElapsed() / 1e6;
    // The document is already in memory; what parsing adds beyond it is the growth.
    const double growth = (bench::statusKiB("VmHWM:") - before) / 1024.0;
    std::printf("%-32s %10lld %9.1f %14.1f %9lld\n", h.name, qlonglong(bytes.size()), ms, growth,
                qlonglong(n));
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("qv.softwareupdate.*=false"));
    const QString only = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QString();
    if (only.isEmpty() || only == u"speed")
        speed();
    if (only.isEmpty() || only == u"hostile")
        hostile();
    if (only == u"hostile-one" && argc > 2)
        hostileOne(QByteArray(argv[2]).toInt());
    return 0;
}
