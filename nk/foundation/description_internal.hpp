// The old-style property-list text that arrays, dictionaries and sets print as
// their description, shared by the three collections.
#pragma once

#include <string>

#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk::description_internal {

// Appends `object` as an element at nesting `level` (four spaces per level): a
// collection as its bracketed block, starting with its own indentation as the
// platform prints it; a string bare or quoted; anything else as its description.
void appendElement(std::u16string& out, const Object* object, unsigned level);

// Appends a string bare when it is non-empty and made only of ASCII letters,
// digits and `_ . $ / :`, else in double quotes with `\"`, `\\`, C escapes for
// control characters and `\Uxxxx` (lowercase hex) for every non-ASCII unit.
void appendQuotedString(std::u16string& out, const String* string);

// The full text of an array, dictionary or set at level 0.
Ref<String> describeCollection(const Object* collection);

}  // namespace nk::description_internal
