// The reachability service: a target's flags from remembered route look-ups and the out link's
// state, and per schedule a netlink subscription watched on the run loop, whose bursts are
// evaluated once they go quiet.
#include "nk/reachability/network_reachability_internal.hpp"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "nk/reachability/host_resolver_internal.hpp"
#include "nk/reachability/network_manager_internal.hpp"
#include "nk/reachability/route_cache_internal.hpp"

namespace nk {

using reachability_internal::ChangeBatch;
using reachability_internal::IpAddress;
using reachability_internal::NetworkNamespace;
using reachability_internal::RouteCache;
using reachability_internal::UniqueFd;
using Clock = std::chrono::steady_clock;

namespace {

// A change arrives as a burst of link, address and route messages: evaluate once the burst
// has been quiet this long, but never later than kLongestDelay after its first message.
constexpr auto kQuietPeriod = std::chrono::milliseconds(100);
constexpr auto kLongestDelay = std::chrono::seconds(1);
// How often a status query may retry a name that did not resolve.
constexpr auto kResolutionRetry = std::chrono::seconds(5);

// Shared rather than copied, so that a status query does not allocate.
using Addresses = std::shared_ptr<const std::vector<IpAddress>>;

Addresses addressList(std::vector<IpAddress> addresses) {
  return std::make_shared<const std::vector<IpAddress>>(std::move(addresses));
}

// The documentation addresses whose routes stand for "the internet": any destination without
// a more specific route goes where they go.
std::vector<IpAddress> internetProbes() {
  return {*IpAddress::parse("198.51.100.1"), *IpAddress::parse("2001:db8::1")};
}

// The flags of one address; nullopt when the kernel could not be asked.
std::optional<NetworkReachabilityFlags> flagsFor(RouteCache& routes, const IpAddress& address) {
  std::optional<reachability_internal::RoutedLink> routed = routes.lookUp(address);
  if (!routed) return std::nullopt;
  const reachability_internal::RouteAnswer& route = routed->route;
  if (!route.found || (route.type != RTN_UNICAST && route.type != RTN_LOCAL)) return 0;
  unsigned link = routed->linkFlags;
  bool loopback = (link & IFF_LOOPBACK) != 0;
  if (!(link & IFF_UP) || !(loopback || (link & IFF_RUNNING))) return 0;
  NetworkReachabilityFlags flags = kNetworkReachabilityFlagsReachable;
  if (route.type != RTN_LOCAL && !loopback) flags |= reachability_internal::connectivityFlags();
  return flags;
}

}  // namespace

class NetworkReachability::State : public std::enable_shared_from_this<State> {
 public:
  enum class Kind { kAddress, kInternet, kName };

  State(Kind kind, std::vector<IpAddress> addresses, std::string name)
      : kind_(kind),
        name_(std::move(name)),
        space_(kind == Kind::kName ? NetworkNamespace::ofCurrentThread() : nullptr),
        routes_(RouteCache::open()),
        addresses_(addressList(std::move(addresses))) {}

  bool canLookUp() const noexcept { return static_cast<bool>(routes_); }

  void setOwner(NetworkReachability* owner) {
    std::lock_guard guard(lock_);
    owner_ = owner;
  }

  void setCallback(Callback callback, void* info) {
    std::lock_guard guard(lock_);
    callback_ = callback;
    info_ = info;
  }

  // The target's flags now; nullopt when the kernel could not be asked.
  std::optional<NetworkReachabilityFlags> evaluate() {
    Addresses targets;
    bool retry = false;
    {
      std::lock_guard guard(lock_);
      if (kind_ == Kind::kName) {
        retry = resolved_ && addresses_->empty() && !resolving_ &&
                Clock::now() - lastResolution_ >= kResolutionRetry;
      }
      targets = addresses_;
    }
    if (retry) resolve();
    std::lock_guard guard(routesLock_);
    bool answered = targets->empty();
    for (const IpAddress& address : *targets) {
      std::optional<NetworkReachabilityFlags> flags = flagsFor(routes_, address);
      if (!flags) continue;
      if (*flags & kNetworkReachabilityFlagsReachable) return flags;
      answered = true;
    }
    return answered ? std::optional<NetworkReachabilityFlags>(0) : std::nullopt;
  }

  // Starts resolving the name, or asks for one more resolution after the one under way.
  void resolve() {
    {
      std::lock_guard guard(lock_);
      if (resolving_) {
        resolveAgain_ = true;
        return;
      }
      resolving_ = true;
      resolveAgain_ = false;
      lastResolution_ = Clock::now();
    }
    // Weak: a slow DNS answer must not keep an abandoned handle alive.
    std::weak_ptr<State> weak = weak_from_this();
    bool started =
        reachability_internal::resolveHost(name_, space_, [weak](std::vector<IpAddress> found) {
          if (auto self = weak.lock()) self->resolved(std::move(found));
        });
    if (!started) resolved({});
  }

