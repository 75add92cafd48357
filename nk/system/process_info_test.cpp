// Tests of ProcessInfo: the version parse and comparison, the computer name
// from a machine-info file, and the process facts.
#include "nk/system/process_info.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include "nk/system/test_support_internal.hpp"

namespace nk {
namespace {

using test::ScopedEnv;
using test::TempDir;
using test::writeFile;

TEST(OperatingSystemVersion, ParsesKernelReleases) {
  using V = OperatingSystemVersion;
  for (const auto& [text, version] :
       {std::pair{"6.1.0-18-amd64", V{6, 1, 0}}, std::pair{"5.15.133.1-microsoft", V{5, 15, 133}},
        std::pair{"6.8-rc1", V{6, 8, 0}}, std::pair{"4", V{4, 0, 0}}, std::pair{"", V{0, 0, 0}},
        std::pair{"x.1", V{0, 0, 0}}, std::pair{"6..2", V{6, 0, 0}}}) {
    EXPECT_EQ(ProcessInfo::parseOperatingSystemVersion(text), version) << text;
  }
}

TEST(OperatingSystemVersion, AtLeastComparesPartByPart) {
  auto* info = ProcessInfo::processInfo();
  auto current = info->operatingSystemVersion();
  EXPECT_GT(current.majorVersion, 0);
  EXPECT_TRUE(info->isOperatingSystemAtLeastVersion(current));
  EXPECT_TRUE(info->isOperatingSystemAtLeastVersion({current.majorVersion, 0, 0}));
  EXPECT_TRUE(info->isOperatingSystemAtLeastVersion({current.majorVersion - 1, 99, 99}));
  EXPECT_FALSE(info->isOperatingSystemAtLeastVersion(
      {current.majorVersion, current.minorVersion, current.patchVersion + 1}));
  EXPECT_FALSE(info->isOperatingSystemAtLeastVersion({current.majorVersion + 1, 0, 0}));
}

TEST(ComputerName, PrettyNameElseHostName) {
  TempDir dir;
  auto* info = ProcessInfo::processInfo();
  ScopedEnv env("NK_MACHINE_INFO", dir / "machine-info");
  // a quoted pretty name
  writeFile(dir / "machine-info", "CHASSIS=laptop\nPRETTY_HOSTNAME=\"Ada's \\\"Laptop\\\"\"\n");
  EXPECT_EQ(info->computerName()->utf8(), "Ada's \"Laptop\"");
  // unquoted, and single-quoted
  writeFile(dir / "machine-info", "PRETTY_HOSTNAME=Studio\n");
  EXPECT_EQ(info->computerName()->utf8(), "Studio");
  writeFile(dir / "machine-info", "PRETTY_HOSTNAME='Big \\ Box'\n");
  EXPECT_EQ(info->computerName()->utf8(), "Big \\ Box");
  // blanks within quotes are kept, even when they are all there is; those after are not
  writeFile(dir / "machine-info", "PRETTY_HOSTNAME=\"   \"\n");
  EXPECT_EQ(info->computerName()->utf8(), "   ");
  writeFile(dir / "machine-info", "PRETTY_HOSTNAME=\" Studio \"  \n");
  EXPECT_EQ(info->computerName()->utf8(), " Studio ");
  // no pretty name, an empty one, or no file: the host name
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  writeFile(dir / "machine-info", "CHASSIS=desktop\nPRETTY_HOSTNAME=\n");
  EXPECT_EQ(info->computerName()->utf8(), host);
  ScopedEnv missing("NK_MACHINE_INFO", dir / "missing");
  EXPECT_EQ(info->computerName()->utf8(), host);
  EXPECT_EQ(info->hostName()->utf8(), host);
}

TEST(ProcessFacts, IdentityEnvironmentAndMachine) {
  auto* info = ProcessInfo::processInfo();
  EXPECT_EQ(info->processName()->utf8(), program_invocation_short_name);
  {  // the environment dictionary sees changes made since the last call
    ScopedEnv env("NK_PROCESS_INFO_TEST", std::string("a=b"));
    auto value = info->environment()->objectForKeyOfClass<String>(NK_STR("NK_PROCESS_INFO_TEST"));
    ASSERT_TRUE(value);
    EXPECT_EQ(value->utf8(), "a=b");
    EXPECT_EQ(ProcessInfo::environmentVariable("NK_PROCESS_INFO_TEST")->utf8(), "a=b");
  }
  EXPECT_FALSE(info->environment()->objectForKey(NK_STR("NK_PROCESS_INFO_TEST")));
  EXPECT_GT(info->physicalMemory(), 0u);
  EXPECT_GE(info->activeProcessorCount(), 1u);
  EXPECT_LE(info->activeProcessorCount(), info->processorCount());
}

}  // namespace
}  // namespace nk
