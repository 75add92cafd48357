// A reachability watcher: says whether a host (or the internet) can be reached, then
// once more at every change the library notifies, while the main loop runs.
//   example_reachability_watcher [HOST [SECONDS]]
// watches HOST (the internet without one) until interrupted, or for SECONDS.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <nk/dispatch/run_loop.hpp>
#include <nk/reachability/reachability.hpp>
#include <nk/system/notification_center.hpp>

int main(int argc, char** argv) {
  const std::string target = argc > 1 ? argv[1] : "the internet";
  nk::Ref<nk::NKReachability> monitor =
      argc > 1 ? nk::NKReachability::reachabilityWithHostName(nk::String::fromUTF8(argv[1]).get())
               : nk::NKReachability::reachabilityForInternetConnection();
  if (!monitor) {
    std::fprintf(stderr, "%s cannot be watched\n", target.c_str());
    return 2;
  }

  auto report = [&target](const nk::NKReachability& m) {
    const bool reachable = m.currentReachabilityStatus() == nk::NKNetworkStatusReachable;
    std::printf("%s: %s\n", target.c_str(), reachable ? "reachable" : "not reachable");
    std::fflush(stdout);
  };
  nk::Id observer = nk::NotificationCenter::defaultCenter()->addObserver(
      nk::kReachabilityChangedNotification(), monitor.get(),
      [&report](const nk::Notification* n) { report(*nk::cast<nk::NKReachability>(n->object())); });
  // Notifications come on this thread, while its run loop runs.
  if (!monitor->startNotifier()) return 1;
  report(*monitor);

  if (argc > 2) {
    const std::chrono::duration<double> seconds(std::atof(argv[2]));
    nk::RunLoop::main().runUntil([] { return false; },
                                 std::chrono::duration_cast<std::chrono::nanoseconds>(seconds));
  } else {
    nk::RunLoop::main().run();  // until the process is interrupted
  }
  monitor->stopNotifier();
  nk::NotificationCenter::defaultCenter()->removeObserver(observer.get());
  return 0;
}
