// Tests of Error: the platform's description and fallback texts, equality,
// copying of user information, and associated objects' lifetime.
#include "nk/foundation/error.hpp"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "nk/foundation/class.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/number.hpp"

namespace nk {
namespace {

Ref<String> S(const char* utf8) { return String::fromUTF8(utf8); }

// Records, when it dies, the code of the error it is attached to.
class ErrorTestWitness final : public Object {
  NK_DECLARE_CLASS(ErrorTestWitness, Object)

 public:
  ErrorTestWitness(const Error* error, long* seenCode) : error_(error), seenCode_(seenCode) {}
  ~ErrorTestWitness() override { *seenCode_ = error_ ? error_->code() : -1; }

 private:
  const Error* error_;
  long* seenCode_;
};
NK_DEFINE_CLASS(ErrorTestWitness, "ErrorTestWitness");

TEST(Error, Texts) {
  const std::string couldNot = "The operation couldn\u2019t be completed. ";
  // Each error, its localized description and its description.
  const std::tuple<Ref<Error>, std::string, std::string> rows[] = {
      // Without a localized description: the platform's fallback, curly apostrophe;
      // empty user information prints like none.
      {Error::make(S("MyDomain"), -5), couldNot + "(MyDomain error -5.)",
       "Error Domain=MyDomain Code=-5 \"" + couldNot + "(MyDomain error -5.)\""},
      {Error::make("MyDomain", -5, Dictionary::make()), couldNot + "(MyDomain error -5.)",
       "Error Domain=MyDomain Code=-5 \"" + couldNot + "(MyDomain error -5.)\""},
      // With one: it is quoted, and the user information follows.
      {Error::make(S("D"), 3, Dictionary::make({{kLocalizedDescriptionKey(), S("Disk full")}})),
       "Disk full",
       "Error Domain=D Code=3 \"Disk full\" UserInfo={\n    NSLocalizedDescription = \"Disk "
       "full\";\n}"},
      // A localized description that is not a string is ignored.
      {Error::make(S("D"), 1, Dictionary::make({{kLocalizedDescriptionKey(), Number::withInt(7)}})),
       couldNot + "(D error 1.)",
       "Error Domain=D Code=1 \"" + couldNot +
           "(D error 1.)\" UserInfo={\n"
           "    NSLocalizedDescription = 7;\n}"},
  };
  for (const auto& [error, localized, description] : rows) {
    EXPECT_EQ(error->localizedDescription()->utf8(), localized);
    EXPECT_EQ(error->description()->utf8(), description);
  }
  // The underlying error is found under its key, and only when it is an error.
  auto inner = Error::make(S("Inner"), 2);
  auto outer = Error::make(S("Outer"), 1, Dictionary::make({{kUnderlyingErrorKey(), inner}}));
  EXPECT_EQ(outer->underlyingError(), inner);
  EXPECT_EQ(inner->underlyingError(), nullptr);
  EXPECT_EQ(kUnderlyingErrorKey()->utf8(), "NSUnderlyingError");
  EXPECT_THROW((void)Error::make(Ref<String>(), 1), ThrownObject);
}

TEST(Error, EqualityAndCopies) {
  auto info = MutableDictionary::make({{S("k"), S("v")}});
  auto e = Error::make(S("D"), 1, info);
  // The user information is copied: later changes to the original do not show.
  info->setObjectForKey(S("w"), S("k"));
  EXPECT_EQ(e->userInfo()->objectForKey(S("k"))->description()->utf8(), "v");
  EXPECT_FALSE(e->userInfo()->isKindOfClass(MutableDictionary::staticClass()));
  // Errors are immutable: copy is identity.
  EXPECT_EQ(e->copy(), e);
  // Equal domain, code and user information make equal errors with equal hashes.
  auto same = Error::make(S("D"), 1, Dictionary::make({{S("k"), S("v")}}));
  EXPECT_TRUE(e->isEqual(same.get()));
  EXPECT_EQ(e->hash(), same->hash());
  EXPECT_FALSE(e->isEqual(Error::make(S("D"), 2, same->userInfo()).get()));
  EXPECT_FALSE(e->isEqual(Error::make(S("E"), 1, same->userInfo()).get()));
  EXPECT_FALSE(e->isEqual(Error::make(S("D"), 1).get()));
  // Nil and empty user information are the same.
  EXPECT_TRUE(Error::make(S("D"), 1)->isEqual(Error::make(S("D"), 1, Dictionary::make()).get()));
  // Errors work as dictionary keys.
  auto d = MutableDictionary::make();
  d->setObjectForKey(S("x"), e);
  EXPECT_EQ(d->objectForKey(same)->description()->utf8(), "x");
}

TEST(Error, AssociatedObjects) {
  static const char kKeyA = 0;
  static const char kKeyB = 0;
  long seenCode = 0;
  {
    auto e = Error::make(S("D"), 42);
    EXPECT_EQ(e->associatedObject(&kKeyA), nullptr);
    e->setAssociatedObject(&kKeyA, S("a"));
    e->setAssociatedObject(&kKeyB, S("b"));
    e->setAssociatedObject(&kKeyA, S("a2"));
    EXPECT_EQ(e->associatedObject(&kKeyA)->description()->utf8(), "a2");
    EXPECT_EQ(e->associatedObject(&kKeyB)->description()->utf8(), "b");
    e->setAssociatedObject(&kKeyB, nullptr);
    EXPECT_EQ(e->associatedObject(&kKeyB), nullptr);
    // Associated objects do not take part in equality.
    EXPECT_TRUE(e->isEqual(Error::make(S("D"), 42).get()));
    // The value dies with the error, while the error can still be read.
    e->setAssociatedObject(&kKeyB, make<ErrorTestWitness>(e.get(), &seenCode));
    EXPECT_EQ(seenCode, 0);
  }
  EXPECT_EQ(seenCode, 42);
  // Replacing a value releases the old one.
  auto replaced = Error::make(S("D"), 7);
  seenCode = 0;
  replaced->setAssociatedObject(&kKeyA, make<ErrorTestWitness>(replaced.get(), &seenCode));
  replaced->setAssociatedObject(&kKeyA, S("other"));
  EXPECT_EQ(seenCode, 7);
  // Threads attaching and reading under distinct keys do not lose entries.
  auto e = Error::make(S("D"), 1);
  static char keys[8];
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        e->setAssociatedObject(&keys[t], Number::withInt(i));
        (void)e->associatedObject(&keys[(t + 1) % 8]);
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < 8; ++t) {
    auto n = cast<Number>(e->associatedObject(&keys[t]));
    ASSERT_TRUE(n);
    EXPECT_EQ(n->intValue(), 199);
  }
}

}  // namespace
}  // namespace nk
