#include "Preferences.h"

namespace qv {

bool Preferences::toBool(const QVariant &value, bool defaultValue)
{
    if (value.typeId() == QMetaType::Bool)
        return value.toBool();
    const QString text = toText(value).trimmed().toLower();
    if (text == u"true" || text == u"1" || text == u"yes" || text == u"on")
        return true;
    if (text == u"false" || text == u"0" || text == u"no" || text == u"off")
        return false;
    return defaultValue;
}

QString Preferences::toText(const QVariant &value)
{
    if (value.typeId() == QMetaType::QStringList)
        return value.toStringList().join(QLatin1Char(','));
    if (value.canConvert<QString>())
        return value.toString();
    return QString();
}

bool Preferences::boolValue(const QSettings &settings, const QString &key, bool defaultValue)
{
    const QVariant v = settings.value(key);
    return v.isValid() ? toBool(v, defaultValue) : defaultValue;
}

int Preferences::intValue(const QSettings &settings, const QString &key, int defaultValue)
{
    const QVariant v = settings.value(key);
    if (!v.isValid())
        return defaultValue;
    bool ok = false;
    const int result = toText(v).trimmed().toInt(&ok);
    return ok ? result : defaultValue;
}

QString Preferences::stringValue(const QSettings &settings, const QString &key,
                                 const QString &defaultValue)
{
    const QVariant v = settings.value(key);
    return v.isValid() ? toText(v) : defaultValue;
}

QDateTime Preferences::dateTimeValue(const QSettings &settings, const QString &key,
                                     const QDateTime &defaultValue)
{
    const QVariant v = settings.value(key);
    if (!v.isValid())
        return defaultValue;
    if (v.typeId() == QMetaType::QDateTime)
        return v.toDateTime().isValid() ? v.toDateTime() : defaultValue;
    const QDateTime parsed = QDateTime::fromString(toText(v).trimmed(), Qt::ISODateWithMs);
    return parsed.isValid() ? parsed : defaultValue;
}

void Preferences::setDateTimeValue(QSettings &settings, const QString &key, const QDateTime &value)
{
    settings.setValue(key, value.isValid() ? value.toString(Qt::ISODateWithMs) : QString());
}

} // namespace qv
