// NKReachability: whether a host name, a network address or the internet can be reached with
// the current network configuration, and a notification on the default centre at every change.
#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>

#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"
#include "nk/reachability/reachability_flags.hpp"
#include "nk/reachability/socket_address.hpp"

namespace nk {

class NetworkReachability;

// Releases a reachability service handle.
struct NetworkReachabilityRelease {
  void operator()(NetworkReachability* handle) const noexcept;
};
using NetworkReachabilityHandle = std::unique_ptr<NetworkReachability, NetworkReachabilityRelease>;

enum NKNetworkStatus : int64_t {
  // The target cannot be reached, or its flags could not be read.
  NKNetworkStatusNotReachable = 0,
  // The target can be reached now, or will be through an automatic connection.
  NKNetworkStatusReachable = 1,
};

// "knkNetworkReachabilityChangedNotification": posted with the monitor as its object and no
// user information.
String* kReachabilityChangedNotification() noexcept;

// Example:
//   auto monitor = nk::NKReachability::reachabilityForInternetConnection();
//   auto token = center->addObserver(nk::kReachabilityChangedNotification(), monitor.get(),
//       [](const nk::Notification* n) {
//         auto* m = static_cast<const nk::NKReachability*>(n->object().get());
//         update(m->currentReachabilityStatus());
//       });
//   monitor->startNotifier();  // notifications come on this thread while its run loop runs
class NKReachability : public Object {
  NK_DECLARE_CLASS(NKReachability, Object)

 public:
  // Monitors of `Self`, NKReachability or a subclass that inherits this constructor; nil when
  // the target is refused (a nil or empty name, an address that is neither IPv4 nor IPv6).
  template <class Self = NKReachability>
  static Ref<Self> reachabilityWithHostName(const String* hostName);
  template <class Self = NKReachability>
  static Ref<Self> reachabilityWithAddress(const SocketAddress* address);
  // A monitor of 0.0.0.0 (length 16, family 2), which stands for the internet in general.
  template <class Self = NKReachability>
  static Ref<Self> reachabilityForInternetConnection();

  // Starts posting the change notification on this thread, while its run loop runs. The
  // monitor is not retained meanwhile: keep it alive. Returns whether the notifier runs.
  bool startNotifier();
  // Stops the notifier started on this thread; from another thread it does nothing. Harmless
  // when the notifier never started.
  void stopNotifier();

  // The status from the flags read now, from any thread.
  NKNetworkStatus currentReachabilityStatus() const;
  // Whether the flags read now have the connection-required bit (4); NO when they cannot be read.
  bool connectionRequired() const;
  // 0 without the reachable bit (2); otherwise 1, unless connection-required (4) is set, which
  // gives 0 except with connection on traffic (8) or on demand (32) and no intervention
  // required (16).
  NKNetworkStatus networkStatusForFlags(NetworkReachabilityFlags flags) const;

  // Takes ownership of a handle made by one of the factories.
  explicit NKReachability(NetworkReachabilityHandle handle) noexcept;
  ~NKReachability() override;

 private:
  static NetworkReachabilityHandle handleForHostName(const String* hostName);
  static NetworkReachabilityHandle handleForAddress(const SocketAddress* address);
  static SocketAddress zeroAddress() noexcept;
  template <class Self>
  static Ref<Self> withHandle(NetworkReachabilityHandle handle);

  NetworkReachabilityHandle _reachabilityRef;
};

// Registered with the service by startNotifier: posts the change notification with `info`,
// the monitor, as its object. The flags are not passed on.
void ReachabilityCallback(NetworkReachability* target, NetworkReachabilityFlags flags, void* info);

template <class Self>
Ref<Self> NKReachability::withHandle(NetworkReachabilityHandle handle) {
  static_assert(std::is_base_of_v<NKReachability, Self>);
  if (!handle) return nullptr;
  return make<Self>(std::move(handle));
}

template <class Self>
Ref<Self> NKReachability::reachabilityWithHostName(const String* hostName) {
  return withHandle<Self>(handleForHostName(hostName));
}

template <class Self>
Ref<Self> NKReachability::reachabilityWithAddress(const SocketAddress* address) {
  return withHandle<Self>(handleForAddress(address));
}

template <class Self>
Ref<Self> NKReachability::reachabilityForInternetConnection() {
  SocketAddress zero = zeroAddress();
  return reachabilityWithAddress<Self>(&zero);
}

}  // namespace nk
