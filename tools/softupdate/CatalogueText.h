#pragma once

#include <QList>
#include <QString>

/// A catalogue as the publisher wrote it, edited in place: the document element's attributes
/// and whole package elements are changed as text, so everything else (the order of attributes,
/// quotes, comments, blank lines) stays as it was and a diff shows only what changed.
class CatalogueText {
public:
    /// A new, empty catalogue.
    CatalogueText();
    /// Reads `text`; false (with `error`) when it is not well-formed XML.
    bool read(const QString &text, QString *error);

    QString text() const { return m_text; }

    /// The value of an attribute of the document element; null when absent.
    QString rootAttribute(const QString &name) const;
    /// Sets it, in place when present, else as a new attribute at the end of the start tag.
    void setRootAttribute(const QString &name, const QString &value);

    /// The package elements below the document element, as text, in document order.
    QStringList packages() const;
    /// Replaces package `index` with `element`, or appends `element` when `index` is -1.
    void putPackage(qsizetype index, const QString &element);

private:
    struct Span {
        qsizetype begin;
        qsizetype end;
    };
    void rescan();

    QString m_text;
    Span m_rootStart {0, 0}; ///< "<softwareList ...>" or "<softwareList .../>"
    qsizetype m_rootEnd = -1; ///< where "</softwareList>" starts; -1 for "<softwareList/>"
    QList<Span> m_packages;
};
