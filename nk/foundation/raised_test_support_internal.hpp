// Test support: what a block raises, as name and reason, so tests of the
// platform's exceptions can compare both texts in one line.
#pragma once

#include <string>
#include <utility>

#include "nk/foundation/exception.hpp"

namespace nk::test_support {

// Name and reason of the exception `f` raises; empty strings when it raises none.
template <class F>
std::pair<std::string, std::string> raised(F&& f) {
  try {
    f();
  } catch (const ThrownObject& thrown) {
    auto e = cast<Exception>(thrown.object());
    if (!e) return {"<not an exception>", ""};
    return {e->name()->utf8(), e->reason() ? e->reason()->utf8() : ""};
  }
  return {"", ""};
}

}  // namespace nk::test_support
