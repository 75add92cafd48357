// Tests of NKLocalPropertyManager: override lists in the library's bundle, read afresh,
// never from the host's main bundle, and nil for anything but a dictionary.
#include "nk/storage/local_property_manager.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/number.hpp"
#include "nk/storage/storage_test_support_internal.hpp"
#include "nk/system/bundle_internal.hpp"

namespace nk {
namespace {

using test::S;
using test::StorageSandbox;
using test::writeFile;

std::string xmlList(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + body +
         "</plist>\n";
}

const char* kOverrides =
    "<dict><key>Files</key><string>https://files.example/v2</string>"
    "<key>Nested</key><dict><key>a</key><array><string>x</string><integer>1</integer></array>"
    "</dict></dict>";

std::string overrideFile(const StorageSandbox& box) {
  return box.dir / "library-bundle/Resources/NKAPIOverride.plist";
}

Id lookup(const char* type) { return NKLocalPropertyManager::apiOverrideForType(S(type).get()); }

TEST(NKLocalPropertyManager, Lookups) {
  StorageSandbox box;
  // The host's main bundle has a list; it must not be consulted.
  writeFile(box.dir / "bundle/Resources/NKAPIOverride.plist", xmlList(kOverrides));
  EXPECT_FALSE(lookup("Files"));
  // Scalars as they are, containers whole.
  writeFile(overrideFile(box), xmlList(kOverrides));
  EXPECT_TRUE(isEqual(lookup("Files"), S("https://files.example/v2")));
  EXPECT_TRUE(isEqual(lookup("Nested"),
                      Dictionary::make({{S("a"), Array::make({S("x"), Number::withInt(1)})}})));
  // Missing keys and arguments.
  EXPECT_FALSE(lookup("Absent"));
  EXPECT_FALSE(NKLocalPropertyManager::apiOverrideForType(nullptr));
  EXPECT_FALSE(NKLocalPropertyManager::valueForTypeList(S("Files").get(), nullptr));
  {  // another list name, another file
    writeFile(box.dir / "library-bundle/Resources/Other.plist",
              xmlList("<dict><key>T</key><string>v</string></dict>"));
    EXPECT_TRUE(
        isEqual(NKLocalPropertyManager::valueForTypeList(S("T").get(), S("Other").get()), S("v")));
    EXPECT_FALSE(lookup("T"));
  }
  // Read afresh: a changed file takes effect on the next lookup.
  writeFile(overrideFile(box), xmlList("<dict><key>Files</key><string>two</string></dict>"));
  EXPECT_TRUE(isEqual(lookup("Files"), S("two")));
  // A top-level array or malformed bytes: nil for every lookup.
  for (const std::string& body :
       {xmlList("<array><string>Files</string></array>"),
        std::string("<?xml version=\"1.0\"?><plist><dict><key>Files</key>")}) {
    writeFile(overrideFile(box), body);
    EXPECT_FALSE(lookup("Files")) << body;
  }
}

// A list file is read whole: anything but a regular file of bounded size yields nil rather
// than a read that blocks, never ends or exhausts memory.
TEST(NKLocalPropertyManager, OnlyBoundedRegularFiles) {
  namespace fs = std::filesystem;
  StorageSandbox box;
  const std::string file = overrideFile(box);
  writeFile(file, xmlList(kOverrides) + std::string(1000, ' '));
  ASSERT_TRUE(lookup("Files"));
  writeFile(file, xmlList(kOverrides) + std::string(bundle_internal::kMaxFileSize, ' '));
  EXPECT_FALSE(lookup("Files"));
  fs::remove(file);
  fs::create_symlink("/dev/zero", file);
  EXPECT_FALSE(lookup("Files"));
  fs::remove(file);
  ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
  EXPECT_FALSE(lookup("Files"));
}

}  // namespace
}  // namespace nk
