// JSONDecoder: each call maps onto one read of the platform JSON reader.
#include "nk/json/json_decoder.hpp"

#include "nk/foundation/class.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/json_serialization.hpp"

namespace nk {

NK_DEFINE_CLASS(JSONDecoder, "JSONDecoder");

namespace {

void requireData(const Data* data) {
  if (!data) Exception::raise(kInvalidArgumentException, "The jsonData argument is NULL.");
}

}  // namespace

Ref<JSONDecoder> JSONDecoder::decoder() { return decoderWithParseOptions(0); }

Ref<JSONDecoder> JSONDecoder::decoderWithParseOptions(unsigned long flags) {
  return make<JSONDecoder>(flags);
}

JSONDecoder::JSONDecoder(unsigned long /*flags*/) noexcept {}

Id JSONDecoder::objectWithData(const Data* data) const {
  return objectWithDataError(data, nullptr);
}

Id JSONDecoder::objectWithDataError(const Data* data, Ref<Error>* error) const {
  requireData(data);
  return JSONSerialization::JSONObjectWithData(data, 0, error);
}

Id JSONDecoder::mutableObjectWithData(const Data* data) const {
  return mutableObjectWithDataError(data, nullptr);
}

Id JSONDecoder::mutableObjectWithDataError(const Data* data, Ref<Error>* error) const {
  requireData(data);
  Id result = JSONSerialization::JSONObjectWithData(
      data, kJSONReadingMutableContainers | kJSONReadingMutableLeaves, error);
  if (!result) return nullptr;
  return result->mutableCopy();
}

}  // namespace nk
