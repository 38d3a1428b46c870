#pragma once

#include "PlatformExport.h"

#include <QObject>
#include <QtGlobal>

class QUrl;
class QWidget;

namespace qv {

/// QObject::connect with SIGNAL()/SLOT() texts; a failed connection is logged and returns false.
QV_PLATFORM_EXPORT bool connect(const QObject *sender, const char *signal, const QObject *receiver,
                                const char *method, Qt::ConnectionType type = Qt::AutoConnection);

/// The bare method name of a SLOT() text ("1done(int)") or a signature ("done(int)"): "done".
QV_PLATFORM_EXPORT QByteArray methodName(const char *slotOrSignature);

/// Calls `slot` on `receiver` through its event queue. `slot` is a bare method name, a signature
/// ("done(qv::PackageInfoList)") or a SLOT() text. Returns false when there is no such method.
QV_PLATFORM_EXPORT bool invokeQueued(QObject *receiver, const char *slot,
                                     QGenericArgument a0 = QGenericArgument(nullptr),
                                     QGenericArgument a1 = QGenericArgument());

/// Standard flags of the maker's dialogs: title bar with close button, no help button; `sheet`
/// makes the window a sheet (attached to its parent on macOS; elsewhere a plain dialog).
QV_PLATFORM_EXPORT Qt::WindowFlags dialogFlags(bool sheet);

/// dialogFlags(true) when `parent` is a visible window to attach a sheet to, else
/// dialogFlags(false).
QV_PLATFORM_EXPORT Qt::WindowFlags sheetDialogFlags(QWidget *parent);

/// Opens an http or https link in the desktop's browser. Any other scheme (file, smb, a
/// program's own) is never handed to the desktop: a log line naming `caller`, and false.
QV_PLATFORM_EXPORT bool openWebLink(const QUrl &url, const char *caller);

} // namespace qv
