// URL helpers over the foundation URL. The query parser keeps the client's
// long-standing reading of odd queries (see vnk_queryParameters in the header):
// servers and stored links depend on it, so it is not "corrected" here.

#include "nk/helpers/url_helpers.hpp"

#include <optional>
#include <string>

#include "nk/foundation/class.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/format.hpp"
#include "nk/foundation/null.hpp"
#include "nk/helpers/string_helpers.hpp"

namespace nk {
namespace {

// The viewer's templates. The image tag lacks its closing ">" and both end in a
// ZERO WIDTH SPACE; pages already shipped render with exactly these bytes.
constexpr std::string_view kImageTemplate =
    "<html><head><style type=\"text/css\"> html,body {margin: 0;padding: 0;width: 100%%;"
    "height: 100%%;}html {display: table;} img {max-width: 100%%; max-height: 100%%; "
    "transform: scale(1);} body {display: table-cell;vertical-align: middle;padding: 20px;"
    "text-align: center;-webkit-text-size-adjust: none;}</style></head><body><img "
    "src=\"%@\"</img></body></html>\xE2\x80\x8B";

constexpr std::string_view kVideoTemplate =
    "<html><head><style type=\"text/css\"> html,body,video {margin: 0;padding: 0;width: 100%%;"
    "height: 100%%; background-color: black;}html {display: table;} body {display: "
    "table-cell;vertical-align: middle;text-align: center;-webkit-text-size-adjust: none;}"
    "</style></head><body><video controls title=\"%@\" src=\"%@\"></video></body></html>"
    "\xE2\x80\x8B";

Ref<String> textOrEmpty(Ref<String> s) { return s ? s : Ref<String>(String::empty()); }

// Percent-decoded text of a raw (ASCII) query part; nil on a bad escape.
Ref<String> decodeQueryPart(std::string_view raw) {
  std::optional<std::string> decoded = URL::percentDecode(raw);
  if (!decoded) return nullptr;
  return String::fromUTF8(*decoded);
}

}  // namespace

Ref<String> vnk_authorityStringRepresentation(const URL* url) {
  if (!url) return nullptr;
  Ref<String> scheme = url->scheme();
  const bool hasScheme = scheme && !scheme->isEmpty();
  const Ref<String> host = textOrEmpty(url->host());
  const Ref<String> schemePart = hasScheme ? scheme : Ref<String>(String::empty());
  const char* separator = hasScheme ? "://" : "";
  if (const std::optional<long> port = url->port()) {
    return format("%@%s%@:%i", schemePart, separator, host, static_cast<int32_t>(*port));
  }
  return format("%@%s%@", schemePart, separator, host);
}

bool vnk_isEqualToURL(const URL* url, const URL* other) {
  if (!url || !other) return false;
  if (url->isFileURL() && other->isFileURL()) {
    const Ref<String> a = url->path();
    return a && a->isEqualToString(other->path().get());
  }
  return url->absoluteURL()->isEqual(other->absoluteURL().get());
}

Ref<Number> vnk_portWithHTTPSchemeDefaults(const URL* url) {
  if (!url) return nullptr;
  if (url->port()) return url->portNumber();
  const Ref<String> scheme = url->scheme();
  unsigned long port = 0;
  if (scheme && !scheme->isEmpty()) {
    const std::string lower = scheme->lowercase()->utf8();
    if (lower == "https") {
      port = 443;
    } else if (lower == "http") {
      port = 80;
    } else if (lower == "ftp") {
      port = 21;
    }
  }
  return Number::withUnsignedInteger(port);
}

Ref<URL> vnk_normalizedHostURL(const URL* url) {
  if (!url) return nullptr;
  const Ref<String> text = url->absoluteString();
  const Ref<String> host = url->host();
  const Ref<URL> self(const_cast<URL*>(url));
  if (!text || !host || host->isEmpty()) return self;
  const size_t at = text->find(host.get());
  if (at == kNotFound) return self;
  const Ref<String> rebuilt = format("%@%@%@", text->substring(0, at), host->lowercase(),
                                     text->substringFrom(at + host->length()));
  return URL::fromString(rebuilt.get());
}

Ref<String> vnk_htmlWrapperFromImagePath(const URL* url) {
  if (!url) return nullptr;
  return format(kImageTemplate, url);
}

Ref<String> vnk_htmlWrapperFromPlayableMediaPath(const URL* url) {
  if (!url) return nullptr;
  return format(kVideoTemplate, url->lastPathComponent(), url);
}

Ref<Dictionary> vnk_queryParameters(const URL* url) {
  if (!url) return nullptr;
  const Ref<String> query = url->query();
  if (!query) return Dictionary::make();
  const Ref<Array> pieces =
      vnk_getComponentsSeparatedByStringRemoveEmptyEntries(query.get(), NK_STR("&"), true);
  auto params = MutableDictionary::withCapacity(pieces->count());
  for (const Id& element : *pieces) {
    const String* piece = static_cast<const String*>(element.get());
    // A query is ASCII, so its UTF-8 bytes are its UTF-16 units one for one.
    const std::string raw = piece->utf8();
    const size_t firstEquals = raw.find('=');
    const Ref<String> key = decodeQueryPart(std::string_view(raw).substr(0, firstEquals));
    Id value;
    if (firstEquals == std::string::npos) {
      value = Null::null();
    } else if (raw.find('=', firstEquals + 1) == std::string::npos) {
      value = decodeQueryPart(std::string_view(raw).substr(firstEquals + 1));
    } else {
      // Three or more parts: the value is cut from the raw piece at the decoded
      // key's length, which lands early when the key held escapes.
      const size_t from = (key ? key->length() : 0) + 1;
      value = piece->substringFrom(from);
    }
    if (!key) {
      Exception::raise(kInvalidArgumentException,
                       "*** -[" + params->objectClass().name() +
                           " setObject:forKeyedSubscript:]: key cannot be nil");
    }
    if (value) {
      params->setObjectForKey(value, key);
    } else {
      params->removeObjectForKey(key);
    }
  }
  return cast<Dictionary>(params->copy());
}

Ref<URL> vnk_URLByAppendingQueryParameters(const URL* url, const Dictionary* parameters) {
  if (!url) return nullptr;
  auto pairs = make<MutableString>();
  if (parameters) {
    for (const auto& [key, value] : parameters->entries()) {
      pairs->append(format("&%@=%@", key, value).get());
    }
  }
  // Raises "NSRangeException" on an empty text, as the platform does.
  if (!url->query()) pairs->replaceCharacters(0, 1, NK_STR("?"));
  const Ref<String> text = url->absoluteString();
  return URL::fromString(text->appending(pairs.get()).get());
}

Ref<String> vnk_subdomain(const URL* url) {
  if (!url) return nullptr;
  const Ref<String> host = url->host();
  if (!host) return nullptr;
  const size_t dot = host->find(NK_STR("."));
  return dot == kNotFound ? host : host->substring(0, dot);
}

}  // namespace nk
