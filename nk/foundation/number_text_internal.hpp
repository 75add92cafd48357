// Decimal text of numbers, fast paths for the JSON writer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace nk::number_text_internal {

// Room a number needs at its start: copies have fixed sizes and run past the
// text's end.
inline constexpr size_t kNumberRoom = 64;

// Writes an integer (its magnitude and sign) at `p`, which has kNumberRoom bytes;
// returns the end.
char* writeInteger(uint64_t magnitude, bool negative, char* p) noexcept;

// Writes finite `d` at `p`, which has kNumberRoom bytes, byte for byte as
// std::to_chars writes it (shortest round-trip text); returns the end.
char* writeDouble(double d, char* p);

}  // namespace nk::number_text_internal
