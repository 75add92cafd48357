// Tests of the promise object: the state table, settling and adoption, the
// description, PRMArray and the lock word.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "nk/foundation/exception.hpp"
#include "nk/foundation/number.hpp"
#include "nk/promise/promise.hpp"
#include "nk/promise/promise_test_support_internal.hpp"

namespace nk {
namespace {

using namespace promise_test;

Ref<PRMPromise> pendingPromise() {
  return PRMPromise::promiseWithResolver([](PRMResolver) {});
}

// pending, resolved, fulfilled, rejected
using State = std::array<bool, 4>;
State stateOf(const Ref<PRMPromise>& p) {
  return {p->pending(), p->resolved(), p->fulfilled(), p->rejected()};
}

// Each kind of slot content: the state, the value and the description.
TEST(PromiseState, EveryRowOfTheSlot) {
  UnhandledCapture quiet;
  auto e = failure();
  const std::string error = e->description()->utf8();
  auto n = Number::withInt(5);
  Ref<String> a = NK_STR("a"), x = NK_STR("x");
  auto inner = pendingPromise(), three = pendingPromise();
  inner->thenOn(Queue::serial("prm.test.description"), [] {});
  for (int i = 0; i < 3; ++i) three->thenOn(Queue::serial("prm.test.description2"), [] {});
  const struct {
    const char* slot;
    Ref<PRMPromise> promise;
    State state;
    Id value;
    std::string text;  // empty: not checked
  } rows[] = {
      {"nil", pendingPromise(), {1, 0, 0, 0}, nullptr, "Promise: 0 pending handlers"},
      {"nil, with waiting entries", three, {1, 0, 0, 0}, nullptr, "Promise: 3 pending handlers"},
      {"an error, the value itself",
       PRMPromise::promiseWithValue(e),
       {0, 1, 0, 1},
       e,
       "Promise: rejected: " + error},
      {"PRMNull, printed as its text",
       PRMPromise::promiseWithValue(nullptr),
       {0, 1, 1, 0},
       nullptr,
       "Promise: fulfilled: PRMNull"},
      {"a PRMArray: element 0",
       PRMPromise::promiseWithValue(PRMArrayWithCount(2, a, NK_STR("b"))),
       {0, 1, 1, 0},
       a,
       ""},
      {"any other object",
       PRMPromise::promiseWithValue(n),
       {0, 1, 1, 0},
       n,
       "Promise: fulfilled: 5"},
      {"a pending promise: pending and resolved, counting the holder's own list (none)",
       PRMPromise::promiseWithValue(inner),
       {1, 1, 1, 0},
       nullptr,
       "Promise: 0 pending handlers"},
      {"a rejected promise: fulfilled, the value looks through",
       PRMPromise::promiseWithValue(PRMPromise::promiseWithValue(e)),
       {0, 1, 1, 0},
       e,
       "Promise: fulfilled: Promise: rejected: " + error},
      {"a fulfilled promise",
       PRMPromise::promiseWithValue(PRMPromise::promiseWithValue(x)),
       {0, 1, 1, 0},
       x,
       "Promise: fulfilled: Promise: fulfilled: x"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.slot);
    EXPECT_EQ(stateOf(row.promise), row.state);
    EXPECT_EQ(row.promise->value(), row.value);
    if (!row.text.empty()) {
      EXPECT_EQ(row.promise->description()->utf8(), row.text);
    }
  }
  // The raw slot: nothing, the marker, the held promise.
  EXPECT_EQ(PRMGetResult(rows[0].promise.get()), nullptr);
  EXPECT_EQ(PRMGetResult(rows[3].promise.get()).get(), PRMNull());
  EXPECT_EQ(PRMGetResult(rows[6].promise.get()), inner);
  // The marker by identity: an equal string of another identity is an ordinary value.
  Ref<String> lookalike = String::fromUTF8(PRMNull()->utf8());
  ASSERT_NE(lookalike.get(), PRMNull());
  EXPECT_EQ(PRMPromise::promiseWithValue(lookalike)->value(), lookalike);
  EXPECT_EQ(PRMSanitizeResult(lookalike), lookalike);
  EXPECT_EQ(PRMSanitizeResult(nullptr).get(), PRMNull());
}

TEST(PromiseState, InitRaises) {
  try {
    PRMPromise::init();
    FAIL() << "init returned";
  } catch (const ThrownObject& thrown) {
    auto* e = cast<Exception>(thrown.object().get());
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->name()->utf8(), "Migriornop");
    EXPECT_EQ(e->reason()->utf8(), "Migriornop: init is not a valid initializer for PRMPromise");
    EXPECT_EQ(e->userInfo(), nullptr);
  }
}

// Registers a raw waiting entry that records what it receives, through the
// registration primitive.
struct Recorder {
  std::mutex lock;
  std::vector<std::pair<int, Id>> calls;
  std::vector<std::thread::id> threads;
};
void watch(const Ref<PRMPromise>& p, Recorder& rec, int tag) {
  auto chain = p->resolvedPending(
      [](const Id&) { return [](const Queue&, auto) -> Ref<PRMPromise> { return nullptr; }; },
      [&rec, tag](const Id& value, const Ref<PRMPromise>&, const Queue&, auto, PRMResolver) {
        std::lock_guard<std::mutex> g(rec.lock);
        rec.calls.emplace_back(tag, value);
        rec.threads.push_back(std::this_thread::get_id());
      });
  chain(Queue::global(), 0);
}

TEST(PromiseSettling, HandlersRunOnceInOrderOnTheSettlingThread) {
  auto p = pendingPromise();
  Recorder rec;
  for (int i = 0; i < 3; ++i) watch(p, rec, i);
  std::thread::id settler;
  Ref<String> v = NK_STR("v"), w = NK_STR("w");
  std::thread t([&] {
    settler = std::this_thread::get_id();
    PRMResolve(p.get(), v);
  });
  t.join();
  ASSERT_EQ(rec.calls.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(rec.calls[i].first, i);
    EXPECT_EQ(rec.calls[i].second, v);
    EXPECT_EQ(rec.threads[i], settler);
  }
  // Settling again changes the slot but runs nothing.
  PRMResolve(p.get(), w);
  EXPECT_EQ(rec.calls.size(), 3u);
  EXPECT_EQ(p->value(), w);
  // Nil reaches handlers as nil while the slot holds the marker.
  auto q = pendingPromise();
  Recorder nil;
  watch(q, nil, 0);
  PRMResolve(q.get(), nullptr);
  ASSERT_EQ(nil.calls.size(), 1u);
  EXPECT_EQ(nil.calls[0].second, nullptr);
  EXPECT_EQ(PRMGetResult(q.get()).get(), PRMNull());
}

TEST(PromiseSettling, ResolvedPendingTakesTheResolvedPathOnceSettled) {
  UnhandledCapture quiet;
  auto e = failure();
  auto settled = PRMPromise::promiseWithValue(e);
  Id slotSeen;
  bool pendingCalled = false;
  auto marker = PRMPromise::promiseWithValue(nullptr);
  auto chain = settled->resolvedPending(
      [&](const Id& slot) {
        slotSeen = slot;
        return [&](const Queue&, auto) { return marker; };
      },
      [&](const Id&, const Ref<PRMPromise>&, const Queue&, auto, PRMResolver) {
        pendingCalled = true;
      });
  // The resolved callable gets the raw slot and its chain callable's result is returned.
  EXPECT_EQ(chain(Queue::global(), 0), marker);
  EXPECT_EQ(slotSeen, e);
  EXPECT_FALSE(pendingCalled);
  // While pending, the next promise is new and settled through resolveNext.
  auto d = deferred();
  auto pendingChain = d.promise->resolvedPending(
      [&](const Id&) { return [&](const Queue&, auto) { return marker; }; },
      [&](const Id& value, const Ref<PRMPromise>&, const Queue&, auto, PRMResolver resolveNext) {
        resolveNext(value);
      });
  auto next = pendingChain(Queue::global(), 0);
  EXPECT_NE(next, marker);
  EXPECT_TRUE(next->pending());
  Ref<String> v = NK_STR("v");
  (*d.resolve)(v);
  EXPECT_EQ(next->value(), v);
}

TEST(PromiseSettling, SetResultOverwritesAndReturnsTheWaitingList) {
  UnhandledCapture quiet;
  auto p = pendingPromise();
  Recorder rec;
  watch(p, rec, 0);
  watch(p, rec, 1);
  {
    PRMHandlerList first = PRMSetResult(p.get(), NK_STR("a"));
    EXPECT_TRUE(first.present());
    EXPECT_EQ(first.size(), 2u);
    // Dropped unrun here.
  }
  PRMHandlerList second = PRMSetResult(p.get(), failure());
  EXPECT_FALSE(second.present());
  EXPECT_EQ(second.size(), 0u);
  EXPECT_TRUE(p->rejected());
  EXPECT_TRUE(rec.calls.empty());
  // A promise born settled never had a list.
  EXPECT_FALSE(PRMSetResult(PRMPromise::promiseWithValue(nullptr).get(), nullptr).present());
}

TEST(PromiseAdoption, FollowsThePromiseGivenAsValue) {
  UnhandledCapture quiet;
  // Adopting a settled promise takes its raw content: the identical error, the marker.
  for (const Id& content : {Id(failure()), Id()}) {
    auto p = pendingPromise();
    PRMResolve(p.get(), PRMPromise::promiseWithValue(content));
    EXPECT_EQ(p->rejected(), content != nullptr);
    EXPECT_EQ(PRMGetResult(p.get()), PRMSanitizeResult(content));
  }
  {  // recursive: a waits on b, b on c; c settling settles all of them, link by link
    auto a = pendingPromise(), b = pendingPromise(), c = pendingPromise();
    PRMResolve(a.get(), b);
    PRMResolve(b.get(), c);
    EXPECT_TRUE(a->pending());
    EXPECT_TRUE(b->pending());
    Recorder rec;
    watch(a, rec, 0);
    PRMResolve(c.get(), Number::withInt(3));
    EXPECT_TRUE(a->fulfilled());
    EXPECT_TRUE(b->fulfilled());
    EXPECT_TRUE(isEqual(a->value(), Number::withInt(3)));
    ASSERT_EQ(rec.calls.size(), 1u);
    EXPECT_TRUE(isEqual(rec.calls[0].second, Number::withInt(3)));
  }
  {  // adopting a promise whose slot holds a promise stores that inner promise
    auto inner = pendingPromise();
    auto holder = PRMPromise::promiseWithValue(inner);
    auto p = pendingPromise();
    PRMResolve(p.get(), holder);
    EXPECT_EQ(PRMGetResult(p.get()), inner);
    EXPECT_TRUE(p->pending());
    EXPECT_TRUE(p->resolved());
  }
}

TEST(PromiseAdoption, SelfAdoptionStaysPendingWithoutBlocking) {
  auto p = pendingPromise();
  PRMResolve(p.get(), p);  // returns: it does not wait on itself
  EXPECT_TRUE(p->pending());
  EXPECT_EQ(p->description()->utf8(), "Promise: 1 pending handlers");
}

TEST(PRMArrayList, ReadsNeverRaise) {
  Ref<String> b = NK_STR("b"), c = NK_STR("c");
  // A count of 2 answers nil at index 2 although a third slot exists.
  auto two = PRMArrayWithCount(2, NK_STR("a"), b, c);
  EXPECT_EQ(two->count(), 2u);
  EXPECT_EQ((*two)[1], b);
  EXPECT_EQ((*two)[2], nullptr);
  EXPECT_EQ(two->objectAtIndexedSubscript(1000), nullptr);
  // A nil element is counted.
  auto holed = PRMArrayWithCount(3, NK_STR("a"), nullptr, c);
  EXPECT_EQ(holed->count(), 3u);
  EXPECT_EQ((*holed)[1], nullptr);
  EXPECT_EQ((*holed)[2], c);
  // A count above the capacity keeps three.
  EXPECT_EQ(PRMArrayWithCount(7, NK_STR("a"))->count(), 3u);
}

TEST(PromiseLock, ReadsOverlapWritesExclude) {
  promise_internal::PRMLock lock;
  {  // two readers inside at once
    lock.lockShared();
    std::atomic<bool> second{false};
    std::thread t([&] {
      lock.lockShared();
      second = true;
      lock.unlockShared();
    });
    t.join();
    EXPECT_TRUE(second.load());
    lock.unlockShared();
  }
  // A writer waits for the reader; a reader waits for the writer.
  for (bool readerHolds : {true, false}) {
    SCOPED_TRACE(readerHolds ? "reader holds" : "writer holds");
    readerHolds ? lock.lockShared() : lock.lock();
    std::atomic<bool> entered{false};
    std::thread other([&] {
      readerHolds ? lock.lock() : lock.lockShared();
      entered = true;
      readerHolds ? lock.unlock() : lock.unlockShared();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(entered.load());
    readerHolds ? lock.unlockShared() : lock.unlock();
    other.join();
    EXPECT_TRUE(entered.load());
  }
  {  // many threads incrementing under the write lock lose nothing
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < 20000; ++i) {
          promise_internal::PRMWriteGuard g(lock);
          ++counter;
        }
      });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, 8 * 20000);
  }
  EXPECT_EQ(sizeof(promise_internal::PRMLock), 4u);
}

TEST(PromiseLifetime, LongPendingChainIsFreedWithoutDeepRecursion) {
  // Each link owns the next through its waiting entry; dropping the root frees
  // them all.
  auto root = pendingPromise();
  auto q = Queue::serial("prm.test.long");
  auto sentinel = std::make_shared<int>(0);
  {
    Ref<PRMPromise> tail = root;
    for (int i = 0; i < 300000; ++i) tail = tail->thenOn(q, [] {});
    tail->thenOn(q, [sentinel] {});
    EXPECT_TRUE(tail->pending());
  }
  EXPECT_EQ(sentinel.use_count(), 2);
  root = nullptr;  // would overflow the stack if freed link by link recursively
  EXPECT_EQ(sentinel.use_count(), 1);
}

TEST(PromiseLayout, PendingPromiseFitsInOneSmallBlock) {
  // The memory budget of a pending promise without handlers.
  EXPECT_LE(sizeof(PRMPromise), 48u);
}

}  // namespace
}  // namespace nk
