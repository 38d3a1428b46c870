#include "CatalogueText.h"

#include <DownloadManager.h>

#include <QRegularExpression>
#include <QXmlStreamReader>

CatalogueText::CatalogueText()
{
    QString error;
    read(QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<softwareList>\n"
                        "</softwareList>\n"),
         &error);
}

bool CatalogueText::read(const QString &text, QString *error)
{
    const QString before = m_text;
    m_text = text;
    rescan();
    if (m_rootEnd == -2) {
        *error = QStringLiteral("not well-formed XML");
        m_text = before;
        rescan();
        return false;
    }
    return true;
}

// Finds the document element's start and end tags and the package elements. The reader's
// offset after a tag is exact; a tag starts at the last "<" before it ends (attribute values
// hold no raw "<").
void CatalogueText::rescan()
{
    m_packages.clear();
    m_rootEnd = -2;
    QXmlStreamReader reader(m_text);
    int depth = 0;
    int packageDepth = 0; // a package inside a package is part of the outer one
    qsizetype packageBegin = -1;
    while (!reader.atEnd()) {
        const QXmlStreamReader::TokenType token = reader.readNext();
        const qsizetype end = reader.characterOffset();
        const qsizetype begin = m_text.lastIndexOf(QLatin1Char('<'), end - 1);
        if (token == QXmlStreamReader::StartElement) {
            if (depth == 0)
                m_rootStart = {begin, end};
            else if (reader.name() == qv::DownloadManager::PACKAGE && packageDepth++ == 0)
                packageBegin = begin;
            ++depth;
        } else if (token == QXmlStreamReader::EndElement) {
            --depth;
            if (depth == 0)
                m_rootEnd = end == m_rootStart.end ? -1 : begin;
            else if (reader.name() == qv::DownloadManager::PACKAGE && --packageDepth == 0)
                m_packages << Span {packageBegin, end};
        }
    }
    if (reader.hasError())
        m_rootEnd = -2;
}

static QRegularExpression attributePattern(const QString &name)
{
    return QRegularExpression(
        QStringLiteral("\\s%1\\s*=\\s*([\"'])(.*?)\\1").arg(QRegularExpression::escape(name)),
        QRegularExpression::DotMatchesEverythingOption);
}

QString CatalogueText::rootAttribute(const QString &name) const
{
    const QString tag = m_text.mid(m_rootStart.begin, m_rootStart.end - m_rootStart.begin);
    const QRegularExpressionMatch m = attributePattern(name).match(tag);
    if (!m.hasMatch())
        return QString();
    QString value = m.captured(2);
    value.replace(QLatin1String("&quot;"), QLatin1String("\""))
        .replace(QLatin1String("&apos;"), QLatin1String("'"))
        .replace(QLatin1String("&lt;"), QLatin1String("<"))
        .replace(QLatin1String("&gt;"), QLatin1String(">"))
        .replace(QLatin1String("&amp;"), QLatin1String("&"));
    return value.isNull() ? QLatin1String("") : value;
}

void CatalogueText::setRootAttribute(const QString &name, const QString &value)
{
    const QString tag = m_text.mid(m_rootStart.begin, m_rootStart.end - m_rootStart.begin);
    const QRegularExpressionMatch m = attributePattern(name).match(tag);
    const QString escaped = value.toHtmlEscaped();
    if (m.hasMatch()) {
        m_text.replace(m_rootStart.begin + m.capturedStart(2), m.capturedLength(2), escaped);
    } else {
        const qsizetype close = m_rootEnd == -1 ? m_rootStart.end - 2 : m_rootStart.end - 1;
        m_text.insert(close, QStringLiteral(" %1=\"%2\"").arg(name, escaped));
    }
    rescan();
}

QStringList CatalogueText::packages() const
{
    QStringList out;
    for (const Span &s : m_packages)
        out << m_text.mid(s.begin, s.end - s.begin);
    return out;
}

void CatalogueText::putPackage(qsizetype index, const QString &element)
{
    if (index >= 0 && index < m_packages.size()) {
        const Span s = m_packages.at(index);
        m_text.replace(s.begin, s.end - s.begin, element);
    } else if (m_rootEnd == -1) {
        // "<softwareList .../>" opens up.
        m_text.replace(m_rootStart.end - 2, 2,
                       QStringLiteral(">\n  ") + element + QStringLiteral("\n</softwareList>"));
    } else {
        // On a line of its own, indented like the last package (or by two blanks).
        const qsizetype lineStart = m_text.lastIndexOf(QLatin1Char('\n'), m_rootEnd - 1) + 1;
        const bool ownLine = m_text.mid(lineStart, m_rootEnd - lineStart).trimmed().isEmpty()
            && lineStart > m_rootStart.end;
        QString indent = QStringLiteral("  ");
        if (!m_packages.isEmpty()) {
            const qsizetype last = m_packages.last().begin;
            const qsizetype from = m_text.lastIndexOf(QLatin1Char('\n'), last - 1) + 1;
            const QString lead = m_text.mid(from, last - from);
            if (lead.trimmed().isEmpty())
                indent = lead;
        }
        if (ownLine)
            m_text.insert(lineStart, indent + element + QLatin1Char('\n'));
        else
            m_text.insert(m_rootEnd, QLatin1Char('\n') + indent + element + QLatin1Char('\n'));
    }
    rescan();
}
