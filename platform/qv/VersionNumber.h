#pragma once

#include "PlatformExport.h"

#include <QList>
#include <QString>
#include <string>

namespace qv {

/// A dotted numeric version such as 2.10.1. Components compare numerically one by one; missing
/// trailing components count as 0, so 2.1 and 2.1.0 are equal.
///
/// Parsing reads ASCII text: each dot-separated component contributes its leading decimal digits,
/// and parsing stops at the first component that does not start with a digit ("2.9-beta" is 2.9,
/// "junk" has no components). Components saturate at the largest 64-bit value.
class QV_PLATFORM_EXPORT VersionNumber {
public:
    VersionNumber() = default;
    explicit VersionNumber(const std::string &text);
    explicit VersionNumber(const char *text);
    /// The version parsed from `text` converted to ASCII (Latin-1).
    static VersionNumber fromText(const QString &text);

    /// Components joined with "."; "0" for a version without components.
    QString toString() const;
    /// The version without trailing zero components beyond the second: 3.2.0.0 gives 3.2.
    QString toShortVersion() const;

    static int compare(const VersionNumber &a, const VersionNumber &b);

    friend bool operator==(const VersionNumber &a, const VersionNumber &b)
    {
        return compare(a, b) == 0;
    }
    friend bool operator!=(const VersionNumber &a, const VersionNumber &b)
    {
        return compare(a, b) != 0;
    }
    friend bool operator<(const VersionNumber &a, const VersionNumber &b)
    {
        return compare(a, b) < 0;
    }
    friend bool operator<=(const VersionNumber &a, const VersionNumber &b)
    {
        return compare(a, b) <= 0;
    }
    friend bool operator>(const VersionNumber &a, const VersionNumber &b)
    {
        return compare(a, b) > 0;
    }
    friend bool operator>=(const VersionNumber &a, const VersionNumber &b)
    {
        return compare(a, b) >= 0;
    }

private:
    void parse(const char *text, size_t length);

    QList<quint64> m_parts;
};

/// Formats internal version strings for display.
class QV_PLATFORM_EXPORT QuorvelSoftwareVersion {
public:
    /// The version text as it stands (trimmed), or `unknownText` when it holds no digit.
    static QString applicationVersion(const QString &version, const QString &unknownText,
                                      short flags);
};

} // namespace qv
