#include "VersionNumber.h"

#include <limits>

namespace qv {

VersionNumber::VersionNumber(const std::string &text)
{
    parse(text.data(), text.size());
}

VersionNumber::VersionNumber(const char *text)
{
    if (text)
        parse(text, std::char_traits<char>::length(text));
}

void VersionNumber::parse(const char *text, size_t length)
{
    constexpr quint64 max = std::numeric_limits<quint64>::max();
    size_t i = 0;
    while (i < length) {
        if (text[i] < '0' || text[i] > '9')
            break;
        quint64 value = 0;
        while (i < length && text[i] >= '0' && text[i] <= '9') {
            const quint64 digit = quint64(text[i] - '0');
            value = value > (max - digit) / 10 ? max : value * 10 + digit;
            ++i;
        }
        m_parts.append(value);
        // Skip the rest of this component ("10b" counts as 10), then the dot.
        while (i < length && text[i] != '.')
            ++i;
        if (i < length)
            ++i;
    }
}

VersionNumber VersionNumber::fromText(const QString &text)
{
    return VersionNumber(text.toLatin1().toStdString());
}

QString VersionNumber::toString() const
{
    if (m_parts.isEmpty())
        return QStringLiteral("0");
    QString out;
    for (qsizetype i = 0; i < m_parts.size(); ++i) {
        if (i)
            out += QLatin1Char('.');
        out += QString::number(m_parts.at(i));
    }
    return out;
}

QString VersionNumber::toShortVersion() const
{
    VersionNumber shortened = *this;
    while (shortened.m_parts.size() > 2 && shortened.m_parts.last() == 0)
        shortened.m_parts.removeLast();
    return shortened.toString();
}

int VersionNumber::compare(const VersionNumber &a, const VersionNumber &b)
{
    const qsizetype n = qMax(a.m_parts.size(), b.m_parts.size());
    for (qsizetype i = 0; i < n; ++i) {
        const quint64 x = a.m_parts.value(i, 0);
        const quint64 y = b.m_parts.value(i, 0);
        if (x != y)
            return x < y ? -1 : 1;
    }
    return 0;
}

QString QuorvelSoftwareVersion::applicationVersion(const QString &version,
                                                   const QString &unknownText, short)
{
    const QString trimmed = version.trimmed();
    for (const QChar c : trimmed) {
        if (c.isDigit())
            return trimmed;
    }
    return unknownText;
}

} // namespace qv
