// The four shared NKFileSystemHelper instances, named for people and scripts, and
// where each keeps its files.
#pragma once

#include <array>

#include "nk/foundation/object.hpp"
#include "nk/foundation/url.hpp"
#include "nk/storage/file_system_helper.hpp"

namespace nk::cli {

struct StorageInstance {
  const char* key;    // for scripts: "legacy", "fileProvider", "dpLogs", "fpLogs"
  const char* label;  // for people
  NKFileSystemHelper* helper;
};

// instanceLegacy, instanceFileProvider, instanceDPLogProvider, instanceFPLogProvider.
std::array<StorageInstance, 4> storageInstances();

// base/rootDir of `helper` as a directory URL, without making it (the helper's own
// getter does); nil without a base.
Ref<URL> storageRoot(const NKFileSystemHelper& helper);

}  // namespace nk::cli
