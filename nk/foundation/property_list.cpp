// Property lists: the front end (format detection, errors), PlistUID, and the
// validation pass that turns an object graph into the form both writers use.
#include "nk/foundation/property_list.hpp"

#include <algorithm>
#include <string>
#include <unordered_map>

#include "nk/foundation/array.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/data.hpp"
#include "nk/foundation/date.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/format.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/number_internal.hpp"
#include "nk/foundation/property_list_internal.hpp"
#include "nk/foundation/set.hpp"

namespace nk {

NK_DEFINE_CLASS(PlistUID, "PlistUID", Class::kCopyable);

Ref<PlistUID> PlistUID::make(uint64_t value) { return Ref<PlistUID>::adopt(new PlistUID(value)); }

bool PlistUID::isEqual(const Object* other) const noexcept {
  const auto* uid = cast<PlistUID>(other);
  return uid && uid->value_ == value_;
}

size_t PlistUID::hash() const noexcept { return number_internal::hashInteger(value_); }

Ref<String> PlistUID::description() const {
  return format("<PlistUID: %p>{value = %llu}", static_cast<const void*>(this),
                static_cast<unsigned long long>(value_));
}

Id PlistUID::copy() const { return Id(const_cast<PlistUID*>(this)); }

namespace plist_internal {

std::string describeByte(uint8_t byte) {
  if (byte >= 0x20 && byte < 0x7f) return std::string("'") + static_cast<char>(byte) + "'";
  static constexpr char kHex[] = "0123456789abcdef";
  return std::string("0x") + kHex[byte >> 4] + kHex[byte & 15];
}

uint64_t worstEqualityWork(std::span<const std::pair<const Object*, uint64_t>> members) {
  struct Member {
    size_t hash;
    uint64_t size;
    const Object* object;
  };
  std::vector<Member> sorted;
  sorted.reserve(members.size());
  for (const auto& [object, size] : members) sorted.push_back({object->hash(), size, object});
  // Within a group in decreasing order of size, a member costs its own size once
  // for each larger member before it. The same object twice is found by identity.
  std::sort(sorted.begin(), sorted.end(), [](const Member& a, const Member& b) {
    if (a.hash != b.hash) return a.hash < b.hash;
    if (a.size != b.size) return a.size > b.size;
    return std::less<const Object*>()(a.object, b.object);
  });
  uint64_t work = 0;
  uint64_t before = 0;
  for (size_t i = 1; i < sorted.size(); ++i) {
    if (sorted[i].object == sorted[i - 1].object) continue;
    before = sorted[i].hash == sorted[i - 1].hash ? before + 1 : 0;
    work += std::min(sorted[i].size, kMaxEqualityWork + 1) * before;
    if (work > kMaxEqualityWork) return kMaxEqualityWork + 1;
  }
  return work;
}

namespace {

const char* formatNumber(PropertyListFormat format) {
  return format == PropertyListFormat::kBinary ? "200" : "100";
}

// Builds the graph depth-first. The recursion is bounded by kPropertyListMaxDepth.
class Flattener {
 public:
  Flattener(PropertyListFormat format, Graph& graph, std::string& reason)
      : format_(format), graph_(graph), reason_(reason) {}

  bool run(const Object* root) {
    const int64_t index = visit(root, 0);
    if (index < 0) return false;
    graph_.expandedCount = expanded_[static_cast<size_t>(index)];
    return true;
  }

 private:
  // Sets the reason; returns -1, the failed node index.
  int64_t fail(const std::string& why) {
    reason_ = std::string("Property list invalid for format: ") + formatNumber(format_) + " (" +
              why + ")";
    return -1;
  }

  bool classify(const Object* object, Kind& kind) {
    if (cast<String>(object)) {
      kind = Kind::kString;
    } else if (const auto* number = cast<Number>(object)) {
      kind = number->isBoolean()         ? Kind::kBoolean
             : number->isFloatingPoint() ? Kind::kReal
                                         : Kind::kInteger;
    } else if (cast<Date>(object)) {
      kind = Kind::kDate;
    } else if (cast<Data>(object)) {
      kind = Kind::kData;
    } else if (cast<PlistUID>(object)) {
      kind = Kind::kUID;
    } else if (cast<Array>(object)) {
      kind = Kind::kArray;
    } else if (cast<Dictionary>(object)) {
      kind = Kind::kDictionary;
    } else if (cast<Set>(object) && format_ == PropertyListFormat::kBinary) {
      kind = Kind::kSet;
    } else {
      fail("property lists cannot contain objects of type '" + object->objectClass().name() + "'");
      return false;
    }
    return true;
  }

  uint32_t addNode(Kind kind, const Object* object) {
    graph_.nodes.push_back(Node{kind, object, {}, {}});
    onPath_.push_back(0);
    height_.push_back(0);
    expanded_.push_back(1);
    return static_cast<uint32_t>(graph_.nodes.size() - 1);
  }

