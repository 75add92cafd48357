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

std::string mutatedReason(const char* className, const void* address) {
  char text[160];
  std::snprintf(text, sizeof text, "*** Collection <%s: %p> was mutated while being enumerated.",
                className, address);
  return text;
}

TEST(Enumeration, MutationInsideLoopRaises) {
  {  // Array: a change, then stepping on, raises NSGenericException.
    auto m = MutableArray::make({S("a"), S("b"), S("c")});
    auto r = raised([&] {
      for (const Id& x : *m) {
        if (x->isEqual(S("a").get())) m->addObject(S("d"));
      }
    });
    EXPECT_EQ(r.first, "NSGenericException");
    EXPECT_EQ(r.second, mutatedReason("MutableArray", m.get()));
  }
  {  // Dictionary keys: replacing a value counts as a change too.
    auto d = MutableDictionary::make({{S("a"), S("1")}, {S("b"), S("2")}});
    auto r = raised([&] {
      for (const Id& key : *d) d->setObjectForKey(S("x"), key);
    });
    EXPECT_EQ(r.second, mutatedReason("MutableDictionary", d.get()));
  }
  {  // Dictionary entries.
    auto d = MutableDictionary::make({{S("a"), S("1")}, {S("b"), S("2")}});
    auto r = raised([&] {
      for (const auto& entry : d->entries()) {
        (void)entry;
        d->removeObjectForKey(S("b"));
      }
    });
    EXPECT_EQ(r.second, "");  // removing the last key leaves nothing to step to
    d->setObjectForKey(S("2"), S("b"));
    r = raised([&] {
      for (const auto& [key, value] : d->entries()) d->removeObjectForKey(key);
    });
    EXPECT_EQ(r.second, mutatedReason("MutableDictionary", d.get()));
  }
  {  // Set.
    auto s = MutableSet::make({S("a"), S("b")});
    auto r = raised([&] {
      for (const Id& x : *s) s->removeObject(x);
    });
    EXPECT_EQ(r.second, mutatedReason("MutableSet", s.get()));
  }
  {  // An indexed dictionary (many keys) that compacts during the loop.
    auto d = MutableDictionary::make();
    for (int i = 0; i < 40; ++i) d->setObjectForKey(Number::withInt(i), Number::withInt(i));
    int seen = 0;
    auto r = raised([&] {
      for (const Id& key : *d) {
        ++seen;
        for (int i = 0; i < 30; ++i) d->removeObjectForKey(Number::withInt(i));
        (void)key;
      }
    });
    EXPECT_EQ(r.first, "NSGenericException");
    EXPECT_EQ(seen, 1);
  }
  {
    // At the last key, removals then an insertion that squeezes the holes out:
    // the new key follows the current one even though positions moved.
    auto d = MutableDictionary::make();
    for (int i = 0; i < 10; ++i) d->setObjectForKey(Number::withInt(i), Number::withInt(i));
    auto r = raised([&] {
      for (const Id& key : *d) {
        if (cast<Number>(key)->intValue() != 9) continue;
        for (int i = 0; i < 8; ++i) d->removeObjectForKey(Number::withInt(i));
        d->setObjectForKey(S("new"), S("new"));
      }
    });
    EXPECT_EQ(r.first, "NSGenericException");
  }
}

TEST(Enumeration, ChangesThatEndTheLoopDoNotRaise) {
  {  // Changing and leaving the loop at once is allowed, as on the platform.
    auto m = MutableArray::make({S("a"), S("b"), S("c")});
    auto r = raised([&] {
      for (const Id& x : *m) {
        m->removeObject(x);
        break;
      }
    });
    EXPECT_EQ(r.first, "");
    EXPECT_EQ(m->count(), 2u);
  }
  {  // Shrinking at the last element ends the loop; growing there does not.
    auto m = MutableArray::make({S("a"), S("b")});
    EXPECT_EQ(raised([&] {
                for (const Id& x : *m) {
                  if (x->isEqual(S("b").get())) m->removeLastObject();
                }
              }).first,
              "");
    EXPECT_EQ(raised([&] {
                for (const Id& x : *m) {
                  if (x->isEqual(S("a").get())) m->addObject(S("z"));
                }
              }).first,
              "NSGenericException");
  }
  {  // Loops without changes see every element once, in order.
    auto m = MutableArray::make({S("a"), S("b"), S("c")});
    std::vector<std::string> seen;
    for (const Id& x : *m) seen.push_back(x->description()->utf8());
    EXPECT_THAT(seen, ::testing::ElementsAre("a", "b", "c"));
    std::vector<Id> copied(m->begin(), m->end());
    EXPECT_EQ(copied.size(), 3u);
  }
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

  {  // A change made through the callback raises as in a loop.
    auto m = MutableArray::make({S("a"), S("b")});
    EXPECT_EQ(raised([&] { enumerate(m.get(), [&](const Id&) { m->addObject(S("c")); }); }).first,
              "NSGenericException");
  }
}

}  // namespace
}  // namespace nk
