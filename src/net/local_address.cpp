#include "net/local_address.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <cstdlib>

namespace qel {

std::string ChooseLocalAddress(const std::vector<std::string>& addresses) {
  for (const std::string& address : addresses) {
    if (!address.starts_with("127.") && !address.starts_with("192.168.")) return address;
  }
  return addresses.empty() ? std::string() : addresses.front();
}

std::string GetLocalAddress() {
  if (const char* forced = std::getenv("QEL_LOCAL_ADDRESS"); forced && *forced) return forced;
  std::vector<std::string> addresses;
  // The interface list rather than a lookup of the host name: no resolver
  // traffic, and the same answer on hosts whose name maps to 127.0.1.1.
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) == 0) {
    for (ifaddrs* entry = list; entry; entry = entry->ifa_next) {
      if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET) continue;
      char text[INET_ADDRSTRLEN] = {};
      auto* in = reinterpret_cast<sockaddr_in*>(entry->ifa_addr);
      if (inet_ntop(AF_INET, &in->sin_addr, text, sizeof text)) addresses.emplace_back(text);
    }
    freeifaddrs(list);
  }
  return ChooseLocalAddress(addresses);
}

const std::string& AdvertisedAddress() {
  static const std::string* address = new std::string(GetLocalAddress());
  return *address;
}

}  // namespace qel
