// JSONDecoder: the long-standing decoder interface, kept for clients, over the
// platform JSON reader. Parse options are accepted and dropped; decoding always
// reads with the reader's own rules.
#pragma once

#include "nk/foundation/data.hpp"
#include "nk/foundation/error.hpp"
#include "nk/foundation/object.hpp"

namespace nk {

class JSONDecoder final : public Object {
  NK_DECLARE_CLASS(JSONDecoder, Object)

 public:
  // decoderWithParseOptions(0).
  static Ref<JSONDecoder> decoder();
  // A new decoder; the flags are not kept.
  static Ref<JSONDecoder> decoderWithParseOptions(unsigned long flags);

  // init and initWithParseOptions: (the flags are dropped).
  JSONDecoder() noexcept = default;
  explicit JSONDecoder(unsigned long flags) noexcept;

  // Immutable containers and strings. Raises "NSInvalidArgumentException"
  // ("The jsonData argument is NULL.") for nil data, without touching `error`;
  // on malformed text returns nil and the reader's error in `error` if given.
  Id objectWithData(const Data* data) const;
  Id objectWithDataError(const Data* data, Ref<Error>* error) const;
  // Mutable containers and strings, and the top level once more copied
  // mutably (a shallow copy). Raises as objectWithData does.
  Id mutableObjectWithData(const Data* data) const;
  Id mutableObjectWithDataError(const Data* data, Ref<Error>* error) const;
};

}  // namespace nk
