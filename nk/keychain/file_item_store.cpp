// The file store of keychain items: one checksummed file per service, replaced
// atomically under a lock file.
#include "nk/keychain/file_item_store_internal.hpp"

#include <fcntl.h>
#include <glib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

#include "nk/foundation/log.hpp"
#include "nk/system/xdg_directories.hpp"

namespace nk::keychain_internal {
namespace {

// File layout, integers little-endian:
//   "NKKC" | version u32 | count u32 | count × (account length u32, account,
//   value length u32, value) | SHA-256 of everything before it
constexpr uint8_t kMagic[4] = {'N', 'K', 'K', 'C'};
constexpr uint32_t kVersion = 1;
constexpr size_t kHeaderSize = 12;
constexpr size_t kDigestSize = 32;
constexpr size_t kMaxFileName = 255;

void wipe(std::vector<uint8_t>& bytes) noexcept {
  if (!bytes.empty()) ::explicit_bzero(bytes.data(), bytes.size());
}

// A service's items while one operation works on them; the values are wiped after.
struct Items {
  std::map<std::string, std::vector<uint8_t>> byAccount;
  Items() = default;
  Items(const Items&) = delete;
  Items& operator=(const Items&) = delete;
  ~Items() {
    for (auto& [account, value] : byAccount) wipe(value);
  }
};

class Fd {
 public:
  Fd() noexcept = default;
  explicit Fd(int fd) noexcept : fd_(fd) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const noexcept { return fd_; }
  bool valid() const noexcept { return fd_ >= 0; }
  // Closes now, reporting whether the close succeeded (it may report a write error).
  bool close() noexcept { return ::close(std::exchange(fd_, -1)) == 0; }

 private:
  int fd_ = -1;
};

void sha256(std::span<const uint8_t> bytes, uint8_t* out) {
  GChecksum* checksum = g_checksum_new(G_CHECKSUM_SHA256);
  g_checksum_update(checksum, bytes.data(), static_cast<gssize>(bytes.size()));
  gsize length = kDigestSize;
  g_checksum_get_digest(checksum, out, &length);
  g_checksum_free(checksum);
}

uint32_t getU32(const uint8_t* p) noexcept {
  return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

// The file's bytes; false when they would pass kMaxFileSize.
bool encode(const Items& items, std::vector<uint8_t>& out) {
  size_t size = kHeaderSize + kDigestSize;
  for (const auto& [account, value] : items.byAccount) size += 8 + account.size() + value.size();
  if (size > FileItemStore::kMaxFileSize) return false;
  out.assign(size, 0);
  uint8_t* at = out.data();
  auto put = [&](const void* bytes, size_t length) {
    if (length > 0) std::memcpy(at, bytes, length);
    at += length;
  };
  auto putU32 = [&](size_t v) {
    const uint8_t le[4] = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8),
                           static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 24)};
    put(le, 4);
  };
  put(kMagic, 4);
  putU32(kVersion);
  putU32(items.byAccount.size());
  for (const auto& [account, value] : items.byAccount) {
    putU32(account.size());
    put(account.data(), account.size());
    putU32(value.size());
    put(value.data(), value.size());
  }
  sha256(std::span(out).first(size - kDigestSize), at);
  return true;
}

// False when the bytes are not a whole, intact file of this layout.
bool decode(std::span<const uint8_t> bytes, Items& items) {
  if (bytes.size() < kHeaderSize + kDigestSize) return false;
  std::span<const uint8_t> body = bytes.first(bytes.size() - kDigestSize);
  uint8_t digest[kDigestSize];
  sha256(body, digest);
  if (std::memcmp(digest, body.data() + body.size(), kDigestSize) != 0) return false;
  if (std::memcmp(body.data(), kMagic, 4) != 0 || getU32(body.data() + 4) != kVersion) {
    return false;
  }
  uint32_t count = getU32(body.data() + 8);
  size_t at = kHeaderSize;
  // Reads a length-prefixed field, never past the body.
  auto field = [&](std::span<const uint8_t>& out) {
    if (body.size() - at < 4) return false;
    uint32_t length = getU32(body.data() + at);
    at += 4;
    if (body.size() - at < length) return false;
    out = body.subspan(at, length);
    at += length;
    return true;
  };
  for (uint32_t i = 0; i < count; ++i) {
    std::span<const uint8_t> account, value;
    if (!field(account) || !field(value)) return false;
    items.byAccount.emplace(std::string(account.begin(), account.end()),
                            std::vector<uint8_t>(value.begin(), value.end()));
  }
  return at == body.size() && items.byAccount.size() == count;
}

