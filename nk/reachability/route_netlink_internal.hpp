// The kernel's routing netlink as the reachability service uses it: route and link look-ups
// on a socket of their own, and sockets subscribed to the changes that can alter a route
// look-up's answer. Sockets answer for the network namespace of the thread that opened them.
#pragma once

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <utility>

namespace nk::reachability_internal {

// A file descriptor closed on destruction.
class UniqueFd {
 public:
  UniqueFd() noexcept = default;
  explicit UniqueFd(int fd) noexcept : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd();

  int get() const noexcept { return fd_; }
  explicit operator bool() const noexcept { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// An IPv4 or IPv6 address, without port or scope.
struct IpAddress {
  sa_family_t family = AF_UNSPEC;
  uint8_t bytes[16] = {};  // network order; the first 4 for IPv4

  static IpAddress v4(const in_addr& a) noexcept;
  static IpAddress v6(const in6_addr& a) noexcept;
  // The address of a socket address of family AF_INET or AF_INET6; nullopt otherwise.
  static std::optional<IpAddress> fromSockaddr(const sockaddr* address, size_t length) noexcept;
  // A numeric IPv4 or IPv6 text, as inet_pton reads it.
  static std::optional<IpAddress> parse(const char* text) noexcept;

  size_t size() const noexcept { return family == AF_INET ? 4 : 16; }
  bool isZero() const noexcept;
  friend bool operator==(const IpAddress&, const IpAddress&) noexcept = default;
};

// What the kernel's route look-up for one destination says.
struct RouteAnswer {
  bool found = false;    // false: no route, or a prohibit, blackhole or unreachable one
  uint8_t type = 0;      // RTN_UNICAST, RTN_LOCAL, ... when found
  int outInterface = 0;  // the out link's index, 0 when the answer named none
};

// A socket for route and link look-ups that also hears of changes, so that its owner can tell
// whether an earlier answer may still hold. Not thread-safe: callers serialise.
class RouteLookup {
 public:
  // Opens the socket; an empty RouteLookup (false) when the kernel refused.
  static RouteLookup open();
  explicit operator bool() const noexcept { return static_cast<bool>(fd_); }

  // Whether a change was announced (or announcements were lost) since the last call; reads
  // every announcement waiting.
  bool takeChanges();
  // The route the kernel would use to send to `destination`; nullopt when the question
  // itself failed (a socket error, an unexpected answer).
  std::optional<RouteAnswer> route(const IpAddress& destination);
  // The name of link `index` into `name`; false when there is no such link.
  bool linkName(int index, char (&name)[IF_NAMESIZE]);
  // The interface flags (IFF_*) of the link called `name` now; nullopt when there is none.
  std::optional<unsigned> linkFlags(const char (&name)[IF_NAMESIZE]);

 private:
  // Sends one request and reads the answer with the same sequence number into `buffer`.
  // Returns the answer's length, or -1.
  ssize_t exchange(void* request, size_t length, void* buffer, size_t capacity);

  UniqueFd fd_;
  uint32_t sequence_ = 0;
  bool changed_ = false;  // an announcement was read while waiting for an answer
};

// A non-blocking socket subscribed to the changes that can alter a route look-up's answer
// (links, addresses, routes, rules and next hops); an empty one when the kernel refused.
UniqueFd openChangeSubscription();

enum class ChangeBatch { kNone, kChanges, kOverrun };
// Reads every message waiting on a subscription. kOverrun when the kernel dropped messages
// (the socket's buffer overflowed), so the reader must assume anything may have changed.
ChangeBatch drainChanges(int fd);

}  // namespace nk::reachability_internal
