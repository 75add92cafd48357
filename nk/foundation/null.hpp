// Null: the one object that stands for "no value" inside collections, where nil
// cannot be stored.
#pragma once

#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// There is exactly one Null, shared and never freed; compare it by identity.
class Null final : public Object {
  NK_DECLARE_CLASS(Null, Object)

 public:
  static Null* null() noexcept;

  // "<null>".
  Ref<String> description() const override;
  // The shared instance itself.
  Id copy() const override;

 private:
  Null() noexcept;
};

}  // namespace nk
