// JSONSerializer: the long-standing serializer interface, kept for clients, over
// the platform JSON writer. Only the object, the options (handed to the writer
// unchanged) and the error slot are used; the encode option, the block, the
// delegate and the selector are accepted and never used or called.
#pragma once

#include <functional>

#include "nk/foundation/error.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// The conversion block clients pass for unsupported classes (never called).
using JSONSerializeBlock = std::function<Id(const Id& object)>;
// A method name clients pass with a delegate (never called).
using JSONSelector = const char*;

class JSONSerializer final : public Object {
  NK_DECLARE_CLASS(JSONSerializer, Object)

 public:
  JSONSerializer() noexcept = default;

  // The class operation: a new serializer sent the instance operation with all
  // seven arguments. (C++ cannot give a static and a member function one name
  // and one signature, hence the prefix.)
  static Ref<String> classSerializeObjectOptionsEncodeOptionBlockDelegateSelectorError(
      const Object* object, unsigned long options, unsigned long encodeOption,
      const JSONSerializeBlock& block, const Id& delegate, JSONSelector selector,
      Ref<Error>* error);

  // The writer's UTF-8 text of `object` with `options` as writing options, as a
  // string; nil when the writer refuses (its error in `error` if given).
  Ref<String> serializeObjectOptionsEncodeOptionBlockDelegateSelectorError(
      const Object* object, unsigned long options, unsigned long encodeOption,
      const JSONSerializeBlock& block, const Id& delegate, JSONSelector selector,
      Ref<Error>* error) const;
};

}  // namespace nk
