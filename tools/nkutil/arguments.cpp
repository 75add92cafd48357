// Argument checks shared by the commands.
#include "tools/nkutil/arguments.hpp"

#include <string>

#include "nk/foundation/string.hpp"

namespace nk::cli {

CLI::Validator utf8Text(bool mayBeEmpty) {
  return CLI::Validator(
      [mayBeEmpty](std::string& text) -> std::string {
        if (text.empty() && !mayBeEmpty) return "must not be empty";
        if (!String::fromUTF8(text)) return "must be UTF-8 text";
        return {};
      },
      mayBeEmpty ? "UTF-8" : "UTF-8, not empty");
}

}  // namespace nk::cli
