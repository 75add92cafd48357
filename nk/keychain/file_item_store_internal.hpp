// FileItemStore: keychain items in plain files, for machines without a Secret Service
// (servers, containers, CI). It protects secrets by file permissions only: anyone who
// can read the user's files (root, a backup, a stolen disk) can read the values.
#pragma once

#include <optional>
#include <string>

#include "nk/keychain/item_store_internal.hpp"

namespace nk::keychain_internal {

// One file per service in folder() (mode 0700), each file mode 0600 and holding all of
// that service's items with a SHA-256 checksum. Every change rewrites the file
// atomically (temporary file, fsync, rename, fsync of the folder) while holding an
// exclusive lock on the service's lock file, so writers in several threads or
// processes take turns and a reader always sees a complete file. A damaged or
// truncated file is logged and reads as holding no items; the next change replaces
// it. A service's items together hold at most kMaxFileSize bytes (errSecParam
// beyond). Symbolic links in place of the folder or of a file are refused.
class FileItemStore final : public ItemStore {
 public:
  static constexpr size_t kMaxFileSize = size_t{64} << 20;

  // `$XDG_DATA_HOME/nkutils/keychain`, resolved on each call; nullopt without a
  // home folder.
  static std::optional<std::string> folder();
  // The file name of a service's items: the service with every byte outside
  // [A-Za-z0-9_-] and every "." at the start written %XX, then ".keychain"; nullopt
  // when that is longer than a file name may be.
  static std::optional<std::string> fileNameForService(const std::string& service);

  OSStatus add(const ItemKey& key, std::span<const uint8_t> value) override;
  OSStatus copy(const ItemKey& key, std::vector<uint8_t>* value) override;
  OSStatus update(const ItemKey& key, std::span<const uint8_t> value) override;
  OSStatus remove(const ItemKey& key) override;
};

}  // namespace nk::keychain_internal
