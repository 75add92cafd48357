// Tests of NKLocalPropertyManager: override lists of every shape in the library's bundle,
// in both property-list forms, read afresh, and never from the host's main bundle.
#include "nk/storage/local_property_manager.hpp"

#include <gtest/gtest.h>

#include <string>

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/property_list.hpp"
#include "nk/storage/storage_test_support_internal.hpp"

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
    "<key>Limit</key><integer>42</integer>"
    "<key>Enabled</key><true/>"
    "<key>Nested</key><dict><key>a</key><array><string>x</string><integer>1</integer></array></"
    "dict>"
    "<key>List</key><array><string>p</string><string>q</string></array></dict>";

std::string overrideFile(const StorageSandbox& box) {
  return box.dir / "library-bundle/Resources/NKAPIOverride.plist";
}

Id lookup(const char* type) { return NKLocalPropertyManager::apiOverrideForType(S(type).get()); }

TEST(NKLocalPropertyManager, WithoutAList) {
  StorageSandbox box;
  // The host's main bundle has one; it must not be consulted.
  writeFile(box.dir / "bundle/Resources/NKAPIOverride.plist", xmlList(kOverrides));
  EXPECT_FALSE(lookup("Files"));
  EXPECT_FALSE(lookup("Limit"));
}

TEST(NKLocalPropertyManager, ValuesOfEveryShape) {
  StorageSandbox box;
  // Scalars as they are, containers whole.
  auto expectEveryValue = [] {
    auto files = cast<String>(lookup("Files"));
    ASSERT_TRUE(files);
    EXPECT_EQ(files->utf8(), "https://files.example/v2");
    auto limit = cast<Number>(lookup("Limit"));
    ASSERT_TRUE(limit);
    EXPECT_EQ(limit->longValue(), 42);
    EXPECT_TRUE(isEqual(lookup("Enabled").get(), Number::yes()));
    EXPECT_TRUE(isEqual(lookup("Nested"),
                        Dictionary::make({{S("a"), Array::make({S("x"), Number::withInt(1)})}})));
    EXPECT_TRUE(isEqual(lookup("List"), Array::make({S("p"), S("q")})));
  };
  const std::string xml = xmlList(kOverrides);
  writeFile(overrideFile(box), xml);
  expectEveryValue();
  // Missing keys and arguments.
  EXPECT_FALSE(lookup("Absent"));
  EXPECT_FALSE(NKLocalPropertyManager::apiOverrideForType(nullptr));
  EXPECT_FALSE(NKLocalPropertyManager::valueForTypeList(S("Files").get(), nullptr));
  // The binary form reads the same.
  Id root = readPropertyList(
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(xml.data()), xml.size()));
  auto binary = writePropertyList(root.get(), PropertyListFormat::kBinary);
  ASSERT_TRUE(binary);
  writeFile(overrideFile(box), std::string(binary->begin(), binary->end()));
  expectEveryValue();
}

TEST(NKLocalPropertyManager, OtherListsAndShapes) {
  StorageSandbox box;
  {  // another list name, another file
    writeFile(box.dir / "library-bundle/Resources/Other.plist",
              xmlList("<dict><key>T</key><string>v</string></dict>"));
    auto value = NKLocalPropertyManager::valueForTypeList(S("T").get(), S("Other").get());
    EXPECT_TRUE(isEqual(value.get(), S("v").get()));
    EXPECT_FALSE(lookup("T"));
  }
  // A top-level array, a scalar, malformed bytes: nil for every lookup.
  for (const std::string& body :
       {xmlList("<array><string>Files</string></array>"), xmlList("<string>Files</string>"),
        std::string("<?xml version=\"1.0\"?><plist><dict><key>Files</key>"),
        std::string("bplist00\x01\x02")}) {
    writeFile(overrideFile(box), body);
    EXPECT_FALSE(lookup("Files")) << body;
  }
  // Read afresh: a changed file takes effect on the next lookup.
  writeFile(overrideFile(box), xmlList("<dict><key>Files</key><string>one</string></dict>"));
  EXPECT_EQ(cast<String>(lookup("Files"))->utf8(), "one");
  writeFile(overrideFile(box), xmlList("<dict><key>Files</key><string>two</string></dict>"));
  EXPECT_EQ(cast<String>(lookup("Files"))->utf8(), "two");
}

}  // namespace
}  // namespace nk
