// Reading what a command is given as a file, or on standard input as "-".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nk::cli {

// "standard input" for an empty `file` or "-", else `file`: how messages name it.
std::string inputName(const std::string& file);

// Every byte of `file`, or of standard input for an empty `file` or "-"; nullopt
// after saying on standard error why it cannot be opened or read.
std::optional<std::vector<uint8_t>> readInput(const std::string& file);

}  // namespace nk::cli
