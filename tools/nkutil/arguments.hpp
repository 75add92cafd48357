// Checks of command-line arguments that the library takes as strings: text that is
// not UTF-8 would reach it as nil, which several operations read as "all of it".
#pragma once

#include <CLI/Error.hpp>  // Validators.hpp uses it without including it
#include <CLI/Validators.hpp>

namespace nk::cli {

// A check that refuses an argument that is not UTF-8, or that is empty unless
// `mayBeEmpty`, as a usage error.
CLI::Validator utf8Text(bool mayBeEmpty = false);

}  // namespace nk::cli
