// Tests of keyed archiving of the built-in value types: round trips, the layout
// written, archives built by hand as the original platform writes them, and
// corrupt input.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/date.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/keyed_archiver.hpp"
#include "nk/foundation/keyed_unarchiver.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/property_list.hpp"
#include "nk/foundation/set.hpp"
#include "nk/foundation/url.hpp"

namespace nk {
namespace {

Id str(std::string_view s) { return String::fromUTF8(s); }
Id uid(uint64_t n) { return PlistUID::make(n); }

// The classes the keychain store allows.
const Class* const kValueClasses[] = {
    &Dictionary::staticClass(), &String::staticClass(), &Number::staticClass(),
    &Array::staticClass(),      &Set::staticClass(),    &URL::staticClass(),
    &Date::staticClass(),       &Data::staticClass(),   &Null::staticClass()};

Id roundTrip(const Object* root, std::span<const Class* const> classes = kValueClasses) {
  Ref<Error> error;
  Ref<Data> data = KeyedArchiver::archivedDataWithRootObject(root, true, &error);
  EXPECT_TRUE(data) << (error ? error->description()->utf8() : "");
  if (!data) return nullptr;
  Id back = KeyedUnarchiver::unarchivedObjectOfClasses(classes, data.get(), &error);
  EXPECT_TRUE(back || !root) << (error ? error->description()->utf8() : "");
  return back;
}

// An archive around a hand-made object table, in the given property-list form.
Ref<Data> archiveOf(std::vector<Id> objects, uint64_t root = 1,
                    PropertyListFormat format = PropertyListFormat::kBinary) {
  auto plist = Dictionary::make({{str("$version"), Number::withLongLong(100000)},
                                 {str("$archiver"), str("NSKeyedArchiver")},
                                 {str("$top"), Dictionary::make({{str("root"), uid(root)}})},
                                 {str("$objects"), Array::make(std::move(objects))}});
  return Data::fromVector(*writePropertyList(plist.get(), format));
}

Id classInfo(std::initializer_list<Id> chain) {
  return Dictionary::make(
      {{str("$classname"), *chain.begin()}, {str("$classes"), Array::make(chain)}});
}
Id arrayClass() { return classInfo({str("NSArray"), str("NSObject")}); }

// The body of an array or set: its element references and its class record.
Id arrayBody(std::vector<Id> refs, uint64_t cls) {
  return Dictionary::make(
      {{str("NS.objects"), Array::make(std::move(refs))}, {str("$class"), uid(cls)}});
}

Id decode(const Data* data, Ref<Error>* error = nullptr,
          std::span<const Class* const> classes = kValueClasses) {
  return KeyedUnarchiver::unarchivedObjectOfClasses(classes, data, error);
}

// Passes when decoding fails with a corrupt-archive error whose reason contains `fragment`.
testing::AssertionResult refused(const Data* data, std::string_view fragment,
                                 std::span<const Class* const> classes = kValueClasses) {
  Ref<Error> error;
  if (decode(data, &error, classes)) return testing::AssertionFailure() << "decoded";
  if (!error) return testing::AssertionFailure() << "no error";
  const auto reason = error->userInfo()
                          ? cast<String>(error->userInfo()->objectForKey(kDebugDescriptionKey()))
                          : nullptr;
  if (!isEqual(error->domain(), kCocoaErrorDomain()) || error->code() != kCoderReadCorruptError ||
      !reason || reason->utf8().find(fragment) == std::string::npos) {
    return testing::AssertionFailure() << error->description()->utf8();
  }
  return testing::AssertionSuccess();
}

Ref<Dictionary> layoutOf(const Object* root) {
  Ref<Data> data = KeyedArchiver::archivedDataWithRootObject(root, true);
  return cast<Dictionary>(readPropertyList({data->bytes(), data->length()}));
}

TEST(KeyedArchive, ValueTypesRoundTrip) {
  // a dictionary of strings, the keychain's common case
  auto dict = Dictionary::make({{str("user"), str("ann")}, {str("token"), str("t0k")}});
  Id dictBack = roundTrip(dict.get());
  EXPECT_TRUE(isEqual(dictBack, dict));
  EXPECT_TRUE(dictBack->isMemberOfClass(Dictionary::staticClass()));
  // nested containers with scalars of every kind
  auto base = URL::fromString("https://example.com/a/");
  auto scalars = Array::make({Number::withInt(-7), Number::withUnsignedLongLong(UINT64_MAX),
                              Number::withDouble(2.5), Number::withBool(true),
                              Data::fromBytes(std::vector<uint8_t>{0, 1, 255}),
                              Date::fromTimeIntervalSinceReferenceDate(123.25),
                              URL::fromStringRelativeTo("b?q=1", base.get()), Id(Null::null()),
                              Set::make({str("x"), str("y")}),
                              Dictionary::make({{str("inner"), Array::make({str("z")})}})});
  auto scalarsBack = cast<Array>(roundTrip(scalars.get()));
  ASSERT_TRUE(scalarsBack);
  EXPECT_TRUE(isEqual(scalarsBack, scalars));
  EXPECT_EQ(cast<Number>(scalarsBack->objectAtIndex(1))->unsignedLongLongValue(), UINT64_MAX);
  EXPECT_TRUE(scalarsBack->objectAtIndex(3)->isKindOfClass(Boolean::staticClass()));
  auto url = cast<URL>(scalarsBack->objectAtIndex(6));
  ASSERT_TRUE(url && url->baseURL());
  EXPECT_EQ(url->relativeString()->utf8(), "b?q=1");
  EXPECT_EQ(url->absoluteString()->utf8(), "https://example.com/a/b?q=1");
  EXPECT_EQ(scalarsBack->objectAtIndex(7).get(), Null::null());
  // mutable containers and leaves come back mutable, immutable ones immutable
  auto text = make<MutableString>(cast<String>(str("grow")).get());
  auto bytes = MutableData::make();
  bytes->appendBytes("ab", 2);
  auto root = MutableArray::make({Id(text), Id(bytes), Id(MutableDictionary::make()),
                                  Id(MutableSet::make()), Id(Array::make())});
  auto back = cast<Array>(roundTrip(root.get()));
  ASSERT_TRUE(back);
  EXPECT_TRUE(back->isMemberOfClass(MutableArray::staticClass()));
  const Class* const classes[] = {&MutableString::staticClass(), &MutableData::staticClass(),
                                  &MutableDictionary::staticClass(), &MutableSet::staticClass(),
                                  &Array::staticClass()};
  for (size_t i = 0; i < std::size(classes); ++i) {
    EXPECT_TRUE(back->objectAtIndex(i)->isMemberOfClass(*classes[i])) << i;
  }
  EXPECT_TRUE(isEqual(back, root));
  // a nil root archives and decodes as nil without an error
  Ref<Data> data = KeyedArchiver::archivedDataWithRootObject(nullptr, true);
  ASSERT_TRUE(data);
  Ref<Error> error;
  EXPECT_FALSE(decode(data.get(), &error));
  EXPECT_FALSE(error);
}

TEST(KeyedArchive, SharedObjectsStayShared) {
  auto shared = Array::make({str("s")});
  auto root = Array::make({shared, shared, Dictionary::make({{str("k"), shared}})});
  // stored once in the table
  auto objects = cast<Array>(layoutOf(root.get())->objectForKey(str("$objects")));
  size_t arrays = 0;
  for (const Id& o : *objects) {
    auto body = cast<Dictionary>(o);
    if (body && body->objectForKey(str("NS.objects")) && !body->objectForKey(str("NS.keys")))
      ++arrays;
  }
  EXPECT_EQ(arrays, 2u);  // the root and the shared array
  // decoded once, so every reference is the same instance
  auto back = cast<Array>(roundTrip(root.get()));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->objectAtIndex(0).get(), back->objectAtIndex(1).get());
  EXPECT_EQ(cast<Dictionary>(back->objectAtIndex(2))->objectForKey(str("k")).get(),
            back->objectAtIndex(0).get());
}

TEST(KeyedArchive, StringsOfAnyCodeUnitsRoundTrip) {
  std::u16string units = u"a";
  units += u'\0';
  units += char16_t(0xD800);  // unpaired surrogate
  units += u"é";
  auto odd = String::withCharacters(units);
  auto dict = Dictionary::make({{odd, odd}, {str(std::string("nul\0key", 7)), str("v")}});
  EXPECT_TRUE(isEqual(roundTrip(dict.get()), dict));
}

TEST(KeyedArchive, WritesThePlatformLayout) {
  auto root = MutableDictionary::make({{str("when"), Date::fromTimeIntervalSinceReferenceDate(5)},
                                       {str("site"), URL::fromString("http://h/")}});
  auto plist = layoutOf(root.get());
  ASSERT_TRUE(plist);
  EXPECT_TRUE(isEqual(plist->objectForKey(str("$archiver")), str("NSKeyedArchiver")));
  EXPECT_EQ(cast<Number>(plist->objectForKey(str("$version")))->longLongValue(), 100000);
  auto objects = cast<Array>(plist->objectForKey(str("$objects")));
  ASSERT_TRUE(objects);
  EXPECT_TRUE(isEqual(objects->objectAtIndex(0), str("$null")));
  auto top = cast<Dictionary>(plist->objectForKey(str("$top")));
  auto rootRef = cast<PlistUID>(top->objectForKey(str("root")));
  ASSERT_TRUE(rootRef);
  auto at = [&](const Id& ref) { return objects->objectAtIndex(cast<PlistUID>(ref)->value()); };
  auto body = cast<Dictionary>(at(rootRef));
  ASSERT_TRUE(body);
  // the class record and its chain
  auto info = cast<Dictionary>(at(body->objectForKey(str("$class"))));
  EXPECT_TRUE(isEqual(info->objectForKey(str("$classname")), str("NSMutableDictionary")));
  EXPECT_TRUE(
      isEqual(info->objectForKey(str("$classes")),
              Array::make({str("NSMutableDictionary"), str("NSDictionary"), str("NSObject")})));
  // keys inline as strings, values as objects naming their classes
  auto keys = cast<Array>(body->objectForKey(str("NS.keys")));
  auto values = cast<Array>(body->objectForKey(str("NS.objects")));
  ASSERT_TRUE(keys && values && keys->count() == 2 && values->count() == 2);
  EXPECT_TRUE(isEqual(at(keys->objectAtIndex(0)), str("when")));
  auto date = cast<Dictionary>(at(values->objectAtIndex(0)));
  EXPECT_TRUE(isEqual(date->objectForKey(str("NS.time")), Number::withDouble(5)));
  EXPECT_TRUE(isEqual(
      cast<Dictionary>(at(date->objectForKey(str("$class"))))->objectForKey(str("$classes")),
      Array::make({str("NSDate"), str("NSObject")})));
  auto url = cast<Dictionary>(at(values->objectAtIndex(1)));
  EXPECT_EQ(cast<PlistUID>(url->objectForKey(str("NS.base")))->value(), 0u);
  EXPECT_TRUE(isEqual(at(url->objectForKey(str("NS.relative"))), str("http://h/")));
}

TEST(KeyedArchive, DecodesArchivesAsThePlatformWritesThem) {
  // {"user": "ann", "n": 3} with the class record last, as the platform orders it
  auto dict = archiveOf({str("$null"),
                         Dictionary::make({{str("NS.keys"), Array::make({uid(2), uid(3)})},
                                           {str("NS.objects"), Array::make({uid(4), uid(5)})},
                                           {str("$class"), uid(6)}}),
                         str("user"), str("n"), str("ann"), Number::withInt(3),
                         classInfo({str("NSDictionary"), str("NSObject")})});
  EXPECT_TRUE(isEqual(decode(dict.get()), Dictionary::make({{str("user"), str("ann")},
                                                            {str("n"), Number::withInt(3)}})));
  // an array in the XML form, where UIDs are written {CF$UID = n}
  auto xml =
      archiveOf({str("$null"), arrayBody({uid(2), uid(3)}, 4),
                 Data::fromBytes(std::vector<uint8_t>{7}), Number::withDouble(0.5), arrayClass()},
                1, PropertyListFormat::kXML);
  EXPECT_TRUE(isEqual(decode(xml.get()), Array::make({Data::fromBytes(std::vector<uint8_t>{7}),
                                                      Number::withDouble(0.5)})));
  // NSMutableString, NSData wrapped, NSNull, NSSet and a URL with a base
  auto data = archiveOf(
      {str("$null"), arrayBody({uid(2), uid(4), uid(6), uid(8), uid(10)}, 13),
       Dictionary::make({{str("NS.string"), str("txt")}, {str("$class"), uid(3)}}),
       classInfo({str("NSMutableString"), str("NSString"), str("NSObject")}),
       Dictionary::make({{str("NS.data"), Data::fromBytes(std::vector<uint8_t>{1, 2})},
                         {str("$class"), uid(5)}}),
       classInfo({str("NSData"), str("NSObject")}), Dictionary::make({{str("$class"), uid(7)}}),
       classInfo({str("NSNull"), str("NSObject")}),
       Dictionary::make(
           {{str("NS.base"), uid(10)}, {str("NS.relative"), uid(11)}, {str("$class"), uid(12)}}),
       str("unused"),
       Dictionary::make(
           {{str("NS.base"), uid(0)}, {str("NS.relative"), uid(14)}, {str("$class"), uid(12)}}),
       str("x/y"), classInfo({str("NSURL"), str("NSObject")}),
       classInfo({str("NSSet"), str("NSObject")}), str("http://h/d/")});
  // index 9 is unreferenced; index 10 is a URL used both as an element and as a base
  auto back = cast<Set>(decode(data.get()));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->count(), 5u);
  EXPECT_TRUE(back->containsObject(str("txt")));
  EXPECT_TRUE(back->containsObject(Data::fromBytes(std::vector<uint8_t>{1, 2})));
  EXPECT_TRUE(back->containsObject(Null::null()));
  EXPECT_TRUE(back->containsObject(URL::fromString("http://h/d/")));
  EXPECT_TRUE(
      back->containsObject(URL::fromStringRelativeTo("x/y", URL::fromString("http://h/d/").get())));
}

