// Routing-netlink requests and answers: RTM_GETROUTE for one destination, the multicast groups
// that announce changes, and a link's name and flags through the interface ioctls, which are
// cheaper than a link message and need no lock of the kernel's.
#include "nk/reachability/route_netlink_internal.hpp"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace nk::reachability_internal {
namespace {

// Room for a route answer or any announcement but the rare oversized link message, which is
// counted as a change all the same.
constexpr size_t kAnswerCapacity = 8192;
// The groups announcing whatever can alter a route look-up's answer: links (state, names),
// addresses (with their local and prefix routes), routes, policy rules and next-hop objects.
constexpr uint32_t groupBit(unsigned group) { return 1u << (group - 1); }
constexpr uint32_t kChangeGroups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR |
                                   RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE | RTMGRP_IPV4_RULE |
                                   groupBit(RTNLGRP_IPV6_RULE) | groupBit(RTNLGRP_NEXTHOP);
// A burst of changes (an interface with many addresses going away) must fit, or we overrun.
constexpr int kSubscriptionBuffer = 1 << 20;

void appendAttribute(nlmsghdr* message, unsigned short type, const void* data, size_t size) {
  auto* attribute =
      reinterpret_cast<rtattr*>(reinterpret_cast<char*>(message) + NLMSG_ALIGN(message->nlmsg_len));
  attribute->rta_type = type;
  attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(size));
  std::memcpy(RTA_DATA(attribute), data, size);
  message->nlmsg_len = NLMSG_ALIGN(message->nlmsg_len) + RTA_ALIGN(attribute->rta_len);
}

// The error code of an NLMSG_ERROR answer (a negative errno; 0 is an acknowledgement).
int errorOf(const nlmsghdr* answer) {
  if (answer->nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr))) return -EPROTO;
  return static_cast<const nlmsgerr*>(NLMSG_DATA(answer))->error;
}

// A netlink socket subscribed to kChangeGroups; an empty one when the kernel refused.
UniqueFd openSubscribed(int flags) {
  UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | flags, NETLINK_ROUTE));
  if (!fd) return fd;
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = kChangeGroups;
  if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) return UniqueFd();
  return fd;
}

}  // namespace

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

UniqueFd::~UniqueFd() {
  if (fd_ >= 0) ::close(fd_);
}

IpAddress IpAddress::v4(const in_addr& a) noexcept {
  IpAddress result;
  result.family = AF_INET;
  std::memcpy(result.bytes, &a, sizeof a);
  return result;
}

IpAddress IpAddress::v6(const in6_addr& a) noexcept {
  IpAddress result;
  result.family = AF_INET6;
  std::memcpy(result.bytes, &a, sizeof a);
  return result;
}

std::optional<IpAddress> IpAddress::fromSockaddr(const sockaddr* address, size_t length) noexcept {
  if (!address || length < sizeof(sa_family_t)) return std::nullopt;
  if (address->sa_family == AF_INET && length >= sizeof(sockaddr_in)) {
    sockaddr_in in;
    std::memcpy(&in, address, sizeof in);
    return v4(in.sin_addr);
  }
  if (address->sa_family == AF_INET6 && length >= sizeof(sockaddr_in6)) {
    sockaddr_in6 in6;
    std::memcpy(&in6, address, sizeof in6);
    return v6(in6.sin6_addr);
  }
  return std::nullopt;
}

std::optional<IpAddress> IpAddress::parse(const char* text) noexcept {
  in_addr a4;
  if (inet_pton(AF_INET, text, &a4) == 1) return v4(a4);
  in6_addr a6;
  if (inet_pton(AF_INET6, text, &a6) == 1) return v6(a6);
  return std::nullopt;
}

bool IpAddress::isZero() const noexcept {
  for (size_t i = 0; i < size(); ++i) {
    if (bytes[i] != 0) return false;
  }
  return true;
}

RouteLookup RouteLookup::open() {
  RouteLookup lookup;
  lookup.fd_ = openSubscribed(0);
  return lookup;
}

bool RouteLookup::takeChanges() {
  bool changed = std::exchange(changed_, false);
  return drainChanges(fd_.get()) != ChangeBatch::kNone || changed;
}

