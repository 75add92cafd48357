// NKReachability: the decision table, the factories, and the change notification posted on the
// starting thread, in network namespaces the tests make.
#include "nk/reachability/reachability.hpp"

#include <glib.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "nk/dispatch/run_loop.hpp"
#include "nk/foundation/class.hpp"
#include "nk/reachability/netns_test_support_internal.hpp"
#include "nk/system/notification_center.hpp"

namespace nk {

// A host's own kind of monitor, made by the inherited factories.
class HostReachability final : public NKReachability {
  NK_DECLARE_CLASS(HostReachability, NKReachability)

 public:
  using NKReachability::NKReachability;
};
NK_DEFINE_CLASS(HostReachability, "HostReachability");

namespace {

using namespace std::chrono_literals;
using namespace reachability_test;

TEST(NKReachability, StatusForFlags) {
  auto monitor = NKReachability::reachabilityForInternetConnection();
  ASSERT_TRUE(monitor);
  struct Row {
    NetworkReachabilityFlags flags;
    NKNetworkStatus status;
  };
  const Row rows[] = {
      {2, NKNetworkStatusReachable},      // reachable
      {6, NKNetworkStatusNotReachable},   // reachable, connection required
      {14, NKNetworkStatusReachable},     // ... and connection on traffic
      {30, NKNetworkStatusNotReachable},  // ... but intervention required
      {38, NKNetworkStatusReachable},     // reachable, connection required, on demand
      {0, NKNetworkStatusNotReachable},   // nothing
      {4, NKNetworkStatusNotReachable},   // connection required without reachable
      {18, NKNetworkStatusReachable},     // intervention alone does not matter
      {40, NKNetworkStatusNotReachable},  // on traffic and on demand without reachable
      {54, NKNetworkStatusNotReachable},  // on demand, intervention required
  };
  for (const Row& row : rows) {
    EXPECT_EQ(monitor->networkStatusForFlags(row.flags), row.status) << "flags " << row.flags;
  }
}

TEST(NKReachability, Factories) {
  // Each factory makes an instance of the class it is called for
  auto name = NKReachability::reachabilityWithHostName<HostReachability>(NK_STR("localhost"));
  auto address =
      NKReachability::reachabilityWithAddress<HostReachability>(socketAddress("10.0.0.1").get());
  auto internet = NKReachability::reachabilityForInternetConnection<HostReachability>();
  for (const NKReachability* monitor : {name.get(), address.get(), internet.get()}) {
    ASSERT_TRUE(monitor);
    EXPECT_TRUE(monitor->isMemberOfClass(HostReachability::staticClass()));
  }
  EXPECT_TRUE(NKReachability::reachabilityForInternetConnection()->isMemberOfClass(
      NKReachability::staticClass()));
  // Refused targets give nil
  EXPECT_FALSE(NKReachability::reachabilityWithHostName(nullptr));
  EXPECT_FALSE(NKReachability::reachabilityWithHostName(NK_STR("")));
  auto other = socketAddress("10.0.0.1");
  other.bytes[1] = AF_UNIX;
  EXPECT_FALSE(NKReachability::reachabilityWithAddress(other.get()));
}

// Counts the change notifications of one monitor, and the threads they came on.
class NotificationLog {
 public:
  explicit NotificationLog(const NKReachability* monitor) : monitor_(monitor) {
    token_ = NotificationCenter::defaultCenter()->addObserver(
        kReachabilityChangedNotification(), nullptr, [this](const Notification* note) {
          if (note->object().get() != monitor_) return;
          EXPECT_FALSE(note->userInfo());
          threads.push_back(std::this_thread::get_id());
          statuses.push_back(static_cast<const NKReachability*>(note->object().get())
                                 ->currentReachabilityStatus());
        });
  }
  ~NotificationLog() { NotificationCenter::defaultCenter()->removeObserver(token_.get()); }

  std::vector<std::thread::id> threads;
  std::vector<NKNetworkStatus> statuses;  // read by the observer when notified

