// Number helpers shared with the property-list and description code: the hash
// functions behind Number::hash and the shortest round-trip text of a value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace nk::number_internal {

// Hash of an integer value given as its 64-bit pattern.
size_t hashInteger(uint64_t bits) noexcept;
// Hash of a double, equal to hashInteger of the integer it equals when integral.
size_t hashDouble(double d) noexcept;

// Shortest text that reads back to the same value, laid out as Number describes.
std::string shortestText(double value);
std::string shortestText(float value);

}  // namespace nk::number_internal
