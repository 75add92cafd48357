// PRMArray: construction of the spread list.
#include "nk/promise/prm_array.hpp"

#include <algorithm>

#include "nk/foundation/class.hpp"

namespace nk {

NK_DEFINE_CLASS(PRMArray, "PRMArray");

Ref<PRMArray> PRMArrayWithCount(size_t count, Id first, Id second, Id third) {
  auto array = Ref<PRMArray>::adopt(new PRMArray());
  array->count_ = std::min(count, PRMArray::kCapacity);
  Id* values[] = {&first, &second, &third};
  for (size_t i = 0; i < array->count_; ++i) array->objs_[i] = std::move(*values[i]);
  return array;
}

}  // namespace nk
