// Tests of the file store: its files and their permissions, damaged files, links,
// writers in several processes, and a writer killed in the middle of a stream.

#include "nk/keychain/file_item_store_internal.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "nk/foundation/log.hpp"
#include "nk/system/test_support_internal.hpp"

namespace nk::keychain_internal {
namespace {

using test::exists;

std::vector<uint8_t> V(std::string_view text) { return {text.begin(), text.end()}; }

unsigned modeOf(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Waits for a child forked by a test; true when it exited with status 0.
bool exitedCleanly(pid_t child) {
  int status = 0;
  return ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class FileStore : public testing::Test {
 protected:
  std::string value(const ItemKey& key) {
    std::vector<uint8_t> out;
    OSStatus status = store_.copy(key, &out);
    return status == errSecSuccess ? std::string(out.begin(), out.end()) : "(missing)";
  }

  test::TempDir dir_;
  test::ScopedEnv dataHome_{"XDG_DATA_HOME", dir_ / "data"};
  std::string folder_ = dir_.path() + "/data/nkutils/keychain";
  FileItemStore store_;
};

TEST_F(FileStore, FilesAndPermissions) {
  ASSERT_EQ(FileItemStore::folder(), folder_);
  // Reading creates nothing.
  EXPECT_EQ(store_.copy({"com.example.app", "a"}, nullptr), errSecItemNotFound);
  EXPECT_FALSE(exists(folder_));
  // One 0600 file per service in a 0700 folder, no temporary file left.
  ASSERT_EQ(store_.add({"com.example.app", "a"}, V("1")), errSecSuccess);
  ASSERT_EQ(store_.add({"com.example.app", "b"}, V("2")), errSecSuccess);
  ASSERT_EQ(store_.add({"a/b", "a"}, V("3")), errSecSuccess);
  EXPECT_EQ(modeOf(folder_), 0700u);
  EXPECT_EQ(modeOf(folder_ + "/com.example.app.keychain"), 0600u);
  EXPECT_EQ(modeOf(folder_ + "/a%2Fb.keychain"), 0600u);
  EXPECT_FALSE(exists(folder_ + "/.com.example.app.keychain.tmp"));
  // A folder whose mode drifted is closed again.
  ::chmod(folder_.c_str(), 0755);
  EXPECT_EQ(value({"a/b", "a"}), "3");
  EXPECT_EQ(modeOf(folder_), 0700u);
  // The last item of a service takes its file with it.
  ASSERT_EQ(store_.remove({"a/b", "a"}), errSecSuccess);
  EXPECT_FALSE(exists(folder_ + "/a%2Fb.keychain"));
  // File names: safe, distinct, and bounded.
  auto name = [](const std::string& s) { return FileItemStore::fileNameForService(s); };
  EXPECT_EQ(name(".."), "%2E..keychain");
  EXPECT_EQ(name("a%2Fb c\xC3\xA9"), "a%252Fb%20c%C3%A9.keychain");
  EXPECT_EQ(name(std::string(200, '/')), std::nullopt);
  EXPECT_EQ(store_.add({std::string(200, '/'), "a"}, V("1")), errSecParam);
}

TEST_F(FileStore, DamagedFilesReadAsEmpty) {
  std::vector<std::string> logged;
  LogSink previous = setLogSink([&](std::string_view m) { logged.emplace_back(m); });
  const ItemKey key{"com.example.app", "token"};
  ASSERT_EQ(store_.add(key, V("secret value")), errSecSuccess);
  const std::string file = folder_ + "/com.example.app.keychain", intact = slurp(file);
  for (const std::string& damaged :
       {intact.substr(0, intact.size() - 1), intact.substr(0, 10), std::string(),
        std::string(intact).replace(20, 1, "\x7F"), "NKKC" + std::string(200, '\xFF')}) {
    std::filesystem::remove(file);
    test::writeFile(file, damaged);
    logged.clear();
    EXPECT_EQ(store_.copy(key, nullptr), errSecItemNotFound);
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_NE(logged[0].find("damaged"), std::string::npos) << logged[0];
  }
  EXPECT_EQ(store_.add(key, V("new")), errSecSuccess);  // replaces the damaged file
  EXPECT_EQ(value(key), "new");
  setLogSink(previous);
}

TEST_F(FileStore, LinksAreNotFollowed) {
  const std::string outside = dir_ / "outside";
  test::writeFile(outside, "keep me");
  ASSERT_EQ(store_.add({"other", "x"}, V("1")), errSecSuccess);
  std::filesystem::create_symlink(outside, folder_ + "/com.example.app.keychain");
  // A link in place of a service's file is refused, its target untouched.
  EXPECT_EQ(store_.copy({"com.example.app", "a"}, nullptr), errSecIO);
  EXPECT_NE(store_.add({"com.example.app", "a"}, V("1")), errSecSuccess);
  EXPECT_EQ(slurp(outside), "keep me");
  // A link in place of the folder makes the store unavailable.
  std::filesystem::remove_all(folder_);
  std::filesystem::create_directories(dir_ / "elsewhere");
  std::filesystem::create_symlink(dir_ / "elsewhere", folder_);
  EXPECT_EQ(store_.add({"com.example.app", "a"}, V("1")), errSecNotAvailable);
  EXPECT_TRUE(std::filesystem::is_empty(dir_ / "elsewhere"));
}

TEST_F(FileStore, WritersInSeveralProcessesTakeTurns) {
  constexpr int kProcesses = 4, kItems = 20;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    if (pid_t pid = ::fork(); pid != 0) {
      children.push_back(pid);
      continue;
    }
    bool ok = true;
    for (int i = 0; i < kItems; ++i) {
      std::string own = std::to_string(p) + "-" + std::to_string(i);
      ok = ok && store_.add({"shared", own}, V(own)) == errSecSuccess;
      // Every process adds this one too: each add either wins or finds the winner's.
      OSStatus race = store_.add({"shared", "round" + std::to_string(i)}, V(own));
      ok = ok && (race == errSecSuccess || race == errSecDuplicateItem);
    }
    ::_exit(ok ? 0 : 1);
  }
  for (pid_t child : children) EXPECT_TRUE(exitedCleanly(child));
  for (int p = 0; p < kProcesses; ++p) {
    for (int i = 0; i < kItems; ++i) {
      std::string own = std::to_string(p) + "-" + std::to_string(i);
      EXPECT_EQ(value({"shared", own}), own);
      EXPECT_EQ(store_.copy({"shared", "round" + std::to_string(i)}, nullptr), errSecSuccess);
    }
  }
}

TEST_F(FileStore, AWriterKilledMidStreamLeavesOldOrNewValues) {
  constexpr int kKeys = 8;
  // Values of different sizes, so that a torn write would show.
  auto valueFor = [](int key, long generation) {
    return std::to_string(key) + ":" + std::to_string(generation) + ":" +
           std::string(static_cast<size_t>(generation % 97), '.');
  };
  for (int k = 0; k < kKeys; ++k) {
    ASSERT_EQ(store_.add({"crash", std::to_string(k)}, V(valueFor(k, 0))), errSecSuccess);
  }
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  pid_t child = ::fork();
  if (child == 0) {
    for (long generation = 1;; ++generation) {
      for (int k = 0; k < kKeys; ++k) {
        if (store_.update({"crash", std::to_string(k)}, V(valueFor(k, generation))) != 0) {
          ::_exit(1);
        }
      }
      if (generation == 20) (void)!::write(ready[1], "x", 1);
    }
  }
  char byte;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  ::usleep(20 * 1000);
  ::kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself";
  ::close(ready[0]);
  ::close(ready[1]);
  // Keys are updated in order: key 0 holds the newest generation g, the rest g or g-1.
  long newest = -1;
  for (int k = 0; k < kKeys; ++k) {
    std::string got = value({"crash", std::to_string(k)});
    size_t colon = got.find(':');
    ASSERT_NE(colon, std::string::npos) << got;
    long generation = std::stol(got.substr(colon + 1));
    EXPECT_EQ(got, valueFor(k, generation));
    if (k == 0) newest = generation;
    EXPECT_TRUE(generation == newest || generation == newest - 1) << got;
  }
  EXPECT_EQ(store_.update({"crash", "0"}, V("after")), errSecSuccess);  // still working
  EXPECT_EQ(value({"crash", "0"}), "after");
}

}  // namespace
}  // namespace nk::keychain_internal
