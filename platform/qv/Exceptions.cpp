#include "Exceptions.h"

namespace qv {

ExceptionQt::ExceptionQt(const QString &message) : m_message(message), m_utf8(message.toUtf8()) { }

ExceptionQt::~ExceptionQt() = default;

} // namespace qv
