// Tests of the array helpers: map, filter, transform, reverse, flattening, the
// dictionary builders and the class tests.

#include "nk/helpers/array_helpers.hpp"

#include <gtest/gtest.h>

#include <vector>

#include "nk/foundation/exception.hpp"
#include "nk/foundation/number.hpp"

namespace nk {
namespace {

// A key class that does not conform to the copying protocol.
class PlainKey final : public Object {
  NK_DECLARE_CLASS(PlainKey, Object)

 public:
  PlainKey() = default;
};
NK_DEFINE_CLASS(PlainKey, "HelpersTestPlainKey");

// Doubles numbers and drops everything else.
class Doubler final : public ValueTransformer {
  NK_DECLARE_CLASS(Doubler, ValueTransformer)

 public:
  Doubler() = default;
  Id transformedValue(const Id& value) const override {
    const Ref<Number> n = cast<Number>(value);
    return n ? Id(Number::withInt(n->intValue() * 2)) : Id();
  }
};
NK_DEFINE_CLASS(Doubler, "HelpersTestDoubler");

Id N(int v) { return Number::withInt(v); }

Ref<Array> numbers(std::initializer_list<int> values) {
  std::vector<Id> items;
  for (int v : values) items.push_back(N(v));
  return Array::make(std::move(items));
}

std::vector<int> ints(const Ref<Array>& a) {
  std::vector<int> out;
  for (const Id& e : *a) out.push_back(cast<Number>(e)->intValue());
  return out;
}

bool isImmutableArray(const Ref<Array>& a) {
  return a && !a->isKindOfClass(MutableArray::staticClass());
}

// Key: the number's parity; value: the number.
void byParity(Id* key, Id* value, const Id& e) {
  *key = Number::withInt(cast<Number>(e)->intValue() % 2);
  *value = e;
}

TEST(ArrayMap, SkipStopAndCopy) {
  const Ref<Array> a = numbers({1, 2, 3, 4});
  // Absent results are skipped; indices count every element.
  std::vector<size_t> seen;
  const Ref<Array> odd = vnk_map(a.get(), [&](const Id& e, size_t i, bool*) -> Id {
    seen.push_back(i);
    return cast<Number>(e)->intValue() % 2 ? e : Id();
  });
  EXPECT_EQ(ints(odd), (std::vector<int>{1, 3}));
  EXPECT_EQ(seen, (std::vector<size_t>{0, 1, 2, 3}));
  EXPECT_TRUE(isImmutableArray(odd));
  // Stopping keeps the result of the element that set the flag.
  const Ref<Array> head = vnk_map(a.get(), [](const Id& e, size_t i, bool* stop) -> Id {
    *stop = i == 1;
    return e;
  });
  EXPECT_EQ(ints(head), (std::vector<int>{1, 2}));
  // No callable: an immutable copy equal to the receiver, also of a mutable one.
  auto m = MutableArray::make({N(5)});
  const Ref<Array> copy = vnk_map(m.get(), nullptr);
  m->addObject(N(6));
  EXPECT_EQ(ints(copy), (std::vector<int>{5}));
  EXPECT_TRUE(isImmutableArray(copy));
  EXPECT_EQ(vnk_map(nullptr, nullptr), nullptr);
}

TEST(ArrayHelpers, FilterTransformReverseFlatten) {
  const Ref<Array> a = numbers({1, 2, 3, 4});
  // The filter's predicate names what is removed; an empty one raises.
  EXPECT_EQ(
      ints(vnk_filter(a.get(), [](const Id& e) { return cast<Number>(e)->intValue() % 2 == 0; })),
      (std::vector<int>{1, 3}));
  EXPECT_THROW(vnk_filter(a.get(), nullptr), ThrownObject);
  EXPECT_EQ(vnk_filter(nullptr, nullptr), nullptr);
  EXPECT_EQ(vnk_filter(Array::make().get(), nullptr)->count(), 0u);
  EXPECT_EQ(vnk_filter(nullptr, [](const Id&) { return true; }), nullptr);
  // A transformer drops nil results; no transformer or nothing to transform: the receiver.
  const Ref<Array> mixed = Array::make({N(1), NK_STR("x"), N(3)});
  const auto doubler = make<Doubler>();
  EXPECT_EQ(ints(vnk_transform(mixed.get(), doubler.get())), (std::vector<int>{2, 6}));
  EXPECT_EQ(vnk_transform(mixed.get(), nullptr), mixed);
  const Ref<Array> empty = Array::make();
  EXPECT_EQ(vnk_transform(empty.get(), doubler.get()), empty);
  EXPECT_EQ(ints(vnk_reversedArray(numbers({1, 2, 3}).get())), (std::vector<int>{3, 2, 1}));
  EXPECT_TRUE(isImmutableArray(vnk_reversedArray(MutableArray::make({N(1)}).get())));
  // ((1, 2), 3, ((4))) gives (1, 2, (4)); mutable children count as arrays.
  const Ref<Array> inner = numbers({4});
  const Ref<Array> flat = vnk_combineArrayChildren(
      Array::make({numbers({1, 2}), N(3), Array::make({inner}), MutableArray::make({N(5)})}).get());
  EXPECT_TRUE(isEqual(flat, Array::make({N(1), N(2), inner, N(5)})));
  EXPECT_EQ(flat->objectAtIndex(2), Id(inner));
  EXPECT_EQ(vnk_combineArrayChildren(numbers({1, 2}).get())->count(), 0u);
  EXPECT_EQ(vnk_combineArrayChildren(nullptr), nullptr);
}

TEST(ArrayDictionaryBuilders, KeysValuesAndCopying) {
  const Ref<Array> words = Array::make({NK_STR("ax"), NK_STR("b"), NK_STR("ay"), NK_STR("")});
  // Key: first letter; value: the word. The later "a" word wins; "" gives no key.
  const Ref<Dictionary> d = vnk_mapToDict(words.get(), [](Id* key, Id* value, const Id& e) {
    const Ref<String> s = cast<String>(e);
    if (s->isEmpty()) return;
    *key = s->substring(0, 1);
    *value = s;
  });
  ASSERT_EQ(d->count(), 2u);
  EXPECT_TRUE(isEqual(d->objectForKey(NK_STR("a")), Id(NK_STR("ay"))));
  EXPECT_TRUE(isEqual(d->objectForKey(NK_STR("b")), Id(NK_STR("b"))));
  EXPECT_FALSE(d->isKindOfClass(MutableDictionary::staticClass()));

  // A key that is not copyable is skipped, as is a missing value.
  const auto plain = make<PlainKey>();
  const Ref<Dictionary> skipped =
      vnk_mapToDict(numbers({1, 2, 3}).get(), [&](Id* key, Id* value, const Id& e) {
        const int n = cast<Number>(e)->intValue();
        *key = n == 1 ? Id(plain) : e;
        if (n != 3) *value = e;
      });
  ASSERT_EQ(skipped->count(), 1u);
  EXPECT_TRUE(isEqual(skipped->objectForKey(N(2)), N(2)));

  // No key-value callable: an empty dictionary.
  EXPECT_EQ(vnk_mapToDict(words.get(), nullptr)->count(), 0u);
  EXPECT_EQ(vnk_mapToDict(nullptr, [](Id*, Id*, const Id&) {}), nullptr);

  // With an internal map: what it returns is stored (here a sum per key), nil removes the key.
  const Ref<Array> a = numbers({1, 2, 3, 4});
  const Ref<Dictionary> sums = vnk_mapToDictInternalMap(
      a.get(), byParity, [](MutableDictionary* d, const Id& key, const Id& value) -> Id {
        const Ref<Number> old = cast<Number>(d->objectForKey(key));
        return Number::withInt((old ? old->intValue() : 0) + cast<Number>(value)->intValue());
      });
  EXPECT_TRUE(isEqual(sums->objectForKey(N(1)), N(4)));
  EXPECT_TRUE(isEqual(sums->objectForKey(N(0)), N(6)));
  const Ref<Dictionary> removed = vnk_mapToDictInternalMap(
      a.get(), byParity, [](MutableDictionary* d, const Id& key, const Id& value) -> Id {
        return d->objectForKey(key) ? Id() : value;
      });
  EXPECT_EQ(removed->count(), 0u);
  EXPECT_THROW(vnk_mapToDictInternalMap(a.get(), byParity, nullptr), ThrownObject);

  // The multi-map groups every value under its key, in element order.
  const Ref<MutableDictionary> groups = vnk_multiMap(numbers({1, 2, 3}).get(), byParity);
  ASSERT_TRUE(groups);
  EXPECT_TRUE(cast<MutableArray>(groups->objectForKey(N(1))));
  EXPECT_TRUE(isEqual(groups->objectForKey(N(1)), numbers({1, 3})));
  EXPECT_TRUE(isEqual(groups->objectForKey(N(0)), numbers({2})));
  EXPECT_EQ(vnk_multiMap(a.get(), nullptr)->count(), 0u);
}

TEST(ArrayByClass, ExactClassNames) {
  const Ref<String> made = String::fromUTF8("made");
  const auto mutableString = make<MutableString>(NK_STR("m"));
  const Ref<Array> a = Array::make({NK_STR("lit"), made, N(1), NK_STR("lit2"), mutableString});
  const Ref<Dictionary> groups = vnk_toDictionaryByClass(a.get());
  // Constant, heap and mutable strings and a number: four exact classes.
  ASSERT_EQ(groups->count(), 4u);
  const Ref<String> constantName = String::fromUTF8(NK_STR("x")->objectClass().name());
  const Ref<MutableArray> constants = cast<MutableArray>(groups->objectForKey(constantName));
  ASSERT_TRUE(constants);
  EXPECT_TRUE(constants->isEqual(Array::make({NK_STR("lit"), NK_STR("lit2")}).get()));
  const Ref<String> stringName = String::fromUTF8(made->objectClass().name());
  EXPECT_TRUE(isEqual(groups->objectForKey(stringName), Array::make({made})));
  EXPECT_FALSE(groups->isKindOfClass(MutableDictionary::staticClass()));
}

TEST(ArrayClassTests, MemberAndKind) {
  const Ref<Array> empty = Array::make();
  const Ref<Array> one = Array::make({N(1)});
  const Ref<Array> arrays = Array::make({Array::make(), MutableArray::make()});
  // Same class: fewer than two elements always; a subclass breaks it.
  EXPECT_TRUE(vnk_areAllObjectsAreOfSameClass(one.get()));
  EXPECT_TRUE(vnk_areAllObjectsAreOfSameClass(Array::make({N(1), N(2)}).get()));
  EXPECT_FALSE(vnk_areAllObjectsAreOfSameClass(arrays.get()));
  // Member tests fail for subclasses; kind tests accept them; both hold when empty.
  EXPECT_FALSE(vnk_areAllObjectsOfThisClass(arrays.get(), Array::staticClass()));
  EXPECT_TRUE(vnk_areAllObjectsOfThisKind(arrays.get(), Array::staticClass()));
  EXPECT_FALSE(vnk_areAllObjectsOfThisKind(one.get(), Array::staticClass()));
  EXPECT_TRUE(vnk_areAllObjectsOfThisClass(empty.get(), Array::staticClass()));
  EXPECT_TRUE(vnk_areAllObjectsOfThisKind(empty.get(), Array::staticClass()));
  EXPECT_TRUE(vnk_isAnyObjectOfThisKind(Array::make({N(1), MutableArray::make()}).get(),
                                        Array::staticClass()));
  EXPECT_FALSE(vnk_isAnyObjectOfThisKind(one.get(), Array::staticClass()));
  // Nil receivers answer false.
  EXPECT_FALSE(vnk_areAllObjectsAreOfSameClass(nullptr));
  EXPECT_FALSE(vnk_areAllObjectsOfThisKind(nullptr, Object::staticClass()));
}

}  // namespace
}  // namespace nk
