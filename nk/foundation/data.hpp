// Data and MutableData: byte buffers of the object model.
//
// Data is immutable and compares by content; MutableData adds appending,
// resizing and replacing. Both convert to and from Base64 text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

class MutableData;

class Data : public Object {
  NK_DECLARE_CLASS(Data, Object)

 public:
  // Copies `length` bytes from `bytes` (which may be null when length is 0).
  static Ref<Data> fromBytes(const void* bytes, size_t length);
  static Ref<Data> fromBytes(std::span<const uint8_t> bytes);
  // Takes the vector's bytes without copying them.
  static Ref<Data> fromVector(std::vector<uint8_t> bytes);
  // A new empty data.
  static Ref<Data> empty();
  // Decodes Base64 (standard alphabet, "=" padding required). Nil when the text
  // holds anything else, unless `ignoreUnknownCharacters`, which skips every
  // character outside the alphabet (line breaks, say).
  static Ref<Data> fromBase64(std::string_view text, bool ignoreUnknownCharacters = false);
  static Ref<Data> fromBase64(const String* text, bool ignoreUnknownCharacters = false);

  size_t length() const noexcept { return bytes_.size(); }
  bool isEmpty() const noexcept { return bytes_.empty(); }
  // Valid while the data lives and, for MutableData, until it is next changed.
  const uint8_t* bytes() const noexcept { return bytes_.data(); }
  std::span<const uint8_t> span() const noexcept { return bytes_; }

  // Base64 text of the bytes, padded, without line breaks.
  Ref<String> base64Encoded() const;
  // The bytes [start, start + count) as new data; raises "NSRangeException" when
  // the range goes past the end.
  Ref<Data> subdata(size_t start, size_t count) const;

  // Nil is unequal to every data.
  bool isEqualToData(const Data* other) const noexcept;

  bool isEqual(const Object* other) const noexcept override;
  // Hashes the length and the first 80 bytes, as the platform does.
  size_t hash() const noexcept override;
  // "{length = 5, bytes = 0x68656c6c 6f}": bytes in hex, grouped by four. Data
  // longer than 24 bytes shows its first 16 and last 8 bytes around " ... ".
  Ref<String> description() const override;
  // Data itself for Data, a snapshot for MutableData.
  Id copy() const override;
  // A new MutableData with the same bytes.
  Id mutableCopy() const override;

 protected:
  Data() noexcept = default;
  explicit Data(std::vector<uint8_t> bytes) noexcept : bytes_(std::move(bytes)) {}

  std::vector<uint8_t> bytes_;
};

class MutableData final : public Data {
  NK_DECLARE_CLASS(MutableData, Data)

 public:
  MutableData() noexcept = default;
  // `length` zero bytes.
  explicit MutableData(size_t length) : Data(std::vector<uint8_t>(length)) {}
  explicit MutableData(std::span<const uint8_t> bytes)
      : Data(std::vector<uint8_t>(bytes.begin(), bytes.end())) {}

  static Ref<MutableData> make() { return nk::make<MutableData>(); }
  // Empty, with room reserved for `capacity` bytes.
  static Ref<MutableData> withCapacity(size_t capacity);

  // Valid until the data is next changed.
  uint8_t* mutableBytes() noexcept { return bytes_.data(); }

  // `bytes` may point into this data's own buffer.
  void appendBytes(const void* bytes, size_t length);
  void appendData(const Data* other);
  // Grows with zero bytes or truncates.
  void setLength(size_t length) { bytes_.resize(length); }
  void increaseLength(size_t extra) { bytes_.resize(bytes_.size() + extra); }
  // Replaces [start, start + count) by `length` bytes; raises "NSRangeException"
  // when the range goes past the end. `bytes` may point into this data.
  void replaceBytes(size_t start, size_t count, const void* bytes, size_t length);
  // Replaces the whole content (nil empties it).
  void setData(const Data* other);

  Id copy() const override;
};

}  // namespace nk
