#include "routing/resend_window.h"

namespace qel {

ResendWindow::Seen ResendWindow::Note(std::string_view id, int64_t now) {
  ids_.Expire(now);
  if (!ids_.Holding()) return Seen::First;
  const IDKey key = KeyOf(id);
  if (int64_t* confirmed = ids_.Find(key)) {
    if (now - *confirmed < kConfirmGapMs) return Seen::Recent;
    *confirmed = now;
    return Seen::Again;
  }
  ids_.Add(key, now) = now;
  return Seen::First;
}

}  // namespace qel
