// Reading the files a bundle holds (Info.plist, string tables, property lists among its
// resources), shared with the other readers of the library's resources.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace nk::bundle_internal {

inline constexpr size_t kMaxFileSize = 16u << 20;

// The bytes of the regular file at `path`; nullopt when it is missing, unreadable, not a
// regular file (a FIFO or a device is never read: it could block or never end) or larger
// than kMaxFileSize.
std::optional<std::string> readFile(const std::string& path);

}  // namespace nk::bundle_internal
