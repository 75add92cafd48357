// PRMJoin on top of PRMUntilCatch: each failure removes the failed member from a
// working copy and records its error, and the next attempt waits on what is left.

#include "nk/promise/promise_join.hpp"

#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/number.hpp"
#include "nk/promise/promise_until.hpp"

namespace nk {

Ref<PRMPromise> PRMJoin(const Ref<Array>& promises) {
  // Without an array there is nothing to wait on: every attempt waits on nil, which
  // fulfils with nothing.
  Ref<MutableArray> pending = promises ? cast<MutableArray>(promises->mutableCopy()) : nullptr;
  Ref<MutableArray> errors = MutableArray::make();
  return PRMUntilCatch(
             [pending]() -> Id { return pending; },
             [pending, errors](const Ref<Error>& error) {
               errors->addObject(error);
               // No recorded position reads as 0: the first member goes.
               size_t index = 0;
               if (const auto& info = error->userInfo()) {
                 if (auto n = cast<Number>(info->objectForKey(PRMFailingPromiseIndexKey()))) {
                   index = n->unsignedLongValue();
                 }
               }
               pending->removeObjectAtIndex(index);
             })
      ->then([errors](const Id& values) -> Id {
        return PRMArrayWithCount(2, values, errors->count() ? Id(errors) : Id());
      });
}

Ref<PRMPromise> PRMPromise::join(const Ref<Array>& promises) { return PRMJoin(promises); }

}  // namespace nk
