#include "XmlUtils.h"

#include "Exceptions.h"

#include <QIODevice>
#include <QXmlStreamReader>

#include <memory>

namespace qv {

namespace {

QByteArray readLimited(QIODevice *device, qint64 maxBytes)
{
    if (!device || !device->isReadable())
        throw ParseException(QStringLiteral("device is not open for reading"));
    QByteArray data = device->read(maxBytes + 1);
    // Sequential devices may deliver in pieces.
    while (data.size() <= maxBytes && !device->atEnd()) {
        const QByteArray more = device->read(maxBytes + 1 - data.size());
        if (more.isEmpty())
            break;
        data += more;
    }
    if (data.size() > maxBytes)
        throw ParseException(QStringLiteral("document larger than %1 bytes").arg(maxBytes));
    return data;
}

// One streaming pass that stops at the first violation, before anything is expanded or built.
void checkStructure(const QByteArray &data, const XmlUtils::Limits &limits)
{
    QXmlStreamReader reader(data);
    int depth = 0;
    while (!reader.atEnd()) {
        switch (reader.readNext()) {
        case QXmlStreamReader::DTD:
            throw ParseException(QStringLiteral("document type declarations are not accepted"));
        case QXmlStreamReader::EntityReference:
            throw ParseException(QStringLiteral("entity references are not accepted"));
        case QXmlStreamReader::StartElement:
            if (++depth > limits.maxDepth)
                throw ParseException(QStringLiteral("elements nested deeper than %1").arg(limits.maxDepth));
            for (const QXmlStreamAttribute &a : reader.attributes()) {
                if (a.value().size() > limits.maxValueLength)
                    throw ParseException(QStringLiteral("attribute value too long"));
            }
            break;
        case QXmlStreamReader::EndElement:
            --depth;
            break;
        case QXmlStreamReader::Characters:
        case QXmlStreamReader::Comment:
        case QXmlStreamReader::ProcessingInstruction:
            if (reader.text().size() > limits.maxValueLength)
                throw ParseException(QStringLiteral("text run too long"));
            break;
        default:
            break;
        }
    }
    if (reader.hasError()) {
        throw ParseException(QStringLiteral("line %1, column %2: %3")
                                     .arg(reader.lineNumber())
                                     .arg(reader.columnNumber())
                                     .arg(reader.errorString()));
    }
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
        throw ParseException(QStringLiteral("line %1, column %2: %3").arg(line).arg(column).arg(error));
    owned.release();
    return document;
}

} // namespace qv