  // The node index of `object`, or -1 with the reason set.
  int64_t visit(const Object* object, size_t depth) {
    Kind kind;
    if (!classify(object, kind)) return -1;
    if (!isContainer(kind)) {
      if (format_ != PropertyListFormat::kBinary) {
        auto [it, added] = identity_.try_emplace(object, 0);
        if (added) {
          std::string utf8;
          if (kind == Kind::kString && !cast<String>(object)->toUTF8(utf8)) {
            identity_.erase(it);
            return fail("a string holds an unpaired surrogate, which XML cannot carry");
          }
          it->second = addNode(kind, object);
        }
        return it->second;
      }
      std::string encoded = encodeBinaryScalar(kind, object);
      auto [it, added] = scalars_.try_emplace(encoded, 0);
      if (added) {
        it->second = addNode(kind, object);
        graph_.nodes[it->second].encoded = std::move(encoded);
      }
      return it->second;
    }

    if (auto it = identity_.find(object); it != identity_.end()) {
      if (onPath_[it->second]) return fail("the object graph contains a cycle");
      return it->second;
    }
    if (depth >= kPropertyListMaxDepth) {
      return fail("containers are nested more than " + std::to_string(kPropertyListMaxDepth) +
                  " levels deep");
    }
    const uint32_t index = addNode(kind, object);
    identity_.emplace(object, index);
    onPath_[index] = 1;

    uint32_t height = 0;
    uint64_t expanded = 1;
    auto add = [&](const Object* child) {
      const int64_t c = visit(child, depth + 1);
      if (c < 0) return false;
      const auto ci = static_cast<size_t>(c);
      graph_.nodes[index].children.push_back(static_cast<uint32_t>(ci));
      height = std::max<uint32_t>(height, height_[ci]);
      expanded = std::min(expanded + expanded_[ci], kMaxExpandedCount + 1);
      return true;
    };
    if (kind == Kind::kArray) {
      for (const Id& element : cast<Array>(object)->objects()) {
        if (!add(element.get())) return -1;
      }
    } else if (kind == Kind::kSet) {
      std::vector<std::pair<const Object*, uint64_t>> members;
      members.reserve(cast<Set>(object)->count());
      for (const Id& element : *cast<Set>(object)) {
        if (!add(element.get())) return -1;
        members.emplace_back(element.get(), expanded_[graph_.nodes[index].children.back()]);
      }
      equalityWork_ += worstEqualityWork(members);
      if (equalityWork_ > kMaxEqualityWork) {
        return fail("telling the members of its sets apart could take more than " +
                    std::to_string(kMaxEqualityWork) + " comparisons");
      }
    } else {
      const auto* dict = cast<Dictionary>(object);
      for (const Id& key : *dict) {
        if (!cast<String>(key.get())) {
          return fail("dictionary keys must be strings, not '" + key->objectClass().name() + "'");
        }
        if (!add(key.get())) return -1;
      }
      for (const auto& [key, value] : dict->entries()) {
        if (!add(value.get())) return -1;
      }
    }
    onPath_[index] = 0;
    height_[index] = height + 1;
    expanded_[index] = expanded;
    if (height + 1 > kPropertyListMaxDepth) {
      return fail("containers are nested more than " + std::to_string(kPropertyListMaxDepth) +
                  " levels deep");
    }
    if (expanded > kMaxExpandedCount) {
      return fail("shared objects expand to more than " + std::to_string(kMaxExpandedCount) +
                  " elements");
    }
    return index;
  }

