// The reachability service against the real kernel, in namespaces the tests make: flags for
// addresses, names and the internet as links, addresses and routes change, and the callback.
#include "nk/reachability/network_reachability_internal.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "nk/reachability/netns_test_support_internal.hpp"

namespace nk {
namespace {

using namespace std::chrono_literals;
using reachability_test::addVethPair;
using reachability_test::eventually;
using reachability_test::ip;
using reachability_test::socketAddress;

constexpr NetworkReachabilityFlags kUnread = 0xdeadbeef;

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
  // Names: null and empty
  {
    EXPECT_FALSE(NetworkReachability::createWithName(nullptr));
    EXPECT_FALSE(NetworkReachability::createWithName(""));
  }
  // Addresses: null, a family that is neither IPv4 nor IPv6, lengths short of the family's
  {
    EXPECT_FALSE(NetworkReachability::createWithAddress(nullptr));
    auto unix = socketAddress("127.0.0.1");
    unix.bytes[1] = AF_UNIX;
    EXPECT_FALSE(NetworkReachability::createWithAddress(unix.get()));
    auto shortV4 = socketAddress("127.0.0.1");
    shortV4.bytes[0] = 8;
    EXPECT_FALSE(NetworkReachability::createWithAddress(shortV4.get()));
    auto shortV6 = socketAddress("::1");
    shortV6.bytes[0] = 16;
    EXPECT_FALSE(NetworkReachability::createWithAddress(shortV6.get()));
  }
}

TEST(NetworkReachability, EmptyNamespace) {
  NK_IN_NEW_NAMESPACE([] {
    // Only a loopback that is down: nothing is reachable, and every read succeeds.
    for (const char* address : {"0.0.0.0", "::", "10.1.2.3", "127.0.0.1", "::1"}) {
      EXPECT_EQ(flagsOf(target(address)), 0u) << address;
    }
  });
}

TEST(NetworkReachability, Loopback) {
  NK_IN_NEW_NAMESPACE([] {
    auto loopback = target("127.0.0.1");
    auto internet = target("0.0.0.0");
    auto lan = target("10.1.2.3");
    ASSERT_EQ(flagsOf(loopback), 0u);
    ASSERT_TRUE(ip("link set lo up"));
    // The loopback answers once up; it does not make anything else reachable.
    EXPECT_EQ(flagsOf(loopback), kNetworkReachabilityFlagsReachable);
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
    {
      EXPECT_EQ(flagsOf(neighbour), kNetworkReachabilityFlagsReachable);
      EXPECT_EQ(flagsOf(elsewhere), 0u);
      EXPECT_EQ(flagsOf(internet), 0u);
    }
    // A default route (IPv4 only) makes the internet reachable, under either family's zero
    {
      ASSERT_TRUE(ip("route add default via 10.77.0.2"));
      EXPECT_EQ(flagsOf(elsewhere), kNetworkReachabilityFlagsReachable);
      EXPECT_EQ(flagsOf(internet), kNetworkReachabilityFlagsReachable);
      EXPECT_EQ(flagsOf(internet6), kNetworkReachabilityFlagsReachable);
    }
    // Removing it takes that away again
    {
      ASSERT_TRUE(ip("route del default via 10.77.0.2"));
      EXPECT_EQ(flagsOf(elsewhere), 0u);
      EXPECT_EQ(flagsOf(internet), 0u);
    }
  });
}

TEST(NetworkReachability, CarrierLoss) {
  NK_IN_NEW_NAMESPACE([] {
    ASSERT_TRUE(addVethPair());
    ASSERT_TRUE(ip("route add default via 10.77.0.2"));
    auto neighbour = target("10.77.0.2");
    auto internet = target("0.0.0.0");
    ASSERT_EQ(flagsOf(internet), kNetworkReachabilityFlagsReachable);
    // The peer going down takes the carrier away; the routes stay, the link stops running
    ASSERT_TRUE(ip("link set nkr1 down"));
    EXPECT_TRUE(eventually([&] { return flagsOf(neighbour) == 0; }));
    EXPECT_EQ(flagsOf(internet), 0u);
    // and the carrier coming back restores them
    ASSERT_TRUE(ip("link set nkr1 up"));
    EXPECT_TRUE(
        eventually([&] { return flagsOf(internet) == kNetworkReachabilityFlagsReachable; }));
  });
}

TEST(NetworkReachability, RejectingRoutes) {
  NK_IN_NEW_NAMESPACE([] {
    ASSERT_TRUE(addVethPair());
    ASSERT_TRUE(ip("route add default via 10.77.0.2"));
    auto probe = target("10.88.1.1");
    ASSERT_EQ(flagsOf(probe), kNetworkReachabilityFlagsReachable);
    // Each kind of rejecting route hides what the default route would reach
    for (const char* kind : {"prohibit", "blackhole", "unreachable"}) {
      ASSERT_TRUE(ip(std::string("route add ") + kind + " 10.88.0.0/16"));
      EXPECT_EQ(flagsOf(probe), 0u) << kind;
      EXPECT_EQ(flagsOf(target("10.99.1.1")), kNetworkReachabilityFlagsReachable) << kind;
      ASSERT_TRUE(ip(std::string("route del ") + kind + " 10.88.0.0/16"));
      EXPECT_EQ(flagsOf(probe), kNetworkReachabilityFlagsReachable) << kind;
    }
  });
}

TEST(NetworkReachability, HostNames) {
  NK_IN_NEW_NAMESPACE([] {
    ASSERT_TRUE(ip("link set lo up"));
    // A numeric name is an address: answered at once
    {
      auto literal = NetworkReachability::createWithName("127.0.0.1");
      EXPECT_EQ(flagsOf(literal), kNetworkReachabilityFlagsReachable);
    }
    // A name reads 0 until it resolves, then as its address does
    {
      auto name = NetworkReachability::createWithName("localhost");
      ASSERT_TRUE(name);
      EXPECT_TRUE(eventually([&] { return flagsOf(name) == kNetworkReachabilityFlagsReachable; }));
    }
    // A name that does not resolve reads 0 (the namespace has no route to a name server)
    {
      auto name = NetworkReachability::createWithName("no-such-host.invalid");
      ASSERT_TRUE(name);
      std::this_thread::sleep_for(200ms);
      EXPECT_EQ(flagsOf(name), 0u);
    }
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
  NetworkReachability* expectedTarget = nullptr;
  std::thread::id thread = std::this_thread::get_id();
  std::vector<NetworkReachabilityFlags> flags;
};

TEST(NetworkReachability, CallbackPerChange) {
  NK_IN_NEW_NAMESPACE([] {
    ASSERT_TRUE(addVethPair());
    RunLoop loop = RunLoop::current();
    auto internet = target("0.0.0.0");
    Calls calls;
    calls.expectedTarget = internet.get();
    ASSERT_TRUE(internet->setCallback(&Calls::record, &calls));
    ASSERT_TRUE(internet->scheduleWithRunLoop(loop));
    // Scheduling again on the same loop is accepted and changes nothing
    EXPECT_TRUE(internet->scheduleWithRunLoop(loop));
    // A change calls once, with the new flags, on the loop's thread
    {
      ASSERT_TRUE(ip("route add default via 10.77.0.2"));
      ASSERT_TRUE(loop.runUntil([&] { return !calls.flags.empty(); }, 3s));
      loop.runUntil([] { return false; }, 300ms);
      EXPECT_EQ(calls.flags, std::vector<NetworkReachabilityFlags>{2});
    }
    // A change that leaves the flags as they were (an unrelated route) calls nothing
    {
      ASSERT_TRUE(ip("route add 10.66.0.0/16 via 10.77.0.3"));
      loop.runUntil([] { return false; }, 300ms);
      EXPECT_EQ(calls.flags.size(), 1u);
    }
    // Carrier loss is a change too
    {
      ASSERT_TRUE(ip("link set nkr1 down"));
      ASSERT_TRUE(loop.runUntil([&] { return calls.flags.size() == 2; }, 3s));
      EXPECT_EQ(calls.flags.back(), 0u);
    }
    // Unscheduling from another thread's loop does nothing; from its own it stops the calls
    {
      std::thread([&] {
        EXPECT_FALSE(internet->unscheduleFromRunLoop(RunLoop::current()));
      }).join();
      EXPECT_TRUE(internet->unscheduleFromRunLoop(loop));
      ASSERT_TRUE(ip("link set nkr1 up"));
      loop.runUntil([] { return false; }, 300ms);
      EXPECT_EQ(calls.flags.size(), 2u);
      EXPECT_FALSE(internet->unscheduleFromRunLoop(loop));
    }
  });
}

TEST(NetworkReachability, NameCallbackFollowsItsAddress) {
  NK_IN_NEW_NAMESPACE([] {
    RunLoop loop = RunLoop::current();
    auto name = NetworkReachability::createWithName("localhost");
    ASSERT_TRUE(name);
    Calls calls;
    calls.expectedTarget = name.get();
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
