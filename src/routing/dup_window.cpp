#include "routing/dup_window.h"

namespace qel {

bool DupWindow::Note(const IDKey& key, int64_t now) {
  ids_.Expire(now);
  if (!ids_.Holding()) return false;
  if (ids_.Find(key)) return true;
  ids_.Add(key, now);
  return false;
}

}  // namespace qel
