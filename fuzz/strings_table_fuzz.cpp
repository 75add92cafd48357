// Fuzz target for the string-table parser: any bytes must give a table or nil, never a
// crash, an out-of-bounds read or unbounded work.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "nk/system/strings_table.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto table = nk::parseStringsTable(std::string_view(reinterpret_cast<const char*>(data), size));
  if (table) {
    // Walk the result so that every string made from the input is touched.
    for (const auto& key : *table) (void)table->objectForKey(key)->hash();
  }
  return 0;
}
