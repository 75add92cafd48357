// Writing the object model as JSON text (UTF-8), with the platform writer's
// options: compact or pretty, keys in insertion or sorted order, fragments, and
// "/" escaped unless asked not to.
#pragma once

#include "nk/foundation/data.hpp"
#include "nk/foundation/error.hpp"
#include "nk/foundation/json_reader.hpp"
#include "nk/foundation/object.hpp"

namespace nk {

// Writing options; they combine with |.
enum JSONWritingOptions : unsigned {
  kJSONWritingPrettyPrinted = 1,     // two-space indentation, "key" : value
  kJSONWritingSortedKeys = 2,        // keys ordered by UTF-16 code units
  kJSONWritingFragmentsAllowed = 4,  // a top-level value need not be a container
  kJSONWritingWithoutEscapingSlashes = 8,
};

// The code of every writing error (in kCocoaErrorDomain()).
inline constexpr long kJSONWritingInvalidError = 3852;

// Writes `object` as JSON. The writer takes String, Number (Booleans as true
// and false, other numbers as decimal text, doubles in the shortest form that
// reads back to the same value), Null, Array and Dictionary with string keys.
// It refuses, with an error naming the reason: any other class, a key that is
// not a string, NaN and infinities, a string with an unpaired surrogate (no
// UTF-8 form), nesting deeper than kJSONMaxDepth (a mutable container holding
// itself, say), nil, and a top-level value that is not an array or a
// dictionary unless kJSONWritingFragmentsAllowed is given. On failure returns
// nil and, when `error` is given, stores the reason there.
Ref<Data> writeJSON(const Object* object, unsigned options, Ref<Error>* error);

// True when writeJSON would accept `object` with `options` (by default: a
// top-level array or dictionary).
bool isValidJSONObject(const Object* object, unsigned options = 0);

}  // namespace nk
