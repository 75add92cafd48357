// The client-facing version symbols: a number and a what(1)-style identification
// string that tools can find in the built binary.
#pragma once

namespace nk {

// 1.0
extern const double NKOSXUtilsVersionNumber;
// "@(#)PROGRAM:NKOSXUtils  PROJECT:NKUtils-1\n", NUL-terminated.
extern const unsigned char NKOSXUtilsVersionString[];

}  // namespace nk
