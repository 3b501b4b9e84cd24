// Logging a host or a user can turn on: levels, where the lines go, and the
// QEL_LOG environment variable.
#pragma once

#include <functional>
#include <optional>
#include <string_view>

#include <qel/export.h>

namespace qel {

// How much the nodes log; each level takes in the ones before it. Off, the
// default, logs nothing and formats nothing. Refusals and closed links are
// said at Info, links that come up at Debug, every message in and out at
// Trace.
enum class LogLevel : int { Off = 0, Error, Warn, Info, Debug, Trace };

// Sets the level of every node in the process; it wins over QEL_LOG. Any
// thread may call it.
QEL_API void SetLogLevel(LogLevel level);

// The level in force. QEL_LOG (error, warn, info, debug, trace or off, in
// any case) is read once, when the first node object is created or at the
// first SetLogLevel, whichever comes first; a value that names no level
// leaves logging off and says so once through the sink, at Warn.
QEL_API LogLevel GetLogLevel();

// The level named by text ("error", ..., "trace", "off"; any case), or
// nothing when text names none.
QEL_API std::optional<LogLevel> ParseLogLevel(std::string_view text);

// Receives one logged event: its level, the name of the node it is about
// (empty before Initialise) and the line, without a line break. It runs on
// the thread that logs, the event loop's, in the middle of the node's work:
// it must not call into the node, and should return quickly.
using LogSink = std::function<void(LogLevel level, std::string_view node, std::string_view line)>;

// Sends every logged event to sink instead of the default, which writes one
// line to stderr with a UTC timestamp, the level and the node's name. An
// empty sink restores the default. Any thread may call it; a sink being run
// on the loop finishes with the old one.
QEL_API void SetLogSink(LogSink sink);

}  // namespace qel