ssize_t RouteLookup::exchange(void* request, size_t length, void* buffer, size_t capacity) {
  auto* header = static_cast<nlmsghdr*>(request);
  header->nlmsg_seq = ++sequence_;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(fd_.get(), request, length, 0, reinterpret_cast<sockaddr*>(&kernel),
               sizeof kernel) != static_cast<ssize_t>(length)) {
    return -1;
  }
  // The kernel queues its answer before sendto returns; anything else waiting is an
  // announcement, which may concern a change our answer missed, or the leftover of an earlier
  // question that failed half-way.
  for (;;) {
    sockaddr_nl from{};
    socklen_t fromLength = sizeof from;
    ssize_t n = ::recvfrom(fd_.get(), buffer, capacity, MSG_DONTWAIT | MSG_TRUNC,
                           reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (n < 0 && errno == EINTR) continue;
    if ((n < 0 && errno == ENOBUFS) || (n >= 0 && from.nl_groups != 0)) {
      changed_ = true;
      continue;
    }
    if (n < static_cast<ssize_t>(sizeof(nlmsghdr)) || static_cast<size_t>(n) > capacity) return -1;
    auto* answer = static_cast<const nlmsghdr*>(buffer);
    if (answer->nlmsg_seq == sequence_ && NLMSG_OK(answer, static_cast<size_t>(n))) return n;
  }
}

std::optional<RouteAnswer> RouteLookup::route(const IpAddress& destination) {
  if (!fd_ || (destination.family != AF_INET && destination.family != AF_INET6)) {
    return std::nullopt;
  }
  alignas(nlmsghdr) char request[NLMSG_SPACE(sizeof(rtmsg)) + RTA_SPACE(16)] = {};
  auto* header = reinterpret_cast<nlmsghdr*>(request);
  header->nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
  header->nlmsg_type = RTM_GETROUTE;
  header->nlmsg_flags = NLM_F_REQUEST;
  auto* message = static_cast<rtmsg*>(NLMSG_DATA(header));
  message->rtm_family = static_cast<unsigned char>(destination.family);
  message->rtm_dst_len = static_cast<unsigned char>(destination.size() * 8);
  appendAttribute(header, RTA_DST, destination.bytes, destination.size());

  alignas(nlmsghdr) char buffer[kAnswerCapacity];
  ssize_t n = exchange(request, header->nlmsg_len, buffer, sizeof buffer);
  if (n < 0) return std::nullopt;
  auto* answer = reinterpret_cast<const nlmsghdr*>(buffer);
  if (answer->nlmsg_type == NLMSG_ERROR) {
    switch (-errorOf(answer)) {
      case ENETUNREACH:   // no route
      case EHOSTUNREACH:  // an unreachable route
      case EACCES:        // a prohibit route
      case EPERM:
      case EINVAL:  // a blackhole route
        return RouteAnswer{};
      default:
        return std::nullopt;
    }
  }
  if (answer->nlmsg_type != RTM_NEWROUTE || answer->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) {
    return std::nullopt;
  }
  const auto* found = static_cast<const rtmsg*>(NLMSG_DATA(answer));
  RouteAnswer result;
  result.found = true;
  result.type = found->rtm_type;
  int left = static_cast<int>(RTM_PAYLOAD(answer));
  for (const rtattr* a = RTM_RTA(found); RTA_OK(a, left); a = RTA_NEXT(a, left)) {
    if (a->rta_type == RTA_OIF && RTA_PAYLOAD(a) >= sizeof(uint32_t)) {
      uint32_t index;
      std::memcpy(&index, RTA_DATA(a), sizeof index);
      result.outInterface = static_cast<int>(index);
    }
  }
  return result;
}

bool RouteLookup::linkName(int index, char (&name)[IF_NAMESIZE]) {
  ifreq request{};
  request.ifr_ifindex = index;
  if (!fd_ || index <= 0 || ::ioctl(fd_.get(), SIOCGIFNAME, &request) != 0) return false;
  std::memcpy(name, request.ifr_name, IF_NAMESIZE);
  return true;
}

std::optional<unsigned> RouteLookup::linkFlags(const char (&name)[IF_NAMESIZE]) {
  ifreq request{};
  std::memcpy(request.ifr_name, name, IF_NAMESIZE);
  if (!fd_ || ::ioctl(fd_.get(), SIOCGIFFLAGS, &request) != 0) return std::nullopt;
  return static_cast<unsigned short>(request.ifr_flags);
}

UniqueFd openChangeSubscription() {
  UniqueFd fd = openSubscribed(SOCK_NONBLOCK);
  if (!fd) return fd;
  int size = kSubscriptionBuffer;
  // Root may go beyond rmem_max; others get what the limit allows.
  if (::setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
  return fd;
}

ChangeBatch drainChanges(int fd) {
  alignas(nlmsghdr) char buffer[kAnswerCapacity];
  ChangeBatch batch = ChangeBatch::kNone;
  for (;;) {
    ssize_t n = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n > 0) {
      if (batch == ChangeBatch::kNone) batch = ChangeBatch::kChanges;
    } else if (n < 0 && errno == ENOBUFS) {
      batch = ChangeBatch::kOverrun;
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      return batch;  // EAGAIN: drained
    }
  }
}

}  // namespace nk::reachability_internal
