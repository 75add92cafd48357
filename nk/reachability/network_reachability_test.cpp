// The reachability service against the real kernel, in namespaces the tests make: flags for
// addresses, names and the internet as links, addresses and routes change, and the callback.
#include "nk/reachability/network_reachability_internal.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "nk/reachability/netns_test_support_internal.hpp"

namespace nk {
namespace {

using namespace std::chrono_literals;
using namespace reachability_test;

constexpr NetworkReachabilityFlags kUnread = 0xdeadbeef;
constexpr NetworkReachabilityFlags kReachable = kNetworkReachabilityFlagsReachable;

std::unique_ptr<NetworkReachability> target(const char* address) {
  auto handle = NetworkReachability::createWithAddress(socketAddress(address).get());
  EXPECT_TRUE(handle) << address;
  return handle;
}

NetworkReachabilityFlags flagsOf(const std::unique_ptr<NetworkReachability>& handle) {
  NetworkReachabilityFlags flags = kUnread;
  if (!handle || !handle->getFlags(&flags)) return kUnread;
  return flags;
}

TEST(NetworkReachability, RefusedTargets) {
  EXPECT_FALSE(NetworkReachability::createWithName(nullptr));
  EXPECT_FALSE(NetworkReachability::createWithName(""));
  EXPECT_FALSE(NetworkReachability::createWithAddress(nullptr));
  // A family that is neither IPv4 nor IPv6; lengths short of the family's
  struct Row {
    const char* address;
    int at;
    unsigned char value;
  };
  for (Row row : {Row{"127.0.0.1", 1, AF_UNIX}, Row{"127.0.0.1", 0, 8}, Row{"::1", 0, 16}}) {
    auto bad = socketAddress(row.address);
    bad.bytes[row.at] = row.value;
    EXPECT_FALSE(NetworkReachability::createWithAddress(bad.get())) << row.address << " " << row.at;
  }
}

TEST(NetworkReachability, EmptyNamespaceThenLoopback) {
  NK_IN_NEW_NAMESPACE([] {
    // Only a loopback that is down: nothing is reachable, and every read succeeds.
    for (const char* address : {"0.0.0.0", "::", "10.1.2.3", "127.0.0.1", "::1"}) {
      EXPECT_EQ(flagsOf(target(address)), 0u) << address;
    }
    auto loopback = target("127.0.0.1"), internet = target("0.0.0.0"), lan = target("10.1.2.3");
    ASSERT_EQ(flagsOf(loopback), 0u);
    ASSERT_TRUE(ip("link set lo up"));
    // The loopback answers once up; it does not make anything else reachable.
    EXPECT_EQ(flagsOf(loopback), kReachable);
    EXPECT_EQ(flagsOf(internet), 0u);
    EXPECT_EQ(flagsOf(lan), 0u);
  });
}

TEST(NetworkReachability, LinkAndRoutes) {
  NK_IN_NEW_NAMESPACE([] {
    ASSERT_TRUE(addVethPair());
    auto neighbour = target("10.77.0.2");
    auto elsewhere = target("198.18.0.1");
    auto internet = target("0.0.0.0");
    auto internet6 = target("::");
    // An on-link neighbour is reachable; without a default route nothing beyond it is
    EXPECT_EQ(flagsOf(neighbour), kReachable);
    EXPECT_EQ(flagsOf(elsewhere), 0u);
    EXPECT_EQ(flagsOf(internet), 0u);
    // A default route (IPv4 only) makes the internet reachable, under either family's zero
    ASSERT_TRUE(ip("route add default via 10.77.0.2"));
    EXPECT_EQ(flagsOf(elsewhere), kReachable);
    EXPECT_EQ(flagsOf(internet), kReachable);
    EXPECT_EQ(flagsOf(internet6), kReachable);
    // Removing it takes that away again
    ASSERT_TRUE(ip("route del default via 10.77.0.2"));
    EXPECT_EQ(flagsOf(elsewhere), 0u);
    EXPECT_EQ(flagsOf(internet), 0u);
  });
}

// Reads `handle` without pause, as a client polling would, until link nkr0's running state is
// `running`; then the flags of the first read after that, or kUnread after a few seconds.
NetworkReachabilityFlags firstFlagsOnceRunning(bool running,
                                               const std::unique_ptr<NetworkReachability>& handle) {
  auto deadline = std::chrono::steady_clock::now() + 3s;
  while (std::chrono::steady_clock::now() < deadline) {
    bool now = linkRunning("nkr0");
    NetworkReachabilityFlags flags = flagsOf(handle);
    if (now == running) return flags;
  }
  return kUnread;
}

TEST(NetworkReachability, CarrierSeenAtOnce) {
  NK_IN_NEW_NAMESPACE([] {
    ASSERT_TRUE(addVethPair());
    ASSERT_TRUE(ip("route add default via 10.77.0.2"));
    auto neighbour = target("10.77.0.2");
    auto internet = target("0.0.0.0");
    // The peer going down takes the carrier away: the routes stay, the link stops running.
    // No run loop runs: the first query after the kernel changes the link's running state must
    // see it, though the kernel announces the change only later.
    for (int round = 0; round < 5; ++round) {
      ASSERT_EQ(flagsOf(internet), kReachable) << round;
      ASSERT_TRUE(ip("link set nkr1 down"));
      EXPECT_EQ(firstFlagsOnceRunning(false, internet), 0u) << round;
      EXPECT_EQ(flagsOf(neighbour), 0u) << round;
      ASSERT_TRUE(ip("link set nkr1 up"));
      EXPECT_EQ(firstFlagsOnceRunning(true, neighbour), kReachable) << round;
    }
    EXPECT_TRUE(eventually([&] { return flagsOf(internet) == kReachable; }));
  });
}

TEST(NetworkReachability, RejectingRoutesRulesAndNextHops) {
  NK_IN_NEW_NAMESPACE([] {
    ASSERT_TRUE(addVethPair());
    ASSERT_TRUE(ip("-6 addr add fd77::1/64 dev nkr0 nodad"));
    ASSERT_TRUE(ip("route add default via 10.77.0.2"));
    ASSERT_TRUE(ip("-6 route add default via fd77::2"));
    // Each kind of rejecting route hides what the default route would reach
    auto rejected = target("10.88.1.1");
    ASSERT_EQ(flagsOf(rejected), kReachable);
    for (const char* kind : {"prohibit", "blackhole", "unreachable"}) {
      ASSERT_TRUE(ip(std::string("route add ") + kind + " 10.88.0.0/16"));
      EXPECT_EQ(flagsOf(rejected), 0u) << kind;
      EXPECT_EQ(flagsOf(target("10.99.1.1")), kReachable) << kind;
      ASSERT_TRUE(ip(std::string("route del ") + kind + " 10.88.0.0/16"));
      EXPECT_EQ(flagsOf(rejected), kReachable) << kind;
    }
    // A policy rule hides the default route from the destinations it covers, at once
    for (const char* family : {"-4", "-6"}) {
      bool v4 = family[1] == '4';
      auto probe = target(v4 ? "10.88.1.1" : "2001:db8:88::1");
      const char* covered = v4 ? "10.88.0.0/16" : "2001:db8:88::/48";
      ASSERT_EQ(flagsOf(probe), kReachable) << family;
      ASSERT_TRUE(ip(std::string(family) + " rule add to " + covered + " prohibit"));
      EXPECT_EQ(flagsOf(probe), 0u) << family;
      ASSERT_TRUE(ip(std::string(family) + " rule del to " + covered + " prohibit"));
      EXPECT_EQ(flagsOf(probe), kReachable) << family;
    }
    // A route through a next-hop object follows what the object becomes
    ASSERT_TRUE(ip("nexthop add id 7 via 10.77.0.2 dev nkr0"));
    ASSERT_TRUE(ip("route add 10.55.0.0/16 nhid 7"));
    auto viaHop = target("10.55.0.1");
    ASSERT_EQ(flagsOf(viaHop), kReachable);
    ASSERT_TRUE(ip("nexthop replace id 7 blackhole"));
    EXPECT_EQ(flagsOf(viaHop), 0u);
    ASSERT_TRUE(ip("nexthop replace id 7 via 10.77.0.2 dev nkr0"));
    EXPECT_EQ(flagsOf(viaHop), kReachable);
    // and deleting it takes its routes away (without a default route to fall back on)
    ASSERT_TRUE(ip("route del default via 10.77.0.2"));
    ASSERT_EQ(flagsOf(viaHop), kReachable);
    ASSERT_TRUE(ip("nexthop del id 7"));
    EXPECT_EQ(flagsOf(viaHop), 0u);
  });
}

TEST(NetworkReachability, QueriesFromManyThreads) {
  NK_IN_NEW_NAMESPACE([] {
    ASSERT_TRUE(addVethPair());
    ASSERT_TRUE(ip("route add default via 10.77.0.2"));
    auto probe = target("10.88.1.1");
    // One handle read from several threads while its route comes and goes: every read succeeds
    // with one of the two answers
    std::atomic<bool> done{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
      readers.emplace_back([&] {
        while (!done.load()) {
          NetworkReachabilityFlags flags = flagsOf(probe);
          if (flags != 0 && flags != kReachable) ++bad;
        }
      });
    }
    for (int round = 0; round < 5; ++round) {
      ASSERT_TRUE(ip("route add prohibit 10.88.0.0/16"));
      ASSERT_TRUE(ip("route del prohibit 10.88.0.0/16"));
    }
    done = true;
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(bad.load(), 0);
    // and once the changes stop, every thread reads the last
    ASSERT_TRUE(ip("route add prohibit 10.88.0.0/16"));
    EXPECT_EQ(flagsOf(probe), 0u);
    std::thread([&] { EXPECT_EQ(flagsOf(probe), 0u); }).join();
  });
}

TEST(NetworkReachability, HostNames) {
  NK_IN_NEW_NAMESPACE([] {
    ASSERT_TRUE(ip("link set lo up"));
    // A numeric name is an address: answered at once
    EXPECT_EQ(flagsOf(NetworkReachability::createWithName("127.0.0.1")), kReachable);
    // so a zero address is the internet, not the local route the kernel gives for it
    for (const char* zero : {"0.0.0.0", "::"}) {
      EXPECT_EQ(flagsOf(NetworkReachability::createWithName(zero)), 0u) << zero;
    }
    // A name reads 0 until it resolves, then as its address does
    auto name = NetworkReachability::createWithName("localhost");
    ASSERT_TRUE(name);
    EXPECT_TRUE(eventually([&] { return flagsOf(name) == kReachable; }));
    // A name that does not resolve reads 0 (the namespace has no route to a name server)
    auto unknown = NetworkReachability::createWithName("no-such-host.invalid");
    ASSERT_TRUE(unknown);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(flagsOf(unknown), 0u);
  });
}

// Collects the callbacks of one handle.
struct Calls {
  static void record(NetworkReachability* target, NetworkReachabilityFlags flags, void* info) {
    auto* calls = static_cast<Calls*>(info);
    EXPECT_EQ(target, calls->expectedTarget);
    EXPECT_EQ(std::this_thread::get_id(), calls->thread);
    calls->flags.push_back(flags);
  }
  explicit Calls(NetworkReachability* target) : expectedTarget(target) {}
  NetworkReachability* expectedTarget;
  std::thread::id thread = std::this_thread::get_id();
  std::vector<NetworkReachabilityFlags> flags;
};

TEST(NetworkReachability, CallbackPerChange) {
  NK_IN_NEW_NAMESPACE([] {
    ASSERT_TRUE(addVethPair());
    RunLoop loop = RunLoop::current();
    auto internet = target("0.0.0.0");
    Calls calls{internet.get()};
    ASSERT_TRUE(internet->setCallback(&Calls::record, &calls));
    ASSERT_TRUE(internet->scheduleWithRunLoop(loop));
    // Scheduling again on the same loop is accepted and changes nothing
    EXPECT_TRUE(internet->scheduleWithRunLoop(loop));
    // A change calls once, with the new flags, on the loop's thread
    ASSERT_TRUE(ip("route add default via 10.77.0.2"));
    ASSERT_TRUE(loop.runUntil([&] { return !calls.flags.empty(); }, 3s));
    loop.runUntil([] { return false; }, 300ms);
    EXPECT_EQ(calls.flags, std::vector<NetworkReachabilityFlags>{2});
    // A change that leaves the flags as they were (an unrelated route) calls nothing
    ASSERT_TRUE(ip("route add 10.66.0.0/16 via 10.77.0.3"));
    loop.runUntil([] { return false; }, 300ms);
    EXPECT_EQ(calls.flags.size(), 1u);
    // A policy rule over the IPv4 probe is a change, and so is its removal
    ASSERT_TRUE(ip("rule add to 198.51.100.0/24 prohibit"));
    ASSERT_TRUE(loop.runUntil([&] { return calls.flags.size() == 2; }, 3s));
    ASSERT_TRUE(ip("rule del to 198.51.100.0/24 prohibit"));
    ASSERT_TRUE(loop.runUntil([&] { return calls.flags.size() == 3; }, 3s));
    EXPECT_EQ(calls.flags, (std::vector<NetworkReachabilityFlags>{2, 0, 2}));
    // Carrier loss is a change too
    ASSERT_TRUE(ip("link set nkr1 down"));
    ASSERT_TRUE(loop.runUntil([&] { return calls.flags.size() == 4; }, 3s));
    EXPECT_EQ(calls.flags.back(), 0u);
    // Unscheduling from another thread's loop does nothing; from its own it stops the calls
    std::thread([&] { EXPECT_FALSE(internet->unscheduleFromRunLoop(RunLoop::current())); }).join();
    EXPECT_TRUE(internet->unscheduleFromRunLoop(loop));
    ASSERT_TRUE(ip("link set nkr1 up"));
    loop.runUntil([] { return false; }, 300ms);
    EXPECT_EQ(calls.flags.size(), 4u);
    EXPECT_FALSE(internet->unscheduleFromRunLoop(loop));
  });
}

TEST(NetworkReachability, NameCallbackFollowsItsAddress) {
  NK_IN_NEW_NAMESPACE([] {
    RunLoop loop = RunLoop::current();
    auto name = NetworkReachability::createWithName("localhost");
    ASSERT_TRUE(name);
    Calls calls{name.get()};
    name->setCallback(&Calls::record, &calls);
    ASSERT_TRUE(name->scheduleWithRunLoop(loop));
    // The loopback coming up makes the resolved name reachable: one call, with the flags
    ASSERT_TRUE(ip("link set lo up"));
    ASSERT_TRUE(loop.runUntil([&] { return !calls.flags.empty(); }, 3s));
    loop.runUntil([] { return false; }, 300ms);
    EXPECT_EQ(calls.flags, std::vector<NetworkReachabilityFlags>{2});
  });
}

}  // namespace
}  // namespace nk
