// Null: the shared instance.
#include "nk/foundation/null.hpp"

#include "nk/foundation/class.hpp"

namespace nk {

NK_DEFINE_CLASS(Null, "Null", Class::kCopyable);

Null::Null() noexcept { makeImmortal(); }

Null* Null::null() noexcept {
  static Null* const instance = new Null();
  return instance;
}

Ref<String> Null::description() const { return Ref<String>(NK_STR("<null>")); }

Id Null::copy() const { return Id(const_cast<Null*>(this)); }

}  // namespace nk
