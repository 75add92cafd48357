// Uses the installed headers and library; exits non-zero if anything is off.
#include <nk/foundation/format.hpp>
#include <nk/foundation/string.hpp>
#include <nk/foundation/version.hpp>

#include <cstdio>

int main() {
  nk::Ref<nk::String> s = nk::format("nkutils %s: %@", std::string(nk::libraryVersion()),
                                     nk::String::fromUTF8("caf\xC3\xA9"));
  if (!s || s->utf8().find("caf\xC3\xA9") == std::string::npos) return 1;
  std::puts(s->utf8().c_str());
  return 0;
}
