// PRMArray: the fixed list of up to three values a promise carries when it is
// fulfilled with several values; handlers receive its elements spread over their
// parameters. Only objects of exactly this class are spread.
#pragma once

#include <cstddef>

#include "nk/foundation/object.hpp"

namespace nk {

class PRMArray final : public Object {
  NK_DECLARE_CLASS(PRMArray, Object)

 public:
  static constexpr size_t kCapacity = 3;

  // The element at `index`, or nil when `index` is not below count(). Never raises.
  Id objectAtIndexedSubscript(size_t index) const noexcept {
    return index < count_ && index < kCapacity ? objs_[index] : Id();
  }
  Id operator[](size_t index) const noexcept { return objectAtIndexedSubscript(index); }
  // As objectAtIndexedSubscript, without touching the element's reference count.
  const Id& at(size_t index) const noexcept {
    static const Id kNil;
    return index < count_ && index < kCapacity ? objs_[index] : kNil;
  }
  size_t count() const noexcept { return count_; }

 private:
  friend Ref<PRMArray> PRMArrayWithCount(size_t, Id, Id, Id);
  PRMArray() noexcept = default;

  Id objs_[kCapacity];
  size_t count_ = 0;
};

// A new PRMArray holding the first `count` of the given values (nil ones included
// and counted). A count above three keeps three.
//   auto pair = nk::PRMArrayWithCount(2, value, error);
Ref<PRMArray> PRMArrayWithCount(size_t count, Id first = nullptr, Id second = nullptr,
                                Id third = nullptr);

}  // namespace nk
