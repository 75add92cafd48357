// Reachability as nkutil shows it.
#include "tools/nkutil/reachability_answer.hpp"

#include "nk/foundation/number.hpp"

namespace nk::cli {

std::string ReachabilityAnswer::text() const {
  if (status == NKNetworkStatusReachable) return "reachable";
  return connectionRequired ? "not reachable (a connection is required)" : "not reachable";
}

Ref<Dictionary> ReachabilityAnswer::json() const {
  return Dictionary::make(
      {{NK_STR("reachable"), Number::withBool(status == NKNetworkStatusReachable)},
       {NK_STR("connectionRequired"), Number::withBool(connectionRequired)}});
}

ReachabilityAnswer reachabilityAnswer(const NKReachability& monitor) {
  return {monitor.currentReachabilityStatus(), monitor.connectionRequired()};
}

}  // namespace nk::cli
