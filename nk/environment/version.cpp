// The client-facing version symbols.

#include "nk/environment/version.hpp"

namespace nk {

const double NKOSXUtilsVersionNumber = 1.0;
// Kept as a byte array (not a pointer) so the text sits in the binary where what(1) finds it.
const unsigned char NKOSXUtilsVersionString[] = "@(#)PROGRAM:NKOSXUtils  PROJECT:NKUtils-1\n";

}  // namespace nk
