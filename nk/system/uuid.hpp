// UUID: 128-bit universally unique identifiers; new ones are random (version 4).
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

class UUID final : public Object {
  NK_DECLARE_CLASS(UUID, Object)

 public:
  using Bytes = std::array<uint8_t, 16>;

  // A new random UUID: 122 bits from the kernel's random source (getrandom),
  // version 4 and the RFC 4122 variant set.
  static Ref<UUID> random();
  static Ref<UUID> fromBytes(const Bytes& bytes);
  // Parses the 8-4-4-4-12 hexadecimal form, either case; nil for anything else.
  static Ref<UUID> fromString(const String* text);
  static Ref<UUID> fromString(std::string_view text);

  const Bytes& bytes() const noexcept { return bytes_; }
  // "E621E1F8-C36C-495A-93FC-0C247A3E6E5F": 36 characters, upper case.
  Ref<String> uuidString() const;

  bool isEqual(const Object* other) const noexcept override;
  size_t hash() const noexcept override;
  // "<UUID: 0x…> E621E1F8-C36C-495A-93FC-0C247A3E6E5F"
  Ref<String> description() const override;
  // UUIDs are immutable: copy returns the UUID itself.
  Id copy() const override;

 private:
  explicit UUID(const Bytes& bytes) noexcept : bytes_(bytes) {}
  Bytes bytes_;
};

}  // namespace nk
