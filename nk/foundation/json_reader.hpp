// Reading JSON text into the object model, with the platform reader's options
// and errors. The text may be UTF-8 (with or without a byte-order mark), UTF-16
// or UTF-32, told apart by a byte-order mark or the pattern of the first bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "nk/foundation/error.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// Reading options; they combine with |.
enum JSONReadingOptions : unsigned {
  kJSONReadingMutableContainers = 1,  // arrays and dictionaries are mutable
  kJSONReadingMutableLeaves = 2,      // strings are MutableString
  kJSONReadingFragmentsAllowed = 4,   // a top-level value need not be a container
};

// Arrays and dictionaries may nest this deep; one more level is an error.
inline constexpr size_t kJSONMaxDepth = 512;

// Errors of reading and writing JSON are in kCocoaErrorDomain().
// The code of every reading error. The description names the byte offset
// (in the UTF-8 form of the text) where reading stopped.
inline constexpr long kJSONReadingCorruptError = 3840;

// Errors carry their technical description under kDebugDescriptionKey() (and
// as the localized description).

// Reads one JSON value from `bytes`. Numbers: integers that fit int64 as 'q',
// larger ones up to UINT64_MAX as 'Q', every other integer and every number
// with a fraction or exponent as a double ('d'); "-0" is a negative-zero
// double; a number beyond the double range is an error (one too small reads
// as zero). Duplicate keys keep the first key's place and the last value.
// Equal keys, and in large texts equal numbers and short immutable strings,
// may be one shared object. Each thread keeps its parser's buffers (up to
// 64 MB) between calls. On failure returns nil and, when `error` is given,
// stores the reason there.
Id readJSON(std::span<const uint8_t> bytes, unsigned options, Ref<Error>* error);

}  // namespace nk
