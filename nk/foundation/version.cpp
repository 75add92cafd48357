// The library's version, compiled in by the build.
#include "nk/foundation/version.hpp"

namespace nk {

std::string_view libraryVersion() noexcept { return NK_VERSION_STRING; }

}  // namespace nk
