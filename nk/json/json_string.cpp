// The JSONString operations: each forwards its receiver to the class serializer.
#include "nk/json/json_string.hpp"

namespace nk {

namespace {

Ref<String> forward(const Object* receiver, unsigned long options, const JSONSerializeBlock& block,
                    const Id& delegate, JSONSelector selector, Ref<Error>* error) {
  // These are operations of the receiver: sent to nil they do nothing, so the
  // serializer (which would report nil as an error) is never asked.
  if (!receiver) return nullptr;
  return JSONSerializer::classSerializeObjectOptionsEncodeOptionBlockDelegateSelectorError(
      receiver, options, 0, block, delegate, selector, error);
}

}  // namespace

Ref<String> JSONString(const String* receiver) {
  return JSONStringWithOptionsIncludeQuotesError(receiver, 0, true, nullptr);
}

Ref<String> JSONStringWithOptionsIncludeQuotesError(const String* receiver, unsigned long options,
                                                    bool /*includeQuotes*/, Ref<Error>* error) {
  return forward(receiver, options, nullptr, nullptr, nullptr, error);
}

Ref<String> JSONString(const Array* receiver) {
  return forward(receiver, 0, nullptr, nullptr, nullptr, nullptr);
}

Ref<String> JSONString(const Dictionary* receiver) {
  return forward(receiver, 0, nullptr, nullptr, nullptr, nullptr);
}

Ref<String> JSONStringWithOptionsError(const Array* receiver, unsigned long options,
                                       Ref<Error>* error) {
  return forward(receiver, options, nullptr, nullptr, nullptr, error);
}

Ref<String> JSONStringWithOptionsError(const Dictionary* receiver, unsigned long options,
                                       Ref<Error>* error) {
  return forward(receiver, options, nullptr, nullptr, nullptr, error);
}

Ref<String> JSONStringWithOptionsSerializeUnsupportedClassesUsingDelegateSelectorError(
    const Array* receiver, unsigned long options, const Id& delegate, JSONSelector selector,
    Ref<Error>* error) {
  return forward(receiver, options, nullptr, delegate, selector, error);
}

Ref<String> JSONStringWithOptionsSerializeUnsupportedClassesUsingDelegateSelectorError(
    const Dictionary* receiver, unsigned long options, const Id& delegate, JSONSelector selector,
    Ref<Error>* error) {
  return forward(receiver, options, nullptr, delegate, selector, error);
}

Ref<String> JSONStringWithOptionsSerializeUnsupportedClassesUsingBlockError(
    const Array* receiver, unsigned long options, const JSONSerializeBlock& block,
    Ref<Error>* error) {
  return forward(receiver, options, block, nullptr, nullptr, error);
}

Ref<String> JSONStringWithOptionsSerializeUnsupportedClassesUsingBlockError(
    const Dictionary* receiver, unsigned long options, const JSONSerializeBlock& block,
    Ref<Error>* error) {
  return forward(receiver, options, block, nullptr, nullptr, error);
}

}  // namespace nk
