// The process-wide debug log: an in-memory text of at most the last 32000
// characters, mirrored line by line to stderr.
#pragma once

#include <string>
#include <string_view>

namespace qel {

class DebugLog {
 public:
  static constexpr size_t kLimit = 32000;

  bool Enabled() const { return enabled_; }

  // Turns the log on with firstLine as its text (mirrored to stderr); once
  // on it stays on.
  void Open(std::string firstLine);

  // Appends one line, dropping the oldest text so the log stays within
  // kLimit; a line that alone would not fit is cut, here and on stderr.
  // Callers test Enabled() first.
  void Write(std::string_view line);

  const std::string& Text() const { return text_; }

  // Test hook: start the log without the per-user store.
  void EnableForTest() { enabled_ = true; }

 private:
  bool enabled_ = false;
  std::string text_;
};

// The log of the process, shared by every node.
DebugLog& TheDebugLog();

// Writes line when the log is on.
inline void DebugLine(std::string_view line) {
  if (TheDebugLog().Enabled()) TheDebugLog().Write(line);
}

}  // namespace qel
