// Joining and splitting file-system path strings the way the platform's path-string
// operations do, for the storage folders' paths.
#pragma once

#include <string>
#include <string_view>

#include "nk/foundation/string.hpp"

namespace nk::storage_internal {

// `path` with `component` appended after one "/": "a/" + "b" and "a" + "b" both give
// "a/b", "" + "b" gives "b". nil when `path` is nil.
inline Ref<String> appendingPathComponent(const String* path, std::string_view component) {
  if (!path) return nullptr;
  std::string joined = path->utf8();
  while (joined.size() > 1 && joined.back() == '/') joined.pop_back();
  if (!joined.empty() && joined.back() != '/') joined.push_back('/');
  joined.append(component);
  return String::fromUTF8(joined);
}

inline Ref<String> appendingPathComponent(const String* path, const String* component) {
  if (!component) return nullptr;
  return appendingPathComponent(path, component->utf8());
}

}  // namespace nk::storage_internal
