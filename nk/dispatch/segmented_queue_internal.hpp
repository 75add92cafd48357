// SegmentedQueue<T>: the unbounded multi-producer, multi-consumer FIFO under every queue.
// Values live inline in blocks of 31 slots, so a push allocates at most once per block.
//
// Producers reserve a slot by advancing the tail index, then fill it; consumers reserve by
// advancing the head index, then take the value out. A consumer that reaches a slot whose
// producer has not finished writing sleeps on the slot's state word until it is written.
// The last thread to finish with a block frees it (or keeps it as a spare for later
// blocks). The only other waits are for another thread that is installing the next block
// between two of its own instructions; those yield the processor.
#pragma once

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

#include "nk/dispatch/futex_internal.hpp"

namespace nk::dispatch_internal {

template <class T>
class SegmentedQueue {
  static_assert(std::is_nothrow_move_constructible_v<T> && std::is_nothrow_move_assignable_v<T>);

 public:
  SegmentedQueue() = default;
  SegmentedQueue(const SegmentedQueue&) = delete;
  SegmentedQueue& operator=(const SegmentedQueue&) = delete;
  ~SegmentedQueue();

  // Appends `value`. Callable from any thread.
  void push(T&& value);
  // Appends make(0), ..., make(count - 1), in that order, reserving the slots left in a
  // block with one step instead of one per value. Callable from any thread.
  template <class Make>
  void pushEach(size_t count, Make make);
  // Moves the oldest value into `out` and returns true, or returns false if the queue is
  // empty. Callable from any thread.
  bool pop(T& out);
  // Starts loading the lines the next pop() will read, so that a consumer that has just
  // woken up waits for them all at once rather than one after the other. Harmless if the
  // queue changes meanwhile: a prefetch of a stale address does nothing.
  void prefetchHead() const noexcept {
    uint64_t head = head_.index.load(std::memory_order_relaxed);
    Block* block = head_.block.load(std::memory_order_relaxed);
    __builtin_prefetch(&tail_);
    uint64_t offset = (head >> kShift) % kLap;
    if (block != nullptr && offset < kBlockCap) __builtin_prefetch(&block->slots[offset], 1);
  }

  // True if no value has been reserved and not yet taken. A snapshot: pushes made by other
  // threads before this call (in the sequentially consistent order) are seen.
  bool empty() const noexcept { return backlogBits() == 0; }
  // Zero exactly when empty(); otherwise some other value. Lets a caller test several
  // queues at once.
  uint64_t backlogBits() const noexcept {
    uint64_t head = head_.index.load(std::memory_order_seq_cst);
    uint64_t tail = tail_.index.load(std::memory_order_seq_cst);
    return (head ^ tail) >> kShift;
  }

 private:
  static constexpr uint64_t kLap = 32;
  static constexpr uint64_t kBlockCap = kLap - 1;
  static constexpr uint64_t kShift = 1;
  static constexpr uint64_t kOne = uint64_t{1} << kShift;
  static constexpr uint64_t kHasNext = 1;  // head index flag: head and tail are in different blocks

  static constexpr uint32_t kWrite = 1;  // the value is in the slot
  static constexpr uint32_t kRead = 2;   // the value has been taken
  static constexpr uint32_t kDestroy =
      4;  // the block's destroyer handed the rest to this slot's reader
  static constexpr uint32_t kWaiter = 8;  // a consumer sleeps on the state word

  // A slot per cache line when T fits, so that a producer filling one slot and a consumer
  // emptying its neighbour do not share a line.
  struct alignas(sizeof(T) + sizeof(uint32_t) <= 64 ? 64 : alignof(T)) Slot {
    alignas(T) unsigned char storage[sizeof(T)];
    std::atomic<uint32_t> state{0};

    T* value() noexcept { return std::launder(reinterpret_cast<T*>(storage)); }
    void waitWrite() noexcept {
      uint32_t s = state.load(std::memory_order_acquire);
      while ((s & kWrite) == 0) {
        if ((s & kWaiter) == 0 &&
            !state.compare_exchange_weak(s, s | kWaiter, std::memory_order_acquire)) {
          continue;
        }
        futexWait(&state, s | kWaiter);
        s = state.load(std::memory_order_acquire);
      }
    }
  };

  struct Block {
    std::atomic<Block*> next{nullptr};
    void* allocation = nullptr;  // what operator new returned, before aligning
    Slot slots[kBlockCap];

