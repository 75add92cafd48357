// URL: an RFC 3986 reference, absolute or relative to a base URL, with file URLs.
//
// Parsing and reference resolution are uriparser's; this type adds strict percent-decoding,
// the platform's rules for paths, ports and equality, and keeps a relative text with its base.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

class Array;
class Number;

// The characters a URL part may carry unencoded, as the platform's allowed-character sets.
// Every other byte (non-ASCII bytes and "%" included) is percent-encoded.
enum class URLAllowedCharacters {
  kPathSegment,  // kPath without "/": a single path component
  kPath,         // ! $ & ' ( ) * + , - . / 0-9 : = @ A-Z _ a-z ~
  kQuery,        // ! $ & ' ( ) * + , - . / 0-9 : ; = ? @ A-Z _ a-z ~
  kFragment,     // same as kQuery
  kUser,         // ! $ & ' ( ) * + , - . 0-9 ; = A-Z _ a-z ~
  kPassword,     // same as kUser
  kHost,         // ! $ & ' ( ) * + , - . 0-9 : ; = A-Z [ ] _ a-z ~
};

// An immutable URL. Made from text that must be a valid RFC 3986 reference: ASCII only, no
// spaces, every "%" followed by two hex digits. A URL made relative to a base keeps the text as
// given (`relativeString`) and the base (`baseURL`); its parts are those of the resolved,
// absolute form. Safe to share between threads.
//
//   auto base = URL::fromString("http://a/b/c/d;p?q");
//   auto url = URL::fromStringRelativeTo("../g?y#s", base.get());
//   url->absoluteString();  // "http://a/b/g?y#s"
//   url->path();            // "/b/g"
//   url->description();     // "../g?y#s -- http://a/b/c/d;p?q"
class URL final : public Object {
  NK_DECLARE_CLASS(URL, Object)

 public:
  // ----- Making URLs ---------------------------------------------------------------------------

  // nil when `text` is nil, empty, or not a valid URL ("http://h/a b", "http://h/é",
  // "http://h/%zz", "http://h/%4"), or when its port does not fit in a long.
  [[nodiscard]] static Ref<URL> fromString(const String* text);
  // The same from UTF-8 bytes.
  [[nodiscard]] static Ref<URL> fromString(std::string_view utf8);

  // `text` relative to `base` (nil base: as fromString). The empty text is valid here and
  // names the base itself. An absolute `text` still keeps `base`, though it does not use it.
  // When the base's own absolute form has no scheme there is nothing to resolve against and
  // the absolute form is `text` itself.
  [[nodiscard]] static Ref<URL> fromStringRelativeTo(const String* text, const URL* base);
  [[nodiscard]] static Ref<URL> fromStringRelativeTo(std::string_view utf8, const URL* base);

  // A "file:" URL for a file-system path, percent-encoded (kPath). An absolute path gives
  // "file:///a/b"; a relative one gives that text relative to the current directory's URL
  // (description "b -- file:///cwd/"); the empty path names the current directory. With
  // `isDirectory` a trailing "/" is added when missing: fileURLWithPath("/a/b", true) is
  // "file:///a/b/", and its path() is "/a/b". nil when the current directory is unknown.
  [[nodiscard]] static Ref<URL> fileURLWithPath(const String* path, bool isDirectory);
  [[nodiscard]] static Ref<URL> fileURLWithPath(std::string_view utf8Path, bool isDirectory);
  // As above, asking the file system whether the path is a directory (symbolic links
  // followed); a path that does not exist is taken as a file.
  [[nodiscard]] static Ref<URL> fileURLWithPath(const String* path);
  [[nodiscard]] static Ref<URL> fileURLWithPath(std::string_view utf8Path);

  // ----- The text and the base -----------------------------------------------------------------

  // The text the URL was made from, as given.
  const Ref<String>& relativeString() const noexcept { return relative_; }
  // The base URL, nil when there is none.
  const Ref<URL>& baseURL() const noexcept { return base_; }
  // The resolved text: relativeString() itself when there is no base.
  [[nodiscard]] Ref<String> absoluteString() const;
  // This URL when it has no base, else a new URL of absoluteString() without a base (this URL
  // again when that text is empty: "" against a base without a scheme).
  [[nodiscard]] Ref<URL> absoluteURL() const;

  // ----- Parts of the absolute form; nil when absent ------------------------------------------