TEST(KeyedArchive, AllowListIsCheckedOnEveryObject) {
  auto dict = Dictionary::make({{str("k"), Number::withInt(1)}});
  Ref<Data> data = KeyedArchiver::archivedDataWithRootObject(dict.get(), true);
  // contents are checked as well as the root
  const Class* const dictAndString[] = {&Dictionary::staticClass(), &String::staticClass()};
  EXPECT_TRUE(refused(data.get(), "Number", dictAndString));
  // a mutable subclass passes where its immutable class is allowed
  auto mutableDict = MutableDictionary::make({{str("k"), str("v")}});
  EXPECT_TRUE(isEqual(roundTrip(mutableDict.get(), dictAndString), mutableDict));
  // Null needs its own entry; an empty list allows nothing
  Ref<Data> null = KeyedArchiver::archivedDataWithRootObject(Null::null(), true);
  const Class* const noNull[] = {&String::staticClass()};
  EXPECT_FALSE(decode(null.get(), nullptr, noNull));
  EXPECT_FALSE(decode(data.get(), nullptr, {}));
  // a shared object is checked again where it is reached under other classes
  auto data2 = archiveOf({str("$null"), arrayBody({uid(2)}, 3), str("s"), arrayClass()});
  const Class* const arrays[] = {&Array::staticClass()};
  EXPECT_FALSE(decode(data2.get(), nullptr, arrays));
}

