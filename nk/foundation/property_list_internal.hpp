// Pieces shared by the property-list front end and its binary and XML codecs:
// the readers, the flattened object graph both writers work from, and limits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "nk/foundation/object.hpp"
#include "nk/foundation/property_list.hpp"

namespace nk::plist_internal {

// Elements counted once per path from the root (so shared objects count each
// time they are reached). Readers refuse more, writers too, so that recursive
// walks of anything read here stay bounded.
inline constexpr uint64_t kMaxExpandedCount = uint64_t{1} << 24;

// Building a set (or a dictionary with container keys) tests members of equal
// hash for equality pair by pair; arrays hash by their count and end elements,
// dictionaries and sets by their count. Each test may walk the smaller member's expanded count, so
// a set of shared containers can ask for this much work many times over. Readers refuse a document
// whose tables would need more, writers too.
inline constexpr uint64_t kMaxEqualityWork = kMaxExpandedCount;

// The most work the equality tests of one table can take: for each group of
// members with equal hashes, every pair of distinct objects costs the smaller
// expanded count. `members` holds (member, expanded count) pairs; the result
// saturates at kMaxEqualityWork + 1.
uint64_t worstEqualityWork(std::span<const std::pair<const Object*, uint64_t>> members);

// Each reader returns nil and sets `reason` (one sentence) on failure.
Id readBinary(std::span<const uint8_t> bytes, std::string& reason);
// `text` is UTF-8.
Id readXML(std::span<const uint8_t> text, std::string& reason);
Id readOpenStep(std::span<const uint8_t> text, std::string& reason);

enum class Kind : uint8_t {
  kString,
  kInteger,
  kReal,
  kBoolean,
  kDate,
  kData,
  kUID,
  kArray,
  kDictionary,
  kSet,
};

inline bool isContainer(Kind kind) {
  return kind == Kind::kArray || kind == Kind::kDictionary || kind == Kind::kSet;
}

// One object of the graph. Children are node indices: the elements of an array
// or set, the keys then the values of a dictionary.
struct Node {
  Kind kind;
  const Object* object;
  std::vector<uint32_t> children;
  std::string encoded;  // the binary form of a scalar (binary graphs only)
};

// The graph reachable from a root, nodes[0] being the root. Containers appear
// once per object; in binary graphs equal scalars appear once.
struct Graph {
  std::vector<Node> nodes;
  uint64_t expandedCount = 0;
};

// Checks that `root` is writable in `format` (for XML, that its strings are
// valid Unicode) and builds its graph; false with `reason` set when it is not.
bool flatten(const Object* root, PropertyListFormat format, Graph& graph, std::string& reason);

// The binary encoding of a scalar node's object (marker and payload).
std::string encodeBinaryScalar(Kind kind, const Object* object);

std::vector<uint8_t> writeBinary(const Graph& graph);
std::vector<uint8_t> writeXML(const Graph& graph);

// Text for messages: printable ASCII as 'c', anything else as 0xNN.
std::string describeByte(uint8_t byte);

}  // namespace nk::plist_internal
