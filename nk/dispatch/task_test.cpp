// Tests for Task (inline and heap storage, moves, destruction) and FunctionRef.
#include "nk/dispatch/task.hpp"

#include <gtest/gtest.h>

#include <array>
#include <memory>

#include "nk/dispatch/function_ref.hpp"

namespace nk {
namespace {

// Counts live copies, so double destruction or leaks show up as a wrong count.
struct Tracked {
  explicit Tracked(int* live) : live(live) { ++*live; }
  Tracked(const Tracked& o) : live(o.live) { ++*live; }
  Tracked(Tracked&& o) noexcept : live(o.live) { ++*live; }
  ~Tracked() { --*live; }
  int* live;
};

TEST(Task, OwnsItsCallableThroughMoves) {
  // Small callable kept inline, large one on the heap, move-only one: each is called
  // and destroyed exactly once however often the Task moves.
  int live = 0, calls = 0;
  {
    Task small([t = Tracked(&live), &calls] { ++calls; });
    std::array<char, 200> big{};
    Task large([t = Tracked(&live), big, &calls] { calls += 1 + big[0]; });
    Task moveOnly([p = std::make_unique<int>(5), &calls] { calls += *p; });
    EXPECT_EQ(live, 2);

    Task a = std::move(small), b = std::move(large), c;
    c = std::move(moveOnly);
    EXPECT_FALSE(small);
    EXPECT_FALSE(large);
    EXPECT_FALSE(moveOnly);
    EXPECT_EQ(live, 2);
    a();
    b();
    c();
    EXPECT_EQ(calls, 7);

    b.reset();
    EXPECT_EQ(live, 1);
    a = std::move(c);  // assigning over a live task destroys the old callable
    EXPECT_EQ(live, 0);
  }
  EXPECT_EQ(live, 0);
}

TEST(FunctionRef, CallsWithoutOwning) {
  int total = 0;
  auto add = [&](int v) {
    total += v;
    return total;
  };
  FunctionRef<int(int)> ref = add;
  EXPECT_EQ(ref(2), 2);
  EXPECT_EQ(ref(3), 5);

  // Binding a temporary in an argument list lives through the call.
  auto apply = [](FunctionRef<int(int)> f) { return f(10); };
  EXPECT_EQ(apply([](int v) { return v * 2; }), 20);
}

}  // namespace
}  // namespace nk
