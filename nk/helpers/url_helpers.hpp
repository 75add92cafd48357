// URL helpers: authority text, equality with file URLs by path, default ports,
// host normalisation, HTML wrappers for the embedded viewer, query parsing and
// appending, and the first host label.
//
// Every helper takes the URL first and accepts nil there (yielding nil or false).
#pragma once

#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/string.hpp"
#include "nk/foundation/url.hpp"

namespace nk {

// "scheme://host" or "scheme://host:port", without user, path, query or fragment:
//   https://u:p@Host.example:8443/a?b  ->  "https://Host.example:8443"
// An explicit port stays even when it is the scheme's default. Without a scheme
// the text is the host alone ("host" or "host:port"); a URL without a host gives
// the empty host text ("file://" for "file:///a").
Ref<String> vnk_authorityStringRepresentation(const URL* url);

// Two file URLs are equal when their paths are (so a trailing "/" does not
// matter); otherwise the absolute URLs are compared. nil is equal to nothing.
bool vnk_isEqualToURL(const URL* url, const URL* other);

// The URL's port; without one 443 for https, 80 for http, 21 for ftp (scheme in
// any case), and 0 for every other scheme or none.
Ref<Number> vnk_portWithHTTPSchemeDefaults(const URL* url);

// The URL with the first occurrence of its host in its text lower-cased:
// "https://Files.Example.COM/Path" -> "https://files.example.com/Path". The URL
// itself when it has no host or the host's text does not occur (a host written
// with escapes); nil when the rewritten text does not parse.
Ref<URL> vnk_normalizedHostURL(const URL* url);

// A minimal HTML document that centres the image at the URL (the URL's
// description is inserted as it is, without escaping).
Ref<String> vnk_htmlWrapperFromImagePath(const URL* url);

// A minimal HTML document with a video player for the URL, titled with its last
// path component.
Ref<String> vnk_htmlWrapperFromPlayableMediaPath(const URL* url);

// The query as a dictionary. Pieces between "&" are trimmed of spaces and tabs
// and empty ones skipped; then per piece:
//   "k"      -> k (decoded) to Null
//   "k=v"    -> k to v, both percent-decoded ("+" stays "+")
//   "k=v=w"  -> k (decoded) to the raw piece from index (decoded length of k) + 1
// A later piece with the same key wins. A value that fails to decode removes the
// key's earlier entry. A key that fails to decode ("%zz") raises
// "NSInvalidArgumentException", because nil cannot be a key. Empty without a query.
Ref<Dictionary> vnk_queryParameters(const URL* url);

// The URL with "&key=value" appended for every entry of `parameters` in its
// order, the first "&" turned into "?" when the URL has no query. Nothing is
// percent-encoded, so text the URL parser rejects gives nil. An empty dictionary
// on a URL without a query raises "NSRangeException".
Ref<URL> vnk_URLByAppendingQueryParameters(const URL* url, const Dictionary* parameters);

// The host up to its first ".", or the whole host; nil when there is no host.
Ref<String> vnk_subdomain(const URL* url);

}  // namespace nk
