#pragma once

#include <QtCore/qglobal.h>

// The platform services are linked statically into the shared library; the types that appear in
// its public API stay visible to hosts.
#if defined(QV_PLATFORM_BUILD)
#define QV_PLATFORM_EXPORT Q_DECL_EXPORT
#else
#define QV_PLATFORM_EXPORT Q_DECL_IMPORT
#endif