  // As written: "HTTP://x" gives "HTTP".
  [[nodiscard]] Ref<String> scheme() const;
  // Percent-decoded, case as written, IPv6 literals without brackets ("::1"). nil when empty
  // ("file:///a"), or when the decoded bytes are not UTF-8.
  [[nodiscard]] Ref<String> host() const;
  // Absent when not written or written empty ("http://h:/").
  [[nodiscard]] std::optional<long> port() const noexcept { return port_; }
  // The port as a Number holding a long, nil when absent.
  [[nodiscard]] Ref<Number> portNumber() const;
  // Percent-decoded user and password of "user:password@". "http://u@h" has a user and no
  // password; "http://u:@h" has the empty password. nil when decoding fails.
  [[nodiscard]] Ref<String> user() const;
  [[nodiscard]] Ref<String> password() const;
  // Percent-decoded path without its trailing "/", except that the path "/" stays "/".
  // "" when there is no path ("http://h"); nil when the decoded bytes are not UTF-8.
  [[nodiscard]] Ref<String> path() const;
  // Raw (still percent-encoded) text after "?", "" for "http://h/p?", nil without "?".
  [[nodiscard]] Ref<String> query() const;
  // Raw text after "#", with the same rules as query().
  [[nodiscard]] Ref<String> fragment() const;
  // True when the scheme is "file", in any case.
  [[nodiscard]] bool isFileURL() const noexcept;

  // ----- Path components -----------------------------------------------------------------------

  // The path's segments, each percent-decoded, with "/" first for an absolute path and empty
  // segments skipped: "http://h/a/b%20c/" gives ("/", "a", "b c"). A "%2F" inside a segment
  // stays inside it. nil when there is no path or a segment is not UTF-8.
  [[nodiscard]] Ref<Array> pathComponents() const;
  // The last of pathComponents(): "b" for "http://h/a/b/", "/" for "http://h/", "" when there
  // is no path, nil when it is not UTF-8.
  [[nodiscard]] Ref<String> lastPathComponent() const;

  // A URL whose path has `component` appended after a "/" (added when the path does not end
  // with one), and a trailing "/" when `isDirectory`; query and fragment stay. `component` is
  // plain text, percent-encoded here (kPath: "/" inside it separates segments). A URL with a
  // base appends to its relative text and keeps the base. An empty component appends nothing
  // but the directory "/". "http://h/a?q" + "b c" gives "http://h/a/b%20c?q".
  [[nodiscard]] Ref<URL> URLByAppendingPathComponent(const String* component,
                                                     bool isDirectory) const;
  // As above; for a file URL, whether the result is a directory is asked of the file system.
  [[nodiscard]] Ref<URL> URLByAppendingPathComponent(const String* component) const;

  // ----- Percent-encoding ----------------------------------------------------------------------

  // Decodes "%XX" escapes; nullopt when a "%" is not followed by two hex digits or the result
  // is not well-formed UTF-8. Other bytes pass through unchanged.
  [[nodiscard]] static std::optional<std::string> percentDecode(std::string_view text);
  // Encodes every byte of `utf8` outside `allowed` as "%XX" (upper-case hex).
  [[nodiscard]] static std::string percentEncode(std::string_view utf8,
                                                 URLAllowedCharacters allowed);

  // ----- Object --------------------------------------------------------------------------------

  // Equal when the relative strings and the base URLs are equal: "b" relative to "http://a/"
  // is not equal to "http://a/b".
  bool isEqual(const Object* other) const noexcept override;
  size_t hash() const noexcept override;
  // The relative string, then " -- " and the base's description when there is a base.
  Ref<String> description() const override;
  // The URL itself: URLs are immutable.
  Id copy() const override;

 private:
  // A part of absolute_, as an offset and a size; size kAbsent when the part is missing.
  struct Part {
    static constexpr size_t kAbsent = static_cast<size_t>(-1);
    size_t offset = 0;
    size_t size = kAbsent;
    bool present() const noexcept { return size != kAbsent; }
  };
  struct Parts;

  URL(Ref<String> relative, Ref<URL> base, std::string absolute, const Parts& parts);
  // Makes a URL from ASCII `text`; `relative` is that text as a String, or nil to make one.
  static Ref<URL> build(Ref<String> relative, const std::string& text, Ref<URL> base);
  Ref<URL> appending(std::string_view component, bool isDirectory) const;
  Ref<String> partString(Part part) const;
  Ref<String> decodedPart(Part part) const;
  std::string_view view(Part part) const noexcept {
    return std::string_view(absolute_).substr(part.offset, part.size);
  }

  Ref<String> relative_;
  Ref<URL> base_;
  std::string absolute_;  // ASCII
  Part scheme_, userInfo_, host_, path_, query_, fragment_;
  std::optional<long> port_;
};

}  // namespace nk
