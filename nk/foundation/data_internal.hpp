// Base64 codec shared by Data and the property-list reader and writer.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace nk::data_internal {

enum Base64Flags : unsigned {
  kBase64Strict = 0,
  kBase64SkipWhitespace = 1u << 0,  // ignore ASCII space, tab, CR and LF
  kBase64SkipUnknown = 1u << 1,     // ignore every character outside the alphabet
  kBase64AllowUnpadded = 1u << 2,   // accept a final group of 2 or 3 characters
};

// Appends the decoded bytes to `out`; false (with `out` partly filled) when the
// text is not Base64 under `flags`.
bool decodeBase64(std::string_view text, unsigned flags, std::vector<uint8_t>& out);

// Padded Base64 on one line.
std::string encodeBase64(std::span<const uint8_t> bytes);

}  // namespace nk::data_internal
