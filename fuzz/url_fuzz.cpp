// URL parsing: any bytes as URL text, alone and relative to a fixed base. Every accessor
// must survive whatever parses, and the parts must agree with each other.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "nk/foundation/array.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/string.hpp"
#include "nk/foundation/url.hpp"

namespace {

// Reads the text so that nothing is optimised away; nil counts as empty.
size_t length(const nk::Ref<nk::String>& s) { return s ? s->utf8().size() : 0; }

bool contains(const nk::String* haystack, std::string_view prefix, const nk::String* part) {
  return part && haystack->utf8().find(std::string(prefix) + part->utf8()) != std::string::npos;
}

void exercise(const nk::Ref<nk::URL>& url) {
  if (!url) return;
  auto absolute = url->absoluteString();
  if (!absolute) std::abort();
  // The description starts with the relative text.
  if (url->description()->utf8().rfind(url->relativeString()->utf8(), 0) != 0) std::abort();
  auto scheme = url->scheme();
  if (url->isFileURL() != (scheme && scheme->lowercase()->isEqual(NK_STR("file")))) std::abort();
  if (auto query = url->query(); query && !contains(absolute.get(), "?", query.get())) {
    std::abort();
  }
  if (auto fragment = url->fragment(); fragment && !contains(absolute.get(), "#", fragment.get())) {
    std::abort();
  }
  if ((url->user() || url->password()) && absolute->utf8().find('@') == std::string::npos) {
    std::abort();
  }
  if (url->port().has_value() != static_cast<bool>(url->portNumber())) std::abort();
  volatile size_t sink = length(url->host()) + length(url->user()) + length(url->password());
  (void)sink;

  auto path = url->path();
  auto components = url->pathComponents();
  auto last = url->lastPathComponent();
  // With a decodable path the last component is the last of the components.
  if (components && last && !last->isEqual(components->lastObject().get())) std::abort();
  if (components && !path) std::abort();

  auto abs = url->absoluteURL();
  if (!abs || !abs->absoluteString()->isEqual(absolute.get())) std::abort();
  if (!url->isEqual(url->copy().get())) std::abort();
  // The same text made again is an equal URL with the same hash.
  auto again = nk::URL::fromStringRelativeTo(url->relativeString().get(), url->baseURL().get());
  if (!again || !again->isEqual(url.get()) || again->hash() != url->hash()) std::abort();

  // Appending keeps the URL valid; the appended directory becomes the last component.
  auto appended = url->URLByAppendingPathComponent(NK_STR("a b"), true);
  if (appended && appended->path() && !appended->lastPathComponent()->isEqual(NK_STR("a b")) &&
      url->path() && !url->path()->isEmpty()) {
    std::abort();
  }
  if (!url->URLByAppendingPathComponent(nk::String::empty(), false)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  exercise(nk::URL::fromString(bytes));

  static const nk::Ref<nk::URL> base = nk::URL::fromString("http://u:p@a:8/b/c/d;p?q#f");
  auto relative = nk::URL::fromStringRelativeTo(bytes, base.get());
  exercise(relative);
  // A relative URL may serve as a base in turn.
  if (relative) exercise(nk::URL::fromStringRelativeTo("../x?y", relative.get()));

  // Decoding and encoding take any bytes; encoded text always decodes to what went in.
  if (auto decoded = nk::URL::percentDecode(bytes)) {
    auto encoded = nk::URL::percentEncode(*decoded, nk::URLAllowedCharacters::kPathSegment);
    if (nk::URL::percentDecode(encoded) != decoded) std::abort();
    if (!nk::URL::fromString("http://h/" + encoded)) std::abort();
  }
  return 0;
}
