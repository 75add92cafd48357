// The JSONString operations on strings, arrays and dictionaries: one-line
// forwards to the class serializer with the receiver as the object. No quoting
// choice is made and no unsupported class is ever converted: the block, the
// delegate and the selector travel to the serializer and are ignored there.
#pragma once

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/error.hpp"
#include "nk/foundation/string.hpp"
#include "nk/json/json_serializer.hpp"

namespace nk {

// A nil receiver gives nil and leaves `error` untouched, as a message to nil does.

// A bare string with options 0 is not a valid top-level value for the writer,
// so this is nil unless options allow fragments.
Ref<String> JSONString(const String* receiver);
// `includeQuotes` is dropped.
Ref<String> JSONStringWithOptionsIncludeQuotesError(const String* receiver, unsigned long options,
                                                    bool includeQuotes, Ref<Error>* error);

Ref<String> JSONString(const Array* receiver);
Ref<String> JSONString(const Dictionary* receiver);
Ref<String> JSONStringWithOptionsError(const Array* receiver, unsigned long options,
                                       Ref<Error>* error);
Ref<String> JSONStringWithOptionsError(const Dictionary* receiver, unsigned long options,
                                       Ref<Error>* error);
Ref<String> JSONStringWithOptionsSerializeUnsupportedClassesUsingDelegateSelectorError(
    const Array* receiver, unsigned long options, const Id& delegate, JSONSelector selector,
    Ref<Error>* error);
Ref<String> JSONStringWithOptionsSerializeUnsupportedClassesUsingDelegateSelectorError(
    const Dictionary* receiver, unsigned long options, const Id& delegate, JSONSelector selector,
    Ref<Error>* error);
Ref<String> JSONStringWithOptionsSerializeUnsupportedClassesUsingBlockError(
    const Array* receiver, unsigned long options, const JSONSerializeBlock& block,
    Ref<Error>* error);
Ref<String> JSONStringWithOptionsSerializeUnsupportedClassesUsingBlockError(
    const Dictionary* receiver, unsigned long options, const JSONSerializeBlock& block,
    Ref<Error>* error);

}  // namespace nk
