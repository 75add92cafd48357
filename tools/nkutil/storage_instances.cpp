// The shared storage instances as nkutil names them.
#include "tools/nkutil/storage_instances.hpp"

namespace nk::cli {

std::array<StorageInstance, 4> storageInstances() {
  return {{
      {"legacy", "legacy", NKFileSystemHelper::instanceLegacy()},
      {"fileProvider", "file provider", NKFileSystemHelper::instanceFileProvider()},
      {"dpLogs", "DP logs", NKFileSystemHelper::instanceDPLogProvider()},
      {"fpLogs", "FP logs", NKFileSystemHelper::instanceFPLogProvider()},
  }};
}

Ref<URL> storageRoot(const NKFileSystemHelper& helper) {
  Ref<URL> base = helper.baseURL();
  if (!base || !helper.rootDir()) return nullptr;
  return base->URLByAppendingPathComponent(helper.rootDir().get(), true);
}

}  // namespace nk::cli
