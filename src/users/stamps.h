// The stamps of the user list: when a record last changed, to the second.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace qel {

using Stamp = std::chrono::sys_seconds;

// A stamp as this node writes it: local time "YYYY-MM-DD HH:MM:SS".
std::string WriteStamp(Stamp stamp);

// Reads a stamp written as WriteStamp does, or in the classic general-date
// form "M/D/YYYY h:mm:ss AM" (or PM; the date alone means midnight), both
// local time. nullopt when the text is neither.
std::optional<Stamp> ReadStamp(std::string_view text);

// Whether a received record replaces the local one: a received stamp that
// cannot be read never does; a local one that cannot be read (or none) loses
// to any readable received one; otherwise the later second wins.
bool ReceivedIsNewer(std::string_view received, std::string_view local);

}  // namespace qel
