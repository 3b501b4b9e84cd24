#include "core/log.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>

namespace qel {
namespace detail {
std::atomic<int> logLevel{static_cast<int>(LogLevel::Off)};
}  // namespace detail

namespace {

constexpr std::string_view kNames[] = {"off", "error", "warn", "info", "debug", "trace"};

struct SinkSlot {
  std::mutex mutex;
  std::shared_ptr<const LogSink> sink;  // null: stderr
};

SinkSlot& TheSink() {
  static SinkSlot* slot = new SinkSlot;  // nodes may log from static destructors
  return *slot;
}

std::once_flag environmentRead;

void WriteToStderr(LogLevel level, std::string_view node, std::string_view line) {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const std::time_t seconds = system_clock::to_time_t(now);
  const auto ms = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &utc);
  const std::string_view name = kNames[static_cast<int>(level)];
  // One call per line, so lines of several threads do not interleave.
  std::fprintf(stderr, "%s.%03dZ %-5.*s %.*s: %.*s\n", stamp, static_cast<int>(ms),
               static_cast<int>(name.size()), name.data(),
               static_cast<int>(node.empty() ? 1 : node.size()), node.empty() ? "-" : node.data(),
               static_cast<int>(line.size()), line.data());
}

}  // namespace

void WriteLog(LogLevel level, std::string_view node, std::string_view line) {
  std::shared_ptr<const LogSink> sink;
  {
    SinkSlot& slot = TheSink();
    std::lock_guard lock(slot.mutex);
    sink = slot.sink;
  }
  if (sink) {
    (*sink)(level, node, line);
  } else {
    WriteToStderr(level, node, line);
  }
}

std::optional<LogLevel> ParseLogLevel(std::string_view text) {
  for (size_t i = 0; i < std::size(kNames); ++i) {
    const std::string_view name = kNames[i];
    if (text.size() != name.size()) continue;
    bool same = true;
    for (size_t j = 0; j < name.size() && same; ++j) {
      same = (text[j] | 0x20) == name[j];
    }
    if (same) return static_cast<LogLevel>(i);
  }
  return std::nullopt;
}

EnvLogLevel LevelFromEnvironment(const char* value) {
  if (value == nullptr || *value == '\0') return {};
  if (auto level = ParseLogLevel(value)) return {*level, {}};
  return {LogLevel::Off, "QEL_LOG=" + std::string(value) +
                             " names no level (error, warn, info, debug, trace or off): "
                             "logging stays off"};
}

void ReadLogEnvironment() {
  std::call_once(environmentRead, [] {
    const EnvLogLevel asked = LevelFromEnvironment(std::getenv("QEL_LOG"));
    detail::logLevel.store(static_cast<int>(asked.level), std::memory_order_relaxed);
    // Said whatever the level: whoever set the variable wanted to hear something.
    if (!asked.warning.empty()) WriteLog(LogLevel::Warn, {}, asked.warning);
  });
}

void SetLogLevel(LogLevel level) {
  ReadLogEnvironment();
  detail::logLevel.store(static_cast<int>(level), std::memory_order_relaxed);
}

LogLevel GetLogLevel() {
  return static_cast<LogLevel>(detail::logLevel.load(std::memory_order_relaxed));
}

void SetLogSink(LogSink sink) {
  auto shared = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
  SinkSlot& slot = TheSink();
  std::lock_guard lock(slot.mutex);
  slot.sink = std::move(shared);
}

}  // namespace qel
