// The binary property-list form ("bplist00"): a validating reader and a writer.
//
// The reader checks the trailer against the file before anything else, keeps
// every read inside the object area, walks references iteratively, detects
// cycles and shares objects that are referenced more than once, so its work and
// memory stay proportional to the file.
#include <bit>
#include <cstring>
#include <string>

#include "nk/foundation/array.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/data.hpp"
#include "nk/foundation/date.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/property_list_internal.hpp"
#include "nk/foundation/set.hpp"

namespace nk::plist_internal {

namespace {

constexpr size_t kHeaderSize = 8;
constexpr size_t kTrailerSize = 32;

// Object markers (high nibble).
enum : uint8_t {
  kTypeSimple = 0x0,  // 0x08 false, 0x09 true
  kTypeInt = 0x1,
  kTypeReal = 0x2,
  kTypeDate = 0x3,
  kTypeData = 0x4,
  kTypeASCII = 0x5,
  kTypeUTF16 = 0x6,
  kTypeUID = 0x8,
  kTypeArray = 0xA,
  kTypeSet = 0xC,
  kTypeDict = 0xD,
};

uint64_t readBigEndian(const uint8_t* p, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
  return v;
}

void appendBigEndian(std::string& out, uint64_t v, size_t n) {
  for (size_t i = n; i-- > 0;) out.push_back(static_cast<char>(v >> (8 * i)));
}

// The fewest of 1, 2, 4 or 8 bytes that hold `v`.
size_t byteWidth(uint64_t v) {
  if (v <= 0xff) return 1;
  if (v <= 0xffff) return 2;
  if (v <= 0xffffffff) return 4;
  return 8;
}

bool isPowerOfTwoWidth(uint8_t n) { return n == 1 || n == 2 || n == 4 || n == 8; }

std::string hexByte(uint8_t byte) {
  static constexpr char kHex[] = "0123456789abcdef";
  return std::string("0x") + kHex[byte >> 4] + kHex[byte & 15];
}

class BinaryReader {
 public:
  BinaryReader(std::span<const uint8_t> bytes, std::string& reason)
      : bytes_(bytes), reason_(reason) {}

  Id read();

 private:
  struct Header {
    uint8_t type = 0;
    uint8_t info = 0;
    uint64_t count = 0;    // elements, bytes or units
    uint64_t payload = 0;  // offset of the payload
  };
  struct Frame {
    uint64_t object;
    Header header;
    uint64_t next = 0;   // references consumed
    uint64_t total = 0;  // references in all
    std::vector<Id> items;
    std::vector<uint64_t> sizes;  // of a set: each member's expanded count
    uint32_t height = 0;          // greatest height among the children
    uint64_t expanded = 1;        // this container plus its children's expansions
  };

  bool fail(std::string why) {
    reason_ = std::move(why);
    return false;
  }
  bool parseTrailer();
  bool header(uint64_t object, Header& h);
  bool reference(uint64_t at, uint64_t& object);
  Id scalar(const Header& h);
  Id finish(Frame& frame);
  // 0: the object is in memo_; 1: a frame was pushed for it; -1: failure.
  int resolve(uint64_t object, std::vector<Frame>& stack);
  void addChild(Frame& frame, uint64_t child);

