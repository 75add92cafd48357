// RouteCache: answers kept per destination and all dropped at any announcement, since one
// change (a rule, a default route, a link going away) can move any destination.
#include "nk/reachability/route_cache_internal.hpp"

#include <algorithm>

namespace nk::reachability_internal {

RouteCache RouteCache::open() {
  RouteCache cache;
  cache.lookup_ = RouteLookup::open();
  return cache;
}

std::optional<RoutedLink> RouteCache::lookUp(const IpAddress& destination) {
  // Announcements are read before the cache is, so that a change announced before this call
  // is never answered from an older look-up.
  if (lookup_.takeChanges()) entries_.clear();
  auto entry = std::find_if(entries_.begin(), entries_.end(),
                            [&](const Entry& e) { return e.destination == destination; });
  if (entry == entries_.end()) {
    std::optional<RouteAnswer> route = lookup_.route(destination);
    if (!route) return std::nullopt;
    Entry fresh{destination, *route};
    // A link that vanished since the route look-up leaves the name empty: as good as down.
    if (route->found && route->outInterface > 0)
      lookup_.linkName(route->outInterface, fresh.linkName);
    entry = entries_.insert(entries_.end(), fresh);
  }
  RoutedLink result{entry->route};
  if (entry->linkName[0]) result.linkFlags = lookup_.linkFlags(entry->linkName).value_or(0);
  return result;
}

}  // namespace nk::reachability_internal
