// Tests of Set and MutableSet: membership by equality, which member stays,
// set algebra, equality and copy semantics.
#include "nk/foundation/set.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "nk/foundation/exception.hpp"
#include "nk/foundation/number.hpp"

namespace nk {
namespace {

Ref<String> S(const char* utf8) { return String::fromUTF8(utf8); }

std::vector<std::string> texts(const Set& set) {
  std::vector<std::string> out;
  for (const Id& x : set) out.push_back(x->description()->utf8());
  return out;
}

TEST(Set, MembershipByEquality) {
  auto first = Number::withInt(1);
  auto s = Set::make({first, S("a"), Number::withDouble(1.0), S("b"), S("a")});
  // Equal objects collapse into the first one added, across number types.
  EXPECT_EQ(s->count(), 3u);
  EXPECT_EQ(s->member(Number::withLongLong(1)), first);
  EXPECT_TRUE(s->containsObject(S("b")));
  EXPECT_FALSE(s->containsObject(S("c")));
  EXPECT_FALSE(s->containsObject(static_cast<const Object*>(nullptr)));
  EXPECT_EQ(s->member(S("c")), nullptr);
  EXPECT_EQ(s->anyObject(), first);
  EXPECT_EQ(Set::make()->anyObject(), nullptr);
  EXPECT_THAT(texts(*s), ::testing::ElementsAre("1", "a", "b"));
  EXPECT_EQ(s->allObjects()->count(), 3u);
  EXPECT_EQ(Set::withArray(Array::make({S("x"), S("x")}).get())->count(), 1u);
  EXPECT_THROW((void)Set::make({S("x"), Id()}), ThrownObject);
}

TEST(MutableSet, ChangesAndAlgebra) {
  auto m = MutableSet::make();
  for (int i = 0; i < 30; ++i) m->addObject(Number::withInt(i % 20));
  EXPECT_EQ(m->count(), 20u);
  for (int i = 0; i < 20; i += 2) m->removeObject(Number::withDouble(i));
  EXPECT_EQ(m->count(), 10u);
  EXPECT_FALSE(m->containsObject(Number::withInt(4)));
  EXPECT_TRUE(m->containsObject(Number::withInt(5)));
  // A removed member that comes back goes to the end of the order.
  m->addObject(Number::withInt(4));
  EXPECT_EQ(texts(*m).back(), "4");
  EXPECT_THROW(m->addObject(nullptr), ThrownObject);

  auto ab = Set::make({S("a"), S("b")});
  auto bc = Set::make({S("b"), S("c")});
  auto u = MutableSet::withSet(ab.get());
  u->unionSet(bc.get());
  EXPECT_THAT(texts(*u), ::testing::ElementsAre("a", "b", "c"));
  u->minusSet(ab.get());
  EXPECT_THAT(texts(*u), ::testing::ElementsAre("c"));
  auto i = MutableSet::withSet(ab.get());
  i->intersectSet(bc.get());
  EXPECT_THAT(texts(*i), ::testing::ElementsAre("b"));
  i->intersectSet(nullptr);
  EXPECT_TRUE(i->isEmpty());
  auto x = MutableSet::withSet(ab.get());
  x->minusSet(x.get());
  EXPECT_TRUE(x->isEmpty());
  x->setSet(bc.get());
  EXPECT_TRUE(x->isEqual(bc.get()));
  EXPECT_TRUE(Set::make({S("b")})->isSubsetOfSet(ab.get()));
  EXPECT_FALSE(bc->isSubsetOfSet(ab.get()));
  EXPECT_TRUE(ab->intersectsSet(bc.get()));
  EXPECT_FALSE(ab->intersectsSet(Set::make({S("z")}).get()));
}

TEST(Set, EqualityHashAndCopies) {
  auto s = Set::make({S("a"), Number::withInt(2)});
  auto m = MutableSet::make({Number::withDouble(2.0), S("a")});
  EXPECT_TRUE(s->isEqual(m.get()));
  EXPECT_TRUE(m->isEqual(s.get()));
  EXPECT_EQ(s->hash(), m->hash());
  EXPECT_FALSE(s->isEqual(Set::make({S("a"), S("b")}).get()));
  EXPECT_FALSE(s->isEqual(Array::make({S("a"), Number::withInt(2)}).get()));

  EXPECT_EQ(s->copy(), s);
  auto snapshot = cast<Set>(m->copy());
  ASSERT_TRUE(snapshot);
  EXPECT_NE(snapshot, m);
  EXPECT_TRUE(snapshot->isMemberOfClass(Set::staticClass()));
  m->addObject(S("new"));
  EXPECT_EQ(snapshot->count(), 2u);
  auto mc = cast<MutableSet>(s->mutableCopy());
  ASSERT_TRUE(mc);
  mc->removeObject(S("a"));
  EXPECT_EQ(s->count(), 2u);
  EXPECT_EQ(mc->count(), 1u);
}

}  // namespace
}  // namespace nk
