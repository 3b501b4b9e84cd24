#include "core/debug_log.h"

#include <cstdio>

#include <qel/debug.h>

namespace qel {

DebugLog& TheDebugLog() {
  static DebugLog* log = new DebugLog;  // node objects may outlive statics
  return *log;
}

void DebugLog::Open(std::string firstLine) {
  if (enabled_) return;
  enabled_ = true;
  text_ = std::move(firstLine);
  std::fprintf(stderr, "%s\n", text_.c_str());
}

void DebugLog::Write(std::string_view line) {
  // The trim counts only the new line's own characters, not its line break,
  // so the text may stand a little over the limit.
  if (text_.size() + line.size() > kLimit) {
    size_t keep = text_.size() > line.size() ? text_.size() - line.size() : 0;
    text_.erase(0, text_.size() - keep);
  }
  text_.append(line);
  text_.append("\r\n");
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fputc('\n', stderr);
}

std::string DebugLogText() {
  return TheDebugLog().Text();
}

}  // namespace qel
