// NetworkManager's "Connectivity" property, watched from a thread of its own over GDBus so that
// nobody waits for the bus: until an answer arrives (and for ever without NetworkManager) the
// bits read as clear.
#include "nk/reachability/network_manager_internal.hpp"

#include <gio/gio.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "nk/dispatch/run_loop.hpp"

namespace nk::reachability_internal {
namespace {

// NetworkManager's NMConnectivityState values.
constexpr guint32 kConnectivityPortal = 2;
constexpr guint32 kConnectivityLimited = 3;

class ConnectivityWatcher {
 public:
  static ConnectivityWatcher& shared() {
    // Lives for ever: its thread may be inside GDBus when the process exits.
    static ConnectivityWatcher* const watcher = [] {
      auto* w = new ConnectivityWatcher();
      if (systemBusPresent()) std::thread([w] { w->run(); }).detach();
      return w;
    }();
    return *watcher;
  }

  NetworkReachabilityFlags flags() const noexcept { return flags_.load(std::memory_order_acquire); }

  uint64_t add(std::function<void()> listener) {
    std::lock_guard guard(lock_);
    uint64_t token = nextToken_++;
    listeners_.emplace(token, std::make_shared<std::function<void()>>(std::move(listener)));
    return token;
  }

  void remove(uint64_t token) {
    std::lock_guard guard(lock_);
    listeners_.erase(token);
  }

 private:
  static bool systemBusPresent() {
    const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    if (address && *address) return true;
    return ::access("/run/dbus/system_bus_socket", F_OK) == 0 ||
           ::access("/var/run/dbus/system_bus_socket", F_OK) == 0;
  }

  static NetworkReachabilityFlags flagsFor(guint32 connectivity) noexcept {
    if (connectivity == kConnectivityPortal) {
      return kNetworkReachabilityFlagsConnectionRequired |
             kNetworkReachabilityFlagsInterventionRequired;
    }
    if (connectivity == kConnectivityLimited) return kNetworkReachabilityFlagsConnectionRequired;
    return 0;
  }

  void run() {
    RunLoop loop = RunLoop::current();  // makes this thread's context the thread default
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (!bus) return;
    GDBusProxy* proxy = g_dbus_proxy_new_sync(
        bus, G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START, nullptr, "org.freedesktop.NetworkManager",
        "/org/freedesktop/NetworkManager", "org.freedesktop.NetworkManager", nullptr, nullptr);
    g_object_unref(bus);
    if (!proxy) return;
    g_signal_connect(proxy, "g-properties-changed",
                     G_CALLBACK(+[](GDBusProxy* p, GVariant*, GStrv, gpointer self) {
                       static_cast<ConnectivityWatcher*>(self)->update(p);
                     }),
                     this);
    g_signal_connect(proxy, "notify::g-name-owner",
                     G_CALLBACK(+[](GDBusProxy* p, GParamSpec*, gpointer self) {
                       static_cast<ConnectivityWatcher*>(self)->update(p);
                     }),
                     this);
    update(proxy);
    loop.run();
  }

  void update(GDBusProxy* proxy) {
    guint32 connectivity = 0;
    gchar* owner = g_dbus_proxy_get_name_owner(proxy);
    if (owner) {
      if (GVariant* value = g_dbus_proxy_get_cached_property(proxy, "Connectivity")) {
        if (g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32)) {
          connectivity = g_variant_get_uint32(value);
        }
        g_variant_unref(value);
      }
      g_free(owner);
    }
    NetworkReachabilityFlags next = flagsFor(connectivity);
    if (flags_.exchange(next, std::memory_order_acq_rel) == next) return;
    std::vector<std::shared_ptr<std::function<void()>>> listeners;
    {
      std::lock_guard guard(lock_);
      for (auto& [token, listener] : listeners_) listeners.push_back(listener);
    }
    for (auto& listener : listeners) (*listener)();
  }

  std::atomic<NetworkReachabilityFlags> flags_{0};
  std::mutex lock_;
  std::map<uint64_t, std::shared_ptr<std::function<void()>>> listeners_;
  uint64_t nextToken_ = 1;
};

}  // namespace

NetworkReachabilityFlags connectivityFlags() { return ConnectivityWatcher::shared().flags(); }

uint64_t addConnectivityListener(std::function<void()> listener) {
  return ConnectivityWatcher::shared().add(std::move(listener));
}

void removeConnectivityListener(uint64_t token) { ConnectivityWatcher::shared().remove(token); }

}  // namespace nk::reachability_internal