TEST(KeyedArchive, ObjectsThatCannotBeArchivedFail) {
  Ref<Error> error;
  auto root = Array::make({Error::make("D", 1)});
  EXPECT_FALSE(KeyedArchiver::archivedDataWithRootObject(root.get(), false, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), kCoderInvalidValueError);
  EXPECT_NE(error->description()->utf8().find("'Error'"), std::string::npos);
  // A container inside itself would give an archive that cannot be read back.
  auto cyclic = make<MutableArray>();
  cyclic->addObject(Array::make({NK_STR("x")}));
  cyclic->addObject(cyclic);
  error = nullptr;
  EXPECT_FALSE(KeyedArchiver::archivedDataWithRootObject(cyclic.get(), false, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), kCoderInvalidValueError);
  cyclic->removeAllObjects();  // the cycle would keep it alive
}

TEST(KeyedArchive, CorruptArchivesDecodeToNil) {
  auto valid = KeyedArchiver::archivedDataWithRootObject(
      Dictionary::make({{str("a"), Array::make({str("b")})}}).get(), true);
  // each case: what it breaks, the archive, a fragment of the reason given
  std::vector<std::tuple<std::string, Ref<Data>, std::string>> cases = {
      {"nil data", nullptr, "no archive"},
      {"not a property list", Data::fromBytes("junk", 4), "not a keyed archive"},
      {"truncated", valid->subdata(0, valid->length() - 9), "not a property list"},
      {"not an archive",
       Data::fromVector(
           *writePropertyList(Array::make({str("$null")}).get(), PropertyListFormat::kBinary)),
       "not a keyed archive"},
      {"cycle",
       archiveOf({str("$null"), arrayBody({uid(2)}, 3), arrayBody({uid(1)}, 3), arrayClass()}),
       "cycle"},
      {"self reference", archiveOf({str("$null"), arrayBody({uid(1)}, 2), arrayClass()}), "cycle"},
      {"uid out of range", archiveOf({str("$null"), arrayBody({uid(99)}, 2), arrayClass()}),
       "outside"},
      {"root out of range", archiveOf({str("$null")}, 5), "outside"},
      {"class uid out of range", archiveOf({str("$null"), arrayBody({}, 7)}), "name its class"},
      {"class record not a dictionary", archiveOf({str("$null"), arrayBody({}, 0)}),
       "name its class"},
      {"collection holding nil", archiveOf({str("$null"), arrayBody({uid(0)}, 2), arrayClass()}),
       "holds nil"},
      {"element not a uid", archiveOf({str("$null"), arrayBody({str("x")}, 2), arrayClass()}),
       "other than a UID"},
      {"elements not an array",
       archiveOf({str("$null"),
                  Dictionary::make({{str("NS.objects"), str("x")}, {str("$class"), uid(2)}}),
                  arrayClass()}),
       "not an array"},
      {"keys and values differ in number",
       archiveOf({str("$null"),
                  Dictionary::make({{str("NS.keys"), Array::make({uid(2)})},
                                    {str("NS.objects"), Array::make()},
                                    {str("$class"), uid(3)}}),
                  str("k"), classInfo({str("NSDictionary"), str("NSObject")})}),
       "different numbers"},
      {"unknown class",
       archiveOf(
           {str("$null"), arrayBody({}, 2), classInfo({str("NoSuchClass"), str("NSObject")})}),
       "'NoSuchClass' is not known"},
      {"class outside the allow-list",
       archiveOf({str("$null"), arrayBody({}, 2), classInfo({str("Error"), str("NSObject")})}),
       "'Error' is not among the allowed"},
      {"table entry of the wrong type", archiveOf({str("$null"), Array::make()}), "wrong type"},
      {"date time of the wrong type",
       archiveOf({str("$null"),
                  Dictionary::make({{str("NS.time"), str("soon")}, {str("$class"), uid(2)}}),
                  classInfo({str("NSDate"), str("NSObject")})}),
       "not a number"},
      {"invalid URL",
       archiveOf({str("$null"),
                  Dictionary::make({{str("NS.relative"), uid(2)}, {str("$class"), uid(3)}}),
                  str("a b"), classInfo({str("NSURL"), str("NSObject")})}),
       "not a valid URL"},
  };
  for (const auto& [name, data, reason] : cases) EXPECT_TRUE(refused(data.get(), reason)) << name;
}

