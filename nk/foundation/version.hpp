// The library's version, as built.
#pragma once

#include <string_view>

namespace nk {

// "MAJOR.MINOR.PATCH" of the library that is running.
std::string_view libraryVersion() noexcept;

}  // namespace nk
