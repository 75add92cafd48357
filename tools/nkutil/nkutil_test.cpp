// Drives the built nkutil as a user would, in a temporary HOME with a planted main
// bundle and machine name, and checks what it prints and how it exits.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/json_reader.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/version.hpp"
#include "nk/system/test_support_internal.hpp"

namespace nk {
namespace {

using test::TempDir;
using test::writeFile;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

struct Outcome {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// Reads both pipes to their end, whichever the child fills first.
void drain(int outFd, int errFd, Outcome& outcome) {
  pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
  std::string* sinks[2] = {&outcome.out, &outcome.err};
  int open = 2;
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

  Outcome run(std::vector<std::string> args, const std::string& input = "/dev/null") const {
    const char* binary = std::getenv("NKUTIL");
    Outcome outcome;
    if (!binary) {
      ADD_FAILURE() << "NKUTIL must name the nkutil program (CTest sets it)";
      return outcome;
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
      return outcome;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    posix_spawn_file_actions_addchdir_np(&actions, home_.path().c_str());
    pid_t pid = -1;
    int spawned = ::posix_spawn(&pid, binary, &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    if (spawned != 0) {
      ::close(out[0]);
      ::close(err[0]);
      ADD_FAILURE() << "cannot start " << binary;
      return outcome;
    }
    drain(out[0], err[0], outcome);
    int status = 0;
    ::waitpid(pid, &status, 0);
    outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return outcome;
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

TEST_F(Nkutil, UsageErrorsExitTwo) {
  const std::vector<std::string> cases[] = {
      {"frobnicate"},
      {"status", "--colour"},
      {"format"},
      {"format", "size"},
      {"format", "size", "many"},
      {"url", "query", "not a url"},
      {"url", "append", "https://h.example/"},
      {"url", "append", "https://h.example/", "novalue"},
      {"json", "a.json", "b.json"},
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
