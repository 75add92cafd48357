// NetworkManager's connectivity verdict, where NetworkManager answers on the system bus: the
// connection-required and intervention-required bits it adds to a target that is reached
// through the network. Without a system bus nothing is started and the bits stay clear.
#pragma once

#include <cstdint>
#include <functional>

#include "nk/reachability/reachability_flags.hpp"

namespace nk::reachability_internal {

// The bits for the current connectivity: PORTAL gives 4 and 16, LIMITED 4, anything else
// (including no answer yet) 0. Never waits.
NetworkReachabilityFlags connectivityFlags();

// Calls `listener` on NetworkManager's watcher thread each time connectivityFlags() changes,
// until the token is removed. The first call to either starts the watcher if the system bus
// is there.
uint64_t addConnectivityListener(std::function<void()> listener);
void removeConnectivityListener(uint64_t token);

}  // namespace nk::reachability_internal
