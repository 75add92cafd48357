// Tests of Array and MutableArray: access, search by equality, changes, the
// platform's exception texts, equality and copy semantics.
#include "nk/foundation/array.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "nk/foundation/class.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/raised_test_support_internal.hpp"

namespace nk {
namespace {

Ref<String> S(const char* utf8) { return String::fromUTF8(utf8); }

using test_support::raised;

// Counts its destructions, to see that collections release what they drop.
class ArrayTestTracked final : public Object {
  NK_DECLARE_CLASS(ArrayTestTracked, Object)

 public:
  explicit ArrayTestTracked(int* deaths) : deaths_(deaths) {}
  ~ArrayTestTracked() override { ++*deaths_; }

 private:
  int* deaths_;
};
NK_DEFINE_CLASS(ArrayTestTracked, "ArrayTestTracked");

std::vector<std::string> texts(const Array& array) {
  std::vector<std::string> out;
  for (const Id& x : array) out.push_back(x->description()->utf8());
  return out;
}

TEST(Array, AccessAndBounds) {
  auto a = Array::make({S("x"), S("y")});
  EXPECT_EQ(a->count(), 2u);
  EXPECT_EQ(a->objectAtIndex(1)->description()->utf8(), "y");
  EXPECT_EQ(a->firstObject()->description()->utf8(), "x");
  EXPECT_EQ(a->lastObject()->description()->utf8(), "y");

  // Past the end raises with the platform's wording and the real bounds.
  EXPECT_EQ(
      raised([&] { (void)a->objectAtIndex(3); }),
      std::make_pair(std::string("NSRangeException"),
                     std::string("*** -[Array objectAtIndex:]: index 3 beyond bounds [0 .. 1]")));
  // Empty arrays say so, and first/last are nil rather than raising.
  auto empty = MutableArray::make();
  EXPECT_EQ(raised([&] { (void)(*empty)[0]; }).second,
            "*** -[MutableArray objectAtIndex:]: index 0 beyond bounds for empty array");
  EXPECT_EQ(empty->firstObject(), nullptr);
  EXPECT_EQ(empty->lastObject(), nullptr);
  // Nil elements are refused at construction, naming the position.
  auto r = raised([] { (void)Array::make({S("a"), Id()}); });
  EXPECT_EQ(r.first, "NSInvalidArgumentException");
  EXPECT_THAT(r.second, ::testing::HasSubstr("attempt to insert nil object from objects[1]"));
  // Subranges are checked against the end.
  EXPECT_THAT(texts(*a->subarray(1, 1)), ::testing::ElementsAre("y"));
  EXPECT_EQ(a->subarray(2, 0)->count(), 0u);
  EXPECT_EQ(raised([&] { (void)a->subarray(1, 2); }).first, "NSRangeException");
  EXPECT_EQ(raised([&] { (void)a->subarray(3, 0); }).first, "NSRangeException");
}

TEST(Array, SearchUsesEquality) {
  auto a = Array::make({S("a"), Number::withInt(1), S("b"), S("a")});
  // Equal but distinct objects are found; numbers compare by value across types.
  EXPECT_TRUE(a->containsObject(S("b")));
  EXPECT_EQ(a->indexOfObject(S("a")), 0u);
  EXPECT_EQ(a->indexOfObject(Number::withDouble(1.0)), 1u);
  EXPECT_EQ(a->indexOfObject(S("zz")), kNotFound);
  EXPECT_EQ(a->indexOfObject(static_cast<const Object*>(nullptr)), kNotFound);
}

TEST(MutableArray, Changes) {
  auto m = MutableArray::make();
  m->addObject(S("b"));
  m->insertObjectAtIndex(S("a"), 0);
  m->insertObjectAtIndex(S("d"), 2);  // at the end is allowed
  m->insertObjectAtIndex(S("c"), 2);
  EXPECT_THAT(texts(*m), ::testing::ElementsAre("a", "b", "c", "d"));

  m->replaceObjectAtIndexWithObject(1, S("B"));
  m->exchangeObjectAtIndexWithObjectAtIndex(0, 3);
  EXPECT_THAT(texts(*m), ::testing::ElementsAre("d", "B", "c", "a"));

  m->removeObjectAtIndex(1);
  m->removeLastObject();
  EXPECT_THAT(texts(*m), ::testing::ElementsAre("d", "c"));

  // removeObject drops every equal element, keeping the others in order.
  m->addObjectsFromArray(Array::make({S("c"), S("e"), S("c")}).get());
  m->removeObject(S("c"));
  EXPECT_THAT(texts(*m), ::testing::ElementsAre("d", "e"));
  // Appending an array to itself doubles it rather than looping.
  m->addObjectsFromArray(m.get());
  EXPECT_THAT(texts(*m), ::testing::ElementsAre("d", "e", "d", "e"));
  // Misuse raises and leaves the content alone.
  EXPECT_EQ(raised([&] { m->addObject(nullptr); }),
            std::make_pair(std::string("NSInvalidArgumentException"),
                           std::string("*** -[MutableArray insertObject:atIndex:]: object "
                                       "cannot be nil")));
  EXPECT_EQ(raised([&] { m->insertObjectAtIndex(S("x"), 5); }).second,
            "*** -[MutableArray insertObject:atIndex:]: index 5 beyond bounds [0 .. 3]");
  EXPECT_EQ(raised([&] { m->replaceObjectAtIndexWithObject(4, S("x")); }).first,
            "NSRangeException");
  EXPECT_EQ(raised([&] { m->replaceObjectAtIndexWithObject(0, nullptr); }).first,
            "NSInvalidArgumentException");
  EXPECT_EQ(raised([&] { m->removeObjectAtIndex(4); }).first, "NSRangeException");
  EXPECT_THAT(texts(*m), ::testing::ElementsAre("d", "e", "d", "e"));
  m->removeAllObjects();
  EXPECT_TRUE(m->isEmpty());
  EXPECT_EQ(raised([&] { m->removeLastObject(); }).first, "NSRangeException");
  m->setArray(Array::make({S("z")}).get());
  EXPECT_THAT(texts(*m), ::testing::ElementsAre("z"));
}

TEST(MutableArray, ReleasesWhatItDrops) {
  int deaths = 0;
  auto m = MutableArray::make();
  for (int i = 0; i < 4; ++i) m->addObject(make<ArrayTestTracked>(&deaths));
  m->removeObjectAtIndex(0);
  EXPECT_EQ(deaths, 1);
  m->replaceObjectAtIndexWithObject(0, S("x"));
  EXPECT_EQ(deaths, 2);
  // The only reference may be the array's own: removing must not touch it after.
  Id last = m->lastObject();
  Object* raw = last.get();
  last = nullptr;
  m->removeObject(raw);
  EXPECT_EQ(deaths, 3);
  m->addObject(make<ArrayTestTracked>(&deaths));
  m->removeAllObjects();
  EXPECT_EQ(deaths, 5);
}

TEST(Array, EqualityAndHash) {
  auto a = Array::make({S("a"), Number::withInt(2)});
  auto m = MutableArray::make({S("a"), Number::withDouble(2.0)});
  // Mutable and immutable with equal elements are equal both ways, hash alike.
  EXPECT_TRUE(a->isEqual(m.get()));
  EXPECT_TRUE(m->isEqual(a.get()));
  EXPECT_EQ(a->hash(), m->hash());
  // Order, length and nesting matter.
  EXPECT_FALSE(a->isEqual(Array::make({Number::withInt(2), S("a")}).get()));
  EXPECT_FALSE(a->isEqual(Array::make({S("a")}).get()));
  EXPECT_TRUE(Array::make({a, S("x")})->isEqual(Array::make({m, S("x")}).get()));
  EXPECT_FALSE(a->isEqual(S("a").get()));
  EXPECT_FALSE(a->isEqualToArray(nullptr));
}

TEST(Array, CopySemantics) {
  auto a = Array::make({S("a")});
  // An immutable array is its own copy.
  EXPECT_EQ(a->copy(), a);

  auto m = MutableArray::make({S("a"), S("b")});
  Id snapshot = m->copy();
  // A mutable array's copy is a distinct immutable snapshot of the same elements.
  ASSERT_NE(snapshot, m);
  EXPECT_TRUE(snapshot->isMemberOfClass(Array::staticClass()));
  EXPECT_EQ(cast<Array>(snapshot)->objectAtIndex(0), m->objectAtIndex(0));
  m->addObject(S("c"));
  m->removeObjectAtIndex(0);
  EXPECT_THAT(texts(*cast<Array>(snapshot)), ::testing::ElementsAre("a", "b"));

  // mutableCopy is a new MutableArray, independent of its source but shallow.
  auto mc = cast<MutableArray>(a->mutableCopy());
  ASSERT_TRUE(mc);
  mc->addObject(S("z"));
  EXPECT_EQ(a->count(), 1u);
  EXPECT_EQ(mc->objectAtIndex(0), a->objectAtIndex(0));
}

}  // namespace
}  // namespace nk