  bool schedule(const RunLoop& loop) {
    {
      std::lock_guard guard(lock_);
      if (subscription_) return subscription_->loop == loop;
    }
    auto subscription = std::make_unique<Subscription>(loop);
    subscription->changes = reachability_internal::openChangeSubscription();
    subscription->wake = UniqueFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!subscription->changes || !subscription->wake) return false;
    // Subscribed first, so that a change during this evaluation is not missed.
    subscription->flags = evaluate().value_or(0);
    std::weak_ptr<State> weak = weak_from_this();
    subscription->connectivityListener = reachability_internal::addConnectivityListener([weak] {
      if (auto self = weak.lock()) {
        std::lock_guard guard(self->lock_);
        self->wakeLocked();
      }
    });

    std::lock_guard guard(lock_);
    if (subscription_) return subscription_->loop == loop;  // another thread was quicker
    uint64_t generation = ++generation_;
    subscription->generation = generation;
    subscription->changeWatch = loop.watchReadable(subscription->changes.get(), [weak, generation] {
      if (auto self = weak.lock()) self->onChanges(generation);
    });
    subscription->wakeWatch = loop.watchReadable(subscription->wake.get(), [weak, generation] {
      if (auto self = weak.lock()) self->onWake(generation);
    });
    subscription_ = std::move(subscription);
    // A resolution or a connectivity change that ended between the evaluation above and now
    // found no schedule to wake: look once more on the loop.
    wakeLocked();
    return true;
  }

  // Ends the schedule if its loop is one that `matches`.
  template <class Match>
  bool unscheduleIf(Match matches) {
    std::unique_ptr<Subscription> ended;
    {
      std::lock_guard guard(lock_);
      if (!subscription_ || !matches(subscription_->loop)) return false;
      ended = std::move(subscription_);
    }
    return true;  // `ended` cancels its watches and closes its sockets outside the lock
  }

 private:
  // One schedule on one run loop.
  struct Subscription {
    explicit Subscription(RunLoop l) : loop(std::move(l)) {}
    ~Subscription() {
      if (connectivityListener)
        reachability_internal::removeConnectivityListener(*connectivityListener);
    }

    RunLoop loop;
    uint64_t generation = 0;
    UniqueFd changes;  // the netlink subscription
    UniqueFd wake;     // an eventfd: a resolution or NetworkManager has news
    // Declared after the descriptors so that they are cancelled before those close.
    RunLoopSource changeWatch;
    RunLoopSource wakeWatch;
    RunLoopSource quietTimer;
    std::optional<uint64_t> connectivityListener;
    bool burst = false;  // messages seen, not evaluated yet
    Clock::time_point burstStart;
    Clock::time_point due;
    NetworkReachabilityFlags flags = 0;  // those last reported (or found at scheduling)
  };

  // The schedule that `generation` belongs to, if it still runs. Called with lock_ held.
  Subscription* current(uint64_t generation) {
    return subscription_ && subscription_->generation == generation ? subscription_.get() : nullptr;
  }

  // Makes the schedule, if any, evaluate again on its loop. Called with lock_ held.
  void wakeLocked() {
    if (subscription_) ::eventfd_write(subscription_->wake.get(), 1);
  }

  void resolved(std::vector<IpAddress> found) {
    bool again;
    {
      std::lock_guard guard(lock_);
      addresses_ = addressList(std::move(found));
      resolved_ = true;
      resolving_ = false;
      again = resolveAgain_;
      wakeLocked();
    }
    if (again) resolve();
  }

  void armQuietTimer(Subscription& subscription, Clock::time_point now) {
    std::weak_ptr<State> weak = weak_from_this();
    uint64_t generation = subscription.generation;
    subscription.quietTimer =
        subscription.loop.addTimer(subscription.due - now, {}, [weak, generation] {
          if (auto self = weak.lock()) {
            self->onQuietTimer(generation);
          }
        });
  }

  void onChanges(uint64_t generation) {
    {
      std::lock_guard guard(lock_);
      Subscription* subscription = current(generation);
      if (!subscription) return;
      ChangeBatch batch = reachability_internal::drainChanges(subscription->changes.get());
      if (batch == ChangeBatch::kNone) return;
      if (batch == ChangeBatch::kChanges) {
        Clock::time_point now = Clock::now();
        if (!subscription->burst) {
          subscription->burst = true;
          subscription->burstStart = now;
        }
        subscription->due = std::min(now + kQuietPeriod, subscription->burstStart + kLongestDelay);
        if (!subscription->quietTimer.isActive()) armQuietTimer(*subscription, now);
        return;
      }
      // Messages were lost: what they said is unknown, so look again at once.
      subscription->burst = false;
      subscription->quietTimer.cancel();
    }
    deliver(generation, true);
  }

