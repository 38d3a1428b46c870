#include "StringUtils.h"

#include <QCoreApplication>

namespace qv {

const QRegularExpression StringUtils::splitWords(QStringLiteral("[\\s,;]+"));

QStringSet StringUtils::splitStringSet(const QString &text, const QRegularExpression &separators,
                                       Qt::SplitBehavior behavior)
{
    QStringSet out;
    const QStringList words = text.split(separators, behavior);
    for (const QString &w : words)
        out.insert(w);
    return out;
}

void StringUtils::appendAll(QStringSet &target, const QStringSet &values, const QString &context)
{
    const QByteArray ctx = context.toUtf8();
    for (const QString &v : values)
        target.insert(QCoreApplication::translate(ctx.constData(), v.toUtf8().constData()));
}

bool StringUtils::intersectsOnBeginning(const QStringSet &a, const QStringSet &b)
{
    for (const QString &x : a) {
        for (const QString &y : b) {
            if (x.startsWith(y) || y.startsWith(x))
                return true;
        }
    }
    return false;
}

bool StringUtils::intersectsWith(const QStringSet &a, const QStringSet &b)
{
    return a.intersects(b);
}

} // namespace qv
