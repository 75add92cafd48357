// Reachability: a status query for an address beside the kernel's own route look-up through
// connect() of a UDP socket to the same address, and the latency from a route change to the
// change notification. Runs in a network namespace of its own (as root), with a veth pair and
// a default route, so that nothing touches the machine's network.
//
// What each side of the status comparison does per iteration:
// - BM_CurrentReachabilityStatus: currentReachabilityStatus() of an address monitor. Two
//   uncontended mutexes, then two system calls on the handle's netlink socket: a non-blocking
//   recvfrom that finds no change announced (EAGAIN), and SIOCGIFFLAGS for the out link
//   remembered from the route look-up. The look-up itself (an RTM_GETROUTE round trip and
//   SIOCGIFNAME) runs only on the first query and on the first after an announced change, so
//   the loop measures the steady state, not a query just after a change.
// - BM_UdpConnect (the peer): one connect() of an already-open UDP socket to the same
//   address, a single system call in which the kernel looks the route up.
// - BM_UdpSocketConnectClose: socket(), connect() and close(), for scale.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include "nk/dispatch/run_loop.hpp"
#include "nk/reachability/netns_test_support_internal.hpp"
#include "nk/reachability/reachability.hpp"
#include "nk/system/notification_center.hpp"

namespace {

using nk::reachability_test::ip;
using nk::reachability_test::socketAddress;
using namespace std::chrono_literals;

constexpr const char* kTarget = "198.18.0.1";  // reached through the default route
bool gIsolated = false;                        // running in a namespace of our own

sockaddr_in linuxAddress() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(9);
  inet_pton(AF_INET, kTarget, &address.sin_addr);
  return address;
}

void BM_CurrentReachabilityStatus(benchmark::State& state) {
  auto monitor = nk::NKReachability::reachabilityWithAddress(socketAddress(kTarget).get());
  if (!monitor || monitor->currentReachabilityStatus() != nk::NKNetworkStatusReachable) {
    state.SkipWithError("target not reachable");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(monitor->currentReachabilityStatus());
}
BENCHMARK(BM_CurrentReachabilityStatus);

// The peer: one connect() of an open UDP socket, which makes the kernel look the route up.
void BM_UdpConnect(benchmark::State& state) {
  int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = linuxAddress();
  for (auto _ : state) {
    int rc = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    benchmark::DoNotOptimize(rc);
  }
  ::close(fd);
}
BENCHMARK(BM_UdpConnect);

// The same with the socket made and closed each time, as a one-off reachability test would.
void BM_UdpSocketConnectClose(benchmark::State& state) {
  sockaddr_in address = linuxAddress();
  for (auto _ : state) {
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int rc = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    benchmark::DoNotOptimize(rc);
    ::close(fd);
  }
}
BENCHMARK(BM_UdpSocketConnectClose);

// From just before a default route is added or removed (by `ip`, whose start-up is included)
// to the notification, over 50 changes; the counters give the median and the worst, in ms.
void BM_NotificationLatency(benchmark::State& state) {
  if (!gIsolated) {
    state.SkipWithError("needs a network namespace of its own (run as root)");
    return;
  }
  nk::RunLoop loop = nk::RunLoop::current();
  auto monitor = nk::NKReachability::reachabilityForInternetConnection();
  size_t posted = 0;
  nk::Id token = nk::NotificationCenter::defaultCenter()->addObserver(
      nk::kReachabilityChangedNotification(), monitor.get(),
      [&](const nk::Notification*) { ++posted; });
  monitor->startNotifier();
  std::vector<double> latencies;
  for (auto _ : state) {
    for (int change = 0; change < 50; ++change) {
      bool add = monitor->currentReachabilityStatus() == nk::NKNetworkStatusNotReachable;
      size_t before = posted;
      auto start = std::chrono::steady_clock::now();
      ip(add ? "route add default via 10.77.0.2" : "route del default via 10.77.0.2");
      if (!loop.runUntil([&] { return posted > before; }, 2s)) {
        state.SkipWithError("no notification within 2 s");
        break;
      }
      latencies.push_back(
          std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
              .count());
    }
  }
  monitor->stopNotifier();
  nk::NotificationCenter::defaultCenter()->removeObserver(token.get());
  if (latencies.empty()) return;
  std::sort(latencies.begin(), latencies.end());
  state.counters["median_ms"] = latencies[latencies.size() / 2];
  state.counters["max_ms"] = latencies.back();
}
BENCHMARK(BM_NotificationLatency)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // The main thread moves into a namespace of its own before anything runs.
  gIsolated = ::unshare(CLONE_NEWNET) == 0 && nk::reachability_test::addVethPair() &&
              ip("route add default via 10.77.0.2");
  if (!gIsolated) std::fprintf(stderr, "no namespace of our own: using this machine's routes\n");
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
