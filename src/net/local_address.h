// Choosing this host's address, once per process.
#pragma once

#include <string>
#include <vector>

namespace qel {

// The first address that is neither 127.* nor 192.168.*, else the first one,
// else empty. Only those two prefixes count as not public, as on other nodes.
std::string ChooseLocalAddress(const std::vector<std::string>& addresses);

// QEL_LOCAL_ADDRESS when set, else the choice among the host's IPv4
// addresses in interface order.
std::string GetLocalAddress();

// The address this process advertises: GetLocalAddress(), chosen at the
// first call and kept.
const std::string& AdvertisedAddress();

}  // namespace qel
