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
  // A line longer than the whole log would push everything else out and
  // still not fit; it is cut (and marked) to what the log can hold.
  constexpr std::string_view kBreak = "\r\n";
  constexpr std::string_view kCut = " [...]";
  std::string cut;
  if (line.size() + kBreak.size() > kLimit) {
    cut.reserve(kLimit - kBreak.size());
    cut.append(line.substr(0, kLimit - kBreak.size() - kCut.size())).append(kCut);
    line = cut;
  }
  const size_t added = line.size() + kBreak.size();
  if (text_.size() + added > kLimit) text_.erase(0, text_.size() + added - kLimit);
  text_.append(line);
  text_.append(kBreak);
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fputc('\n', stderr);
}

std::string DebugLogText() {
  return TheDebugLog().Text();
}

}  // namespace qel