TEST(KeyedArchive, NestingIsBounded) {
  // 600 arrays each holding the next: refused when decoding, without exhausting the stack
  constexpr uint64_t kLevels = 600;
  std::vector<Id> objects = {str("$null")};
  for (uint64_t i = 1; i < kLevels; ++i) objects.push_back(arrayBody({uid(i + 1)}, kLevels + 1));
  objects.push_back(arrayBody({}, kLevels + 1));
  objects.push_back(arrayClass());
  EXPECT_TRUE(refused(archiveOf(std::move(objects)).get(), "nested"));
  // the writer refuses the same depth, and accepts a depth the reader takes
  auto deep = [](int levels) {
    Id inner = str("leaf");
    for (int i = 0; i < levels; ++i) inner = Array::make({inner});
    return inner;
  };
  EXPECT_FALSE(KeyedArchiver::archivedDataWithRootObject(deep(600).get(), true));
  Id ok = deep(400);
  EXPECT_TRUE(isEqual(roundTrip(ok.get()), ok));
}

TEST(KeyedArchive, SharedObjectsCannotMultiplyWork) {
  // 40 arrays, each holding the next one twice: 2^40 elements counted per path,
  // which equality and hashing would walk
  constexpr uint64_t kLevels = 40;
  std::vector<Id> chain = {str("$null")};
  for (uint64_t i = 1; i <= kLevels; ++i) {
    Id next = uid(i + 1);  // the last one names the leaf
    chain.push_back(arrayBody({next, next}, kLevels + 2));
  }
  chain.push_back(str("leaf"));
  chain.push_back(arrayClass());
  EXPECT_TRUE(refused(archiveOf(std::move(chain)).get(), "expand"));
  // a root of 2,000 arrays whose bodies all share one 2,000-element table: a small
  // input that would expand to four million elements
  constexpr uint64_t kCount = 2000;
  const uint64_t leaf = kCount + 2, cls = kCount + 3;
  std::vector<Id> rootRefs;
  for (uint64_t i = 2; i < kCount + 2; ++i) rootRefs.push_back(uid(i));
  std::vector<Id> objects = {str("$null"), arrayBody(std::move(rootRefs), cls)};
  // one table instance, so the property list stores it once
  auto shared = Array::make(std::vector<Id>(kCount, uid(leaf)));
  for (uint64_t i = 0; i < kCount; ++i) {
    objects.push_back(Dictionary::make({{str("NS.objects"), shared}, {str("$class"), uid(cls)}}));
  }
  objects.push_back(str("leaf"));
  objects.push_back(arrayClass());
  auto data = archiveOf(std::move(objects));
  ASSERT_LT(data->length(), 100000u);
  EXPECT_TRUE(refused(data.get(), "size"));
}

