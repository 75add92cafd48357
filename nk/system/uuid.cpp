// UUID: random generation from getrandom(2) and the canonical text form.
#include "nk/system/uuid.hpp"

#include <sys/random.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "nk/foundation/class.hpp"
#include "nk/foundation/format.hpp"

namespace nk {

NK_DEFINE_CLASS(UUID, "UUID", Class::kCopyable);

namespace {

void fillRandom(uint8_t* out, size_t length) {
  size_t done = 0;
  while (done < length) {
    const ssize_t n = getrandom(out + done, length - done, 0);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n < 0 && errno != EINTR) {
      // Only a kernel older than 3.17 or a seccomp filter gets here; an
      // identifier that might repeat is worse than stopping.
      std::abort();
    }
  }
}

int hexValue(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

Ref<UUID> UUID::random() {
  Bytes b;
  fillRandom(b.data(), b.size());
  b[6] = static_cast<uint8_t>((b[6] & 0x0F) | 0x40);  // version 4
  b[8] = static_cast<uint8_t>((b[8] & 0x3F) | 0x80);  // variant 10xx
  return Ref<UUID>::adopt(new UUID(b));
}

Ref<UUID> UUID::fromBytes(const Bytes& bytes) { return Ref<UUID>::adopt(new UUID(bytes)); }

Ref<UUID> UUID::fromString(const String* text) {
  if (text == nullptr || text->length() != 36) return nullptr;
  return fromString(text->utf8());
}

Ref<UUID> UUID::fromString(std::string_view text) {
  if (text.size() != 36) return nullptr;
  Bytes b{};
  size_t byte = 0;
  for (size_t i = 0; i < 36;) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return nullptr;
      ++i;
      continue;
    }
    const int hi = hexValue(text[i]);
    const int lo = hexValue(text[i + 1]);
    if (hi < 0 || lo < 0) return nullptr;
    b[byte++] = static_cast<uint8_t>(hi << 4 | lo);
    i += 2;
  }
  return fromBytes(b);
}

Ref<String> UUID::uuidString() const {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string s;
  s.reserve(36);
  for (size_t i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) s.push_back('-');
    s.push_back(kHex[bytes_[i] >> 4]);
    s.push_back(kHex[bytes_[i] & 15]);
  }
  return String::fromLatin1(s);
}

bool UUID::isEqual(const Object* other) const noexcept {
  const UUID* o = cast<UUID>(other);
  return o != nullptr && o->bytes_ == bytes_;
}

size_t UUID::hash() const noexcept {
  uint64_t a;
  uint64_t b;
  std::memcpy(&a, bytes_.data(), 8);
  std::memcpy(&b, bytes_.data() + 8, 8);
  return static_cast<size_t>(a ^ (b * 0x9E3779B97F4A7C15ull));
}

Ref<String> UUID::description() const {
  return format("<UUID: %p> %@", static_cast<const void*>(this), uuidString());
}

Id UUID::copy() const { return Id(const_cast<UUID*>(this)); }

}  // namespace nk
