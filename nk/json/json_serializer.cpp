// JSONSerializer: one write of the platform JSON writer, decoded as UTF-8.
#include "nk/json/json_serializer.hpp"

#include <string_view>

#include "nk/foundation/class.hpp"
#include "nk/foundation/json_serialization.hpp"

namespace nk {

NK_DEFINE_CLASS(JSONSerializer, "JSONSerializer");

Ref<String> JSONSerializer::classSerializeObjectOptionsEncodeOptionBlockDelegateSelectorError(
    const Object* object, unsigned long options, unsigned long encodeOption,
    const JSONSerializeBlock& block, const Id& delegate, JSONSelector selector, Ref<Error>* error) {
  return make<JSONSerializer>()->serializeObjectOptionsEncodeOptionBlockDelegateSelectorError(
      object, options, encodeOption, block, delegate, selector, error);
}

Ref<String> JSONSerializer::serializeObjectOptionsEncodeOptionBlockDelegateSelectorError(
    const Object* object, unsigned long options, unsigned long /*encodeOption*/,
    const JSONSerializeBlock& /*block*/, const Id& /*delegate*/, JSONSelector /*selector*/,
    Ref<Error>* error) const {
  // The writer's options are a 32-bit word of flags; higher bits mean nothing.
  Ref<Data> bytes =
      JSONSerialization::dataWithJSONObject(object, static_cast<unsigned>(options), error);
  if (!bytes) return nullptr;  // a string made from absent data is absent
  return String::fromUTF8(
      std::string_view(reinterpret_cast<const char*>(bytes->bytes()), bytes->length()));
}

}  // namespace nk