bool readAll(int fd, uint8_t* out, size_t size) noexcept {
  while (size > 0) {
    ssize_t n = ::read(fd, out, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    out += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool writeAll(int fd, const uint8_t* bytes, size_t size) noexcept {
  while (size > 0) {
    ssize_t n = ::write(fd, bytes, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Opens the store's folder, made (0700) when `create` and missing. Only a real
// folder of this user is used; its mode is brought back to 0700 when it drifted.
OSStatus openFolder(bool create, Fd& dir) {
  std::optional<std::string> path = FileItemStore::folder();
  if (!path) return errSecNotAvailable;
  if (create && !makeDirectories(*path, 0700)) return errSecNotAvailable;
  dir = Fd(::open(path->c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!dir.valid()) return errno == ENOENT && !create ? errSecItemNotFound : errSecNotAvailable;
  struct stat st;
  if (::fstat(dir.get(), &st) != 0 || st.st_uid != ::geteuid()) return errSecNotAvailable;
  if ((st.st_mode & 07777) != 0700 && ::fchmod(dir.get(), 0700) != 0) return errSecNotAvailable;
  return errSecSuccess;
}

// Takes the service's lock, held until `lock` is closed. flock locks belong to the
// open file, so threads of one process exclude each other as processes do.
OSStatus lockService(int dir, const std::string& name, Fd& lock) {
  std::string lockName = "." + name + ".lock";
  lock = Fd(::openat(dir, lockName.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!lock.valid()) return errSecIO;
  while (::flock(lock.get(), LOCK_EX) != 0) {
    if (errno != EINTR) return errSecIO;
  }
  return errSecSuccess;
}

// The items of file `name`; none when it is missing, or damaged (logged).
OSStatus readItems(int dir, const std::string& name, Items& items) {
  Fd file(::openat(dir, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!file.valid()) return errno == ENOENT ? errSecSuccess : errSecIO;
  struct stat st;
  if (::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) return errSecIO;
  const auto size = static_cast<size_t>(st.st_size);
  bool intact = false;
  if (size <= FileItemStore::kMaxFileSize) {
    std::vector<uint8_t> bytes(size);
    intact = readAll(file.get(), bytes.data(), size) && decode(bytes, items);
    wipe(bytes);
  }
  if (!intact) {
    items.byAccount.clear();
    Log("Keychain file store: %s/%s is damaged or truncated; its items read as missing",
        FileItemStore::folder().value_or(""), name);
  }
  return errSecSuccess;
}

// Replaces file `name` with `items` (removes it when there are none), durably.
OSStatus writeItems(int dir, const std::string& name, const Items& items) {
  if (items.byAccount.empty()) {
    if (::unlinkat(dir, name.c_str(), 0) != 0 && errno != ENOENT) return errSecIO;
    return ::fsync(dir) == 0 ? errSecSuccess : errSecIO;
  }
  std::vector<uint8_t> bytes;
  if (!encode(items, bytes)) return errSecParam;
  std::string temporary = "." + name + ".tmp";
  ::unlinkat(dir, temporary.c_str(), 0);  // left by a writer that died
  Fd file(
      ::openat(dir, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  bool written = file.valid() && writeAll(file.get(), bytes.data(), bytes.size()) &&
                 ::fsync(file.get()) == 0 && file.close() &&
                 ::renameat(dir, temporary.c_str(), dir, name.c_str()) == 0;
  wipe(bytes);
  if (!written) {
    ::unlinkat(dir, temporary.c_str(), 0);
    return errSecIO;
  }
  return ::fsync(dir) == 0 ? errSecSuccess : errSecIO;
}

// Runs `change` on the service's items under its lock and writes them back when it
// succeeds.
template <class Change>
OSStatus modify(const ItemKey& key, Change change) {
  std::optional<std::string> name = FileItemStore::fileNameForService(key.service);
  if (!name) return errSecParam;
  Fd dir, lock;
  Items items;
  OSStatus status = openFolder(true, dir);
  if (status == errSecSuccess) status = lockService(dir.get(), *name, lock);
  if (status == errSecSuccess) status = readItems(dir.get(), *name, items);
  if (status == errSecSuccess) status = change(items.byAccount);
  if (status == errSecSuccess) status = writeItems(dir.get(), *name, items);
  return status;
}

}  // namespace

std::optional<std::string> FileItemStore::folder() {
  std::optional<std::string> data = xdgDataHome();
  if (!data) return std::nullopt;
  return *data + "/nkutils/keychain";
}

std::optional<std::string> FileItemStore::fileNameForService(const std::string& service) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string name;
  for (size_t i = 0; i < service.size(); ++i) {
    const auto c = static_cast<unsigned char>(service[i]);
    bool plain = g_ascii_isalnum(c) || c == '_' || c == '-' || (c == '.' && i > 0);
    if (plain) {
      name += static_cast<char>(c);
    } else {
      name += '%';
      name += kHex[c >> 4];
      name += kHex[c & 15];
    }
  }
  name += ".keychain";
  // The lock and temporary files add a "." and five more characters.
  if (name.size() + 6 > kMaxFileName) return std::nullopt;
  return name;
}

OSStatus FileItemStore::add(const ItemKey& key, std::span<const uint8_t> value) {
  return modify(key, [&](auto& byAccount) {
    auto [it, added] = byAccount.try_emplace(key.account, value.begin(), value.end());
    return added ? errSecSuccess : errSecDuplicateItem;
  });
}

OSStatus FileItemStore::copy(const ItemKey& key, std::vector<uint8_t>* value) {
  std::optional<std::string> name = fileNameForService(key.service);
  if (!name) return errSecParam;
  Fd dir;
  Items items;
  OSStatus status = openFolder(false, dir);
  if (status == errSecSuccess) status = readItems(dir.get(), *name, items);
  if (status != errSecSuccess) return status;
  auto it = items.byAccount.find(key.account);
  if (it == items.byAccount.end()) return errSecItemNotFound;
  if (value) *value = it->second;
  return errSecSuccess;
}

OSStatus FileItemStore::update(const ItemKey& key, std::span<const uint8_t> value) {
  return modify(key, [&](auto& byAccount) {
    auto it = byAccount.find(key.account);
    if (it == byAccount.end()) return errSecItemNotFound;
    wipe(it->second);
    it->second.assign(value.begin(), value.end());
    return errSecSuccess;
  });
}

OSStatus FileItemStore::remove(const ItemKey& key) {
  return modify(key, [&](auto& byAccount) {
    auto it = byAccount.find(key.account);
    if (it == byAccount.end()) return errSecItemNotFound;
    wipe(it->second);
    byAccount.erase(it);
    return errSecSuccess;
  });
}

}  // namespace nk::keychain_internal
