#include "Logging.h"

Q_LOGGING_CATEGORY(lcCatalogue, "qv.softwareupdate.catalogue")
Q_LOGGING_CATEGORY(lcDownload, "qv.softwareupdate.download")
Q_LOGGING_CATEGORY(lcClient, "qv.softwareupdate.client")
Q_LOGGING_CATEGORY(lcUi, "qv.softwareupdate.ui")
