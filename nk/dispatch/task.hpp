// Task: the move-only `void()` callable that queues store. Callables of up to five pointers
// are kept inline, so submitting a typical lambda allocates nothing.
#pragma once

#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

namespace nk {

// A move-only owner of one callable taking no arguments. Unlike std::function it accepts
// move-only callables (lambdas capturing unique_ptr, say), and it stores any nothrow-movable
// callable of at most kInlineSize bytes without a heap allocation. An empty Task is false.
//
// Example:
//   Task t([p = std::make_unique<int>(7)] { use(*p); });
//   Task u = std::move(t);  // t is now empty
//   u();
class Task {
 public:
  static constexpr std::size_t kInlineSize = 5 * sizeof(void*);

  Task() noexcept = default;

  template <class F, class D = std::decay_t<F>>
  requires(!std::is_same_v<D, Task> && std::is_invocable_v<D&>)
      Task(F&& f) {  // NOLINT: converts implicitly so that queue calls take lambdas directly
    if constexpr (kFitsInline<D>) {
      ::new (static_cast<void*>(storage_)) D(std::forward<F>(f));
      ops_ = &kInlineOps<D>;
    } else {
      D* heap = new D(std::forward<F>(f));
      std::memcpy(storage_, &heap, sizeof heap);
      ops_ = &kHeapOps<D>;
    }
  }

  Task(Task&& other) noexcept { takeFrom(other); }
  Task& operator=(Task&& other) noexcept {
    if (this != &other) {
      reset();
      takeFrom(other);
    }
    return *this;
  }
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
  ~Task() { reset(); }

  explicit operator bool() const noexcept { return ops_ != nullptr; }

  // Calls the callable. The Task must not be empty. The callable stays owned by the Task
  // (and may be called again) until reset or destruction.
  void operator()() { ops_->invoke(storage_); }

  // Destroys the callable, leaving the Task empty.
  void reset() noexcept {
    if (ops_ != nullptr) {
      if (ops_->destroy != nullptr) ops_->destroy(storage_);
      ops_ = nullptr;
    }
  }

 private:
  struct Ops {
    void (*invoke)(void*);
    void (*relocate)(void* to, void* from) noexcept;  // null: a byte copy will do
    void (*destroy)(void*) noexcept;                  // null: nothing to destroy
  };

  template <class D>
  static constexpr bool kFitsInline =
      sizeof(D) <= kInlineSize &&
      alignof(D) <= alignof(void*) && std::is_nothrow_move_constructible_v<D>;
  template <class D>
  static constexpr bool kTrivial =
      std::is_trivially_copyable_v<D>&& std::is_trivially_destructible_v<D>;

  template <class D>
  static constexpr Ops kInlineOps = {
      [](void* p) { (*std::launder(static_cast<D*>(p)))(); },
      kTrivial<D> ? nullptr
                  : +[](void* to, void* from) noexcept {
                      D* source = std::launder(static_cast<D*>(from));
                      ::new (to) D(std::move(*source));
                      source->~D();
                    },
      std::is_trivially_destructible_v<D>
          ? nullptr
          : +[](void* p) noexcept { std::launder(static_cast<D*>(p))->~D(); },
  };

  template <class D>
  static D* heapObject(void* p) noexcept {
    D* heap;
    std::memcpy(&heap, p, sizeof heap);
    return heap;
  }
  template <class D>
  static constexpr Ops kHeapOps = {
      [](void* p) { (*heapObject<D>(p))(); },
      nullptr,
      [](void* p) noexcept { delete heapObject<D>(p); },
  };

  void takeFrom(Task& other) noexcept {
    ops_ = other.ops_;
    if (ops_ == nullptr) return;
    if (ops_->relocate != nullptr) {
      ops_->relocate(storage_, other.storage_);
    } else {
      std::memcpy(storage_, other.storage_, kInlineSize);
    }
    other.ops_ = nullptr;
  }

  const Ops* ops_ = nullptr;
  alignas(void*) unsigned char storage_[kInlineSize];
};

}  // namespace nk
