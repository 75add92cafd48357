// JSONSerialization: the platform's JSON reader and writer under one class name,
// as the JSON facade and the helpers call them.
#pragma once

#include <span>

#include "nk/foundation/data.hpp"
#include "nk/foundation/json_reader.hpp"
#include "nk/foundation/json_writer.hpp"

namespace nk {

class JSONSerialization {
 public:
  JSONSerialization() = delete;

  // Nil data reads as empty text (an error).
  static Id JSONObjectWithData(const Data* data, unsigned options, Ref<Error>* error) {
    return readJSON(data ? data->span() : std::span<const uint8_t>(), options, error);
  }
  static Ref<Data> dataWithJSONObject(const Object* object, unsigned options, Ref<Error>* error) {
    return writeJSON(object, options, error);
  }
  static bool isValidJSONObject(const Object* object) { return nk::isValidJSONObject(object, 0); }
};

}  // namespace nk