  std::span<const uint8_t> bytes_;
  std::string& reason_;
  uint8_t offsetSize_ = 0;
  uint8_t refSize_ = 0;
  uint64_t count_ = 0;
  uint64_t top_ = 0;
  uint64_t tableOffset_ = 0;
  uint64_t consumed_ = 0;      // bytes spanned by the objects decoded so far
  uint64_t equalityWork_ = 0;  // the worst the sets read so far may cost
  std::vector<Id> memo_;
  std::vector<uint8_t> state_;  // 0 unseen, 1 being read, 2 done
  std::vector<uint32_t> height_;
  std::vector<uint64_t> expanded_;
};

bool BinaryReader::parseTrailer() {
  const size_t size = bytes_.size();
  if (size < kHeaderSize + 1 + 1 + kTrailerSize) {
    return fail("Binary property list is too short (" + std::to_string(size) + " bytes)");
  }
  const uint8_t* t = bytes_.data() + size - kTrailerSize;
  offsetSize_ = t[6];
  refSize_ = t[7];
  count_ = readBigEndian(t + 8, 8);
  top_ = readBigEndian(t + 16, 8);
  tableOffset_ = readBigEndian(t + 24, 8);
  if (!isPowerOfTwoWidth(offsetSize_)) {
    return fail("Binary property list trailer: offset size " + std::to_string(offsetSize_) +
                " is not 1, 2, 4 or 8");
  }
  if (!isPowerOfTwoWidth(refSize_)) {
    return fail("Binary property list trailer: object reference size " + std::to_string(refSize_) +
                " is not 1, 2, 4 or 8");
  }
  if (count_ == 0) return fail("Binary property list trailer: no objects");
  if (top_ >= count_) {
    return fail("Binary property list trailer: top object " + std::to_string(top_) +
                " is not below the object count " + std::to_string(count_));
  }
  const uint64_t tableEnd = size - kTrailerSize;
  if (tableOffset_ < kHeaderSize + 1 || tableOffset_ > tableEnd) {
    return fail("Binary property list trailer: offset table position " +
                std::to_string(tableOffset_) + " lies outside the file");
  }
  if (count_ > (tableEnd - tableOffset_) / offsetSize_) {
    return fail("Binary property list trailer: an offset table of " + std::to_string(count_) +
                " entries does not fit in the file");
  }
  if (refSize_ < 8 && (count_ - 1) >> (8 * refSize_) != 0) {
    return fail("Binary property list trailer: " + std::to_string(refSize_) +
                "-byte references cannot reach " + std::to_string(count_) + " objects");
  }
  return true;
}

bool BinaryReader::reference(uint64_t at, uint64_t& object) {
  object = readBigEndian(bytes_.data() + at, refSize_);
  if (object >= count_) {
    return fail("Binary property list: reference to object " + std::to_string(object) + " of " +
                std::to_string(count_));
  }
  return true;
}

bool BinaryReader::header(uint64_t object, Header& h) {
  const uint64_t offset =
      readBigEndian(bytes_.data() + tableOffset_ + object * offsetSize_, offsetSize_);
  // Messages are built only on failure.
  auto where = [object] { return "Binary property list: object " + std::to_string(object); };
  if (offset < kHeaderSize || offset >= tableOffset_) {
    return fail(where() + " has offset " + std::to_string(offset) + " outside the object area");
  }
  const uint8_t marker = bytes_[offset];
  h.type = marker >> 4;
  h.info = marker & 0xf;
  uint64_t pos = offset + 1;
  // Bytes left before the offset table.
  auto room = [&] { return tableOffset_ - pos; };
  auto counted = [&]() -> bool {
    if (h.info != 0xf) {
      h.count = h.info;
      return true;
    }
    if (room() < 1) return fail(where() + " is cut off in its length");
    const uint8_t m = bytes_[pos];
    if ((m >> 4) != kTypeInt || (m & 0xf) > 3) {
      return fail(where() + " has a malformed length (marker " + hexByte(m) + ")");
    }
    const size_t width = size_t{1} << (m & 0xf);
    ++pos;
    if (room() < width) return fail(where() + " is cut off in its length");
    h.count = readBigEndian(bytes_.data() + pos, width);
    pos += width;
    return true;
  };

  uint64_t unit = 1;
  switch (h.type) {
    case kTypeSimple:
      if (h.info != 0x8 && h.info != 0x9) {
        return fail(where() + " has unsupported marker " + hexByte(marker) +
                    " (null and fill objects are not property-list values)");
      }
      h.count = 0;
      break;
    case kTypeInt:
      if (h.info > 4)
        return fail(where() + ": integers of 2^" + std::to_string(h.info) +
                    " bytes are not supported");
      h.count = uint64_t{1} << h.info;
      break;
    case kTypeReal:
      if (h.info != 2 && h.info != 3) {
        return fail(where() + ": reals of 2^" + std::to_string(h.info) +
                    " bytes are not supported");
      }
      h.count = uint64_t{1} << h.info;
      break;
    case kTypeDate:
      if (h.info != 3) return fail(where() + ": a date must be an 8-byte real");
      h.count = 8;
      break;
    case kTypeUID:
      if (h.info > 7) return fail(where() + ": UIDs longer than 8 bytes are not supported");
      h.count = h.info + 1u;
      break;
    case kTypeData:
    case kTypeASCII:
      if (!counted()) return false;
      break;
    case kTypeUTF16:
      if (!counted()) return false;
      unit = 2;
      break;
    case kTypeArray:
    case kTypeSet:
      if (!counted()) return false;
      unit = refSize_;
      break;
    case kTypeDict:
      if (!counted()) return false;
      unit = 2u * refSize_;
      break;
    default:
      return fail(where() + " has unknown marker " + hexByte(marker));
  }
  if (h.count > room() / unit) return fail(where() + " runs past the object area");
  h.payload = pos;
  // Objects of a well-formed file never share bytes, so what they span adds up
  // to at most the object area. Overlapping objects could otherwise decode the
  // same bytes again and again, out of all proportion to the file.
  consumed_ += (pos - offset) + h.count * unit;
  if (consumed_ > tableOffset_ - kHeaderSize) return fail(where() + " overlaps other objects");
  return true;
}

Id BinaryReader::scalar(const Header& h) {
  const uint8_t* p = bytes_.data() + h.payload;
  switch (h.type) {
    case kTypeSimple:
      return Number::withBool(h.info == 0x9);
    case kTypeInt: {
      if (h.count < 8)
        return Number::withLongLong(static_cast<long long>(readBigEndian(p, h.count)));
      if (h.count == 8) return Number::withLongLong(static_cast<long long>(readBigEndian(p, 8)));
      // 16 bytes, signed: what fits in 64 bits keeps its sign; above INT64_MAX
      // the value is unsigned.
      const uint64_t high = readBigEndian(p, 8);
      const uint64_t low = readBigEndian(p + 8, 8);
      if (high == 0) {
        return low > INT64_MAX ? Number::withUnsignedLongLong(low)
                               : Number::withLongLong(static_cast<long long>(low));
      }
      if (high == UINT64_MAX && low > INT64_MAX) {
        return Number::withLongLong(static_cast<long long>(low));
      }
      fail("Binary property list: a 16-byte integer does not fit in 64 bits");
      return nullptr;
    }
    case kTypeReal:
      if (h.count == 4) {
        return Number::withFloat(std::bit_cast<float>(static_cast<uint32_t>(readBigEndian(p, 4))));
      }
      return Number::withDouble(std::bit_cast<double>(readBigEndian(p, 8)));
    case kTypeDate:
      return Date::fromTimeIntervalSinceReferenceDate(std::bit_cast<double>(readBigEndian(p, 8)));
    case kTypeData:
      return Data::fromBytes(p, h.count);
    case kTypeASCII:
      for (uint64_t i = 0; i < h.count; ++i) {
        if (p[i] >= 0x80) {
          fail("Binary property list: an ASCII string holds byte " + hexByte(p[i]));
          return nullptr;
        }
      }
      return String::fromLatin1(std::string_view(reinterpret_cast<const char*>(p), h.count));
    case kTypeUTF16: {
      std::u16string units(h.count, u'\0');
      for (uint64_t i = 0; i < h.count; ++i) {
        units[i] = static_cast<char16_t>((p[2 * i] << 8) | p[2 * i + 1]);
      }
      return String::withCharacters(units);
    }
    case kTypeUID:
      return PlistUID::make(readBigEndian(p, h.count));
    default:
      return nullptr;  // containers never get here
  }
}

int BinaryReader::resolve(uint64_t object, std::vector<Frame>& stack) {
  if (state_[object] == 2) return 0;
  if (state_[object] == 1) {
    fail("Binary property list: object " + std::to_string(object) +
         " contains itself (the references form a cycle)");
    return -1;
  }
  Header h;
  if (!header(object, h)) return -1;
  if (h.type == kTypeArray || h.type == kTypeSet || h.type == kTypeDict) {
    if (stack.size() >= kPropertyListMaxDepth) {
      fail("Binary property list: containers are nested more than " +
           std::to_string(kPropertyListMaxDepth) + " levels deep");
      return -1;
    }
    state_[object] = 1;
    Frame frame;
    frame.object = object;
    frame.header = h;
    frame.total = h.type == kTypeDict ? 2 * h.count : h.count;
    frame.items.reserve(frame.total);
    stack.push_back(std::move(frame));
    return 1;
  }
  memo_[object] = scalar(h);
  if (!memo_[object]) return -1;
  state_[object] = 2;
  return 0;
}

void BinaryReader::addChild(Frame& frame, uint64_t child) {
  frame.items.push_back(memo_[child]);
  if (frame.header.type == kTypeSet) frame.sizes.push_back(expanded_[child]);
  frame.height = std::max(frame.height, height_[child]);
  frame.expanded = std::min(frame.expanded + expanded_[child], kMaxExpandedCount + 1);
}

Id BinaryReader::finish(Frame& frame) {
  const uint32_t height = frame.height + 1;
  if (height > kPropertyListMaxDepth) {
    fail("Binary property list: containers are nested more than " +
         std::to_string(kPropertyListMaxDepth) + " levels deep");
    return nullptr;
  }
  if (frame.expanded > kMaxExpandedCount) {
    fail("Binary property list: shared objects expand to more than " +
         std::to_string(kMaxExpandedCount) + " elements");
    return nullptr;
  }
  Id result;
  if (frame.header.type == kTypeArray) {
    result = Array::make(std::move(frame.items));
  } else if (frame.header.type == kTypeSet) {
    std::vector<std::pair<const Object*, uint64_t>> members;
    members.reserve(frame.items.size());
    for (size_t i = 0; i < frame.items.size(); ++i) {
      members.emplace_back(frame.items[i].get(), frame.sizes[i]);
    }
    equalityWork_ += worstEqualityWork(members);
    if (equalityWork_ > kMaxEqualityWork) {
      fail("Binary property list: telling the members of its sets apart could take more than " +
           std::to_string(kMaxEqualityWork) + " comparisons");
      return nullptr;
    }
    result = Set::make(frame.items);
  } else {
    const size_t n = frame.header.count;
    std::vector<std::pair<Id, Id>> entries;
    entries.reserve(n);
    for (size_t i = 0; i < n; ++i) {
      if (!cast<String>(frame.items[i].get())) {
        fail("Binary property list: dictionary key of type '" +
             frame.items[i]->objectClass().name() + "' (keys must be strings)");
        return nullptr;
      }
      entries.emplace_back(frame.items[i], frame.items[n + i]);
    }
    result = Dictionary::make(entries);
  }
  memo_[frame.object] = result;
  state_[frame.object] = 2;
  height_[frame.object] = height;
  expanded_[frame.object] = frame.expanded;
  return result;
}

Id BinaryReader::read() {
  if (!parseTrailer()) return nullptr;
  const auto n = static_cast<size_t>(count_);
  memo_.resize(n);
  state_.assign(n, 0);
  height_.assign(n, 0);
  expanded_.assign(n, 1);

  std::vector<Frame> stack;
  if (resolve(top_, stack) < 0) return nullptr;
  while (!stack.empty()) {
    if (stack.back().next < stack.back().total) {
      Frame& frame = stack.back();
      uint64_t child;
      if (!reference(frame.header.payload + frame.next * refSize_, child)) return nullptr;
      ++frame.next;
      const int r = resolve(child, stack);  // may push, moving `frame`
      if (r < 0) return nullptr;
      if (r == 0) addChild(stack.back(), child);
      continue;
    }
    if (!finish(stack.back())) return nullptr;
    const uint64_t done = stack.back().object;
    stack.pop_back();
    if (!stack.empty()) addChild(stack.back(), done);
  }
  return memo_[top_];
}

void appendMarker(std::string& out, uint8_t type, uint64_t count) {
  if (count < 15) {
    out.push_back(static_cast<char>((type << 4) | count));
    return;
  }
  out.push_back(static_cast<char>((type << 4) | 0xf));
  const size_t width = byteWidth(count);
  out.push_back(static_cast<char>((kTypeInt << 4) | std::countr_zero(width)));
  appendBigEndian(out, count, width);
}

bool isUnsignedType(char code) {
  return code == 'C' || code == 'S' || code == 'I' || code == 'L' || code == 'Q';
}

}  // namespace

Id readBinary(std::span<const uint8_t> bytes, std::string& reason) {
  return BinaryReader(bytes, reason).read();
}

std::string encodeBinaryScalar(Kind kind, const Object* object) {
  std::string out;
  switch (kind) {
    case Kind::kString: {
      const auto* s = static_cast<const String*>(object);
      bool ascii = true;
      s->forEachUnit([&](char16_t u) { ascii = ascii && u < 0x80; });
      appendMarker(out, ascii ? kTypeASCII : kTypeUTF16, s->length());
      s->forEachUnit([&](char16_t u) {
        if (!ascii) out.push_back(static_cast<char>(u >> 8));
        out.push_back(static_cast<char>(u & 0xff));
      });
      break;
    }
    case Kind::kInteger: {
      const auto* n = static_cast<const Number*>(object);
      if (isUnsignedType(n->objCType()) && n->unsignedLongLongValue() > INT64_MAX) {
        // Above INT64_MAX only the 16-byte form keeps the value unsigned.
        out.push_back(static_cast<char>((kTypeInt << 4) | 4));
        appendBigEndian(out, 0, 8);
        appendBigEndian(out, n->unsignedLongLongValue(), 8);
        break;
      }
      const long long v = n->longLongValue();
      const size_t width = v < 0 ? 8 : byteWidth(static_cast<uint64_t>(v));
      out.push_back(static_cast<char>((kTypeInt << 4) | std::countr_zero(width)));
      appendBigEndian(out, static_cast<uint64_t>(v), width);
      break;
    }
    case Kind::kReal: {
      const auto* n = static_cast<const Number*>(object);
      if (n->objCType() == 'f') {
        out.push_back(static_cast<char>((kTypeReal << 4) | 2));
        appendBigEndian(out, std::bit_cast<uint32_t>(n->floatValue()), 4);
      } else {
        out.push_back(static_cast<char>((kTypeReal << 4) | 3));
        appendBigEndian(out, std::bit_cast<uint64_t>(n->doubleValue()), 8);
      }
      break;
    }
    case Kind::kBoolean:
      out.push_back(static_cast<const Number*>(object)->boolValue() ? '\x09' : '\x08');
      break;
    case Kind::kDate:
      out.push_back(static_cast<char>((kTypeDate << 4) | 3));
      appendBigEndian(out,
                      std::bit_cast<uint64_t>(
                          static_cast<const Date*>(object)->timeIntervalSinceReferenceDate()),
                      8);
      break;
    case Kind::kData: {
      const auto* d = static_cast<const Data*>(object);
      appendMarker(out, kTypeData, d->length());
      out.append(reinterpret_cast<const char*>(d->bytes()), d->length());
      break;
    }
    case Kind::kUID: {
      const uint64_t v = static_cast<const PlistUID*>(object)->value();
      const size_t width = byteWidth(v);
      out.push_back(static_cast<char>((kTypeUID << 4) | (width - 1)));
      appendBigEndian(out, v, width);
      break;
    }
    case Kind::kArray:
    case Kind::kDictionary:
    case Kind::kSet:
      break;
  }
  return out;
}

std::vector<uint8_t> writeBinary(const Graph& graph) {
  const size_t count = graph.nodes.size();
  const size_t refSize = byteWidth(count - 1);
  std::string out = "bplist00";
  std::vector<uint64_t> offsets;
  offsets.reserve(count);
  for (const Node& node : graph.nodes) {
    offsets.push_back(out.size());
    if (!isContainer(node.kind)) {
      out += node.encoded;
      continue;
    }
    const uint8_t type = node.kind == Kind::kArray ? kTypeArray
                         : node.kind == Kind::kSet ? kTypeSet
                                                   : kTypeDict;
    appendMarker(out, type,
                 node.kind == Kind::kDictionary ? node.children.size() / 2 : node.children.size());
    for (uint32_t child : node.children) appendBigEndian(out, child, refSize);
  }
  const uint64_t tableOffset = out.size();
  const size_t offsetSize = byteWidth(offsets.back());
  for (uint64_t offset : offsets) appendBigEndian(out, offset, offsetSize);
  out.append(6, '\0');  // five unused bytes and the sort version
  out.push_back(static_cast<char>(offsetSize));
  out.push_back(static_cast<char>(refSize));
  appendBigEndian(out, count, 8);
  appendBigEndian(out, 0, 8);  // the root is object 0
  appendBigEndian(out, tableOffset, 8);
  return std::vector<uint8_t>(out.begin(), out.end());
}

}  // namespace nk::plist_internal
