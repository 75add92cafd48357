// URL: validation and resolution through uriparser; decoding, paths and equality here.
//
// A URL keeps the absolute form as ASCII text plus the offsets of its parts, all computed
// once when it is made, so every accessor is a read of immutable state.
#include "nk/foundation/url.hpp"

#include <sys/stat.h>
#include <uriparser/Uri.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/number.hpp"

namespace nk {

NK_DEFINE_CLASS(URL, "URL", Class::kCopyable);

struct URL::Parts {
  Part scheme, userInfo, host, path, query, fragment;
  std::optional<long> port;
};

namespace {

// uriparser counts characters in int; longer texts are refused before they reach it.
constexpr size_t kMaxTextLength = INT_MAX / 4;

int hexValue(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Well-formed UTF-8 only: no overlong forms, surrogates or code points above U+10FFFF.
bool isValidUTF8(std::string_view s) noexcept {
  size_t i = 0;
  const size_t n = s.size();
  while (i < n) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t len;
    unsigned char lo = 0x80, hi = 0xBF;  // bounds of the second byte
    if (c >= 0xC2 && c <= 0xDF) {
      len = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      len = 3;
      if (c == 0xE0) lo = 0xA0;
      if (c == 0xED) hi = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      len = 4;
      if (c == 0xF0) lo = 0x90;
      if (c == 0xF4) hi = 0x8F;
    } else {
      return false;
    }
    if (n - i < len) return false;
    const auto second = static_cast<unsigned char>(s[i + 1]);
    if (second < lo || second > hi) return false;
    for (size_t k = 2; k < len; ++k) {
      if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return false;
    }
    i += len;
  }
  return true;
}

// Percent-decodes without asking for UTF-8: file-system paths may be any bytes.
std::optional<std::string> decodeBytes(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    if (text.size() - i < 3) return std::nullopt;
    const int hi = hexValue(text[i + 1]), lo = hexValue(text[i + 2]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out.push_back(static_cast<char>(hi * 16 + lo));
    i += 2;
  }
  return out;
}

bool isAllowed(unsigned char c, URLAllowedCharacters set) noexcept {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  if (c >= 0x80) return false;
  // Shared by every set: unreserved marks and the sub-delimiters but ";".
  if (c != 0 && std::strchr("-._~!$&'()*+,=", c)) return true;
  switch (set) {
    case URLAllowedCharacters::kPathSegment:
      return c == ':' || c == '@';
    case URLAllowedCharacters::kPath:
      return c == ':' || c == '@' || c == '/';
    case URLAllowedCharacters::kQuery:
    case URLAllowedCharacters::kFragment:
      return c == ':' || c == '@' || c == '/' || c == ';' || c == '?';
    case URLAllowedCharacters::kUser:
    case URLAllowedCharacters::kPassword:
      return c == ';';
    case URLAllowedCharacters::kHost:
      return c == ':' || c == ';' || c == '[' || c == ']';
  }
  return false;
}

// Text of a relative reference with no scheme or authority: a ":" in its first segment
// would read as a scheme, so it is escaped there.
std::string escapeFirstSegmentColons(std::string text) {
  std::string out;
  out.reserve(text.size());
  bool first = true;
  for (char c : text) {
    if (c == '/') first = false;
    if (first && c == ':') {
      out += "%3A";
    } else {
      out.push_back(c);
    }
  }
  return out;
}

// A parsed reference that frees uriparser's members when it goes.
class ParsedUri {
 public:
  explicit ParsedUri(std::string_view text) {
    static const char kEmpty[] = "";
    first_ = text.empty() ? kEmpty : text.data();
    const char* errorPos = nullptr;
    ok_ = uriParseSingleUriExA(&uri_, first_, first_ + text.size(), &errorPos) == URI_SUCCESS;
  }
  ~ParsedUri() {
    if (ok_) uriFreeUriMembersA(&uri_);
  }
  ParsedUri(const ParsedUri&) = delete;
  ParsedUri& operator=(const ParsedUri&) = delete;

  bool ok() const noexcept { return ok_; }
  const UriUriA& uri() const noexcept { return uri_; }
  // The start of the parsed text: the origin of every range in uri().
  const char* first() const noexcept { return first_; }

