#include "net/dial_address.h"

#include <algorithm>
#include <cctype>

#include <qel/error.h>
#include <qel/variant.h>

#include "core/text.h"

namespace qel {
namespace {

bool IsHostChar(char ch) {
  return std::isalnum(static_cast<unsigned char>(ch)) || ch == '.' || ch == '-' || ch == '_' ||
         ch == ':';
}

}  // namespace

DialTarget ParseDialAddress(std::string_view address, int32_t defaultPort) {
  DialTarget target;
  auto malformed = [&target](std::string why) {
    target.fault = {DialFault::Malformed, "malformed address (" + std::move(why) + ")"};
    return target;
  };
  std::string_view host = Trim(address);
  if (host.empty()) return malformed("blank");
  int32_t port = defaultPort;
  // Without a port the node dials its own listen port, as other nodes do.
  if (size_t colon = host.rfind(':'); colon != std::string_view::npos) {
    try {
      port = Variant(std::string(host.substr(colon + 1))).toInt32();
    } catch (const QelError&) {
      return malformed("the port is not a number");
    }
    host = Trim(host.substr(0, colon));
    // An explicit 0 is dialled as classic nodes did, and refused by the system.
    if (port < 0 || port > 65535) return malformed("the port is not from 0 to 65535");
  } else if (port < 1 || port > 65535) {
    return malformed("no port, and the node listens on none to dial instead");
  }
  if (host.empty() || !std::all_of(host.begin(), host.end(), IsHostChar)) {
    return malformed("the host is not a name or an IP address");
  }
  target.host = host;
  target.port = static_cast<uint16_t>(port);
  return target;
}

}  // namespace qel
