// What an NKReachability monitor answers now, for `nkutil reach` and `nkutil status`.
#pragma once

#include <string>

#include "nk/foundation/dictionary.hpp"
#include "nk/reachability/reachability.hpp"

namespace nk::cli {

struct ReachabilityAnswer {
  NKNetworkStatus status = NKNetworkStatusNotReachable;
  bool connectionRequired = false;

  // "reachable", "not reachable", or "not reachable (a connection is required)".
  std::string text() const;
  // {"reachable": Boolean, "connectionRequired": Boolean}.
  Ref<Dictionary> json() const;
};

ReachabilityAnswer reachabilityAnswer(const NKReachability& monitor);

}  // namespace nk::cli
