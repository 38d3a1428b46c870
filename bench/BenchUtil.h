#pragma once

// Memory readings for the benchmarks, from /proc (Linux).

#include <QByteArray>
#include <QFile>

namespace bench {

/// A "Vm...:" field of /proc/self/status in KiB, or -1.
inline qint64 statusKiB(const char *field)
{
    QFile f(QStringLiteral("/proc/self/status"));
    if (!f.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : f.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(qstrlen(field)).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

/// Resets the peak resident size (VmHWM) to the current one.
inline void resetPeak()
{
    QFile f(QStringLiteral("/proc/self/clear_refs"));
    if (f.open(QIODevice::WriteOnly))
        f.write("5");
}

} // namespace bench
