// getaddrinfo on a short-lived thread. Resolutions are rare (a new target, a network change),
// so a thread each is cheaper than keeping one, and lets the thread change namespace without
// disturbing a shared pool.
#include "nk/reachability/host_resolver_internal.hpp"

#include <fcntl.h>
#include <netdb.h>
#include <sched.h>
#include <sys/stat.h>

#include <algorithm>
#include <system_error>
#include <thread>

namespace nk::reachability_internal {
namespace {

constexpr const char* kThreadNamespace = "/proc/thread-self/ns/net";

}  // namespace

std::shared_ptr<const NetworkNamespace> NetworkNamespace::ofCurrentThread() {
  auto space = std::make_shared<NetworkNamespace>();
  space->fd_ = UniqueFd(::open(kThreadNamespace, O_RDONLY | O_CLOEXEC));
  return space;
}

bool NetworkNamespace::enter() const {
  if (!fd_) return true;
  struct stat mine, wanted;
  if (::stat(kThreadNamespace, &mine) == 0 && ::fstat(fd_.get(), &wanted) == 0 &&
      mine.st_dev == wanted.st_dev && mine.st_ino == wanted.st_ino) {
    return true;
  }
  return ::setns(fd_.get(), CLONE_NEWNET) == 0;
}

bool resolveHost(std::string name, std::shared_ptr<const NetworkNamespace> space,
                 std::function<void(std::vector<IpAddress>)> done) {
  try {
    std::thread([name = std::move(name), space = std::move(space), done = std::move(done)] {
      std::vector<IpAddress> addresses;
      if (!space || space->enter()) {
        addrinfo hints{};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;  // one entry per address rather than one per protocol
        addrinfo* found = nullptr;
        if (::getaddrinfo(name.c_str(), nullptr, &hints, &found) == 0) {
          for (addrinfo* a = found; a; a = a->ai_next) {
            auto address = IpAddress::fromSockaddr(a->ai_addr, a->ai_addrlen);
            if (address &&
                std::find(addresses.begin(), addresses.end(), *address) == addresses.end()) {
              addresses.push_back(*address);
            }
          }
          ::freeaddrinfo(found);
        }
      }
      done(std::move(addresses));
    }).detach();
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

}  // namespace nk::reachability_internal
