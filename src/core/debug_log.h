// The process-wide debug log: an in-memory text of about the last 32000
// characters, mirrored line by line to stderr.
#pragma once

#include <string>
#include <string_view>

#include "core/user_settings.h"

namespace qel {

class DebugLog {
 public:
  static constexpr size_t kLimit = 32000;

  bool Enabled() const { return enabled_; }

  // Turns the log on when the per-user setting "enabled" in section "debug"
  // says so; once on it stays on. Writes the opening lines.
  void CheckDebugMode(const UserSettings& store, const std::string& localAddress);

  // Appends one line. Callers test Enabled() first.
  void Write(std::string_view line);

  const std::string& Text() const { return text_; }

  // Test hook: start the log without the per-user store.
  void EnableForTest() { enabled_ = true; }

 private:
  bool enabled_ = false;
  std::string text_;
};

}  // namespace qel
