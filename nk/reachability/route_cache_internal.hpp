// Route look-ups remembered until the kernel announces a change that could alter them, so that
// a status query costs one check for announcements and one read of the out link's flags rather
// than netlink round trips. The flags themselves are read afresh every time: the kernel
// changes a link's running state before it announces the carrier change.
// Route choices the kernel makes from neighbour reachability alone (IPv6 default-router
// preference, multipath with fib_multipath_use_neigh) are not announced, so they are followed
// at the next announcement only.
#pragma once

#include <net/if.h>

#include <optional>
#include <vector>

#include "nk/reachability/route_netlink_internal.hpp"

namespace nk::reachability_internal {

// Where the kernel would send a packet for one destination, and that link's state now.
struct RoutedLink {
  RouteAnswer route;
  unsigned linkFlags = 0;  // IFF_* of the out link; 0 when there is none (any more)
};

// Not thread-safe: callers serialise.
class RouteCache {
 public:
  // Opens the socket; an empty RouteCache (false) when the kernel refused.
  static RouteCache open();
  explicit operator bool() const noexcept { return static_cast<bool>(lookup_); }

  // The route to `destination` and its out link's flags; nullopt when the kernel could not
  // be asked.
  std::optional<RoutedLink> lookUp(const IpAddress& destination);

 private:
  struct Entry {
    IpAddress destination;
    RouteAnswer route;
    char linkName[IF_NAMESIZE] = {};  // empty when the route names no link
  };

  RouteLookup lookup_;
  std::vector<Entry> entries_;  // the answers since the last announced change
};

}  // namespace nk::reachability_internal
