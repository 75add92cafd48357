// NetworkReachability: the Linux network reachability service behind NKReachability. A handle
// watches one target (a host name, an address, or the internet) and answers its flags from the
// kernel's routing tables; scheduled on a run loop, it calls back when they change.
#pragma once

#include <memory>

#include "nk/dispatch/run_loop.hpp"
#include "nk/reachability/reachability_flags.hpp"
#include "nk/reachability/route_netlink_internal.hpp"
#include "nk/reachability/socket_address.hpp"

namespace nk {

// How reachability is decided: a route look-up for the target's address, reachable (2) when it
// gives a unicast or local route whose out link is up and running (or up and a loopback);
// no route, a prohibit, blackhole or unreachable route, a lost carrier, or a name that does not
// resolve give 0. A name is reachable when one of its addresses is. "The internet" (the
// all-zero address) is a look-up of 198.51.100.1 and of 2001:db8::1, either of which will do.
// NetworkManager's verdict adds 4 and 16 to targets reached through the network.
//
// Handles answer for the network namespace of the thread that created them, and a schedule
// for that of the thread that scheduled.
class NetworkReachability {
 public:
  // Called on the scheduled run loop's thread with the new flags, only when they differ from
  // those of the previous evaluation (or, for the first change, from those at scheduling).
  using Callback = void (*)(NetworkReachability* target, NetworkReachabilityFlags flags,
                            void* info);

  // A handle for a host name (UTF-8). Numeric IPv4 and IPv6 texts are taken as addresses,
  // as createWithAddress takes them; other names start resolving at once. Nil for a null or
  // empty name.
  static std::unique_ptr<NetworkReachability> createWithName(const char* name);
  // A handle for an IPv4 or IPv6 address; the all-zero IPv4 or IPv6 address stands for the
  // internet. Nil for other families or a length too short for the family.
  static std::unique_ptr<NetworkReachability> createWithAddress(const SocketAddress* address);

  NetworkReachability(const NetworkReachability&) = delete;
  NetworkReachability& operator=(const NetworkReachability&) = delete;
  // Unschedules from whatever run loop the handle is on.
  ~NetworkReachability();

  // The target's flags now, from any thread, without waiting for DNS: a name whose addresses
  // are not known yet reads 0. False when the kernel could not be asked.
  bool getFlags(NetworkReachabilityFlags* flags) const;
  // Sets (or, with a null callback, clears) what a change calls. `info` is passed through and
  // not retained.
  bool setCallback(Callback callback, void* info);
  // Starts watching on `loop`: true, or when the handle already is on it. False when it is on
  // another loop or the kernel refused the watch.
  bool scheduleWithRunLoop(const RunLoop& loop);
  // Stops watching when the handle is on `loop`; false otherwise. On the loop's own thread,
  // no callback is made after this returns.
  bool unscheduleFromRunLoop(const RunLoop& loop);
  // The same for the calling thread's run loop, without giving a thread that has none a loop
  // (which would become its GLib thread-default context, one that nobody runs).
  bool unscheduleFromCurrentRunLoop();

 private:
  class State;
  explicit NetworkReachability(std::shared_ptr<State> state) noexcept;
  // A handle for an address; the all-zero address stands for the internet.
  static std::unique_ptr<NetworkReachability> forAddress(
      const reachability_internal::IpAddress& address);
  std::shared_ptr<State> state_;
};

}  // namespace nk
