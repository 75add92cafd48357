// NKReachability over the reachability service: factories that wrap a handle, the notifier on
// the current thread's run loop, and the decision table from flags to status.
#include "nk/reachability/reachability.hpp"

#include <netinet/in.h>

#include "nk/dispatch/run_loop.hpp"
#include "nk/foundation/class.hpp"
#include "nk/reachability/network_reachability_internal.hpp"
#include "nk/system/notification_center.hpp"

namespace nk {

NK_DEFINE_CLASS(NKReachability, "NKReachability");

void NetworkReachabilityRelease::operator()(NetworkReachability* handle) const noexcept {
  delete handle;
}

String* kReachabilityChangedNotification() noexcept {
  return NK_STR("knkNetworkReachabilityChangedNotification");
}

void ReachabilityCallback(NetworkReachability*, NetworkReachabilityFlags, void* info) {
  NotificationCenter::defaultCenter()->postNotificationName(kReachabilityChangedNotification(),
                                                            static_cast<NKReachability*>(info));
}

NKReachability::NKReachability(NetworkReachabilityHandle handle) noexcept
    : _reachabilityRef(std::move(handle)) {}

NKReachability::~NKReachability() { stopNotifier(); }

NetworkReachabilityHandle NKReachability::handleForHostName(const String* hostName) {
  if (!hostName) return nullptr;
  return NetworkReachabilityHandle(
      NetworkReachability::createWithName(hostName->utf8().c_str()).release());
}

NetworkReachabilityHandle NKReachability::handleForAddress(const SocketAddress* address) {
  return NetworkReachabilityHandle(NetworkReachability::createWithAddress(address).release());
}

SocketAddress NKReachability::zeroAddress() noexcept {
  SocketAddress zero{};
  zero.length = sizeof(SocketAddress);
  zero.family = AF_INET;
  return zero;
}

bool NKReachability::startNotifier() {
  if (!_reachabilityRef) return false;
  if (!_reachabilityRef->setCallback(&ReachabilityCallback, this)) return false;
  return _reachabilityRef->scheduleWithRunLoop(RunLoop::current());
}

void NKReachability::stopNotifier() {
  if (_reachabilityRef) _reachabilityRef->unscheduleFromCurrentRunLoop();
}

NKNetworkStatus NKReachability::currentReachabilityStatus() const {
  NetworkReachabilityFlags flags = 0;
  if (!_reachabilityRef || !_reachabilityRef->getFlags(&flags)) return NKNetworkStatusNotReachable;
  return networkStatusForFlags(flags);
}

bool NKReachability::connectionRequired() const {
  NetworkReachabilityFlags flags = 0;
  if (!_reachabilityRef || !_reachabilityRef->getFlags(&flags)) return false;
  return (flags & kNetworkReachabilityFlagsConnectionRequired) != 0;
}

NKNetworkStatus NKReachability::networkStatusForFlags(NetworkReachabilityFlags flags) const {
  if (!(flags & kNetworkReachabilityFlagsReachable)) return NKNetworkStatusNotReachable;
  NKNetworkStatus status = (flags & kNetworkReachabilityFlagsConnectionRequired)
                               ? NKNetworkStatusNotReachable
                               : NKNetworkStatusReachable;
  if ((flags & (kNetworkReachabilityFlagsConnectionOnDemand |
                kNetworkReachabilityFlagsConnectionOnTraffic)) &&
      !(flags & kNetworkReachabilityFlagsInterventionRequired)) {
    status = NKNetworkStatusReachable;
  }
  return status;
}

}  // namespace nk
