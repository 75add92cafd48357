// Fuzzes the JSON reader. Whatever it accepts must write back and read back
// equal: the first byte picks the reading options, the rest is the text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "nk/foundation/json_reader.hpp"
#include "nk/foundation/json_writer.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const unsigned options = data[0] & 7u;
  std::span<const uint8_t> text(data + 1, size - 1);
  nk::Ref<nk::Error> error;
  nk::Id value = nk::readJSON(text, options, &error);
  if (!value) {
    if (!error) std::abort();  // a failure always says why
    return 0;
  }
  for (unsigned writing : {0u, 1u, 2u, 8u}) {
    nk::Ref<nk::Data> written =
        nk::writeJSON(value.get(), writing | nk::kJSONWritingFragmentsAllowed, nullptr);
    if (!written) std::abort();
    nk::Id back = nk::readJSON(written->span(), nk::kJSONReadingFragmentsAllowed, nullptr);
    if (!back || !nk::isEqual(back, value)) std::abort();
  }
  return 0;
}
