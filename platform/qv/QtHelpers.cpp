#include "QtHelpers.h"

#include "LogQt.h"

#include <QMetaObject>
#include <QWidget>

namespace qv {

bool connect(const QObject *sender, const char *signal, const QObject *receiver, const char *method,
             Qt::ConnectionType type)
{
    const bool ok = bool(QObject::connect(sender, signal, receiver, method, type));
    if (!ok) {
        LogQt::write(lcPlatform(), Log::Error,
                     QStringLiteral("qv::connect() -> could not connect %1 to %2")
                         .arg(QLatin1String(signal ? signal : "(null)"),
                              QLatin1String(method ? method : "(null)")));
    }
    return ok;
}

bool invokeQueued(QObject *receiver, const char *slot, QGenericArgument a0, QGenericArgument a1)
{
    if (!receiver || !slot)
        return false;
    QByteArray name(slot);
    // A SLOT() text starts with a code digit; a signature carries its parameter list.
    if (!name.isEmpty() && name.at(0) >= '0' && name.at(0) <= '9')
        name.remove(0, 1);
    const qsizetype paren = name.indexOf('(');
    if (paren >= 0)
        name.truncate(paren);
    return QMetaObject::invokeMethod(receiver, name.constData(), Qt::QueuedConnection, a0, a1);
}

Qt::WindowFlags dialogFlags(bool sheet)
{
    // The window type bits of Qt::Sheet and Qt::Dialog overlap (together they make a drawer), so
    // the sheet variant replaces the type instead of adding to it.
    const Qt::WindowFlags type = sheet ? Qt::Sheet : Qt::Dialog;
    return type | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowCloseButtonHint;
}

Qt::WindowFlags sheetDialogFlags(QWidget *parent)
{
    return dialogFlags(parent && parent->isVisible());
}

} // namespace qv
