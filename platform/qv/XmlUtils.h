#pragma once

#include "PlatformExport.h"

#include <QDomDocument>

class QIODevice;

namespace qv {

/// Limits checked in one streaming pass before the DOM is built.
struct XmlLimits {
    qint64 maxBytes = 32 * 1024 * 1024; ///< size of the whole document
    int maxDepth = 64; ///< element nesting
    qsizetype maxValueLength = 1 << 20; ///< characters of one text run or attribute value
    qint64 maxElements = 1000000; ///< elements in the whole document
};

/// Reads XML documents into a DOM, refusing what could exhaust time or memory.
class QV_PLATFORM_EXPORT XmlUtils {
public:
    using Limits = XmlLimits;

    /// Reads the whole device and returns the parsed document: a new QDomDocument when `document`
    /// is null (the caller owns it), else `document` filled. Throws qv::ParseException when the
    /// text is not well-formed XML, holds a document type declaration (DTDs and so entities are
    /// refused outright), or exceeds a limit. Nothing is ever fetched from disk or network.
    static QDomDocument *parseXml(QIODevice *device, QDomDocument *document,
                                  const Limits &limits = Limits());
};

} // namespace qv
