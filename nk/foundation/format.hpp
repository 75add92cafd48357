// Text formatting with the platform's printf-style directives plus %@.
//
// `%@` prints an object's description ("(null)" for nil); `%d %i %ld %lld %u %lu
// %llu %x %X %o %c %s %f %e %g %p %%` behave as in printf, with flags, width and
// precision. Arguments are checked at run time: a directive whose argument is of
// another kind prints as if converted, a missing argument prints nothing.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// One argument of a format call.
struct FormatArg {
  enum class Kind { kSigned, kUnsigned, kDouble, kText, kObject, kPointer };
  Kind kind;
  union {
    int64_t i;
    uint64_t u;
    double d;
    const void* p;
    const Object* object;
  };
  std::string_view text;  // kText, UTF-8

  FormatArg(const Object* o) : kind(Kind::kObject), object(o) {}  // NOLINT
  template <class T>
  FormatArg(const Ref<T>& o) : FormatArg(static_cast<const Object*>(o.get())) {}       // NOLINT
  FormatArg(std::nullptr_t) : kind(Kind::kObject), object(nullptr) {}                  // NOLINT
  FormatArg(const char* s) : kind(Kind::kText), p(nullptr), text(s ? s : "(null)") {}  // NOLINT
  FormatArg(std::string_view s) : kind(Kind::kText), p(nullptr), text(s) {}            // NOLINT
  FormatArg(const std::string& s) : kind(Kind::kText), p(nullptr), text(s) {}          // NOLINT
  FormatArg(bool b) : kind(Kind::kSigned), i(b ? 1 : 0) {}                             // NOLINT
  template <class T, std::enable_if_t<std::is_integral_v<T> && std::is_signed_v<T>, int> = 0>
  FormatArg(T v) : kind(Kind::kSigned), i(v) {}  // NOLINT
  template <class T, std::enable_if_t<std::is_integral_v<T> && std::is_unsigned_v<T> &&
                                          !std::is_same_v<T, bool>,
                                      int> = 0>
  FormatArg(T v) : kind(Kind::kUnsigned), u(v) {}  // NOLINT
  template <class T, std::enable_if_t<std::is_floating_point_v<T>, int> = 0>
  FormatArg(T v) : kind(Kind::kDouble), d(static_cast<double>(v)) {}  // NOLINT
  template <class T, std::enable_if_t<!std::is_base_of_v<Object, T> && !std::is_same_v<T, char> &&
                                          !std::is_same_v<T, const char>,
                                      int> = 0>
  FormatArg(T* v) : kind(Kind::kPointer), p(v) {}  // NOLINT
};

// Formats into UTF-8 from a list of arguments.
std::string vformatUTF8(std::string_view format, std::span<const FormatArg> args);

namespace format_internal {
// The formatted text as a string, malformed bytes as U+FFFD.
Ref<String> toString(std::string_view utf8);
}  // namespace format_internal

// Formats into UTF-8, e.g. nk::formatUTF8("%s: %ld", name, 3L).
template <class... Args>
std::string formatUTF8(std::string_view fmt, const Args&... args) {
  const FormatArg list[] = {FormatArg(args)..., FormatArg(nullptr)};
  return vformatUTF8(fmt, std::span<const FormatArg>(list, sizeof...(Args)));
}

// Formats into a new string, e.g. nk::format("%@ (%ld)", name, 3L). Bytes of a %s
// argument that are not UTF-8 become U+FFFD rather than losing the whole text.
template <class... Args>
Ref<String> format(std::string_view fmt, const Args&... args) {
  return format_internal::toString(formatUTF8(fmt, args...));
}

}  // namespace nk
