// Direct access to the storage of arrays and dictionaries, for the JSON reader
// and writer and for promise aggregation: the reader fills containers it is
// building without a key copy and a mutation count per insert, the aggregation
// hands the values it gathered to its result array without copying them, and the
// writer walks containers without the mutation checks of their iterators (nothing
// changes them while they are written).
#pragma once

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"

namespace nk::collection_internal {

struct StorageAccess {
  using ArrayItems = Array::Items;
  static OrderedTable& table(Dictionary& d) noexcept { return d.table_; }
  static const OrderedTable& table(const Dictionary& d) noexcept { return d.table_; }
  static Array::Items& items(Array& a) noexcept { return a.items_; }
};

}  // namespace nk::collection_internal
