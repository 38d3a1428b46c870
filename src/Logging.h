#pragma once

#include <qv/LogQt.h>

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcCatalogue)
Q_DECLARE_LOGGING_CATEGORY(lcDownload)
Q_DECLARE_LOGGING_CATEGORY(lcClient)
Q_DECLARE_LOGGING_CATEGORY(lcUi)