TEST(KeyedArchive, TablesTooCostlyToTellApartAreRefused) {
  // Arrays hash by their count and end elements, so a set of arrays, or a
  // dictionary keyed by them, that differ only inside is built by testing its
  // members pair by pair. Each member here is [leaf, chain, i, leaf], the chain
  // doubling `levels` times over that leaf: every test walks 2^(levels + 1)
  // elements before the two differ.
  auto archive = [](bool asKeys, uint64_t members, uint64_t levels) {
    const uint64_t leaf = 2, cls = 3;
    std::vector<Id> objects = {str("$null"), nullptr, str("x"), arrayClass()};
    std::vector<Id> refs, tags;
    for (uint64_t m = 0; m < members; ++m) {
      uint64_t top = leaf;
      for (uint64_t l = 0; l < levels; ++l) {
        objects.push_back(arrayBody({uid(top), uid(top)}, cls));
        top = objects.size() - 1;
      }
      objects.push_back(Number::withLongLong(static_cast<int64_t>(m)));
      tags.push_back(uid(objects.size() - 1));
      objects.push_back(arrayBody({uid(leaf), uid(top), tags.back(), uid(leaf)}, cls));
      refs.push_back(uid(objects.size() - 1));
    }
    objects.push_back(classInfo({str(asKeys ? "NSDictionary" : "NSSet"), str("NSObject")}));
    const Id rootClass = uid(objects.size() - 1);
    objects[1] = asKeys ? Dictionary::make({{str("NS.keys"), Array::make(std::move(refs))},
                                            {str("NS.objects"), Array::make(std::move(tags))},
                                            {str("$class"), rootClass}})
                        : Dictionary::make({{str("NS.objects"), Array::make(std::move(refs))},
                                            {str("$class"), rootClass}});
    return archiveOf(std::move(objects));
  };
  auto small = cast<Set>(decode(archive(false, 7, 8).get()));
  ASSERT_TRUE(small);
  EXPECT_EQ(small->count(), 7u);
  auto keyed = cast<Dictionary>(decode(archive(true, 7, 8).get()));
  ASSERT_TRUE(keyed);
  EXPECT_EQ(keyed->count(), 7u);
  // 21 pairs of 2^21 elements each, from a few kilobytes
  EXPECT_TRUE(refused(archive(false, 7, 20).get(), "Telling apart"));
  EXPECT_TRUE(refused(archive(true, 7, 20).get(), "Telling apart"));
}

}  // namespace
}  // namespace nk
