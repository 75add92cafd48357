// The reachability flag word: the bits a reachability answer is made of, with the values the
// original platform gives them, so that code written against those values reads the same here.
#pragma once

#include <cstdint>

namespace nk {

using NetworkReachabilityFlags = uint32_t;

// The target can be reached with the current network configuration.
inline constexpr NetworkReachabilityFlags kNetworkReachabilityFlagsReachable = 2;
// A connection must be established first (a captive portal, a limited network).
inline constexpr NetworkReachabilityFlags kNetworkReachabilityFlagsConnectionRequired = 4;
// A connection is set up automatically when traffic is sent. Never set on Linux.
inline constexpr NetworkReachabilityFlags kNetworkReachabilityFlagsConnectionOnTraffic = 8;
// The user must act first, for instance sign in to a captive portal.
inline constexpr NetworkReachabilityFlags kNetworkReachabilityFlagsInterventionRequired = 16;
// A connection is set up on demand. Never set on Linux.
inline constexpr NetworkReachabilityFlags kNetworkReachabilityFlagsConnectionOnDemand = 32;

}  // namespace nk
