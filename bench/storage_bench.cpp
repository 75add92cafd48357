// Benchmarks of clearing a cache subfolder and sweeping the temporary folder over a tree
// of 100,000 files in 1,000 folders, beside `rm -rf` (a fork and exec of /bin/rm) of the
// same tree in the same run. The tree is made again before each round, outside the timed
// region; the figure to read is the ratio printed at the end. The tree lives under
// $TMPDIR (default /tmp): on tmpfs the ratio shows the removal's own cost, on a loaded disk
// mostly the disk's.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>

#include "nk/dispatch/run_loop.hpp"
#include "nk/storage/file_system_helper.hpp"
#include "nk/system/xdg_directories.hpp"

extern char** environ;

namespace {

constexpr int kFolders = 1000;
constexpr int kFilesPerFolder = 100;

// Seconds per round of each benchmark, for the ratios.
std::map<std::string, double>& secondsPerRound() {
  static std::map<std::string, double> table;
  return table;
}

std::string cacheFolder() {
  auto path = nk::temporaryDirectory();
  return path ? path->utf8() : std::string();
}

// Fills `root` (made when missing) with kFolders folders of kFilesPerFolder small files.
bool makeTree(const std::string& root) {
  ::mkdir(root.c_str(), 0700);
  int rootFd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (rootFd < 0) return false;
  bool ok = true;
  for (int f = 0; f < kFolders && ok; ++f) {
    const std::string folder = "d" + std::to_string(f);
    ok = ::mkdirat(rootFd, folder.c_str(), 0700) == 0;
    int folderFd = ok ? ::openat(rootFd, folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
    for (int i = 0; i < kFilesPerFolder && folderFd >= 0; ++i) {
      const std::string file = "f" + std::to_string(i);
      int fd = ::openat(folderFd, file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
      ok = fd >= 0 && ::write(fd, "data", 4) == 4;
      if (fd >= 0) ::close(fd);
      if (!ok) break;
    }
    if (folderFd >= 0) ::close(folderFd);
  }
  ::close(rootFd);
  return ok;
}

bool removeWithRm(const std::string& path) {
  const char* argv[] = {"rm", "-rf", path.c_str(), nullptr};
  pid_t pid = 0;
  if (::posix_spawn(&pid, "/bin/rm", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
    return false;
  }
  int status = 0;
  return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Times `remove` once per round over a tree made afresh at `root`.
template <class Remove>
void timeRounds(benchmark::State& state, const char* label, const std::string& root,
                Remove remove) {
  double total = 0;
  for (auto _ : state) {
    if (!makeTree(root)) {
      state.SkipWithError("cannot make the tree");
      return;
    }
    const auto start = std::chrono::steady_clock::now();
    const bool removed = remove();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    if (!removed) {
      state.SkipWithError("the removal failed");
      return;
    }
    state.SetIterationTime(elapsed.count());
    total += elapsed.count();
    // The clear's notifications wait on the main queue; deliver them outside the timing.
    while (nk::RunLoop::main().runOnce(false)) {
    }
  }
  state.SetItemsProcessed(state.iterations() * kFolders * kFilesPerFolder);
  secondsPerRound()[label] = total / static_cast<double>(state.iterations());
}

void BM_RmRf(benchmark::State& state) {
  const std::string root = cacheFolder() + "download";
  timeRounds(state, "rm -rf", root, [&] { return removeWithRm(root); });
}

void BM_ClearCacheDirWithSubdirectory(benchmark::State& state) {
  const std::string root = cacheFolder() + "download";
  timeRounds(state, "clearCacheDirWithSubdirectory", root, [] {
    return nk::NKFileSystemHelper::clearCacheDirWithSubdirectory(NK_STR("download"));
  });
}

void BM_DeleteTempDir(benchmark::State& state) {
  // The 1,000 folders lie directly in the temporary folder.
  const std::string root = cacheFolder();
  timeRounds(state, "deleteTempDir", root, [&] {
    nk::NKFileSystemHelper::deleteTempDir();
    struct stat st;
    return ::stat((root + "d0").c_str(), &st) != 0;
  });
}

BENCHMARK(BM_RmRf)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ClearCacheDirWithSubdirectory)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DeleteTempDir)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

void printRatios() {
  const auto& table = secondsPerRound();
  auto peer = table.find("rm -rf");
  if (peer == table.end() || peer->second <= 0) return;
  for (const auto& [name, seconds] : table) {
    if (name == peer->first) continue;
    std::printf("%s / rm -rf: %.2f\n", name.c_str(), seconds / peer->second);
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Every folder the library asks for lies in a scratch folder, removed at the end.
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp == '/' ? tmp : "/tmp") + "/nk-storage-bench-XXXXXX";
  if (!::mkdtemp(pattern.data())) return 1;
  ::setenv("HOME", pattern.c_str(), 1);
  ::setenv("XDG_CACHE_HOME", (pattern + "/cache").c_str(), 1);
  ::setenv("XDG_DATA_HOME", (pattern + "/data").c_str(), 1);

  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  printRatios();
  benchmark::Shutdown();

  std::error_code ignored;
  std::filesystem::remove_all(pattern, ignored);
  return 0;
}
