// Host-name resolution off the caller's thread, in the network namespace the name was given
// in, so that neither a run loop nor a status query ever waits for DNS.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "nk/reachability/route_netlink_internal.hpp"

namespace nk::reachability_internal {

// The network namespace of the thread that made it, kept open so that work on other threads
// can be done there. Empty when /proc is not there to name it.
class NetworkNamespace {
 public:
  static std::shared_ptr<const NetworkNamespace> ofCurrentThread();
  // Moves the calling thread into this namespace unless it is there already.
  bool enter() const;

 private:
  UniqueFd fd_;
};

// Resolves `name` on a thread of its own, in `space` (when given), and calls `done` there with
// its IPv4 and IPv6 addresses: none when the name does not resolve. False, and no call, when
// no thread could be started.
bool resolveHost(std::string name, std::shared_ptr<const NetworkNamespace> space,
                 std::function<void(std::vector<IpAddress>)> done);

}  // namespace nk::reachability_internal