  PropertyListFormat format_;
  Graph& graph_;
  std::string& reason_;
  std::unordered_map<const Object*, uint32_t> identity_;
  std::unordered_map<std::string, uint32_t> scalars_;
  std::vector<uint8_t> onPath_;
  std::vector<uint32_t> height_;
  std::vector<uint64_t> expanded_;
  uint64_t equalityWork_ = 0;  // the worst the sets so far may cost a reader
};

}  // namespace

bool flatten(const Object* root, PropertyListFormat format, Graph& graph, std::string& reason) {
  graph = Graph();
  if (!root) {
    reason = "Cannot write a nil property list";
    return false;
  }
  if (format != PropertyListFormat::kXML && format != PropertyListFormat::kBinary) {
    reason = "Property list format " + std::to_string(static_cast<int>(format)) +
             " is not supported for writing";
    return false;
  }
  return Flattener(format, graph, reason).run(root);
}

}  // namespace plist_internal

namespace {

Ref<Error> makeError(long code, const std::string& reason) {
  Ref<String> text = String::fromUTF8(reason);
  if (!text) text = String::fromLatin1(reason);
  return Error::make(Ref<String>(kCocoaErrorDomain()), code,
                     Dictionary::make({{Id(kDebugDescriptionKey()), Id(text)}}));
}

bool isSpace(uint8_t c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool startsWith(std::span<const uint8_t> bytes, std::string_view prefix) {
  return bytes.size() >= prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), bytes.begin(),
                    [](char a, uint8_t b) { return static_cast<uint8_t>(a) == b; });
}

// XML starts with a declaration, a comment or document type, or one of the
// property-list elements; anything else is taken for the OpenStep text form
// (whose data items "<0fbd77>" also start with '<').
bool looksLikeXML(std::span<const uint8_t> text) {
  size_t i = 0;
  while (i < text.size() && isSpace(text[i])) ++i;
  if (i + 1 >= text.size() || text[i] != '<') return false;
  if (text[i + 1] == '?' || text[i + 1] == '!') return true;
  static constexpr std::string_view kNames[] = {"plist", "dict", "array", "string",
                                                "key",   "data", "date",  "integer",
                                                "real",  "true", "false"};
  for (std::string_view name : kNames) {
    const size_t end = i + 1 + name.size();
    if (end < text.size() && startsWith(text.subspan(i + 1), name) &&
        (isSpace(text[end]) || text[end] == '>' || text[end] == '/')) {
      return true;
    }
  }
  return false;
}

// The OpenStep form starts with a dictionary, array, quoted string, data or an
// unquoted word.
bool looksLikeOpenStep(std::span<const uint8_t> text) {
  size_t i = 0;
  while (i < text.size() && isSpace(text[i])) ++i;
  if (i == text.size()) return false;
  const uint8_t c = text[i];
  return c == '{' || c == '(' || c == '"' || c == '<' || c == '/' || (c >= '0' && c <= '9') ||
         (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '$' || c == '.' ||
         c == '-' || c == '+' || c == ':';
}

// UTF-16 text with a byte-order mark, as UTF-8; false when a unit is missing or
// a surrogate unpaired.
bool transcodeUTF16(std::span<const uint8_t> bytes, std::string& out) {
  const bool big = bytes[0] == 0xfe;
  if (bytes.size() % 2 != 0) return false;
  std::u16string units;
  units.reserve(bytes.size() / 2 - 1);
  for (size_t i = 2; i < bytes.size(); i += 2) {
    units.push_back(big ? static_cast<char16_t>((bytes[i] << 8) | bytes[i + 1])
                        : static_cast<char16_t>((bytes[i + 1] << 8) | bytes[i]));
  }
  Ref<String> text = String::fromUTF16(units);
  if (!text) return false;
  out = text->utf8();
  return true;
}

}  // namespace

Id readPropertyList(std::span<const uint8_t> bytes, Ref<Error>* error, PropertyListFormat* format) {
  std::string reason;
  long code = kPropertyListReadCorruptError;
  PropertyListFormat found = PropertyListFormat::kXML;
  Id result;
  std::string transcoded;

  if (bytes.empty()) {
    reason = "Cannot parse a NULL or zero-length data";
  } else if (startsWith(bytes, "bplist")) {
    if (startsWith(bytes, "bplist00")) {
      found = PropertyListFormat::kBinary;
      result = plist_internal::readBinary(bytes, reason);
    } else {
      code = kPropertyListReadUnknownVersionError;
      reason = "Unknown binary property list version (only bplist00 is read)";
    }
  } else {
    std::span<const uint8_t> text = bytes;
    if (bytes.size() >= 2 &&
        ((bytes[0] == 0xfe && bytes[1] == 0xff) || (bytes[0] == 0xff && bytes[1] == 0xfe))) {
      if (!transcodeUTF16(bytes, transcoded)) {
        reason = "Malformed UTF-16 text";
        text = {};
      } else {
        text = std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(transcoded.data()),
                                        transcoded.size());
      }
    } else if (startsWith(bytes, "\xEF\xBB\xBF")) {
      text = bytes.subspan(3);
    }
    if (!reason.empty()) {
      // Already failed.
    } else if (looksLikeXML(text)) {
      result = plist_internal::readXML(text, reason);
    } else if (looksLikeOpenStep(text)) {
      found = PropertyListFormat::kOpenStep;
      result = plist_internal::readOpenStep(text, reason);
    } else {
      size_t i = 0;
      while (i < text.size() && isSpace(text[i])) ++i;
      reason = i < text.size() ? "Unexpected character " + plist_internal::describeByte(text[i]) +
                                     " at line 1: not a property list"
                               : "No property list found in white space";
    }
  }

  if (!result) {
    if (error) *error = makeError(code, reason);
    return nullptr;
  }
  if (format) *format = found;
  return result;
}

std::optional<std::vector<uint8_t>> writePropertyList(const Object* root, PropertyListFormat format,
                                                      Ref<Error>* error) {
  std::string reason;
  plist_internal::Graph graph;
  if (plist_internal::flatten(root, format, graph, reason)) {
    return format == PropertyListFormat::kBinary ? plist_internal::writeBinary(graph)
                                                 : plist_internal::writeXML(graph);
  }
  if (error) *error = makeError(kPropertyListWriteInvalidError, reason);
  return std::nullopt;
}

bool isValidPropertyList(const Object* root, PropertyListFormat format) {
  std::string reason;
  plist_internal::Graph graph;
  return plist_internal::flatten(root, format, graph, reason);
}

}  // namespace nk