 private:
  UriUriA uri_{};
  const char* first_ = nullptr;
  bool ok_ = false;
};

std::optional<std::string> serialize(const UriUriA& uri) {
  int required = 0;
  if (uriToStringCharsRequiredA(&uri, &required) != URI_SUCCESS || required < 0) {
    return std::nullopt;
  }
  std::string out(static_cast<size_t>(required) + 1, '\0');
  int written = 0;
  if (uriToStringA(out.data(), &uri, required + 1, &written) != URI_SUCCESS) return std::nullopt;
  out.resize(std::strlen(out.c_str()));
  return out;
}

// Where the path of valid reference text begins: after "scheme:" and "//authority".
struct PathLocation {
  size_t begin;
  size_t end;
  bool hasAuthority;
};

PathLocation locatePath(std::string_view text) {
  size_t pos = 0;
  const size_t colon = text.find_first_of(":/?#");
  if (colon != std::string_view::npos && text[colon] == ':') pos = colon + 1;
  bool authority = false;
  if (text.substr(pos, 2) == "//") {
    authority = true;
    pos = text.find_first_of("/?#", pos + 2);
    if (pos == std::string_view::npos) pos = text.size();
  }
  size_t end = text.find_first_of("?#", pos);
  if (end == std::string_view::npos) end = text.size();
  return {pos, end, authority};
}

// Decimal digits to a long; nullopt when empty or too large.
std::optional<long> parsePort(std::string_view digits) {
  if (digits.empty()) return std::nullopt;
  long value = 0;
  for (char c : digits) {
    const int d = c - '0';
    if (value > (LONG_MAX - d) / 10) return std::nullopt;
    value = value * 10 + d;
  }
  return value;
}

// The decoded, non-empty segments of a raw path, "/" first when it is absolute.
std::optional<std::vector<Ref<String>>> splitPath(std::string_view raw) {
  std::vector<Ref<String>> out;
  if (raw.empty()) return out;
  if (raw.front() == '/') out.push_back(NK_STR("/"));
  size_t pos = 0;
  while (pos < raw.size()) {
    size_t slash = raw.find('/', pos);
    if (slash == std::string_view::npos) slash = raw.size();
    if (slash > pos) {
      auto decoded = URL::percentDecode(raw.substr(pos, slash - pos));
      if (!decoded) return std::nullopt;
      out.push_back(String::fromUTF8(*decoded));
    }
    pos = slash + 1;
  }
  return out;
}

bool isDirectoryOnDisk(const std::string& path) {
  struct stat st;
  return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::optional<std::string> asciiOf(const String* text) {
  std::string out;
  out.reserve(text->length());
  bool ascii = true;
  text->forEachUnit([&](char16_t u) {
    if (u >= 0x80) ascii = false;
    out.push_back(static_cast<char>(u));
  });
  if (!ascii) return std::nullopt;
  return out;
}

bool isAscii(std::string_view s) noexcept {
  for (char c : s) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

}  // namespace

// ----- Making URLs -------------------------------------------------------------------------------

URL::URL(Ref<String> relative, Ref<URL> base, std::string absolute, const Parts& parts)
    : relative_(std::move(relative)),
      base_(std::move(base)),
      absolute_(std::move(absolute)),
      scheme_(parts.scheme),
      userInfo_(parts.userInfo),
      host_(parts.host),
      path_(parts.path),
      query_(parts.query),
      fragment_(parts.fragment),
      port_(parts.port) {}

// Builds from checked ASCII text; `relative` is that text as a String.
Ref<URL> URL::build(Ref<String> relative, const std::string& text, Ref<URL> base) {
  if (text.empty() && !base) return nullptr;
  if (text.size() > kMaxTextLength) return nullptr;
  ParsedUri parsed(text);
  if (!parsed.ok()) return nullptr;

  std::string absolute;
  std::optional<ParsedUri> resolvedParse;
  const ParsedUri* absParse = &parsed;
  if (base && !parsed.uri().scheme.first) {
    if (base->absolute_.size() + text.size() > kMaxTextLength) return nullptr;
    ParsedUri baseParse(base->absolute_);
    if (baseParse.ok() && baseParse.uri().scheme.first) {
      UriUriA dest{};
      if (uriAddBaseUriExA(&dest, &parsed.uri(), &baseParse.uri(), URI_RESOLVE_STRICTLY) !=
          URI_SUCCESS) {
        return nullptr;
      }
      auto text2 = serialize(dest);
      uriFreeUriMembersA(&dest);
      if (!text2) return nullptr;
      absolute = std::move(*text2);
      resolvedParse.emplace(absolute);
      if (!resolvedParse->ok()) return nullptr;
      absParse = &*resolvedParse;
    }
  }
  if (!resolvedParse) absolute = text;
  const std::string_view absText = resolvedParse ? std::string_view(absolute) : text;

  const UriUriA* absUri = &absParse->uri();
  auto partOf = [&](const UriTextRangeA& r) {
    Part p;
    if (r.first) {
      p.offset = static_cast<size_t>(r.first - absParse->first());
      p.size = static_cast<size_t>(r.afterLast - r.first);
    }
    return p;
  };
  Parts parts;
  parts.scheme = partOf(absUri->scheme);
  parts.userInfo = partOf(absUri->userInfo);
  parts.host = partOf(absUri->hostText);
  parts.query = partOf(absUri->query);
  parts.fragment = partOf(absUri->fragment);
  const PathLocation where = locatePath(absText);
  parts.path.offset = where.begin;
  parts.path.size = where.end - where.begin;
  if (absUri->portText.first && absUri->portText.afterLast != absUri->portText.first) {
    parts.port = parsePort(
        std::string_view(absUri->portText.first,
                         static_cast<size_t>(absUri->portText.afterLast - absUri->portText.first)));
    if (!parts.port) return nullptr;
  }
  if (!relative) relative = String::fromLatin1(text);
  return Ref<URL>::adopt(new URL(std::move(relative), std::move(base), std::move(absolute), parts));
}

Ref<URL> URL::fromString(const String* text) { return fromStringRelativeTo(text, nullptr); }

Ref<URL> URL::fromString(std::string_view utf8) { return fromStringRelativeTo(utf8, nullptr); }

Ref<URL> URL::fromStringRelativeTo(const String* text, const URL* base) {
  if (!text) return nullptr;
  auto ascii = asciiOf(text);
  if (!ascii) return nullptr;
  // A mutable text is copied so that later changes do not reach the URL.
  return build(cast<String>(text->copy()), *ascii, Ref<URL>(const_cast<URL*>(base)));
}

Ref<URL> URL::fromStringRelativeTo(std::string_view utf8, const URL* base) {
  if (!isAscii(utf8)) return nullptr;
  return build(nullptr, std::string(utf8), Ref<URL>(const_cast<URL*>(base)));
}

Ref<URL> URL::fileURLWithPath(std::string_view utf8Path, bool isDirectory) {
  std::string encoded = percentEncode(utf8Path, URLAllowedCharacters::kPath);
  if (isDirectory && (encoded.empty() || encoded.back() != '/')) encoded.push_back('/');
  if (!utf8Path.empty() && utf8Path.front() == '/') return fromString("file://" + encoded);

  std::error_code ec;
  const std::filesystem::path cwd = std::filesystem::current_path(ec);
  if (ec || cwd.empty() || cwd.native().front() != '/') return nullptr;
  Ref<URL> base = fileURLWithPath(cwd.native(), true);
  if (!base) return nullptr;
  if (utf8Path.empty()) return fromStringRelativeTo("./", base.get());
  return fromStringRelativeTo(escapeFirstSegmentColons(std::move(encoded)), base.get());
}

Ref<URL> URL::fileURLWithPath(const String* path, bool isDirectory) {
  if (!path) return nullptr;
  return fileURLWithPath(path->utf8(), isDirectory);
}

Ref<URL> URL::fileURLWithPath(std::string_view utf8Path) {
  return fileURLWithPath(utf8Path, isDirectoryOnDisk(std::string(utf8Path)));
}

Ref<URL> URL::fileURLWithPath(const String* path) {
  if (!path) return nullptr;
  return fileURLWithPath(path->utf8());
}

// ----- The text and the base ---------------------------------------------------------------------

Ref<String> URL::absoluteString() const {
  if (!base_) return relative_;
  return String::fromLatin1(absolute_);
}

Ref<URL> URL::absoluteURL() const {
  Ref<URL> self(const_cast<URL*>(this));
  if (!base_) return self;
  // Only the empty text against a base without a scheme cannot stand alone.
  Ref<URL> url = build(nullptr, absolute_, nullptr);
  return url ? url : self;
}

// ----- Parts -------------------------------------------------------------------------------------

Ref<String> URL::partString(Part part) const {
  if (!part.present()) return nullptr;
  return String::fromLatin1(view(part));
}

Ref<String> URL::decodedPart(Part part) const {
  if (!part.present()) return nullptr;
  auto decoded = percentDecode(view(part));
  if (!decoded) return nullptr;
  return String::fromUTF8(*decoded);
}

Ref<Number> URL::portNumber() const {
  if (!port_) return nullptr;
  return Number::withLong(*port_);
}

Ref<String> URL::scheme() const { return partString(scheme_); }

Ref<String> URL::host() const {
  if (!host_.present() || host_.size == 0) return nullptr;
  return decodedPart(host_);
}

Ref<String> URL::user() const {
  if (!userInfo_.present()) return nullptr;
  const size_t colon = view(userInfo_).find(':');
  Part user = userInfo_;
  if (colon != std::string_view::npos) user.size = colon;
  return decodedPart(user);
}

Ref<String> URL::password() const {
  if (!userInfo_.present()) return nullptr;
  const size_t colon = view(userInfo_).find(':');
  if (colon == std::string_view::npos) return nullptr;
  Part password{userInfo_.offset + colon + 1, userInfo_.size - colon - 1};
  return decodedPart(password);
}

Ref<String> URL::path() const {
  Part p = path_;
  if (p.size > 1 && absolute_[p.offset + p.size - 1] == '/') --p.size;
  return decodedPart(p);
}

Ref<String> URL::query() const { return partString(query_); }

Ref<String> URL::fragment() const { return partString(fragment_); }

bool URL::isFileURL() const noexcept {
  const std::string_view s = scheme_.present() ? view(scheme_) : std::string_view();
  return s.size() == 4 && (s[0] | 0x20) == 'f' && (s[1] | 0x20) == 'i' && (s[2] | 0x20) == 'l' &&
         (s[3] | 0x20) == 'e';
}

// ----- Path components ---------------------------------------------------------------------------

Ref<Array> URL::pathComponents() const {
  auto parts = splitPath(view(path_));
  if (!parts || parts->empty()) return nullptr;
  return Array::make(std::vector<Id>(parts->begin(), parts->end()));
}

Ref<String> URL::lastPathComponent() const {
  const std::string_view raw = view(path_);
  if (raw.empty()) return String::empty();
  size_t end = raw.find_last_not_of('/');
  if (end == std::string_view::npos) return NK_STR("/");
  const size_t slash = raw.rfind('/', end);
  const size_t begin = slash == std::string_view::npos ? 0 : slash + 1;
  auto decoded = percentDecode(raw.substr(begin, end + 1 - begin));
  if (!decoded) return nullptr;
  return String::fromUTF8(*decoded);
}

Ref<URL> URL::appending(std::string_view component, bool isDirectory) const {
  const std::string text = base_ ? relative_->utf8() : absolute_;
  const PathLocation where = locatePath(text);
  const std::string_view path = std::string_view(text).substr(where.begin, where.end - where.begin);

  const size_t lead = component.find_first_not_of('/');
  component = lead == std::string_view::npos ? std::string_view() : component.substr(lead);
  std::string insert;
  if (!component.empty()) {
    const bool slash = path.empty() ? where.hasAuthority : path.back() != '/';
    if (slash) insert.push_back('/');
    std::string encoded = percentEncode(component, URLAllowedCharacters::kPath);
    if (where.end == 0) encoded = escapeFirstSegmentColons(std::move(encoded));
    insert += encoded;
  }
  if (isDirectory) {
    const std::string_view last = !insert.empty() ? std::string_view(insert) : path;
    if (last.empty() ? where.hasAuthority : last.back() != '/') insert.push_back('/');
  }
  if (insert.empty()) return Ref<URL>(const_cast<URL*>(this));
  std::string result = text.substr(0, where.end);
  result += insert;
  result.append(text, where.end, std::string::npos);
  return build(nullptr, result, base_);
}

Ref<URL> URL::URLByAppendingPathComponent(const String* component, bool isDirectory) const {
  if (!component) return nullptr;
  return appending(component->utf8(), isDirectory);
}

Ref<URL> URL::URLByAppendingPathComponent(const String* component) const {
  if (!component) return nullptr;
  const std::string utf8 = component->utf8();
  Ref<URL> url = appending(utf8, false);
  if (!url || !isFileURL() || (!utf8.empty() && utf8.back() == '/')) return url;
  auto fsPath = decodeBytes(url->view(url->path_));
  if (fsPath && isDirectoryOnDisk(*fsPath)) return appending(utf8, true);
  return url;
}

// ----- Percent-encoding --------------------------------------------------------------------------

std::optional<std::string> URL::percentDecode(std::string_view text) {
  auto out = decodeBytes(text);
  if (!out || !isValidUTF8(*out)) return std::nullopt;
  return out;
}

std::string URL::percentEncode(std::string_view utf8, URLAllowedCharacters allowed) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(utf8.size());
  for (char ch : utf8) {
    const auto c = static_cast<unsigned char>(ch);
    if (isAllowed(c, allowed)) {
      out.push_back(ch);
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    }
  }
  return out;
}

// ----- Object ------------------------------------------------------------------------------------

bool URL::isEqual(const Object* other) const noexcept {
  if (other == this) return true;
  const URL* url = cast<URL>(other);
  return url && relative_->isEqualToString(url->relative_.get()) &&
         nk::isEqual(base_.get(), url->base_.get());
}

size_t URL::hash() const noexcept { return relative_->hash(); }

Ref<String> URL::description() const {
  if (!base_) return relative_;
  std::string text = relative_->utf8();
  text += " -- ";
  text += base_->description()->utf8();
  return String::fromUTF8(text);
}

Id URL::copy() const { return Id(const_cast<URL*>(this)); }

}  // namespace nk