    // Aligned by hand: aligned operator new takes glibc's much slower memalign path.
    static Block* make() {
      void* raw = ::operator new(sizeof(Block) + alignof(Block));
      auto address = reinterpret_cast<uintptr_t>(raw);
      address = (address + alignof(Block) - 1) & ~(uintptr_t{alignof(Block)} - 1);
      Block* b = ::new (reinterpret_cast<void*>(address)) Block;
      b->allocation = raw;
      return b;
    }
    static void destroy(Block* b) noexcept {
      if (b == nullptr) return;
      void* raw = b->allocation;
      b->~Block();
      ::operator delete(raw);
    }

    Block* waitNext() noexcept {
      for (;;) {
        Block* n = next.load(std::memory_order_acquire);
        if (n != nullptr) return n;
        sched_yield();
      }
    }
  };

  struct alignas(64) Position {
    std::atomic<uint64_t> index{0};
    std::atomic<Block*> block{nullptr};
  };

  // Blocks are recycled through a few spare slots, taken and given with exchanges only, so
  // that a queue that keeps a backlog does not allocate and free a block every 31 pushes.
  Block* newBlock() {
    for (auto& spare : spares_) {
      if (spare.load(std::memory_order_relaxed) == nullptr) continue;
      Block* b = spare.exchange(nullptr, std::memory_order_acquire);
      if (b == nullptr) continue;
      b->next.store(nullptr, std::memory_order_relaxed);
      for (Slot& s : b->slots) s.state.store(0, std::memory_order_relaxed);
      return b;
    }
    return Block::make();
  }
  void recycle(Block* b) noexcept {
    for (auto& spare : spares_) {
      Block* empty = nullptr;
      if (spare.load(std::memory_order_relaxed) == nullptr &&
          spare.compare_exchange_strong(empty, b, std::memory_order_release,
                                        std::memory_order_relaxed)) {
        return;
      }
    }
    Block::destroy(b);
  }

  // Frees `b` once every reader of slots [start, kBlockCap - 1) is done with it; a reader
  // that is still busy inherits the job.
  void destroyBlock(Block* b, uint64_t start) noexcept {
    for (uint64_t i = start; i < kBlockCap - 1; ++i) {
      Slot& slot = b->slots[i];
      if ((slot.state.load(std::memory_order_acquire) & kRead) == 0 &&
          (slot.state.fetch_or(kDestroy, std::memory_order_acq_rel) & kRead) == 0) {
        return;
      }
    }
    recycle(b);
  }