  void onQuietTimer(uint64_t generation) {
    {
      std::lock_guard guard(lock_);
      Subscription* subscription = current(generation);
      if (!subscription || !subscription->burst) return;
      Clock::time_point now = Clock::now();
      if (now < subscription->due) {
        armQuietTimer(*subscription, now);
        return;
      }
      subscription->burst = false;
    }
    deliver(generation, true);
  }

  void onWake(uint64_t generation) {
    {
      std::lock_guard guard(lock_);
      Subscription* subscription = current(generation);
      if (!subscription) return;
      eventfd_t count;
      ::eventfd_read(subscription->wake.get(), &count);
    }
    deliver(generation, false);
  }

  // Evaluates and calls back if the flags changed. After a network change a name is resolved
  // again too: its answer may depend on the network, and arrives through onWake.
  void deliver(uint64_t generation, bool networkChanged) {
    if (networkChanged && kind_ == Kind::kName) resolve();
    std::optional<NetworkReachabilityFlags> flags = evaluate();
    if (!flags) return;
    Callback callback;
    void* info;
    NetworkReachability* owner;
    {
      std::lock_guard guard(lock_);
      Subscription* subscription = current(generation);
      if (!subscription || subscription->flags == *flags) return;
      subscription->flags = *flags;
      callback = callback_;
      info = info_;
      owner = owner_;
    }
    if (callback) callback(owner, *flags, info);
  }

  const Kind kind_;
  const std::string name_;
  const std::shared_ptr<const NetworkNamespace> space_;

  std::mutex routesLock_;
  RouteCache routes_;  // guarded by routesLock_

  std::mutex lock_;      // guards everything below
  Addresses addresses_;  // for names, those of the last resolution
  bool resolved_ = false;
  bool resolving_ = false;
  bool resolveAgain_ = false;
  Clock::time_point lastResolution_;
  Callback callback_ = nullptr;
  void* info_ = nullptr;
  NetworkReachability* owner_ = nullptr;
  std::unique_ptr<Subscription> subscription_;
  uint64_t generation_ = 0;
};

NetworkReachability::NetworkReachability(std::shared_ptr<State> state) noexcept
    : state_(std::move(state)) {
  state_->setOwner(this);
}

NetworkReachability::~NetworkReachability() {
  state_->unscheduleIf([](const RunLoop&) { return true; });
  state_->setCallback(nullptr, nullptr);
  state_->setOwner(nullptr);
}

std::unique_ptr<NetworkReachability> NetworkReachability::createWithName(const char* name) {
  if (!name || !*name) return nullptr;
  std::optional<IpAddress> literal = IpAddress::parse(name);
  if (literal) return forAddress(*literal);
  auto state = std::make_shared<State>(State::Kind::kName, std::vector<IpAddress>(), name);
  if (!state->canLookUp()) return nullptr;
  state->resolve();
  return std::unique_ptr<NetworkReachability>(new NetworkReachability(std::move(state)));
}

std::unique_ptr<NetworkReachability> NetworkReachability::createWithAddress(
    const SocketAddress* address) {
  if (!address || address->length < 2 || address->length > sizeof(sockaddr_storage)) {
    return nullptr;
  }
  sockaddr_storage storage{};
  std::memcpy(&storage, address, address->length);
  storage.ss_family = address->family;
  std::optional<IpAddress> ip =
      IpAddress::fromSockaddr(reinterpret_cast<const sockaddr*>(&storage), address->length);
  if (!ip) return nullptr;
  return forAddress(*ip);
}

std::unique_ptr<NetworkReachability> NetworkReachability::forAddress(const IpAddress& address) {
  auto state =
      address.isZero()
          ? std::make_shared<State>(State::Kind::kInternet, internetProbes(), std::string())
          : std::make_shared<State>(State::Kind::kAddress, std::vector{address}, std::string());
  if (!state->canLookUp()) return nullptr;
  return std::unique_ptr<NetworkReachability>(new NetworkReachability(std::move(state)));
}

bool NetworkReachability::getFlags(NetworkReachabilityFlags* flags) const {
  std::optional<NetworkReachabilityFlags> now = state_->evaluate();
  if (!now) return false;
  *flags = *now;
  return true;
}

bool NetworkReachability::setCallback(Callback callback, void* info) {
  state_->setCallback(callback, info);
  return true;
}

bool NetworkReachability::scheduleWithRunLoop(const RunLoop& loop) {
  return state_->schedule(loop);
}

bool NetworkReachability::unscheduleFromRunLoop(const RunLoop& loop) {
  return state_->unscheduleIf([&](const RunLoop& scheduled) { return scheduled == loop; });
}

bool NetworkReachability::unscheduleFromCurrentRunLoop() {
  return state_->unscheduleIf(
      [](const RunLoop& scheduled) { return scheduled.isOwnedByCurrentThread(); });
}

}  // namespace nk
