#pragma once

#include "PlatformExport.h"

#include <QByteArray>
#include <QString>
#include <exception>

namespace qv {

/// Base of the exceptions the platform services throw; carries a readable message.
class QV_PLATFORM_EXPORT ExceptionQt : public std::exception {
public:
    explicit ExceptionQt(const QString &message);
    ~ExceptionQt() override;

    QString message() const { return m_message; }
    const char *what() const noexcept override { return m_utf8.constData(); }

private:
    QString m_message;
    QByteArray m_utf8;
};

/// A file, archive or device operation failed.
class QV_PLATFORM_EXPORT IOException : public ExceptionQt {
public:
    using ExceptionQt::ExceptionQt;
};

/// A document could not be read (malformed or refused XML).
class QV_PLATFORM_EXPORT ParseException : public ExceptionQt {
public:
    using ExceptionQt::ExceptionQt;
};

} // namespace qv
