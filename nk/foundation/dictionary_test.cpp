// Tests of Dictionary and MutableDictionary: key equality across types, key
// copying, insertion order through removals and index growth, a randomized run
// against a reference model, equality and copy semantics.
#include "nk/foundation/dictionary.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "nk/foundation/class.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/raised_test_support_internal.hpp"

namespace nk {
namespace {

Ref<String> S(std::string_view utf8) { return String::fromUTF8(utf8); }

using test_support::raised;

// Every instance hashes alike, so lookups depend on probing and isEqual alone.
class DictionaryTestCollider final : public Object {
  NK_DECLARE_CLASS(DictionaryTestCollider, Object)

 public:
  explicit DictionaryTestCollider(int id) : id_(id) {}
  bool isEqual(const Object* other) const noexcept override {
    const auto* o = cast<DictionaryTestCollider>(other);
    return o && o->id_ == id_;
  }
  size_t hash() const noexcept override { return 7; }
  Id copy() const override { return Id(const_cast<DictionaryTestCollider*>(this)); }

 private:
  int id_;
};
NK_DEFINE_CLASS(DictionaryTestCollider, "DictionaryTestCollider", Class::kCopyable);

// A class without copying, which cannot be a key.
class DictionaryTestPlain final : public Object {
  NK_DECLARE_CLASS(DictionaryTestPlain, Object)
};
NK_DEFINE_CLASS(DictionaryTestPlain, "DictionaryTestPlain");

std::vector<std::string> keyTexts(const Dictionary& d) {
  std::vector<std::string> out;
  for (const Id& key : d) out.push_back(key->description()->utf8());
  return out;
}

TEST(Dictionary, KeysCompareByValueAcrossNumberTypes) {
  auto d = MutableDictionary::make();
  d->setObjectForKey(S("int"), Number::withInt(1));
  // @1, @1.0, @1LL and YES are one key: the value is replaced in place.
  EXPECT_EQ(d->objectForKey(Number::withDouble(1.0))->description()->utf8(), "int");
  d->setObjectForKey(S("double"), Number::withDouble(1.0));
  d->setObjectForKey(S("long long"), Number::withLongLong(1));
  EXPECT_EQ(d->count(), 1u);
  EXPECT_EQ(d->objectForKey(Number::yes())->description()->utf8(), "long long");
  // The first key object stays.
  EXPECT_EQ(cast<Number>(d->allKeys()->objectAtIndex(0))->objCType(), 'i');
  // 1.5 is a different key; absent and nil keys give nil.
  d->setObjectForKey(S("x"), Number::withDouble(1.5));
  EXPECT_EQ(d->count(), 2u);
  EXPECT_EQ(d->objectForKey(Number::withInt(2)), nullptr);
  EXPECT_EQ(d->objectForKey(static_cast<const Object*>(nullptr)), nullptr);
}

TEST(Dictionary, KeysAreCopiedOnInsert) {
  auto key = make<MutableString>(S("alpha").get());
  auto d = MutableDictionary::make();
  d->setObjectForKey(S("v"), key);
  key->appendUTF8("-changed");
  // The stored key is an immutable copy holding the text at insertion time.
  Id stored = d->allKeys()->objectAtIndex(0);
  EXPECT_NE(stored, key);
  EXPECT_FALSE(stored->isKindOfClass(MutableString::staticClass()));
  EXPECT_EQ(stored->description()->utf8(), "alpha");
  EXPECT_EQ(d->objectForKey(S("alpha"))->description()->utf8(), "v");
  EXPECT_EQ(d->objectForKey(key), nullptr);

  // An immutable key is its own copy: no new object.
  auto k = S("beta");
  d->setObjectForKey(S("w"), k);
  EXPECT_EQ(d->allKeys()->objectAtIndex(1), k);
  // A key whose class cannot copy is refused, and nothing changes.
  const uint32_t before = d->mutationCount();
  auto r = raised([&] { d->setObjectForKey(S("v"), make<DictionaryTestPlain>()); });
  EXPECT_EQ(r.first, "NSInvalidArgumentException");
  EXPECT_THAT(r.second, ::testing::HasSubstr("copyWithZone:"));
  EXPECT_EQ(d->count(), 2u);
  EXPECT_EQ(d->mutationCount(), before);
  // Nil objects and keys raise with the platform's texts.
  EXPECT_EQ(raised([&] { d->setObjectForKey(nullptr, S("k")); }),
            std::make_pair(std::string("NSInvalidArgumentException"),
                           std::string("*** -[MutableDictionary setObject:forKey:]: object "
                                       "cannot be nil (key: k)")));
  EXPECT_EQ(raised([&] { d->setObjectForKey(S("v"), static_cast<const Object*>(nullptr)); }).second,
            "*** -[MutableDictionary setObject:forKey:]: key cannot be nil");
  EXPECT_EQ(raised([] {
              (void)Dictionary::make({{S("k"), Id()}});
            }).first,
            "NSInvalidArgumentException");
}

TEST(Dictionary, InsertionOrderIsEnumerationOrder) {
  // Both below and above the size where the hash index takes over.
  for (int n : {5, 8, 9, 100}) {
    SCOPED_TRACE(n);
    auto d = MutableDictionary::make();
    std::vector<std::string> expected;
    for (int i = n - 1; i >= 0; --i) {
      const std::string k = "k" + std::to_string(i);
      d->setObjectForKey(Number::withInt(i), S(k));
      expected.push_back(k);
    }
    // Replacing a value keeps the key's place.
    d->setObjectForKey(S("new"), S("k0"));
    EXPECT_EQ(keyTexts(*d), expected);
    // A removed key that comes back goes to the end.
    d->removeObjectForKey(S("k" + std::to_string(n - 1)));
    d->setObjectForKey(S("again"), S("k" + std::to_string(n - 1)));
    std::rotate(expected.begin(), expected.begin() + 1, expected.end());
    EXPECT_EQ(keyTexts(*d), expected);
    // Keys, values and pairs agree with each other.
    auto keys = d->allKeys();
    auto values = d->allValues();
    size_t i = 0;
    for (const auto& [key, value] : d->entries()) {
      EXPECT_EQ(key, keys->objectAtIndex(i));
      EXPECT_EQ(value, values->objectAtIndex(i));
      EXPECT_EQ(d->objectForKey(key), value);
      ++i;
    }
    EXPECT_EQ(i, d->count());
  }
  // A later pair with an equal key replaces the value in the first pair's place.
  auto d = Dictionary::make({{S("a"), S("1")}, {S("b"), S("2")}, {S("a"), S("3")}});
  EXPECT_THAT(keyTexts(*d), ::testing::ElementsAre("a", "b"));
  EXPECT_EQ(d->objectForKey(S("a"))->description()->utf8(), "3");
}

TEST(Dictionary, CollidingHashesStillFindEveryKey) {
  auto d = MutableDictionary::make();
  for (int i = 0; i < 50; ++i)
    d->setObjectForKey(Number::withInt(i), make<DictionaryTestCollider>(i));
  for (int i = 0; i < 50; i += 2) d->removeObjectForKey(make<DictionaryTestCollider>(i));
  EXPECT_EQ(d->count(), 25u);
  for (int i = 0; i < 60; ++i) {
    const Id& v = d->objectForKey(make<DictionaryTestCollider>(i));
    if (i % 2 == 1 && i < 50) {
      ASSERT_TRUE(v) << i;
      EXPECT_EQ(cast<Number>(v)->intValue(), i);
    } else {
      EXPECT_EQ(v, nullptr) << i;
    }
  }
}

// Random insertions, replacements, removals and lookups, checked against an
// ordered reference after every step; crosses the index threshold both ways
// and forces compactions.
TEST(Dictionary, RandomOperationsMatchReferenceModel) {
  std::mt19937 rng(12345);
  for (int keySpace : {6, 20, 400}) {
    SCOPED_TRACE(keySpace);
    auto d = MutableDictionary::make();
    std::vector<std::pair<int, int>> model;  // insertion order
    const auto modelFind = [&](int k) {
      return std::find_if(model.begin(), model.end(), [&](const auto& p) { return p.first == k; });
    };
    for (int step = 0; step < 4000; ++step) {
      const int k = static_cast<int>(rng() % keySpace);
      const int op = static_cast<int>(rng() % 10);
      // Keys are stored as ints and looked up as doubles half of the time.
      Id key = (step & 1) ? Id(Number::withInt(k)) : Id(Number::withDouble(k));
      if (op < 5) {
        d->setObjectForKey(Number::withInt(step), key);
        auto it = modelFind(k);
        if (it == model.end())
          model.emplace_back(k, step);
        else
          it->second = step;
      } else if (op < 8) {
        d->removeObjectForKey(key);
        auto it = modelFind(k);
        if (it != model.end()) model.erase(it);
      } else if (op < 9) {
        auto it = modelFind(k);
        const Id& v = d->objectForKey(key);
        ASSERT_EQ(it != model.end(), static_cast<bool>(v)) << "step " << step;
        if (v) {
          ASSERT_EQ(cast<Number>(v)->intValue(), it->second);
        }
      } else if (rng() % 50 == 0) {
        d->removeAllObjects();
        model.clear();
      }
      ASSERT_EQ(d->count(), model.size()) << "step " << step;
    }
    size_t i = 0;
    for (const auto& [key, value] : d->entries()) {
      ASSERT_LT(i, model.size());
      EXPECT_EQ(cast<Number>(key)->intValue(), model[i].first);
      EXPECT_EQ(cast<Number>(value)->intValue(), model[i].second);
      ++i;
    }
    EXPECT_EQ(i, model.size());
  }
}

TEST(Dictionary, EqualityAndHash) {
  auto a = Dictionary::make({{S("x"), Number::withInt(1)}, {S("y"), S("b")}});
  auto m = MutableDictionary::make({{S("y"), S("b")}, {S("x"), Number::withDouble(1.0)}});
  // Order does not matter; values compare with isEqual; mutability does not matter.
  EXPECT_TRUE(a->isEqual(m.get()));
  EXPECT_TRUE(m->isEqual(a.get()));
  EXPECT_EQ(a->hash(), m->hash());
  m->setObjectForKey(S("c"), S("y"));
  EXPECT_FALSE(a->isEqual(m.get()));
  m->setObjectForKey(S("b"), S("y"));
  m->setObjectForKey(S("b"), S("z"));
  EXPECT_FALSE(a->isEqual(m.get()));  // same values, one more key
  m->removeObjectForKey(S("z"));
  EXPECT_TRUE(a->isEqual(m.get()));
  EXPECT_FALSE(a->isEqual(Array::make().get()));
  EXPECT_FALSE(a->isEqualToDictionary(nullptr));
  EXPECT_TRUE(Dictionary::make()->isEqual(MutableDictionary::make().get()));
}

TEST(Dictionary, CopySemantics) {
  auto d = Dictionary::make({{S("a"), S("1")}});
  EXPECT_EQ(d->copy(), d);

  auto m = MutableDictionary::make({{S("a"), S("1")}, {S("b"), S("2")}});
  auto snapshot = cast<Dictionary>(m->copy());
  ASSERT_TRUE(snapshot);
  EXPECT_NE(snapshot, m);
  EXPECT_TRUE(snapshot->isMemberOfClass(Dictionary::staticClass()));
  // Shallow: the same value objects.
  EXPECT_EQ(snapshot->objectForKey(S("a")), m->objectForKey(S("a")));
  m->removeObjectForKey(S("a"));
  m->setObjectForKey(S("3"), S("c"));
  EXPECT_THAT(keyTexts(*snapshot), ::testing::ElementsAre("a", "b"));

  auto mc = cast<MutableDictionary>(snapshot->mutableCopy());
  ASSERT_TRUE(mc);
  mc->setObjectForKey(S("9"), S("z"));
  EXPECT_EQ(snapshot->count(), 2u);
  EXPECT_EQ(mc->count(), 3u);
}

TEST(MutableDictionary, BulkChanges) {
  auto m = MutableDictionary::make({{S("a"), S("1")}});
  m->addEntriesFromDictionary(Dictionary::make({{S("b"), S("2")}, {S("a"), S("9")}}).get());
  EXPECT_THAT(keyTexts(*m), ::testing::ElementsAre("a", "b"));
  EXPECT_EQ(m->objectForKey(S("a"))->description()->utf8(), "9");
  // Replacing the content with a dictionary held only as a value of this one.
  m->setObjectForKey(Dictionary::make({{S("inner"), S("v")}}), S("nested"));
  Dictionary* inner = cast<Dictionary>(m->objectForKey(S("nested")).get());
  m->setDictionary(inner);
  EXPECT_THAT(keyTexts(*m), ::testing::ElementsAre("inner"));
}

}  // namespace
}  // namespace nk
