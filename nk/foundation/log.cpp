// The log line: timestamp, process name and ids, message.
#include "nk/foundation/log.hpp"

#include <errno.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>
#include <memory>
#include <mutex>

namespace nk {
namespace {

struct SinkSlot {
  std::mutex lock;
  std::shared_ptr<const LogSink> sink;
};

SinkSlot& slot() {
  static SinkSlot* s = new SinkSlot;  // used by logging during exit too
  return *s;
}

void writeStandardError(std::string_view message) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tm;
  localtime_r(&tv.tv_sec, &tm);
  char stamp[64];
  size_t n = strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
  std::string line(stamp, n);
  char rest[96];
  int m = std::snprintf(rest, sizeof rest, ".%03ld %s[%ld:%ld] ",
                        static_cast<long>(tv.tv_usec / 1000), program_invocation_short_name,
                        static_cast<long>(getpid()), static_cast<long>(syscall(SYS_gettid)));
  if (m > 0) line.append(rest, std::min(static_cast<size_t>(m), sizeof rest - 1));
  line.append(message);
  if (line.empty() || line.back() != '\n') line.push_back('\n');
  // One write, so lines of concurrent threads do not interleave.
  const char* p = line.data();
  size_t left = line.size();
  while (left > 0) {
    ssize_t w = ::write(STDERR_FILENO, p, left);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) break;
    p += w;
    left -= static_cast<size_t>(w);
  }
}

}  // namespace

LogSink setLogSink(LogSink sink) {
  auto next = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
  std::lock_guard<std::mutex> guard(slot().lock);
  auto previous = std::exchange(slot().sink, std::move(next));
  return previous ? *previous : LogSink();
}

void logMessage(std::string_view message) {
  std::shared_ptr<const LogSink> sink;
  {
    std::lock_guard<std::mutex> guard(slot().lock);
    sink = slot().sink;
  }
  if (sink) {
    (*sink)(message);
  } else {
    writeStandardError(message);
  }
}

}  // namespace nk
