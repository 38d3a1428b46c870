#include "QtHelpers.h"

#include "LogQt.h"

#include <QDesktopServices>
#include <QMetaMethod>
#include <QMetaObject>
#include <QUrl>
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

QByteArray methodName(const char *slotOrSignature)
{
    QByteArray name(slotOrSignature);
    // A SLOT() text starts with a code digit; a signature carries its parameter list.
    if (!name.isEmpty() && name.at(0) >= '0' && name.at(0) <= '9')
        name.remove(0, 1);
    const qsizetype paren = name.indexOf('(');
    if (paren >= 0)
        name.truncate(paren);
    return name;
}

bool invokeQueued(QObject *receiver, const char *slot, QGenericArgument a0, QGenericArgument a1)
{
    if (!receiver || !slot)
        return false;
    const QByteArray name = methodName(slot);
    // Matched by name and argument count, so that a slot may spell its parameter type with or
    // without namespace or typedef (the types themselves must agree).
    const int argc = (a0.name() ? 1 : 0) + (a1.name() ? 1 : 0);
    const QMetaObject *mo = receiver->metaObject();
    for (int i = mo->methodCount() - 1; i >= 0; --i) {
        const QMetaMethod method = mo->method(i);
        if (method.name() == name && method.parameterCount() == argc)
            return method.invoke(receiver, Qt::QueuedConnection, a0, a1);
    }
    LogQt::write(lcPlatform(), Log::Error,
                 QStringLiteral("qv::invokeQueued() -> no method %1 with %2 arguments in %3")
                     .arg(QString::fromLatin1(name))
                     .arg(argc)
                     .arg(QLatin1String(mo->className())));
    return false;
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

bool openWebLink(const QUrl &url, const char *caller)
{
    const QString scheme = url.scheme().toLower();
    if (scheme == u"http" || scheme == u"https")
        return QDesktopServices::openUrl(url);
    LogQt::write(lcPlatform(), Log::Error,
                 QStringLiteral("%1 -> not opening %2: only http and https links are opened")
                     .arg(QLatin1String(caller), url.toString().left(200)));
    return false;
}

} // namespace qv
