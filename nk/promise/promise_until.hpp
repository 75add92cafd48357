// Retrying a unit of asynchronous work until it succeeds: PRMUntilCatch asks a
// producer for fresh work per attempt, waits on it with PRMWhen, and lets the
// caller's catch handler decide whether another attempt follows.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "nk/foundation/object.hpp"
#include "nk/promise/promise.hpp"
#include "nk/promise/promise_when.hpp"

namespace nk {

namespace promise_internal {

// Holds the attempt closure so that the attempt can schedule itself again. The
// attempt captures its own record, a deliberate cycle that stop() breaks when the
// operation ends either way.
struct RetrySlot {
  std::function<void()> attempt;
  void stop() { attempt = nullptr; }
};

}  // namespace promise_internal

// Calls `until` (no parameters, returns what PRMWhen accepts) and waits on PRMWhen of
// its result. On fulfilment the returned promise fulfils with that value. On
// rejection with error E, `catchHandler` (any catch-handler form) receives E: if it
// ends fulfilled (returns nothing or a non-error value) `until` is called again; if
// it returns an error or throws, the operation rejects with E itself, not with the
// handler's error.
//
// Attempts follow each other without delay and without limit: a handler that always
// recovers from work that always fails keeps retrying for ever. The first attempt
// runs on the caller's thread (an exception from its `until` rejects the result),
// every later one on the main queue; an exception from a later `until` rejects with
// the previous attempt's error.
//
//   auto p = nk::PRMUntilCatch([] { return download(); },
//                              [&](nk::Ref<nk::Error> e) -> nk::Id {
//                                return ++failures < 3 ? nullptr : nk::Id(e);  // e stops
//                              });
// The handler must be copyable: every attempt attaches a copy.
template <class Until, class Catch>
Ref<PRMPromise> PRMUntilCatch(Until until, Catch catchHandler) {
  using promise_internal::RetrySlot;
  auto slot = std::make_shared<RetrySlot>();
  return PRMPromise::promiseWithResolver([&](PRMResolver resolver) {
    PRMFulfiller fulfill(resolver);
    PRMRejecter reject(resolver);
    slot->attempt = [until = std::move(until), catchHandler = std::move(catchHandler), fulfill,
                     reject, slot]() {
      Ref<PRMPromise> work = PRMWhen(until());
      work->then([fulfill, slot](const Id& value) {
        fulfill(value);
        slot->stop();
      });
      work->catch_([catchHandler, reject, slot](const Ref<Error>& error) {
        PRMPromise::promiseWithValue(error)
            ->catch_(catchHandler)
            ->then([slot] {
              // A copy, so that the attempt outlives a stop() made while it runs.
              std::function<void()> next = slot->attempt;
              if (next) next();
            })
            ->catch_([reject, error, slot] {
              reject(error);
              slot->stop();
            });
      });
    };
    try {
      std::function<void()> first = slot->attempt;
      first();
    } catch (...) {
      slot->stop();
      throw;
    }
  });
}

template <class Until, class Catch>
Ref<PRMPromise> PRMPromise::untilCatch(Until until, Catch catchHandler) {
  return PRMUntilCatch(std::move(until), std::move(catchHandler));
}

}  // namespace nk
