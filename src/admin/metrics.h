// A node's snapshot in the Prometheus text format, version 0.0.4.
#pragma once

#include <string>
#include <string_view>

#include <qel/snapshot.h>

namespace qel::admin {

// Per-peer series are kept to this many peers, the busiest by bytes.
inline constexpr size_t kMetricPeers = 64;

std::string Metrics(const NodeSnapshot& snapshot);

// A label value as the format writes it inside its quotes.
std::string EscapeLabel(std::string_view value);

}  // namespace qel::admin
