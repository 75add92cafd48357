// Pieces the keyed archiver and unarchiver share: the archive's fixed keys, the
// platform class names of the built-in value types, key escaping and limits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "nk/foundation/class.hpp"
#include "nk/foundation/error.hpp"
#include "nk/foundation/string.hpp"

namespace nk::keyed_archive_internal {

inline String* kArchiverName() noexcept { return NK_STR("NSKeyedArchiver"); }
inline constexpr int64_t kArchiveVersion = 100000;
// "$objects" starts with it; UID 0 stands for nil.
inline String* kNullMarker() noexcept { return NK_STR("$null"); }

// Objects nested deeper than this are refused both ways, so that what is written
// here can be read back and no input can exhaust the stack.
inline constexpr size_t kMaxDepth = 512;

// The platform name a built-in value class is archived under ("NSDictionary" for
// Dictionary, "NSObject" for Object), or nullptr for other classes.
const char* platformNameOfClass(const Class& cls) noexcept;
// The built-in value class archived under `name`, or nullptr.
const Class* builtinClassNamed(std::string_view name) noexcept;

// A coder key as stored in the archive: keys beginning with "$" get one more, so
// that they can never be taken for the archive's own "$class". Nil when `key` is
// not UTF-8.
Ref<String> storedKey(std::string_view key);

// An Error in kCocoaErrorDomain whose debug description is `reason`, with
// `underlying` (when given) as its underlying error.
Ref<Error> makeError(long code, const std::string& reason, const Ref<Error>& underlying = nullptr);

}  // namespace nk::keyed_archive_internal
