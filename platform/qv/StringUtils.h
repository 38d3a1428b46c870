#pragma once

#include "PlatformExport.h"

#include <QRegularExpression>
#include <QSet>
#include <QString>

using QStringSet = QSet<QString>;

namespace qv {

class QV_PLATFORM_EXPORT StringUtils {
public:
    /// Word separators of word-list values: white space, commas and semicolons.
    static const QRegularExpression splitWords;

    static QStringSet splitStringSet(const QString &text, const QRegularExpression &separators,
                                     Qt::SplitBehavior behavior = Qt::SkipEmptyParts);
    /// Adds every value to `target`, translated in the given context.
    static void appendAll(QStringSet &target, const QStringSet &values, const QString &context);
    /// True when a word of one set begins with a word of the other (equal words included).
    static bool intersectsOnBeginning(const QStringSet &a, const QStringSet &b);
    /// True when the sets share a word.
    static bool intersectsWith(const QStringSet &a, const QStringSet &b);
};

} // namespace qv
