// nkutil reach: whether the internet, a host or an address can be reached now, and
// with --watch, every change the library notifies until interrupted.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "nk/dispatch/run_loop.hpp"
#include "nk/foundation/number.hpp"
#include "nk/reachability/reachability.hpp"
#include "nk/system/notification_center.hpp"
#include "tools/nkutil/commands.hpp"
#include "tools/nkutil/output.hpp"
#include "tools/nkutil/reachability_answer.hpp"

namespace nk::cli {

namespace {

using namespace std::chrono_literals;

// How long a one-off answer about a host name waits for the name to resolve: until
// then the library reads it as not reachable.
constexpr auto kResolutionWait = 3s;

struct ReachOptions {
  std::string target;  // empty: the internet
  bool watch = false;
  bool json = false;
};

// The target as the library takes it: a numeric address as a socket address, else
// a host name.
struct Target {
  Ref<NKReachability> monitor;
  std::string description;
  bool isName = false;
};

// A Linux socket address with its 16-bit family replaced by the length and family
// bytes of SocketAddress, in room for the largest (IPv6, 28 bytes).
Ref<NKReachability> monitorOfAddress(const void* linuxAddress, size_t size, sa_family_t family) {
  alignas(SocketAddress) unsigned char bytes[sizeof(sockaddr_in6)] = {};
  std::memcpy(bytes, linuxAddress, size);
  bytes[0] = static_cast<unsigned char>(size);
  bytes[1] = static_cast<unsigned char>(family);
  return NKReachability::reachabilityWithAddress(reinterpret_cast<const SocketAddress*>(bytes));
}

Target targetOf(const std::string& text) {
  if (text.empty()) return {NKReachability::reachabilityForInternetConnection(), "the internet"};
  sockaddr_in v4{};
  if (::inet_pton(AF_INET, text.c_str(), &v4.sin_addr) == 1) {
    v4.sin_family = AF_INET;
    return {monitorOfAddress(&v4, sizeof v4, AF_INET), "address " + text};
  }
  sockaddr_in6 v6{};
  if (::inet_pton(AF_INET6, text.c_str(), &v6.sin6_addr) == 1) {
    v6.sin6_family = AF_INET6;
    return {monitorOfAddress(&v6, sizeof v6, AF_INET6), "address " + text};
  }
  return {NKReachability::reachabilityWithHostName(String::fromUTF8(text).get()), "host " + text,
          true};
}

// The write end of the pipe that SIGINT and SIGTERM write to, so that the main loop
// ends in its own time rather than in the middle of a line.
int interruptFd = -1;

void onInterrupt(int) {
  const char byte = 0;
  (void)!::write(interruptFd, &byte, 1);
}

// A pipe whose read end becomes readable at SIGINT or SIGTERM.
bool catchInterrupts(int fds[2]) {
  if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  interruptFd = fds[1];
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  ::sigemptyset(&action.sa_mask);
  return ::sigaction(SIGINT, &action, nullptr) == 0 && ::sigaction(SIGTERM, &action, nullptr) == 0;
}

std::string now() {
  const std::time_t t = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&t, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local);
  return text;
}

// One line for a change: the time and the answer, as text or as a JSON object.
int printChange(const NKReachability& monitor, bool json) {
  const ReachabilityAnswer answer = reachabilityAnswer(monitor);
  if (json) {
    Ref<MutableDictionary> line =
        MutableDictionary::make({{NK_STR("time"), String::fromUTF8(now())}});
    // Held here: the range of a range-for would not keep the dictionary alive.
    Ref<Dictionary> fields = answer.json();
    for (const auto& [key, value] : fields->entries()) line->setObjectForKey(value, key.get());
    return printJSON(line.get(), 0);
  }
  return printValue(String::fromUTF8(now() + "  " + answer.text()), false);
}

int watch(NKReachability& monitor, bool json) {
  int interrupts[2];
  if (!catchInterrupts(interrupts)) return fail("Cannot catch interrupts to end the watch.");
  RunLoop loop = RunLoop::main();
  RunLoopSource interrupted = loop.watchReadable(interrupts[0], [loop] { loop.stop(); });
  int written = printChange(monitor, json);
  Id observer = NotificationCenter::defaultCenter()->addObserver(
      kReachabilityChangedNotification(), &monitor,
      [&written, &monitor, json](const Notification*) {
        if (written == kExitDone) written = printChange(monitor, json);
      });
  if (!monitor.startNotifier()) {
    NotificationCenter::defaultCenter()->removeObserver(observer.get());
    return fail("The network cannot be watched: the kernel refused the watch.");
  }
  if (written == kExitDone) loop.run();
  monitor.stopNotifier();
  NotificationCenter::defaultCenter()->removeObserver(observer.get());
  return written;
}

// A name reads as not reachable until it resolves: give it a moment, ending early at
// the first change.
void awaitResolution(NKReachability& monitor) {
  bool changed = false;
  Id observer = NotificationCenter::defaultCenter()->addObserver(
      kReachabilityChangedNotification(), &monitor,
      [&changed](const Notification*) { changed = true; });
  if (monitor.startNotifier()) {
    RunLoop::main().runUntil([&changed] { return changed; }, kResolutionWait);
    monitor.stopNotifier();
  }
  NotificationCenter::defaultCenter()->removeObserver(observer.get());
}

int runReach(const ReachOptions& options) {
  Target target = targetOf(options.target);
  if (!target.monitor)
    return fail("\"" + options.target + "\" is neither a host name nor an address.");
  if (target.isName) awaitResolution(*target.monitor);
  if (options.watch) return watch(*target.monitor, options.json);

  const ReachabilityAnswer answer = reachabilityAnswer(*target.monitor);
  Report report;
  report.add("target", "target", String::fromUTF8(target.description));
  report.add("reachable", "status", Number::withBool(answer.status == NKNetworkStatusReachable),
             answer.text());
  report.add("connectionRequired", "connection required",
             Number::withBool(answer.connectionRequired));
  const int printed = report.print(options.json);
  if (printed != kExitDone) return printed;
  return answer.status == NKNetworkStatusReachable ? kExitDone : kExitFailed;
}

}  // namespace

void addReachCommand(CLI::App& app, CommandAction& action) {
  CLI::App* reach = app.add_subcommand(
      "reach",
      "Whether the internet, a host or an address can be reached (exit status 1 when not)");
  auto options = std::make_shared<ReachOptions>();
  reach->add_option("TARGET", options->target,
                    "A host name (given up to 3 seconds to resolve) or an IPv4 or IPv6 address; "
                    "the internet when absent");
  reach->add_flag("--watch", options->watch,
                  "Then print a line at every change until interrupted (Ctrl-C)");
  addJsonFlag(*reach, options->json);
  reach->callback([&action, options] { action = [options] { return runReach(*options); }; });
}

}  // namespace nk::cli
