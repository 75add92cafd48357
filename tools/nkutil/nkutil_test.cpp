// Drives the built nkutil as a user would, in a temporary HOME with a planted main
// bundle and machine name, and checks what it prints and how it exits.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/json_reader.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/version.hpp"
#include "nk/system/test_support_internal.hpp"

namespace nk {
namespace {

using test::exists;
using test::TempDir;
using test::writeFile;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

struct Outcome {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// Reads both pipes to their end, whichever the child fills first.
void drain(int outFd, int errFd, Outcome& outcome) {
  pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
  std::string* sinks[2] = {&outcome.out, &outcome.err};
  int open = (outFd >= 0) + (errFd >= 0);
  while (open > 0 && ::poll(fds, 2, -1) > 0) {
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !fds[i].revents) continue;
      char buffer[4096];
      ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
      } else {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
}

class Nkutil : public ::testing::Test {
 protected:
  Nkutil() {
    bundle_ = home_ / "Client.app";
    writeFile(bundle_ + "/Info.plist",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
              "<key>CFBundleIdentifier</key><string>com.example.files.beta</string>"
              "</dict></plist>\n");
    writeFile(home_ / "machine-info", "PRETTY_HOSTNAME=\"Support Desk\"\n");
    env_ = {"HOME=" + home_.path(), "LANG=C", "NK_MAIN_BUNDLE=" + bundle_,
            "NK_MACHINE_INFO=" + (home_ / "machine-info")};
    // Sanitizer settings travel, so a sanitized nkutil reports the way CI asks.
    for (const char* name : {"PATH", "ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
      if (const char* value = std::getenv(name)) env_.push_back(std::string(name) + "=" + value);
    }
  }

  // Replaces or adds one variable of nkutil's environment.
  void setEnv(const std::string& name, const std::string& value) {
    std::erase_if(env_, [&](const std::string& e) { return e.starts_with(name + "="); });
    env_.push_back(name + "=" + value);
  }

  // A started nkutil, its output not read yet.
  struct Started {
    pid_t pid = -1;
    int out = -1;
    int err = -1;
  };

  // With `terminal`, standard error goes there instead of to a pipe.
  Started start(std::vector<std::string> args, const std::string& input = "/dev/null",
                int terminal = -1) const {
    const char* binary = std::getenv("NKUTIL");
    Started started;
    if (!binary) {
      ADD_FAILURE() << "NKUTIL must name the nkutil program (CTest sets it)";
      return started;
    }
    args.insert(args.begin(), binary);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> envCopy = env_;
    std::vector<char*> envp;
    for (auto& e : envCopy) envp.push_back(e.data());
    envp.push_back(nullptr);

    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
      ADD_FAILURE() << "pipe2 failed";
      return started;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, terminal >= 0 ? terminal : err[1], 2);
    posix_spawn_file_actions_addchdir_np(&actions, home_.path().c_str());
    int spawned = ::posix_spawn(&started.pid, binary, &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    if (spawned != 0) {
      ::close(out[0]);
      ::close(err[0]);
      ADD_FAILURE() << "cannot start " << binary;
      started.pid = -1;
      return started;
    }
    started.out = out[0];
    started.err = err[0];
    if (terminal >= 0) {
      ::close(started.err);
      started.err = -1;
    }
    return started;
  }

  // Reads what is left of the output and waits for the exit.
  static Outcome finish(const Started& started, Outcome outcome = {}) {
    if (started.pid < 0) return outcome;
    drain(started.out, started.err, outcome);
    int status = 0;
    ::waitpid(started.pid, &status, 0);
    outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return outcome;
  }

  Outcome run(std::vector<std::string> args, const std::string& input = "/dev/null") const {
    return finish(start(std::move(args), input));
  }

  // The JSON nkutil printed, read back with the library's reader.
  static Id parsed(const Outcome& outcome) {
    Ref<Error> error;
    Id value = readJSON({reinterpret_cast<const uint8_t*>(outcome.out.data()), outcome.out.size()},
                        kJSONReadingFragmentsAllowed, &error);
    EXPECT_TRUE(value) << outcome.out << (error ? error->description()->utf8() : "");
    return value;
  }

  // The value of the report line `label` of a text report ("<absent>" without one).
  static std::string line(const std::string& out, const std::string& label) {
    for (size_t at = 0; at < out.size();) {
      size_t end = out.find('\n', at);
      std::string_view l = std::string_view(out).substr(at, end - at);
      if (l.starts_with(label + "  ")) {
        l.remove_prefix(label.size());
        return std::string(l.substr(l.find_first_not_of(' ')));
      }
      at = end == std::string::npos ? end : end + 1;
    }
    return "<absent>";
  }

  static std::string field(const Id& report, const char* key) {
    auto dict = cast<Dictionary>(report);
    const Id* value = dict ? &dict->objectForKey(String::fromUTF8(key).get()) : nullptr;
    if (!value || !*value) return "<absent>";
    if (auto text = cast<String>(*value)) return text->utf8();
    return (*value)->description()->utf8();
  }

  // The Library and the cache of the planted bundle's identifier.
  std::string library() const { return home_ / ".local/share/com.example.files.beta"; }
  std::string cache() const { return home_ / ".cache/com.example.files.beta"; }

  static Ref<Dictionary> dictionaryAt(const Id& report, const char* key) {
    auto dict = cast<Dictionary>(report);
    return dict ? cast<Dictionary>(dict->objectForKey(String::fromUTF8(key).get())) : nullptr;
  }

  TempDir home_;
  std::string bundle_;
  std::vector<std::string> env_;
};

TEST_F(Nkutil, StatusReportsTheSameFactsInTextAndJson) {
  setEnv("LANG", "he_IL.UTF-8");
  Outcome text = run({"status"});
  ASSERT_EQ(text.exitCode, 0) << text.err;
  EXPECT_EQ(text.err, "");
  const std::string version(libraryVersion());
  EXPECT_EQ(line(text.out, "library version"), version);
  EXPECT_EQ(line(text.out, "main bundle"), bundle_);
  EXPECT_EQ(line(text.out, "bundle identifier"), "com.example.files.beta");
  EXPECT_EQ(line(text.out, "device name"), "Support Desk (Velmont Files for Mac)");
  EXPECT_EQ(line(text.out, "locale"), "he_IL");
  EXPECT_EQ(line(text.out, "text direction"), "right to left");
  EXPECT_EQ(line(text.out, "beta build"), "yes");
  // Bare nkutil is the status.
  EXPECT_EQ(run({}).out, text.out);

  Outcome json = run({"status", "--json"});
  ASSERT_EQ(json.exitCode, 0) << json.err;
  Id report = parsed(json);
  EXPECT_EQ(field(report, "libraryVersion"), version);
  EXPECT_EQ(field(report, "mainBundle"), bundle_);
  EXPECT_EQ(field(report, "bundleIdentifier"), "com.example.files.beta");
  EXPECT_THAT(field(report, "systemVersion"), MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+"));
  EXPECT_EQ(field(report, "deviceName"), "Support Desk (Velmont Files for Mac)");
  EXPECT_EQ(field(report, "locale"), "he_IL");
  EXPECT_EQ(field(report, "textDirection"), "rtl");
  auto dict = cast<Dictionary>(report);
  ASSERT_TRUE(dict);
  EXPECT_EQ(dict->objectForKey(NK_STR("beta")).get(), Number::yes());
}

TEST_F(Nkutil, StatusWithoutABundleIdentifierSaysSo) {
  writeFile(bundle_ + "/Info.plist", "not a property list");
  Outcome text = run({"status"});
  ASSERT_EQ(text.exitCode, 0) << text.err;
  EXPECT_EQ(line(text.out, "bundle identifier"), "(none)");
  EXPECT_EQ(line(text.out, "locale"), "en_US_POSIX");
  EXPECT_EQ(line(text.out, "text direction"), "left to right");
  EXPECT_EQ(line(text.out, "beta build"), "no");
  auto report = cast<Dictionary>(parsed(run({"status", "--json"})));
  ASSERT_TRUE(report);
  EXPECT_EQ(report->objectForKey(NK_STR("bundleIdentifier")).get(), Null::null());
  EXPECT_EQ(report->objectForKey(NK_STR("beta")).get(), Number::no());
}

TEST_F(Nkutil, JsonRoundTrip) {
  const std::string doc = home_ / "doc.json";
  writeFile(doc, " {\"b\": [1, 2.5, \"x/y\", true, null], \"a\": {\"z\": -0}} \n");
  {  // compact, in the document's key order, slashes as they were
    Outcome o = run({"json", doc});
    ASSERT_EQ(o.exitCode, 0) << o.err;
    EXPECT_EQ(o.out, "{\"b\":[1,2.5,\"x/y\",true,null],\"a\":{\"z\":-0}}\n");
  }
  {  // sorted and pretty; the output reads back as the same value
    Outcome o = run({"json", "--sorted", "--pretty", doc});
    ASSERT_EQ(o.exitCode, 0) << o.err;
    EXPECT_EQ(o.out.find("\"a\""), o.out.find('"'));
    EXPECT_THAT(o.out, HasSubstr("\n  \"b\" : [\n    1,"));
    Id compact = parsed(run({"json", doc}));
    EXPECT_TRUE(isEqual(parsed(o), compact));
  }
  {  // standard input, explicitly or by default, and a lone value
    writeFile(doc, "\"caf\xC3\xA9\"");
    EXPECT_EQ(run({"json"}, doc).out, "\"caf\xC3\xA9\"\n");
    EXPECT_EQ(run({"json", "-"}, doc).out, "\"caf\xC3\xA9\"\n");
  }
}

TEST_F(Nkutil, JsonErrorsNameTheOffsetAndExitOne) {
  const std::string doc = home_ / "bad.json";
  writeFile(doc, "{\"a\": [1, }");
  Outcome bad = run({"json", doc});
  EXPECT_EQ(bad.exitCode, 1);
  EXPECT_EQ(bad.out, "");
  EXPECT_EQ(bad.err, "nkutil: " + doc + ": Invalid value around character 10.\n");

  Outcome fromStdin = run({"json"}, doc);
  EXPECT_EQ(fromStdin.exitCode, 1);
  EXPECT_THAT(fromStdin.err, HasSubstr("standard input: Invalid value around character 10."));

  Outcome missing = run({"json", home_ / "absent.json"});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_THAT(missing.err, HasSubstr("Cannot open " + (home_ / "absent.json") + ": "));
}

TEST_F(Nkutil, FormatAndURLCommandsAnswerInBothFormats) {
  struct Row {
    std::vector<std::string> args;
    std::string text;  // the line people see
    std::string json;  // what --json prints
  };
  const Row rows[] = {
      {{"format", "size", "1500000"}, "1.5 MB", "\"1.5 MB\""},
      {{"format", "size", "1500000", "--binary"}, "1.4 MB", "\"1.4 MB\""},
      {{"format", "size", "0"}, "Zero KB", "\"Zero KB\""},
      {{"format", "size", "-1000"}, "-1 KB", "\"-1 KB\""},
      {{"format", "size", "9223372036854775807"}, "9.22 EB", "\"9.22 EB\""},
      {{"format", "duration", "3905"},
       "1 hour, 5 minutes, 5 seconds",
       "\"1 hour, 5 minutes, 5 seconds\""},
      {{"url", "authority", "https://u:p@Host.example:8443/a?b"},
       "https://Host.example:8443",
       "\"https://Host.example:8443\""},
      {{"url", "append", "https://h.example/p?x=0", "a=1", "b=c/d"},
       "https://h.example/p?x=0&a=1&b=c/d",
       "\"https://h.example/p?x=0&a=1&b=c/d\""},
      {{"url", "query", "https://h.example/p?a=1&long%20key=x%20y&c"},
       "a         1\nlong key  x y\nc         (none)",
       "{\n  \"a\" : \"1\",\n  \"long key\" : "
       "\"x y\",\n  \"c\" : null\n}"},
  };
  for (const Row& row : rows) {
    Outcome text = run(row.args);
    EXPECT_EQ(text.exitCode, 0) << row.args[1] << ": " << text.err;
    EXPECT_EQ(text.out, row.text + "\n") << row.args[1];
    std::vector<std::string> withJson = row.args;
    withJson.push_back("--json");
    EXPECT_EQ(run(withJson).out, row.json + "\n") << row.args[1];
  }
}

TEST_F(Nkutil, FailuresExitOneWithOneSentence) {
  const std::vector<std::string> cases[] = {
      {"format", "duration", "1e13"},                    // beyond what the formatter shows
      {"url", "append", "https://h.example/", "a=b c"},  // the result does not parse
      {"url", "query", "https://h.example/?%FF=1"},      // a key that is not UTF-8
      {"url", "query", "https://h.example/p"},           // no query at all
  };
  for (const auto& args : cases) {
    Outcome o = run(args);
    EXPECT_EQ(o.exitCode, 1) << args[1];
    EXPECT_EQ(o.out, "") << args[1];
    EXPECT_THAT(o.err, MatchesRegex("nkutil: [^\n]+\\.\n")) << args[1];
  }
}

TEST_F(Nkutil, StatusShowsStorageRootsSecretStoreAndInternet) {
  writeFile(library() + "/Private Documents/u1/a.bin", std::string(1000, 'a'));
  writeFile(library() + "/Private Documents/b.bin", std::string(500, 'b'));
  ::symlink("/etc/passwd", (library() + "/Private Documents/link").c_str());
  setEnv("NK_KEYCHAIN_BACKEND", "file");

  Outcome text = run({"status"});
  ASSERT_EQ(text.exitCode, 0) << text.err;
  EXPECT_EQ(line(text.out, "legacy root"), library() + "/Private Documents (2 KB)");
  EXPECT_EQ(line(text.out, "file provider root"), library() + "/File Provider Storage (missing)");
  EXPECT_EQ(line(text.out, "secret store"), "file at " + library().substr(0, library().rfind('/')) +
                                                "/nkutils/keychain, as NK_KEYCHAIN_BACKEND=file");
  EXPECT_EQ(line(text.out, "secret store answers"), "yes");
  EXPECT_THAT(line(text.out, "internet"), MatchesRegex("reachable|not reachable.*"));
  // Looking does not make the roots.
  EXPECT_FALSE(exists(library() + "/File Provider Storage"));

  Id report = parsed(run({"status", "--json"}));
  Ref<Dictionary> legacy = dictionaryAt(report, "legacyRoot");
  ASSERT_TRUE(legacy);
  // The link counts as an entry of its own, never as what it points to.
  EXPECT_EQ(field(legacy, "bytes"), "1500");
  EXPECT_EQ(legacy->objectForKey(NK_STR("exists")).get(), Number::yes());
  EXPECT_EQ(dictionaryAt(report, "fpLogsRoot")->objectForKey(NK_STR("exists")).get(), Number::no());
  EXPECT_EQ(field(dictionaryAt(report, "secretStore"), "backend"), "file");
  Ref<Dictionary> internet = dictionaryAt(report, "internet");
  ASSERT_TRUE(internet);
  EXPECT_TRUE(cast<Number>(internet->objectForKey(NK_STR("reachable"))));

  // Without a choice and without a session bus, the file store, saying why.
  setEnv("NK_KEYCHAIN_BACKEND", "");
  EXPECT_EQ(field(dictionaryAt(parsed(run({"status", "--json"})), "secretStore"), "reason"),
            "there is no session bus");
}

TEST_F(Nkutil, PathsShowTheLayoutForEachInstance) {
  {  // the Library base, in text and JSON alike
    Outcome text = run({"paths"});
    ASSERT_EQ(text.exitCode, 0) << text.err;
    EXPECT_EQ(line(text.out, "legacy base"), library());
    EXPECT_EQ(line(text.out, "legacy root"), library() + "/Private Documents");
    EXPECT_EQ(line(text.out, "file provider root"), library() + "/File Provider Storage");
    EXPECT_EQ(line(text.out, "DP logs root"), library() + "/DPLogs");
    EXPECT_EQ(line(text.out, "FP logs root"), library() + "/FPLogs");
    EXPECT_EQ(line(text.out, "cache"), cache());
    EXPECT_EQ(line(text.out, "download queue"), cache() + "/download/Queue");
    EXPECT_EQ(line(text.out, "logs to upload"), library() + "/LogsToUpload");
    EXPECT_EQ(line(text.out, "Documents"), home_ / "Documents");
    EXPECT_EQ(line(text.out, "wrapped-app logs"), home_ / "Documents/VelmontLogs");
    Id json = parsed(run({"paths", "--json"}));
    EXPECT_EQ(field(json, "fileProviderRoot"), library() + "/File Provider Storage");
    EXPECT_EQ(field(json, "logs"), library() + "/Logs");
  }
  {  // a group moves every instance into its container; XDG_DATA_HOME moves the container
    setEnv("XDG_DATA_HOME", home_ / "data");
    Outcome text = run({"paths", "--group", "group.example.files"});
    ASSERT_EQ(text.exitCode, 0) << text.err;
    const std::string container = home_ / "data/group-containers/group.example.files";
    EXPECT_EQ(line(text.out, "legacy base"), container);
    EXPECT_EQ(line(text.out, "FP logs root"), container + "/FPLogs");
    EXPECT_EQ(line(text.out, "Library"), home_ / "data/com.example.files.beta");
  }
  {  // a group that cannot name a folder has no container
    Outcome bad = run({"paths", "--group", "../escape"});
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_EQ(bad.out, "");
    EXPECT_THAT(bad.err, HasSubstr("\"../escape\" cannot name an application group"));
  }
}

// Plants a cache with nested folders, a hidden file, enough files for a progress bar,
// and a link to a folder outside that must survive every clearing.
class NkutilUpkeep : public Nkutil {
 protected:
  NkutilUpkeep() {
    writeFile(cache() + "/download/Queue/item", "queued");
    writeFile(cache() + "/images/a.png", std::string(2000, 'p'));
    writeFile(cache() + "/.hidden", "h");
    for (int i = 0; i < 600; ++i) writeFile(cache() + "/many/" + std::to_string(i), "x");
    writeFile(outside_ + "/keep", "precious");
    ::symlink(outside_.c_str(), (cache() + "/outside").c_str());
  }

  const std::string outside_ = home_ / "outside";
};

TEST_F(NkutilUpkeep, DryRunListsAndRemovesNothing) {
  Outcome o = run({"cache", "clear", "--dry-run"});
  ASSERT_EQ(o.exitCode, 0) << o.err;
  EXPECT_EQ(o.err, "");
  for (const char* entry :
       {"/.hidden  (1 byte)", "/download  (6 bytes, 3 entries)", "/images  (2 KB, 2 entries)",
        "/many  (600 bytes, 601 entries)", "/outside  (Zero KB)"}) {
    EXPECT_THAT(o.out, HasSubstr(cache() + entry + "\n")) << entry;
  }
  EXPECT_THAT(o.out, HasSubstr("\nWould remove 608 entries (3 KB) from " + cache()));
  EXPECT_TRUE(exists(cache() + "/many/599"));
  EXPECT_TRUE(exists(cache() + "/download/Queue/item"));

  Outcome logs = run({"logs", "clear", "--dry-run"});
  ASSERT_EQ(logs.exitCode, 0) << logs.err;
  EXPECT_EQ(logs.out, "Would remove 0 entries (Zero KB) from " + library() + "/LogsToUpload.\n");

  Id json = parsed(run({"cache", "clear", "--dry-run", "--json"}));
  EXPECT_EQ(field(json, "folder"), cache());
  EXPECT_EQ(field(json, "dryRun"), "1");
  EXPECT_EQ(field(json, "removedEntries"), "608");
  EXPECT_EQ(field(json, "removedBytes"), "2607");
  EXPECT_TRUE(exists(cache() + "/many/599"));
}

TEST_F(NkutilUpkeep, ClearRemovesEverythingButFollowsNoLink) {
  Outcome o = run({"cache", "clear"});
  ASSERT_EQ(o.exitCode, 0) << o.err;
  EXPECT_EQ(o.out, "Removed 608 entries (3 KB) from " + cache() + ".\n");
  // Many entries, but standard error is no terminal: no progress bar.
  EXPECT_EQ(o.err, "");
  EXPECT_TRUE(std::filesystem::is_empty(cache()));
  EXPECT_TRUE(exists(outside_ + "/keep"));
}

TEST_F(NkutilUpkeep, ProgressBarOnATerminal) {
  int terminal = -1, follower = -1;
  ASSERT_EQ(::openpty(&terminal, &follower, nullptr, nullptr, nullptr), 0);
  Outcome o = finish(start({"cache", "clear"}, "/dev/null", follower));
  ::close(follower);
  std::string shown;
  char buffer[4096];
  for (ssize_t n; (n = ::read(terminal, buffer, sizeof buffer)) > 0;) shown.append(buffer, n);
  ::close(terminal);
  ASSERT_EQ(o.exitCode, 0);
  EXPECT_EQ(o.out, "Removed 608 entries (3 KB) from " + cache() + ".\n");
  EXPECT_THAT(shown,
              HasSubstr("\r[........................................]   0%  0 of 608 entries"));
  EXPECT_THAT(shown,
              HasSubstr("\r[########################################] 100%  608 of 608 entries"));

  // Few entries: no bar, even on a terminal.
  writeFile(cache() + "/one", "1");
  ASSERT_EQ(::openpty(&terminal, &follower, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(finish(start({"cache", "clear"}, "/dev/null", follower)).exitCode, 0);
  ::close(follower);
  EXPECT_LE(::read(terminal, buffer, sizeof buffer), 0);  // nothing written, the other end gone
  ::close(terminal);
}

TEST_F(NkutilUpkeep, WhatCannotBeRemovedIsNamed) {
  // A mount point cannot be removed, even by root: mount one in a namespace of this
  // test's own, which nkutil inherits.
  const std::string busy = cache() + "/busy";
  std::filesystem::create_directories(busy);
  if (::unshare(CLONE_NEWNS) != 0 ||
      ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount("tmpfs", busy.c_str(), "tmpfs", 0, nullptr) != 0) {
    GTEST_SKIP() << "mounting needs root";
  }
  writeFile(busy + "/inside", std::string(1000, 'g'));

  // What went from inside the mount counts as removed.
  Outcome clear = run({"cache", "clear"});
  EXPECT_EQ(clear.exitCode, 1);
  EXPECT_EQ(clear.out, "Removed 609 entries (4 KB) from " + cache() + ".\nCould not remove " +
                           busy + "  (Zero KB).\n");
  EXPECT_EQ(clear.err, "nkutil: 1 of 610 entries could not be removed.\n");
  EXPECT_FALSE(exists(busy + "/inside"));

  // The sweep retries, then gives up the same way.
  writeFile(busy + "/inside", "gone");
  writeFile(cache() + "/new", "n");
  Outcome sweep = run({"cache", "sweep"});
  EXPECT_EQ(sweep.exitCode, 1);
  EXPECT_EQ(sweep.out, "Removed 2 entries (5 bytes) from " + cache() + ".\nCould not remove " +
                           busy + "  (Zero KB).\n");
  EXPECT_EQ(sweep.err, "nkutil: 1 of 3 entries could not be removed.\n");
  EXPECT_FALSE(exists(busy + "/inside"));

  writeFile(busy + "/inside", "gone");
  Outcome json = run({"cache", "sweep", "--json"});
  EXPECT_EQ(json.exitCode, 1);
  auto report = cast<Dictionary>(parsed(json));
  ASSERT_TRUE(report);
  EXPECT_EQ(field(report, "removedEntries"), "1");
  auto notRemoved = cast<Array>(report->objectForKey(NK_STR("notRemoved")));
  ASSERT_TRUE(notRemoved);
  ASSERT_EQ(notRemoved->count(), 1u);
  EXPECT_EQ(field(notRemoved->objectAtIndex(0), "path"), busy);
  ::umount(busy.c_str());
}

TEST_F(NkutilUpkeep, ClearOneSubfolderLeavesTheRest) {
  Outcome o = run({"cache", "clear", "download"});
  ASSERT_EQ(o.exitCode, 0) << o.err;
  EXPECT_EQ(o.out, "Removed 2 entries (6 bytes) from " + cache() + "/download.\n");
  EXPECT_TRUE(exists(cache() + "/download"));
  EXPECT_FALSE(exists(cache() + "/download/Queue"));
  EXPECT_TRUE(exists(cache() + "/images/a.png"));

  // A name that is missing, a file, or a link (never followed) names no folder.
  for (const std::string name : {"nosuch", ".hidden", "outside"}) {
    for (const auto& args : {std::vector<std::string>{"cache", "clear", name},
                             std::vector<std::string>{"cache", "clear", name, "--dry-run"}}) {
      Outcome absent = run(args);
      EXPECT_EQ(absent.exitCode, 1) << name;
      EXPECT_EQ(absent.out, "") << name;
      EXPECT_EQ(absent.err, "nkutil: There is no folder " + name + " in the cache.\n");
    }
  }
  EXPECT_TRUE(exists(cache() + "/.hidden"));
  EXPECT_TRUE(exists(outside_ + "/keep"));
}

TEST_F(NkutilUpkeep, ASubfolderMustBeANonEmptyUTF8Name) {
  // The library reads a missing folder name as the whole cache.
  for (const std::string name : {"", "\xFF"}) {
    Outcome o = run({"cache", "clear", name});
    EXPECT_EQ(o.exitCode, 2) << name;
    EXPECT_EQ(o.out, "");
    EXPECT_THAT(o.err,
                MatchesRegex("nkutil: SUBFOLDER: [^\n]+ \\(see nkutil cache clear --help\\)\\.\n"));
  }
  EXPECT_TRUE(exists(cache() + "/many/599"));
  EXPECT_TRUE(exists(cache() + "/.hidden"));
}

TEST_F(NkutilUpkeep, SweepAndLogsClear) {
  Outcome sweep = run({"cache", "sweep"});
  ASSERT_EQ(sweep.exitCode, 0) << sweep.err;
  EXPECT_EQ(sweep.out, "Removed 608 entries (3 KB) from " + cache() + ".\n");
  EXPECT_TRUE(std::filesystem::is_empty(cache()));
  EXPECT_TRUE(exists(outside_ + "/keep"));

  writeFile(library() + "/LogsToUpload/2026-11-21.log", "log line\n");
  writeFile(library() + "/LogsToUpload/old/1.log", "");
  writeFile(library() + "/Logs/current.log", "stays");
  Outcome logs = run({"logs", "clear"});
  ASSERT_EQ(logs.exitCode, 0) << logs.err;
  EXPECT_EQ(logs.out, "Removed 3 entries (9 bytes) from " + library() + "/LogsToUpload.\n");
  EXPECT_TRUE(std::filesystem::is_empty(library() + "/LogsToUpload"));
  writeFile(library() + "/LogsToUpload/again.log", "again\n");
  Id json = parsed(run({"logs", "clear", "--json"}));
  EXPECT_EQ(field(json, "dryRun"), "0");
  EXPECT_EQ(field(json, "removedEntries"), "1");
  EXPECT_EQ(field(json, "removedBytes"), "6");
  EXPECT_TRUE(std::filesystem::is_empty(library() + "/LogsToUpload"));
  EXPECT_TRUE(exists(library() + "/Logs/current.log"));
}

TEST_F(Nkutil, SecretsRoundTripThroughTheFileStore) {
  {  // text, chosen with --backend before or after the subcommand
    Outcome set = run({"secret", "--backend", "file", "set", "token", "s3cret value"});
    EXPECT_EQ(set.exitCode, 0);
    EXPECT_EQ(set.err, "");  // the library's log, only with --verbose
    Outcome got = run({"secret", "get", "token", "--backend", "file"});
    ASSERT_EQ(got.exitCode, 0) << got.err;
    EXPECT_EQ(got.out, "s3cret value\n");
    EXPECT_EQ(got.err, "");
    for (const auto& args : {std::vector<std::string>{"--verbose", "secret", "get", "token"},
                             std::vector<std::string>{"secret", "get", "token", "--verbose"}}) {
      Outcome verbose = run(args);
      EXPECT_EQ(verbose.out, got.out);
      EXPECT_THAT(verbose.err, HasSubstr("Keychain: items are kept in the file store"));
    }
    EXPECT_EQ(run({"secret", "--backend", "file", "get", "--json", "token"}).out,
              "\"s3cret value\"\n");
  }
  // The file store keeps its files to the user alone.
  struct stat st {};
  ASSERT_EQ(::stat((home_ / ".local/share/nkutils/keychain").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  setEnv("NK_KEYCHAIN_BACKEND", "file");
  {  // JSON comes back as the same objects; setting again replaces
    const std::string doc = "{\"user\":\"ana\",\"ids\":[1,2.5,true]}";
    ASSERT_EQ(run({"secret", "set", "token", "--from-json", doc}).exitCode, 0);
    EXPECT_EQ(run({"secret", "get", "token", "--json"}).out, doc + "\n");
  }
  {  // a file's bytes come back whole, zero bytes included
    const std::string bytes("\x00\x01\xFFkey\n", 6);
    writeFile(home_ / "key.bin", bytes);
    ASSERT_EQ(run({"secret", "set", "blob", "--from-file", home_ / "key.bin"}).exitCode, 0);
    EXPECT_EQ(run({"secret", "get", "blob"}).out, bytes);
    EXPECT_EQ(run({"secret", "get", "blob", "--json"}).out, "{\"base64\":\"AAH/a2V5\"}\n");
    ASSERT_EQ(run({"secret", "set", "piped", "--from-file", "-"}, home_ / "key.bin").exitCode, 0);
    EXPECT_EQ(run({"secret", "get", "piped"}).out, bytes);
  }
  {  // delete, then it is absent
    EXPECT_EQ(run({"secret", "delete", "token"}).exitCode, 0);
    Outcome gone = run({"secret", "get", "token"});
    EXPECT_EQ(gone.exitCode, 1);
    EXPECT_EQ(gone.out, "");
    EXPECT_THAT(gone.err, HasSubstr("No secret is kept under \"token\""));
    EXPECT_EQ(run({"secret", "delete", "token"}).exitCode, 1);
    EXPECT_EQ(run({"secret", "get", "blob"}).exitCode, 0);
  }
  {  // bad JSON is refused with the reader's reason
    Outcome bad = run({"secret", "set", "k", "--from-json", "{\"a\":"});
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_THAT(bad.err, HasSubstr("The JSON value: "));
  }
}

TEST_F(Nkutil, SecretsNeedABundleIdentifier) {
  writeFile(bundle_ + "/Info.plist", "not a property list");
  setEnv("NK_KEYCHAIN_BACKEND", "file");
  for (const auto& args : {std::vector<std::string>{"secret", "set", "k", "v"},
                           std::vector<std::string>{"secret", "get", "k"},
                           std::vector<std::string>{"secret", "delete", "k"}}) {
    Outcome o = run(args);
    EXPECT_EQ(o.exitCode, 1) << args[1];
    EXPECT_THAT(o.err, HasSubstr("There is no main bundle identifier")) << args[1];
  }
  EXPECT_FALSE(exists(home_ / ".local/share/nkutils/keychain"));
}

TEST_F(Nkutil, ReachOnLoopback) {
  {  // an address, then a name, in text and JSON
    Outcome text = run({"reach", "127.0.0.1"});
    ASSERT_EQ(text.exitCode, 0) << text.err;
    EXPECT_EQ(line(text.out, "target"), "address 127.0.0.1");
    EXPECT_EQ(line(text.out, "status"), "reachable");
    EXPECT_EQ(line(text.out, "connection required"), "no");
    Id json = parsed(run({"reach", "--json", "localhost"}));
    EXPECT_EQ(field(json, "target"), "host localhost");
    EXPECT_EQ(cast<Dictionary>(json)->objectForKey(NK_STR("reachable")).get(), Number::yes());
  }
  {  // a name that cannot resolve is not reachable: exit 1, the answer still printed
    Outcome o = run({"reach", "no-such-host.invalid"});
    EXPECT_EQ(o.exitCode, 1);
    EXPECT_EQ(line(o.out, "status"), "not reachable");
    EXPECT_EQ(o.err, "");
  }
  // --watch prints the answer now (for a name, once it has resolved) and ends cleanly
  // when interrupted
  for (const char* target : {"127.0.0.1", "localhost"}) {
    Started watching = start({"reach", "--watch", "--json", target});
    ASSERT_GT(watching.pid, 0);
    Outcome first;
    pollfd ready{watching.out, POLLIN, 0};
    ASSERT_EQ(::poll(&ready, 1, 10'000), 1);
    char buffer[512];
    ssize_t n = ::read(watching.out, buffer, sizeof buffer);
    ASSERT_GT(n, 0);
    first.out.assign(buffer, static_cast<size_t>(n));
    ::kill(watching.pid, SIGINT);
    Outcome all = finish(watching, first);
    EXPECT_EQ(all.exitCode, 0) << all.err;
    EXPECT_EQ(all.err, "");
    EXPECT_THAT(all.out, MatchesRegex("\\{\"time\":\"[-0-9T:+]+\",\"reachable\":true,"
                                      "\"connectionRequired\":false\\}\n"))
        << target;
  }
}

TEST_F(Nkutil, UsageErrorsExitTwo) {
  const std::vector<std::string> cases[] = {
      {"frobnicate"},
      {"status", "--colour"},
      {"format"},
      {"format", "size"},
      {"format", "size", "many"},
      {"format", "size", ""},
      {"format", "size", "9223372036854775808"},
      {"format", "size", "-99999999999999999999"},
      {"format", "size", "1.5"},
      {"format", "duration", ""},
      {"format", "duration", "1e999"},
      {"format", "duration", "5s"},
      {"url", "query", "not a url"},
      {"url", "append", "https://h.example/"},
      {"url", "append", "https://h.example/", "novalue"},
      {"json", "a.json", "b.json"},
      {"paths", "--group"},
      {"cache"},
      {"cache", "clear", ".."},
      {"cache", "clear", "download/../.."},
      {"logs", "clear", "extra"},
      {"secret", "get"},
      {"secret", "set", "k"},
      {"secret", "set", "k", "v", "--from-json", "1"},
      {"secret", "--backend", "vault", "get", "k"},
      // names and text the library would take as nil
      {"secret", "set", "k", "\xFF"},
      {"secret", "set", "\xFF", "v"},
      {"secret", "get", ""},
      {"secret", "delete", "\xC3"},
      {"paths", "--group", ""},
      {"paths", "--group", "group.\xFF"},
      {"reach", "a.example", "b.example"},
  };
  for (const auto& args : cases) {
    Outcome o = run(args);
    EXPECT_EQ(o.exitCode, 2) << args[0] << " " << (args.size() > 1 ? args[1] : "");
    EXPECT_EQ(o.out, "");
    EXPECT_THAT(o.err, MatchesRegex("nkutil: [^\n]+ \\(see nkutil[a-z ]* --help\\)\\.\n"));
  }
  EXPECT_THAT(run({"format", "size", "many"}).err, HasSubstr("see nkutil format size --help"));
}

TEST_F(Nkutil, EveryCommandHasHelp) {
  const std::vector<std::string> commands[] = {
      {},
      {"status"},
      {"json"},
      {"format"},
      {"format", "size"},
      {"format", "duration"},
      {"url"},
      {"url", "query"},
      {"url", "authority"},
      {"url", "append"},
      {"paths"},
      {"cache", "clear"},
      {"cache", "sweep"},
      {"logs", "clear"},
      {"secret"},
      {"secret", "get"},
      {"secret", "set"},
      {"secret", "delete"},
      {"reach"},
  };
  for (auto args : commands) {
    args.push_back("--help");
    Outcome o = run(args);
    EXPECT_EQ(o.exitCode, 0) << o.err;
    EXPECT_THAT(o.out, HasSubstr("Usage: nkutil")) << o.out;
    EXPECT_EQ(o.err, "");
  }
  EXPECT_THAT(run({"status", "--help"}).out, HasSubstr("--json"));
  EXPECT_EQ(run({"--version"}).out, std::string(libraryVersion()) + "\n");
}

}  // namespace
}  // namespace nk
