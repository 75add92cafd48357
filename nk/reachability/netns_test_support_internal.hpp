// Network namespaces for the reachability tests and benchmark: each body runs on a thread of
// its own moved into a new, empty namespace (only a loopback, down), where `ip` commands shape
// the network. Interfaces made there exist only there, so parallel runs cannot collide, and
// nothing reaches the machine's own network.
#pragma once

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "nk/reachability/socket_address.hpp"

namespace nk::reachability_test {

// Runs `body` on a new thread in a new network namespace and waits for it. Returns an empty
// string, or why no namespace could be made (then `body` did not run).
inline std::string runInNewNamespace(const std::function<void()>& body) {
  std::string failure;
  std::thread([&] {
    if (::unshare(CLONE_NEWNET) != 0) {
      failure = std::string("unshare(CLONE_NEWNET): ") + std::strerror(errno);
      return;
    }
    body();
  }).join();
  return failure;
}

// Runs `ip <arguments>` in the calling thread's namespace (the child inherits it).
inline bool ip(const std::string& arguments) {
  std::string command = "ip " + arguments;
  int status = std::system(command.c_str());
  return status == 0;
}

// The body of a TEST that needs a namespace (gtest's); skips the test, saying why, where none
// can be made.
#define NK_IN_NEW_NAMESPACE(...)                                                                \
  do {                                                                                          \
    std::string nk_namespace_failure = ::nk::reachability_test::runInNewNamespace(__VA_ARGS__); \
    if (!nk_namespace_failure.empty()) {                                                        \
      GTEST_SKIP() << "network namespaces cannot be made here: " << nk_namespace_failure;       \
    }                                                                                           \
  } while (0)

// Polls `condition` every few milliseconds until it holds or `timeout` passes.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(3)) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// Room for an IPv4 or IPv6 address in the length-first layout.
struct SocketAddressBytes {
  alignas(sockaddr_in6) unsigned char bytes[sizeof(sockaddr_in6)] = {};
  const SocketAddress* get() const { return reinterpret_cast<const SocketAddress*>(bytes); }
};

// The length-first form of a numeric IPv4 or IPv6 address (all zero for other text).
inline SocketAddressBytes socketAddress(const char* text) {
  SocketAddressBytes address;
  sockaddr_in in{};
  sockaddr_in6 in6{};
  if (inet_pton(AF_INET, text, &in.sin_addr) == 1) {
    std::memcpy(address.bytes, &in, sizeof in);
    address.bytes[0] = sizeof in;
    address.bytes[1] = AF_INET;
  } else if (inet_pton(AF_INET6, text, &in6.sin6_addr) == 1) {
    std::memcpy(address.bytes, &in6, sizeof in6);
    address.bytes[0] = sizeof in6;
    address.bytes[1] = AF_INET6;
  }
  return address;
}

// Whether link `name` of the calling thread's namespace is running (has its carrier).
inline bool linkRunning(const char* name) {
  int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::strncpy(request.ifr_name, name, IF_NAMESIZE - 1);
  bool running =
      fd >= 0 && ::ioctl(fd, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_RUNNING) != 0;
  if (fd >= 0) ::close(fd);
  return running;
}

// A veth pair, nkr0 (10.77.0.1/24) and its peer nkr1, both up, and the loopback up. Returns
// once nkr0 has its carrier, which the kernel gives it a little after `ip` returns.
inline bool addVethPair() {
  return ip("link set lo up") && ip("link add nkr0 type veth peer name nkr1") &&
         ip("addr add 10.77.0.1/24 dev nkr0") && ip("link set nkr0 up") && ip("link set nkr1 up") &&
         eventually([] { return linkRunning("nkr0"); });
}

}  // namespace nk::reachability_test
