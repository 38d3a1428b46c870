#include "DownloadManager.h"

namespace qv {

int DownloadManager::qMetaTypes = qRegisterMetaType<PackageInfoList>("qv::PackageInfoList");

DownloadManager::DownloadManager() = default;

DownloadManager::~DownloadManager() = default;

} // namespace qv
