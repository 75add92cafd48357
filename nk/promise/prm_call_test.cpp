// Tests of handler invocation: every parameter count and return kind, spreading,
// the unsupported forms and what thrown objects become.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/number.hpp"
#include "nk/promise/prm_call.hpp"
#include "nk/promise/prm_error.hpp"
#include "nk/promise/promise_test_support_internal.hpp"

namespace nk {
namespace {

using namespace promise_test;

const char* kCountReason =
    "Migriornop: The provided block\xE2\x80\x99s argument count is unsupported.";
const char* kSignatureReason =
    "Migriornop: Unsupported method signature\xE2\x80\xA6 Why not fork and fix?";

// Checks `result` is the code-1 error of a failed call whose underlying exception has
// `name` and whose description is `reason`.
void expectCallError(const Id& result, const std::string& name, const std::string& reason) {
  auto* e = cast<Error>(result.get());
  ASSERT_NE(e, nullptr) << "not an error";
  EXPECT_TRUE(e->domain()->isEqual(PRMErrorDomain()));
  EXPECT_EQ(e->code(), 1);
  EXPECT_EQ(e->localizedDescription()->utf8(), reason);
  auto* thrown = cast<Exception>(e->userInfo()->objectForKey(PRMUnderlyingExceptionKey()).get());
  ASSERT_NE(thrown, nullptr);
  EXPECT_EQ(thrown->name()->utf8(), name);
  EXPECT_EQ(thrown->reason()->utf8(), reason);
}

void expectNumber(const Id& result, char code, double value) {
  auto* n = cast<Number>(result.get());
  ASSERT_NE(n, nullptr);
  EXPECT_EQ(n->objCType(), code);
  EXPECT_EQ(n->doubleValue(), value);
}

long plainFunction(Id) { return 9; }

// What a handler of N object parameters receives for `value` (empty if it is not called).
using Ids = std::vector<Id>;
template <int N>
Ids received(const Id& value) {
  Ids seen;
  if constexpr (N == 1) prm_safely_call_block([&](Id x) { seen = {x}; }, value);
  if constexpr (N == 2) prm_safely_call_block([&](Id x, Id y) { seen = {x, y}; }, value);
  if constexpr (N == 3) prm_safely_call_block([&](Id x, Id y, Id z) { seen = {x, y, z}; }, value);
  return seen;
}

TEST(HandlerForms, ParametersAndSpreading) {
  Ref<String> a = NK_STR("a"), b = NK_STR("b"), c = NK_STR("c");
  auto three = PRMArrayWithCount(3, a, b, c);
  {  // no parameters: runs, the value is dropped
    int calls = 0;
    Id r = prm_safely_call_block([&] { ++calls; }, a);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(r.get(), PRMNull());
  }
  // A spread list gives its elements in order; any other value comes first, then nils.
  EXPECT_EQ(received<1>(three), (Ids{a}));
  EXPECT_EQ(received<1>(b), (Ids{b}));
  EXPECT_EQ(received<2>(three), (Ids{a, b}));
  EXPECT_EQ(received<2>(c), (Ids{c, nullptr}));
  EXPECT_EQ(received<3>(three), (Ids{a, b, c}));
  EXPECT_EQ(received<3>(a), (Ids{a, nullptr, nullptr}));
  // A spread list shorter than the parameters leaves the rest nil.
  EXPECT_EQ(received<2>(PRMArrayWithCount(1, b)), (Ids{b, nullptr}));
  // A plain Array is a value, not a list to spread.
  auto plain = Array::make({a, b});
  EXPECT_EQ(received<2>(plain), (Ids{plain, nullptr}));
  // The marker arrives as nil; an equal string of another identity arrives as itself.
  EXPECT_EQ(received<1>(Id(PRMNull())), (Ids{nullptr}));
  Ref<String> lookalike = String::fromUTF8("PRMNull");
  EXPECT_EQ(received<1>(lookalike), (Ids{lookalike}));
}

TEST(HandlerForms, NarrowParameterTypes) {
  Ref<String> text = NK_STR("t");
  auto number = Number::withInt(3);
  // A Ref<String> parameter receives a string as itself and any other class as nil.
  Ref<String> seen;
  prm_safely_call_block([&](Ref<String> s) { seen = s; }, text);
  EXPECT_EQ(seen, text);
  bool called = false;
  Id r = prm_safely_call_block([&](const Ref<String>& s) { seen = s, called = true; }, number);
  EXPECT_TRUE(called);
  EXPECT_EQ(seen, nullptr);
  EXPECT_EQ(r.get(), PRMNull());
  // Raw object pointers follow the same rule; subclasses pass (Boolean is a Number).
  const Number* n = nullptr;
  prm_safely_call_block([&](const Number* x) { n = x; }, Id(Number::yes()));
  EXPECT_EQ(n, Number::yes());
  prm_safely_call_block([&](const Number* x) { n = x; }, text);
  EXPECT_EQ(n, nullptr);
  // Spread elements are converted one by one.
  Ref<Number> m;
  prm_safely_call_block([&](Ref<String> x, Ref<Number> y) { seen = x, m = y; },
                        PRMArrayWithCount(2, text, number));
  EXPECT_EQ(seen, text);
  EXPECT_EQ(m, number);
}

TEST(HandlerForms, CallableKinds) {
  // Function pointers, std::function, generic and mutable lambdas are all handlers.
  expectNumber(prm_safely_call_block(&plainFunction, nullptr), 'l', 9);
  std::function<int(Id)> f = [](Id x) { return x ? 1 : 2; };
  expectNumber(prm_safely_call_block(f, nullptr), 'i', 2);
  Id seen;
  prm_safely_call_block([&](auto x, auto y) { seen = y ? y : x; },
                        PRMArrayWithCount(2, nullptr, Id(PRMNull())));
  EXPECT_EQ(seen.get(), PRMNull());
  int counter = 0;
  auto counting = [counter]() mutable { return ++counter; };
  expectNumber(prm_safely_call_block(counting, nullptr), 'i', 1);
  expectNumber(prm_safely_call_block(counting, nullptr), 'i', 2);
}

TEST(HandlerForms, ReturnKindsAreBoxedWithTheirTypeCodes) {
  // Nothing, a nil object, a null text pointer and void* all give the marker.
  static int target = 0;
  for (const Id& r : {prm_safely_call_block([] {}, nullptr),
                      prm_safely_call_block([]() -> Id { return nullptr; }, nullptr),
                      prm_safely_call_block([]() -> Ref<String> { return nullptr; }, nullptr),
                      prm_safely_call_block([]() -> const char* { return nullptr; }, nullptr),
                      prm_safely_call_block([]() -> void* { return &target; }, nullptr)}) {
    EXPECT_EQ(r.get(), PRMNull());
  }
  // Objects come back as themselves; text as a string.
  auto n = Number::withInt(1);
  EXPECT_EQ(prm_safely_call_block([&] { return n; }, nullptr), n);
  Id text = prm_safely_call_block([] { return "h\xC3\xA9"; }, nullptr);
  auto* s = cast<String>(text.get());
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->utf8(), "h\xC3\xA9");
  // Every arithmetic type keeps its code.
  auto boxed = [](auto v) { return prm_safely_call_block([v] { return v; }, nullptr); };
  expectNumber(boxed('A'), 'c', 65);
  expectNumber(boxed(static_cast<signed char>(-3)), 'c', -3);
  expectNumber(boxed(static_cast<unsigned char>(200)), 'C', 200);
  expectNumber(boxed(static_cast<short>(-300)), 's', -300);
  expectNumber(boxed(static_cast<unsigned short>(60000)), 'S', 60000);
  expectNumber(boxed(-70000), 'i', -70000);
  expectNumber(boxed(4000000000u), 'I', 4000000000.0);
  expectNumber(boxed(-5L), 'l', -5);
  expectNumber(boxed(5UL), 'L', 5);
  expectNumber(boxed(-6LL), 'q', -6);
  expectNumber(boxed(6ULL), 'Q', 6);
  expectNumber(boxed(0.5f), 'f', 0.5);
  expectNumber(boxed(0.25), 'd', 0.25);
  Id yes = prm_safely_call_block([] { return true; }, nullptr);
  EXPECT_EQ(yes.get(), Number::yes());
  expectNumber(yes, 'B', 1);
}

TEST(HandlerForms, UnsupportedFormsFailWhenCalled) {
  bool called = false;
  static int target = 0;
  auto count = [](const Id& r) { expectCallError(r, "NSInvalidArgumentException", kCountReason); };
  auto signature = [](const Id& r) { expectCallError(r, "Migriornop", kSignatureReason); };
  // Four parameters: the count error, and the handler is not called.
  count(prm_safely_call_block([&](Id, Id, Id, Id) { called = true; }, nullptr));
  // Return types outside the table: the signature error.
  signature(prm_safely_call_block([&]() -> int* { return called = true, &target; }, nullptr));
  signature(
      prm_safely_call_block([&]() -> const void* { return called = true, &target; }, nullptr));
  signature(prm_safely_call_block([&] { return called = true, std::string("x"); }, nullptr));
  // The return type is judged before the count.
  signature(
      prm_safely_call_block([&](Id, Id, Id, Id) { return called = true, std::string(); }, nullptr));
  // A parameter that cannot hold an object.
  signature(prm_safely_call_block([&](int) { called = true; }, nullptr));
  EXPECT_FALSE(called);
}

TEST(HandlerForms, ThrownObjectsBecomeErrors) {
  // An Exception: its reason is the description.
  expectCallError(
      prm_safely_call_block([]() -> Id { Exception::raise("Boom", "it broke"); }, nullptr), "Boom",
      "it broke");
  // A plain string: the description is the string, the string is kept. A thrown error
  // is wrapped, not passed through.
  Ref<String> s = String::fromUTF8("plain text");
  auto inner = Error::make(NK_STR("Inner"), 5);
  const struct {
    Id thrown;
    String* key;
    const char* text;  // empty: not checked
  } rows[] = {{s, PRMThrown(), "plain text"}, {inner, PRMUnderlyingExceptionKey(), ""}};
  for (const auto& row : rows) {
    Id r = prm_safely_call_block([&] { raise(row.thrown); }, nullptr);
    auto* e = cast<Error>(r.get());
    ASSERT_NE(e, nullptr) << row.key->utf8();
    EXPECT_NE(Id(e), row.thrown);
    EXPECT_EQ(e->code(), 1);
    EXPECT_EQ(e->userInfo()->objectForKey(row.key), row.thrown);
    if (*row.text) {
      EXPECT_EQ(e->localizedDescription()->utf8(), row.text);
    }
  }
  // A returned error is returned as it is.
  EXPECT_EQ(prm_safely_call_block([&] { return inner; }, nullptr), inner);
  // Other C++ exceptions pass through.
  EXPECT_THROW(prm_safely_call_block([] { throw std::runtime_error("x"); }, nullptr),
               std::runtime_error);
}

TEST(HandlerForms, ErrorFromException) {
  LogCapture log;
  {  // nothing to convert: code 3 without user information, and a warning
    auto e = NSErrorFromException(nullptr);
    EXPECT_TRUE(e->domain()->isEqual(PRMErrorDomain()));
    EXPECT_EQ(e->code(), 3);
    EXPECT_EQ(e->userInfo(), nullptr);
    EXPECT_EQ(log.count("Migriornop: Warning: Promise rejected with nil"), 1u);
  }
  {  // an exception without a reason keeps only the thrown object
    auto ex = nk::make<Exception>(NK_STR("N"), nullptr, nullptr);
    auto e = NSErrorFromException(ex);
    EXPECT_EQ(e->code(), 1);
    EXPECT_EQ(e->userInfo()->count(), 1u);
    EXPECT_EQ(e->userInfo()->objectForKey(PRMUnderlyingExceptionKey()), ex);
  }
  // The names callers match errors on.
  EXPECT_EQ(PRMErrorDomain()->utf8(), "PRMErrorDomain");
  EXPECT_EQ(PRMFailingPromiseIndexKey()->utf8(), "PRMFailingPromiseIndexKey");
  EXPECT_EQ(PRMUnderlyingExceptionKey()->utf8(), "PRMUnderlyingExceptionKey");
}

TEST(HandlerFormsDeathTest, AbsentHandlerAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  void (*absent)(Id) = nullptr;
  EXPECT_DEATH(prm_safely_call_block(absent, nullptr),
               "PRMPromise:106: prm_safely_call_block: Assertion `frock' failed");
  std::function<void()> empty;
  EXPECT_DEATH(prm_safely_call_block(empty, nullptr), "Assertion `frock' failed");
}

}  // namespace
}  // namespace nk
