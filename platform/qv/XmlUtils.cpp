#include "XmlUtils.h"

#include "Exceptions.h"

#include <QBuffer>
#include <QIODevice>
#include <QXmlStreamReader>

#include <cstring>
#include <memory>

namespace qv {

namespace {

QByteArray readLimited(QIODevice *device, qint64 maxBytes)
{
    if (!device || !device->isReadable())
        throw ParseException(QStringLiteral("device is not open for reading"));
    if (!device->isSequential() && device->size() - device->pos() > maxBytes)
        throw ParseException(QStringLiteral("document larger than %1 bytes").arg(maxBytes));
    // A buffer's bytes are shared, not copied.
    if (auto *buffer = qobject_cast<QBuffer *>(device); buffer && !buffer->isWritable()) {
        const QByteArray data
            = buffer->pos() == 0 ? buffer->data() : buffer->data().mid(buffer->pos());
        buffer->seek(buffer->size());
        return data;
    }
    // Read in pieces: read(maxBytes) would reserve the whole limit for every document.
    QByteArray data;
    if (!device->isSequential())
        data.reserve(device->size() - device->pos());
    char chunk[64 * 1024];
    for (;;) {
        const qint64 got = device->read(chunk, sizeof chunk);
        if (got <= 0)
            break;
        if (data.size() + got > maxBytes)
            throw ParseException(QStringLiteral("document larger than %1 bytes").arg(maxBytes));
        data.append(chunk, got);
    }
    return data;
}

// ASCII-compatible encodings (UTF-8, Latin-1, ...) are checked byte by byte; anything else
// (UTF-16 and UTF-32 announce themselves by a BOM or by NUL bytes early on) by the stream reader.
bool isAsciiCompatible(const QByteArray &data)
{
    const qsizetype n = qMin<qsizetype>(data.size(), 4);
    for (qsizetype i = 0; i < n; ++i) {
        if (data.at(i) == 0)
            return false;
    }
    return !(data.startsWith("\xFE\xFF") || data.startsWith("\xFF\xFE"));
}

[[noreturn]] void refuse(const QString &why)
{
    throw ParseException(why);
}

// The markup of XML is ASCII, so depth, declarations and value lengths can be checked on the
// bytes. Inside comments, CDATA sections and processing instructions a '<' is not markup, and
// inside quoted attribute values a '>' is not; a '<' in an attribute value is an error that the
// real parse reports. Well-formedness itself is left to the DOM.
void checkBytes(const QByteArray &data, const XmlUtils::Limits &limits)
{
    const char *p = data.constData();
    const char *const end = p + data.size();
    const auto startsWith = [&end](const char *at, const char *text) {
        for (; *text; ++at, ++text) {
            if (at >= end || *at != *text)
                return false;
        }
        return true;
    };
    const auto skipPast = [&](const char *from, const char *terminator) -> const char * {
        const QByteArrayView rest(from, end - from);
        const qsizetype at = rest.indexOf(QByteArrayView(terminator));
        if (at < 0)
            refuse(QStringLiteral("unterminated markup"));
        return from + at + qstrlen(terminator);
    };
    int depth = 0;
    qint64 elements = 0;
    while (p < end) {
        const char *lt = static_cast<const char *>(memchr(p, '<', size_t(end - p)));
        const char *textEnd = lt ? lt : end;
        if (textEnd - p > limits.maxValueLength)
            refuse(QStringLiteral("text run too long"));
        if (!lt)
            break;
        p = lt + 1;
        if (startsWith(p, "!--")) {
            p = skipPast(p + 3, "-->");
        } else if (startsWith(p, "![CDATA[")) {
            const char *close = skipPast(p + 8, "]]>");
            if (close - p > limits.maxValueLength)
                refuse(QStringLiteral("text run too long"));
            p = close;
        } else if (startsWith(p, "!")) {
            refuse(QStringLiteral("document type declarations are not accepted"));
        } else if (startsWith(p, "?")) {
            p = skipPast(p + 1, "?>");
        } else if (startsWith(p, "/")) {
            --depth;
            p = skipPast(p + 1, ">");
        } else {
            // A start tag: scan to its '>' outside quotes.
            char quote = 0;
            const char *valueStart = nullptr;
            for (; p < end; ++p) {
                const char c = *p;
                if (quote) {
                    if (c == quote) {
                        if (p - valueStart > limits.maxValueLength)
                            refuse(QStringLiteral("attribute value too long"));
                        quote = 0;
                    }
                } else if (c == '"' || c == '\'') {
                    quote = c;
                    valueStart = p;
                } else if (c == '>') {
                    break;
                }
            }
            if (p >= end)
                refuse(QStringLiteral("unterminated start tag"));
            if (p[-1] != '/' && ++depth > limits.maxDepth)
                refuse(QStringLiteral("elements nested deeper than %1").arg(limits.maxDepth));
            if (++elements > limits.maxElements)
                refuse(QStringLiteral("more than %1 elements").arg(limits.maxElements));
            ++p;
        }
    }
}

// The same checks through the stream reader, for documents that are not ASCII-compatible. It stops
// at the first violation, before anything is expanded.
void checkTokens(const QByteArray &data, const XmlUtils::Limits &limits)
{
    QXmlStreamReader reader(data);
    int depth = 0;
    qint64 elements = 0;
    while (!reader.atEnd()) {
        switch (reader.readNext()) {
        case QXmlStreamReader::DTD:
            refuse(QStringLiteral("document type declarations are not accepted"));
        case QXmlStreamReader::StartElement:
            if (++depth > limits.maxDepth)
                refuse(QStringLiteral("elements nested deeper than %1").arg(limits.maxDepth));
            if (++elements > limits.maxElements)
                refuse(QStringLiteral("more than %1 elements").arg(limits.maxElements));
            for (const QXmlStreamAttribute &a : reader.attributes()) {
                if (a.value().size() > limits.maxValueLength)
                    refuse(QStringLiteral("attribute value too long"));
            }
            break;
        case QXmlStreamReader::EndElement:
            --depth;
            break;
        case QXmlStreamReader::Characters:
            if (reader.text().size() > limits.maxValueLength)
                refuse(QStringLiteral("text run too long"));
            break;
        default:
            break;
        }
    }
}

void checkStructure(const QByteArray &data, const XmlUtils::Limits &limits)
{
    if (isAsciiCompatible(data))
        checkBytes(data, limits);
    else
        checkTokens(data, limits);
}

} // namespace

QDomDocument *XmlUtils::parseXml(QIODevice *device, QDomDocument *document, const Limits &limits)
{
    const QByteArray data = readLimited(device, limits.maxBytes);
    checkStructure(data, limits);

    std::unique_ptr<QDomDocument> owned;
    if (!document) {
        owned.reset(new QDomDocument);
        document = owned.get();
    }
    QString error;
    int line = 0;
    int column = 0;
    if (!document->setContent(data, false, &error, &line, &column))
        throw ParseException(
            QStringLiteral("line %1, column %2: %3").arg(line).arg(column).arg(error));
    owned.release();
    return document;
}

} // namespace qv
