#include "core/debug_log.h"

#include <cstdio>

#include <qel/debug.h>
#include <qel/variant.h>
#include <qel/version.h>

#include "core/module.h"

namespace qel {

void DebugLog::CheckDebugMode(const UserSettings& store, const std::string& localAddress) {
  if (enabled_) return;
  bool on = false;
  try {
    on = Variant(store.Get("debug", "enabled", "False")).toBool();
  } catch (const std::exception&) {
    on = false;  // an unreadable switch means off
  }
  if (!on) return;
  enabled_ = true;
  text_ = "Entered QEL Debug Mode " + Variant::Now().toString();
  std::fprintf(stderr, "%s\n", text_.c_str());
  Write(std::string("QEL Version ") + QEL_VERSION_STRING);
  Write("Local Address: " + localAddress + "\r\n");
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
  return TheModule().Debug.Text();
}

}  // namespace qel
