// Reading the address a host gives Connect: pure text, tested without sockets.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "net/links.h"

namespace qel {

// What an address names: host and port, or why it names nothing that can be
// dialled (fault set to Malformed). "host:port" splits at the last colon;
// without a port, defaultPort is dialled (0: none).
struct DialTarget {
  std::string host;
  uint16_t port = 0;
  DialResult fault;
};
DialTarget ParseDialAddress(std::string_view address, int32_t defaultPort);

}  // namespace qel
