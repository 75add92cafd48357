// SocketAddress: the original platform's socket-address header, whose first byte is the
// address's length and whose second is its family, as reachability targets are given.
#pragma once

#include <cstdint>

namespace nk {

// After the two header bytes come the family's own fields, laid out as in Linux's sockaddr_in
// (length 16, family AF_INET: port, address, zeros) or sockaddr_in6 (length 28, family
// AF_INET6: port, flow information, address, scope), so that a Linux address is converted by
// replacing its 16-bit family with the length and family bytes. A reader uses `length` bytes.
struct SocketAddress {
  uint8_t length;
  uint8_t family;
  char data[14];
};

}  // namespace nk
