#pragma once

#include "PlatformExport.h"

#include <QLoggingCategory>
#include <QMutex>
#include <QString>

namespace qv {

namespace Log {
/// Levels of a diagnostic line: 1 progress, 2 problems worth a warning, 3 errors.
enum ELevel { Debug = 1, Warning = 2, Error = 3 };
} // namespace Log

/// Holds a QMutex for the lifetime of the object.
class QV_PLATFORM_EXPORT MutexLocker {
public:
    explicit MutexLocker(QMutex &mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~MutexLocker() { m_mutex.unlock(); }
    MutexLocker(const MutexLocker &) = delete;
    MutexLocker &operator=(const MutexLocker &) = delete;

private:
    QMutex &m_mutex;
};

/// The process-wide diagnostic logger. A line of level L is written when the threshold is at most
/// L; each line goes out whole, under the logger's mutex, through the given logging category
/// (debug, warning and critical messages for levels 1, 2 and 3), so a host's message handler
/// sees every line.
class QV_PLATFORM_EXPORT LogQt {
public:
    static void setLevel(int threshold);
    static int level();
    static bool isEnabled(int level);
    static void write(const QLoggingCategory &category, int level, const QString &line);
    static QMutex &mutex();
};

Q_DECLARE_LOGGING_CATEGORY(lcPlatform)

} // namespace qv
