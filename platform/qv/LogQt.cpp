#include "LogQt.h"

#include <QAtomicInt>

namespace qv {

Q_LOGGING_CATEGORY(lcPlatform, "qv.softwareupdate.platform")

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
    const QtMsgType type = level >= Log::Error ? QtCriticalMsg
        : level == Log::Warning                ? QtWarningMsg
                                               : QtDebugMsg;
    if (!category.isEnabled(type))
        return;
    QMessageLogger logger(nullptr, 0, nullptr, category.categoryName());
    if (type == QtCriticalMsg)
        logger.critical().noquote() << line;
    else if (type == QtWarningMsg)
        logger.warning().noquote() << line;
    else
        logger.debug().noquote() << line;
}

} // namespace qv
