// Text decoding: UTF-8 and UTF-16 input of any bytes. Whatever decodes must
// encode back to the same bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "nk/foundation/format.hpp"
#include "nk/foundation/string.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (auto s = nk::String::fromUTF8(bytes)) {
    if (s->utf8() != bytes) std::abort();
    auto back = nk::String::fromUTF16(s->toUTF16());
    if (!back || !back->isEqual(s.get()) || back->hash() != s->hash()) std::abort();
    auto needle = s->substring(s->length() / 2, s->length() - s->length() / 2);
    if (needle->length() && s->find(needle.get()) == nk::kNotFound) std::abort();
    s->lowercase();
  }
  std::u16string units(size / 2, u'\0');
  if (!units.empty()) std::memcpy(units.data(), data, units.size() * 2);
  auto raw = nk::String::withCharacters(units);
  std::string strict;
  bool valid = raw->toUTF8(strict);
  if (valid != static_cast<bool>(nk::String::fromUTF16(units))) std::abort();
  raw->utf8();
  // The formatter must survive any format text.
  nk::formatUTF8(bytes, 1, "s", nk::String::empty(), 2.5);
  return 0;
}
