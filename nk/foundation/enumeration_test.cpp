// Tests of collection loops: the mutation check with the platform's exact
// exception, when it fires and when it must not, and the generic entry points.
#include "nk/foundation/enumeration.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/raised_test_support_internal.hpp"
#include "nk/foundation/set.hpp"

namespace nk {
namespace {

Ref<String> S(const char* utf8) { return String::fromUTF8(utf8); }

using test_support::raised;

// The exception a change inside a loop over `collection` raises.
std::pair<std::string, std::string> mutated(const char* className, const void* collection) {
  char text[160];
  std::snprintf(text, sizeof text, "*** Collection <%s: %p> was mutated while being enumerated.",
                className, collection);
  return {"NSGenericException", text};
}

TEST(Enumeration, MutationInsideLoopRaises) {
  // Array: a change, then stepping on, raises.
  auto array = MutableArray::make({S("a"), S("b"), S("c")});
  auto r = raised([&] {
    for (const Id& x : *array) {
      if (x->isEqual(S("a").get())) array->addObject(S("d"));
    }
  });
  EXPECT_EQ(r, mutated("MutableArray", array.get()));
  // Dictionary keys: replacing a value counts as a change too.
  auto keys = MutableDictionary::make({{S("a"), S("1")}, {S("b"), S("2")}});
  r = raised([&] {
    for (const Id& key : *keys) keys->setObjectForKey(S("x"), key);
  });
  EXPECT_EQ(r, mutated("MutableDictionary", keys.get()));
  // Dictionary entries; removing the last key leaves nothing to step to.
  auto entries = MutableDictionary::make({{S("a"), S("1")}, {S("b"), S("2")}});
  r = raised([&] {
    for (const auto& entry : entries->entries()) {
      (void)entry;
      entries->removeObjectForKey(S("b"));
    }
  });
  EXPECT_EQ(r.first, "");
  entries->setObjectForKey(S("2"), S("b"));
  r = raised([&] {
    for (const auto& [key, value] : entries->entries()) entries->removeObjectForKey(key);
  });
  EXPECT_EQ(r, mutated("MutableDictionary", entries.get()));
  // Set.
  auto set = MutableSet::make({S("a"), S("b")});
  r = raised([&] {
    for (const Id& x : *set) set->removeObject(x);
  });
  EXPECT_EQ(r, mutated("MutableSet", set.get()));
  // An indexed dictionary (many keys) that compacts during the loop.
  auto indexed = MutableDictionary::make();
  for (int i = 0; i < 40; ++i) indexed->setObjectForKey(Number::withInt(i), Number::withInt(i));
  int seen = 0;
  r = raised([&] {
    for (const Id& key : *indexed) {
      ++seen;
      for (int i = 0; i < 30; ++i) indexed->removeObjectForKey(Number::withInt(i));
      (void)key;
    }
  });
  EXPECT_EQ(r, mutated("MutableDictionary", indexed.get()));
  EXPECT_EQ(seen, 1);
  // At the last key, removals then an insertion that squeezes the holes out:
  // the new key follows the current one even though positions moved.
  auto squeezed = MutableDictionary::make();
  for (int i = 0; i < 10; ++i) squeezed->setObjectForKey(Number::withInt(i), Number::withInt(i));
  r = raised([&] {
    for (const Id& key : *squeezed) {
      if (cast<Number>(key)->intValue() != 9) continue;
      for (int i = 0; i < 8; ++i) squeezed->removeObjectForKey(Number::withInt(i));
      squeezed->setObjectForKey(S("new"), S("new"));
    }
  });
  EXPECT_EQ(r, mutated("MutableDictionary", squeezed.get()));
}

TEST(Enumeration, ChangesThatEndTheLoopDoNotRaise) {
  // Changing and leaving the loop at once is allowed, as on the platform.
  auto m = MutableArray::make({S("a"), S("b"), S("c")});
  auto r = raised([&] {
    for (const Id& x : *m) {
      m->removeObject(x);
      break;
    }
  });
  EXPECT_EQ(r.first, "");
  EXPECT_EQ(m->count(), 2u);
  // Shrinking at the last element ends the loop; growing there does not.
  r = raised([&] {
    for (const Id& x : *m) {
      if (x->isEqual(S("c").get())) m->removeLastObject();
    }
  });
  EXPECT_EQ(r.first, "");
  r = raised([&] {
    for (const Id& x : *m) {
      if (x->isEqual(S("b").get())) m->addObject(S("z"));
    }
  });
  EXPECT_EQ(r.first, "NSGenericException");
  // Loops without changes see every element once, in order.
  auto fixed = MutableArray::make({S("a"), S("b"), S("c")});
  std::vector<std::string> seen;
  for (const Id& x : *fixed) seen.push_back(x->description()->utf8());
  EXPECT_THAT(seen, ::testing::ElementsAre("a", "b", "c"));
  std::vector<Id> copied(fixed->begin(), fixed->end());
  EXPECT_EQ(copied.size(), 3u);
}

TEST(Enumeration, GenericEntryPoints) {
  auto array = Array::make({S("a"), S("b")});
  auto dict = Dictionary::make({{S("k2"), S("v")}, {S("k1"), S("v")}});
  auto set = Set::make({S("x"), S("y"), S("x")});
  const auto collect = [](const Object* c) {
    std::vector<std::string> out;
    const bool ok = enumerate(c, [&](const Id& x) { out.push_back(x->description()->utf8()); });
    return std::make_pair(ok, out);
  };
  using ::testing::ElementsAre;
  using ::testing::Pair;
  // Arrays in order, dictionaries by key in insertion order, sets by member.
  EXPECT_THAT(collect(array.get()), Pair(true, ElementsAre("a", "b")));
  EXPECT_THAT(collect(dict.get()), Pair(true, ElementsAre("k2", "k1")));
  EXPECT_THAT(collect(set.get()), Pair(true, ElementsAre("x", "y")));
  // Non-collections and nil are refused without calling back.
  EXPECT_THAT(collect(S("a").get()), Pair(false, ElementsAre()));
  EXPECT_THAT(collect(nullptr), Pair(false, ElementsAre()));

  EXPECT_EQ(collectionCount(array.get()), 2u);
  EXPECT_EQ(collectionCount(dict.get()), 2u);
  EXPECT_EQ(collectionCount(set.get()), 2u);
  EXPECT_EQ(collectionCount(Number::withInt(3).get()), 0u);
  EXPECT_EQ(collectionCount(nullptr), 0u);

  // A change made through the callback raises as in a loop.
  auto m = MutableArray::make({S("a"), S("b")});
  EXPECT_EQ(raised([&] { enumerate(m.get(), [&](const Id&) { m->addObject(S("c")); }); }).first,
            "NSGenericException");
}

}  // namespace
}  // namespace nk