  Position head_;
  Position tail_;
  alignas(64) std::atomic<Block*> spares_[4] = {};
};

template <class T>
SegmentedQueue<T>::~SegmentedQueue() {
  uint64_t head = head_.index.load(std::memory_order_relaxed) & ~(kOne - 1);
  uint64_t tail = tail_.index.load(std::memory_order_relaxed) & ~(kOne - 1);
  Block* block = head_.block.load(std::memory_order_relaxed);
  while (head != tail) {
    uint64_t offset = (head >> kShift) % kLap;
    if (offset < kBlockCap) {
      block->slots[offset].value()->~T();
    } else {
      Block* next = block->next.load(std::memory_order_relaxed);
      Block::destroy(block);
      block = next;
    }
    head += kOne;
  }
  Block::destroy(block);
  for (auto& spare : spares_) Block::destroy(spare.load(std::memory_order_relaxed));
}

template <class T>
void SegmentedQueue<T>::push(T&& value) {
  uint64_t tail = tail_.index.load(std::memory_order_acquire);
  Block* block = tail_.block.load(std::memory_order_acquire);
  Block* next = nullptr;
  for (;;) {
    uint64_t offset = (tail >> kShift) % kLap;
    if (offset == kBlockCap) {
      // Another producer took the last slot and is installing the next block.
      sched_yield();
      tail = tail_.index.load(std::memory_order_acquire);
      block = tail_.block.load(std::memory_order_acquire);
      continue;
    }
    // About to take the last slot: have the next block ready so installing it cannot fail.
    if (offset + 1 == kBlockCap && next == nullptr) next = newBlock();

    if (block == nullptr) {  // the very first push
      Block* fresh = newBlock();
      Block* expected = nullptr;
      if (tail_.block.compare_exchange_strong(expected, fresh, std::memory_order_release,
                                              std::memory_order_relaxed)) {
        head_.block.store(fresh, std::memory_order_release);
        block = fresh;
      } else {
        if (next == nullptr) {
          next = fresh;
        } else {
          recycle(fresh);
        }
        tail = tail_.index.load(std::memory_order_acquire);
        block = tail_.block.load(std::memory_order_acquire);
        continue;
      }
    }

    uint64_t newTail = tail + kOne;
    __builtin_prefetch(&block->slots[offset], 1);  // overlap the slot's miss with the CAS's
    if (tail_.index.compare_exchange_weak(tail, newTail, std::memory_order_seq_cst,
                                          std::memory_order_acquire)) {
      if (offset + 1 == kBlockCap) {
        tail_.block.store(next, std::memory_order_release);
        tail_.index.store(newTail + kOne, std::memory_order_release);
        block->next.store(next, std::memory_order_release);
        next = nullptr;
      }
      Slot& slot = block->slots[offset];
      ::new (static_cast<void*>(slot.storage)) T(std::move(value));
      // kWrite is set once and only here, so adding it sets the bit (and, unlike fetch_or,
      // needs no compare-and-swap loop to return the old value).
      if (slot.state.fetch_add(kWrite, std::memory_order_seq_cst) & kWaiter) {
        futexWake(&slot.state, 1);
      }
      if (next != nullptr) recycle(next);
      return;
    }
    block = tail_.block.load(std::memory_order_acquire);
  }
}

template <class T>
template <class Make>
void SegmentedQueue<T>::pushEach(size_t count, Make make) {
  size_t i = 0;
  while (i < count) {
    uint64_t tail = tail_.index.load(std::memory_order_acquire);
    Block* block = tail_.block.load(std::memory_order_acquire);
    uint64_t offset = (tail >> kShift) % kLap;
    // A block's last slot, and the very first push, install blocks: push() does that.
    if (block == nullptr || offset + 1 >= kBlockCap) {
      push(make(i++));
      continue;
    }
    uint64_t take = std::min<uint64_t>(count - i, kBlockCap - 1 - offset);
    if (!tail_.index.compare_exchange_weak(tail, tail + take * kOne, std::memory_order_seq_cst,
                                           std::memory_order_acquire)) {
      continue;
    }
    for (uint64_t k = 0; k < take; ++k) {
      Slot& slot = block->slots[offset + k];
      ::new (static_cast<void*>(slot.storage)) T(make(i++));
      if (slot.state.fetch_add(kWrite, std::memory_order_seq_cst) & kWaiter) {
        futexWake(&slot.state, 1);
      }
    }
  }
}

template <class T>
bool SegmentedQueue<T>::pop(T& out) {
  uint64_t head = head_.index.load(std::memory_order_acquire);
  Block* block = head_.block.load(std::memory_order_acquire);
  for (;;) {
    uint64_t offset = (head >> kShift) % kLap;
    if (offset == kBlockCap) {
      // Another consumer took the last slot and is moving the head to the next block.
      sched_yield();
      head = head_.index.load(std::memory_order_acquire);
      block = head_.block.load(std::memory_order_acquire);
      continue;
    }

    uint64_t newHead = head + kOne;
    if ((newHead & kHasNext) == 0) {
      uint64_t tail = tail_.index.load(std::memory_order_seq_cst);
      if ((head >> kShift) == (tail >> kShift)) return false;
      if ((head >> kShift) / kLap != (tail >> kShift) / kLap) newHead |= kHasNext;
    }

    if (block == nullptr) {  // the first push has reserved a slot but not installed the block
      sched_yield();
      head = head_.index.load(std::memory_order_acquire);
      block = head_.block.load(std::memory_order_acquire);
      continue;
    }

    if (head_.index.compare_exchange_weak(head, newHead, std::memory_order_seq_cst,
                                          std::memory_order_acquire)) {
      if (offset + 1 == kBlockCap) {
        Block* next = block->waitNext();
        uint64_t nextIndex = (newHead & ~kHasNext) + kOne;
        if (next->next.load(std::memory_order_relaxed) != nullptr) nextIndex |= kHasNext;
        head_.block.store(next, std::memory_order_release);
        head_.index.store(nextIndex, std::memory_order_release);
      }
      Slot& slot = block->slots[offset];
      slot.waitWrite();
      out = std::move(*slot.value());
      slot.value()->~T();
      if (offset + 1 == kBlockCap) {
        destroyBlock(block, 0);
      } else if (slot.state.fetch_or(kRead, std::memory_order_acq_rel) & kDestroy) {
        destroyBlock(block, offset + 1);
      }
      return true;
    }
    block = head_.block.load(std::memory_order_acquire);
  }
}

}  // namespace nk::dispatch_internal
