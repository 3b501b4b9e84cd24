// The level check the library makes before it formats a log line, and the
// write behind it.
#pragma once

#include <atomic>
#include <string>
#include <string_view>

#include <qel/log.h>

namespace qel {

namespace detail {
extern std::atomic<int> logLevel;
}  // namespace detail

// Whether level is logged: one load and a compare, the only cost when it is not.
inline bool LogOn(LogLevel level) {
  return static_cast<int>(level) <= detail::logLevel.load(std::memory_order_relaxed);
}

// Hands one line to the sink, whatever the level.
void WriteLog(LogLevel level, std::string_view node, std::string_view line);

// Logs the line format() returns when level is on; format is not run otherwise.
template <class Format>
void Log(LogLevel level, std::string_view node, Format&& format) {
  if (LogOn(level)) [[unlikely]] {
    WriteLog(level, node, format());
  }
}

// What a QEL_LOG value asks for: the level, and a warning for one that names
// none (the level is then Off). Empty or unset asks for Off.
struct EnvLogLevel {
  LogLevel level = LogLevel::Off;
  std::string warning;
};
EnvLogLevel LevelFromEnvironment(const char* value);

// Applies QEL_LOG the first time it is called (or the first SetLogLevel
// was); later calls do nothing.
void ReadLogEnvironment();

}  // namespace qel