 private:
  const NKReachability* monitor_;
  Id token_;
};

// Runs the current thread's loop for a while, to let any stray notification arrive.
void settle(std::chrono::milliseconds time = 300ms) {
  RunLoop::current().runUntil([] { return false; }, time);
}

bool runUntilCount(const NotificationLog& log, size_t count) {
  return RunLoop::current().runUntil([&] { return log.statuses.size() >= count; }, 3s);
}

TEST(NKReachability, NotifiesOncePerChange) {
  NK_IN_NEW_NAMESPACE([] {
    ASSERT_TRUE(addVethPair());
    auto monitor = NKReachability::reachabilityForInternetConnection();
    NotificationLog log(monitor.get());
    EXPECT_EQ(monitor->currentReachabilityStatus(), NKNetworkStatusNotReachable);
    EXPECT_FALSE(monitor->connectionRequired());
    ASSERT_TRUE(monitor->startNotifier());
    // A default route: one notification, on this thread, after which the status is 1
    ASSERT_TRUE(ip("route add default via 10.77.0.2"));
    ASSERT_TRUE(runUntilCount(log, 1));
    settle();
    ASSERT_EQ(log.statuses, std::vector<NKNetworkStatus>{NKNetworkStatusReachable});
    EXPECT_EQ(log.threads[0], std::this_thread::get_id());
    EXPECT_FALSE(monitor->connectionRequired());
    // A prohibit route over the internet's probes: one more, status 0
    ASSERT_TRUE(ip("route add prohibit 198.51.100.0/24"));
    ASSERT_TRUE(runUntilCount(log, 2));
    settle();
    ASSERT_EQ(log.statuses.size(), 2u);
    EXPECT_EQ(log.statuses[1], NKNetworkStatusNotReachable);
    // After stopNotifier nothing more is posted, though the network changes
    monitor->stopNotifier();
    ASSERT_TRUE(ip("route del prohibit 198.51.100.0/24"));
    settle();
    EXPECT_EQ(log.statuses.size(), 2u);
    EXPECT_EQ(monitor->currentReachabilityStatus(), NKNetworkStatusReachable);
  });
}

TEST(NKReachability, StopNotifier) {
  NK_IN_NEW_NAMESPACE([] {
    ASSERT_TRUE(addVethPair());
    auto monitor = NKReachability::reachabilityWithAddress(socketAddress("10.77.0.2").get());
    NotificationLog log(monitor.get());
    // Stopping a notifier that never started is harmless, and twice too
    monitor->stopNotifier();
    monitor->stopNotifier();
    EXPECT_EQ(monitor->currentReachabilityStatus(), NKNetworkStatusReachable);
    // nor does it give a thread without a run loop one, which would become that thread's
    // GLib default context and hold up the GLib calls later made there
    std::thread([&] {
      NKReachability::reachabilityForInternetConnection()->stopNotifier();
      EXPECT_EQ(g_main_context_get_thread_default(), nullptr);
    }).join();
    // Stopping from another thread leaves the notifier running here
    ASSERT_TRUE(monitor->startNotifier());
    std::thread([&] { monitor->stopNotifier(); }).join();
    ASSERT_TRUE(ip("link set nkr1 down"));
    ASSERT_TRUE(runUntilCount(log, 1));
    EXPECT_EQ(log.statuses[0], NKNetworkStatusNotReachable);
    // A notifier can be started again after a stop
    monitor->stopNotifier();
    ASSERT_TRUE(monitor->startNotifier());
    ASSERT_TRUE(ip("link set nkr1 up"));
    ASSERT_TRUE(runUntilCount(log, 2));
    EXPECT_EQ(log.statuses[1], NKNetworkStatusReachable);
  });
}

TEST(NKReachability, DestroyedWhileRunning) {
  NK_IN_NEW_NAMESPACE([] {
    ASSERT_TRUE(addVethPair());
    int posted = 0;
    Id token = NotificationCenter::defaultCenter()->addObserver(
        kReachabilityChangedNotification(), nullptr, [&](const Notification*) { ++posted; });
    {
      auto monitor = NKReachability::reachabilityForInternetConnection();
      ASSERT_TRUE(monitor->startNotifier());
      ASSERT_TRUE(ip("route add default via 10.77.0.2"));
    }  // destroyed with a change on its way
    settle();
    EXPECT_EQ(posted, 0);
    NotificationCenter::defaultCenter()->removeObserver(token.get());
  });
}

}  // namespace
}  // namespace nk
