#pragma once

#include "PlatformExport.h"

#include <QDateTime>
#include <QSettings>
#include <QString>

namespace qv {

/// Typed reads of one key of the current settings group, falling back to the default when the key
/// is missing or its value cannot be read as that type.
class QV_PLATFORM_EXPORT Preferences {
public:
    /// Accepts a stored bool, the texts true/false/yes/no/on/off (any case) and the numbers 0
    /// and 1.
    static bool boolValue(const QSettings &settings, const QString &key, bool defaultValue);
    static int intValue(const QSettings &settings, const QString &key, int defaultValue);
    /// A stored string list (an unquoted "a,b" in an INI file) is joined with ",".
    static QString stringValue(const QSettings &settings, const QString &key,
                               const QString &defaultValue);
    /// Accepts a stored date-time or an ISO 8601 text (the form setDateTimeValue writes).
    static QDateTime dateTimeValue(const QSettings &settings, const QString &key,
                                   const QDateTime &defaultValue);
    /// Writes an ISO 8601 text with milliseconds, so the value survives any settings format.
    static void setDateTimeValue(QSettings &settings, const QString &key, const QDateTime &value);

    static bool toBool(const QVariant &value, bool defaultValue);
    static QString toText(const QVariant &value);
};

} // namespace qv
