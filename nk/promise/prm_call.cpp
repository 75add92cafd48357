// Handler invocation: the failures of a call and the error a thrown object becomes.
#include "nk/promise/prm_call.hpp"

#include <errno.h>

#include <cstdio>
#include <cstdlib>

#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/log.hpp"
#include "nk/promise/prm_error.hpp"

namespace nk {

String* PRMNull() noexcept { return NK_STR("PRMNull"); }

Ref<Error> NSErrorFromException(const Id& exception) {
  if (!exception) {
    Log("Migriornop: Warning: Promise rejected with nil");
    return Error::make(PRMErrorDomain(), 3);
  }
  Id text;
  if (auto* thrown = cast<Exception>(exception.get())) {
    text = thrown->reason();
  } else {
    text = exception->description();
  }
  // An exception without a reason gives no description entry rather than failing
  // a second time while reporting the first failure.
  Ref<Dictionary> userInfo = text ? Dictionary::make({{PRMUnderlyingExceptionKey(), exception},
                                                      {kLocalizedDescriptionKey(), text}})
                                  : Dictionary::make({{PRMUnderlyingExceptionKey(), exception}});
  return Error::make(PRMErrorDomain(), 1, userInfo);
}

namespace promise_internal {

void handlerAbsent() noexcept {
  // The C library's assertion line, so that crash reports read as for any assert.
  std::fprintf(stderr, "%s: PRMPromise:106: prm_safely_call_block: Assertion `frock' failed.\n",
               program_invocation_short_name);
  std::fflush(stderr);
  std::abort();
}

void raiseUnsupportedArgumentCount() {
  Exception::raise(kInvalidArgumentException,
                   "Migriornop: The provided block\xE2\x80\x99s argument count is unsupported.");
}

void raiseUnsupportedSignature() {
  Exception::raise("Migriornop",
                   "Migriornop: Unsupported method signature\xE2\x80\xA6 Why not fork and fix?");
}

Id boxUTF8(const char* text) {
  if (!text) return Id(PRMNull());
  Ref<String> s = String::fromUTF8(text);
  return s ? Id(std::move(s)) : Id(PRMNull());
}

}  // namespace promise_internal
}  // namespace nk
