// Data and MutableData: content equality, the platform's hash and description,
// Base64, and the aliasing-safe edits of MutableData.
#include "nk/foundation/data.hpp"

#include <algorithm>
#include <cstring>
#include <string>

#include "nk/foundation/class.hpp"
#include "nk/foundation/data_internal.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/format.hpp"

namespace nk {

NK_DEFINE_CLASS(Data, "Data", Class::kCopyable);
NK_DEFINE_CLASS(MutableData, "MutableData");

namespace data_internal {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// 0..63 for alphabet characters, 64 for '=', 65 for everything else.
constexpr int8_t kPad = 64;
constexpr int8_t kOther = 65;

struct DecodeTable {
  int8_t v[256];
  constexpr DecodeTable() : v() {
    for (int i = 0; i < 256; ++i) v[i] = kOther;
    for (int i = 0; i < 64; ++i)
      v[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
    v[static_cast<unsigned char>('=')] = kPad;
  }
};

}  // namespace

bool decodeBase64(std::string_view text, unsigned flags, std::vector<uint8_t>& out) {
  static constexpr DecodeTable table;
  uint32_t group = 0;
  int have = 0;     // characters in the current group
  int padding = 0;  // '=' seen so far
  for (char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    const int8_t v = table.v[c];
    if (v == kOther) {
      const bool space = c == ' ' || c == '\t' || c == '\r' || c == '\n';
      if ((flags & kBase64SkipUnknown) || (space && (flags & kBase64SkipWhitespace))) continue;
      return false;
    }
    if (v == kPad) {
      // Padding completes a group of two or three characters.
      if (have + padding < 2) return false;
      if (++padding + have > 4) return false;
      continue;
    }
    if (padding) return false;  // data after the padding
    group = (group << 6) | static_cast<uint32_t>(v);
    if (++have == 4) {
      out.push_back(static_cast<uint8_t>(group >> 16));
      out.push_back(static_cast<uint8_t>(group >> 8));
      out.push_back(static_cast<uint8_t>(group));
      group = 0;
      have = 0;
    }
  }
  if (have == 0) return padding == 0;
  if (have == 1) return false;
  if (have + padding != 4 && !(padding == 0 && (flags & kBase64AllowUnpadded))) return false;
  if (have == 2) {
    out.push_back(static_cast<uint8_t>(group >> 4));
  } else {
    out.push_back(static_cast<uint8_t>(group >> 10));
    out.push_back(static_cast<uint8_t>(group >> 2));
  }
  return true;
}

std::string encodeBase64(std::span<const uint8_t> bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t g = (uint32_t{bytes[i]} << 16) | (uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
    out.push_back(kAlphabet[g >> 18]);
    out.push_back(kAlphabet[(g >> 12) & 63]);
    out.push_back(kAlphabet[(g >> 6) & 63]);
    out.push_back(kAlphabet[g & 63]);
  }
  if (i < bytes.size()) {
    const bool two = i + 1 < bytes.size();
    const uint32_t g = (uint32_t{bytes[i]} << 16) | (two ? uint32_t{bytes[i + 1]} << 8 : 0);
    out.push_back(kAlphabet[g >> 18]);
    out.push_back(kAlphabet[(g >> 12) & 63]);
    out.push_back(two ? kAlphabet[(g >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

}  // namespace data_internal

Ref<Data> Data::fromBytes(const void* bytes, size_t length) {
  const auto* p = static_cast<const uint8_t*>(bytes);
  return Ref<Data>::adopt(
      new Data(length ? std::vector<uint8_t>(p, p + length) : std::vector<uint8_t>()));
}

Ref<Data> Data::fromBytes(std::span<const uint8_t> bytes) {
  return fromBytes(bytes.data(), bytes.size());
}

Ref<Data> Data::fromVector(std::vector<uint8_t> bytes) {
  return Ref<Data>::adopt(new Data(std::move(bytes)));
}

Ref<Data> Data::empty() { return Ref<Data>::adopt(new Data()); }

Ref<Data> Data::fromBase64(std::string_view text, bool ignoreUnknownCharacters) {
  std::vector<uint8_t> out;
  out.reserve(text.size() / 4 * 3);
  const unsigned flags =
      ignoreUnknownCharacters ? data_internal::kBase64SkipUnknown : data_internal::kBase64Strict;
  if (!data_internal::decodeBase64(text, flags, out)) return nullptr;
  return fromVector(std::move(out));
}

Ref<Data> Data::fromBase64(const String* text, bool ignoreUnknownCharacters) {
  if (!text) return nullptr;
  return fromBase64(text->utf8(), ignoreUnknownCharacters);
}

Ref<String> Data::base64Encoded() const {
  return String::fromLatin1(data_internal::encodeBase64(bytes_));
}

Ref<Data> Data::subdata(size_t start, size_t count) const {
  if (start > bytes_.size() || count > bytes_.size() - start) {
    Exception::raise(
        kRangeException,
        formatUTF8("-[Data subdataWithRange:]: range {%zu, %zu} exceeds data length %zu", start,
                   count, bytes_.size()));
  }
  return fromBytes(bytes_.data() + start, count);
}

bool Data::isEqualToData(const Data* other) const noexcept {
  if (!other) return false;
  if (other == this) return true;
  return bytes_.size() == other->bytes_.size() &&
         (bytes_.empty() || std::memcmp(bytes_.data(), other->bytes_.data(), bytes_.size()) == 0);
}

bool Data::isEqual(const Object* other) const noexcept { return isEqualToData(cast<Data>(other)); }

size_t Data::hash() const noexcept {
  // FNV-1a over the length and a prefix: long data hashes in constant time.
  uint64_t h = 0xcbf29ce484222325ULL ^ bytes_.size();
  const size_t n = std::min<size_t>(bytes_.size(), 80);
  for (size_t i = 0; i < n; ++i) {
    h ^= bytes_[i];
    h *= 0x100000001b3ULL;
  }
  h ^= h >> 29;
  return static_cast<size_t>(h);
}

Ref<String> Data::description() const {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out = "{length = " + std::to_string(bytes_.size()) + ", bytes = 0x";
  auto put = [&](size_t from, size_t to) {
    for (size_t i = from; i < to; ++i) {
      if (i != from && i % 4 == 0) out.push_back(' ');
      out.push_back(kHex[bytes_[i] >> 4]);
      out.push_back(kHex[bytes_[i] & 15]);
    }
  };
  if (bytes_.size() <= 24) {
    put(0, bytes_.size());
  } else {
    put(0, 16);
    out += " ... ";
    // The tail starts on a four-byte boundary of its own.
    const size_t tail = bytes_.size() - 8;
    for (size_t i = tail; i < bytes_.size(); ++i) {
      if (i != tail && (i - tail) % 4 == 0) out.push_back(' ');
      out.push_back(kHex[bytes_[i] >> 4]);
      out.push_back(kHex[bytes_[i] & 15]);
    }
  }
  out.push_back('}');
  return String::fromLatin1(out);
}

Id Data::copy() const { return Id(const_cast<Data*>(this)); }

Id Data::mutableCopy() const { return nk::make<MutableData>(std::span<const uint8_t>(bytes_)); }

Ref<MutableData> MutableData::withCapacity(size_t capacity) {
  auto data = nk::make<MutableData>();
  data->bytes_.reserve(capacity);
  return data;
}

void MutableData::appendBytes(const void* bytes, size_t length) {
  if (length == 0) return;
  const auto* p = static_cast<const uint8_t*>(bytes);
  const uint8_t* begin = bytes_.data();
  if (begin && p >= begin && p < begin + bytes_.size()) {
    // Growing may move the buffer the bytes come from.
    const size_t offset = static_cast<size_t>(p - begin);
    bytes_.reserve(bytes_.size() + length);
    bytes_.insert(bytes_.end(), length, 0);
    std::memmove(bytes_.data() + bytes_.size() - length, bytes_.data() + offset, length);
    return;
  }
  bytes_.insert(bytes_.end(), p, p + length);
}

void MutableData::appendData(const Data* other) {
  if (other) appendBytes(other->bytes(), other->length());
}

void MutableData::replaceBytes(size_t start, size_t count, const void* bytes, size_t length) {
  if (start > bytes_.size() || count > bytes_.size() - start) {
    Exception::raise(
        kRangeException,
        formatUTF8("-[MutableData replaceBytesInRange:withBytes:length:]: range {%zu, %zu} "
                   "exceeds data length %zu",
                   start, count, bytes_.size()));
  }
  const auto* p = static_cast<const uint8_t*>(bytes);
  std::vector<uint8_t> source(p, p + length);  // the source may alias the buffer
  bytes_.erase(bytes_.begin() + static_cast<ptrdiff_t>(start),
               bytes_.begin() + static_cast<ptrdiff_t>(start + count));
  bytes_.insert(bytes_.begin() + static_cast<ptrdiff_t>(start), source.begin(), source.end());
}

void MutableData::setData(const Data* other) {
  if (other == this) return;
  if (!other) {
    bytes_.clear();
    return;
  }
  bytes_.assign(other->bytes(), other->bytes() + other->length());
}

Id MutableData::copy() const { return Data::fromBytes(bytes_.data(), bytes_.size()); }

}  // namespace nk
