#include "LogQt.h"

#include <QAtomicInt>

Q_LOGGING_CATEGORY(lcPlatform, "qv.softwareupdate.platform")

namespace qv {

namespace {
QAtomicInt s_threshold(Log::Warning);
}

void LogQt::setLevel(int threshold)
{
    s_threshold.storeRelaxed(threshold);
}

int LogQt::level()
{
    return s_threshold.loadRelaxed();
}

bool LogQt::isEnabled(int level)
{
    return level >= s_threshold.loadRelaxed();
}

QMutex &LogQt::mutex()
{
    static QMutex m;
    return m;
}

void LogQt::write(const QLoggingCategory &category, int level, const QString &line)
{
    if (!isEnabled(level))
        return;
    MutexLocker lock(mutex());
    if (level >= Log::Error)
        qCCritical(category).noquote() << line;
    else if (level == Log::Warning)
        qCWarning(category).noquote() << line;
    else
        qCDebug(category).noquote() << line;
}

} // namespace qv
