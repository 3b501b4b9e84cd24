// The state all nodes of the process share, the slot table that holds each
// node's own state, and the guard every entry point passes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <qel/types.h>

#include "core/debug_log.h"
#include "node/node_state.h"
#include "node/user_settings.h"

namespace qel {

class Module {
 public:
  // One-time set-up: the local address, the debug switch, the timers.
  void Init();

  // Runs the confirmation timer while some node has confirmMode on.
  void UpdateConfirmTimer();

  // Makes slotIndex's node current and returns its state. Throws QelError
  // -2147221503 before Init and -2147221502 for an index that names no slot
  // (or, with reportBadCurrent, when the current slot is stale).
  NodeState& SwitchSession(int32_t slotIndex, bool reportBadCurrent);
  bool IsValidSlot(int32_t slotIndex) const {
    return slotIndex >= 1 && slotIndex < static_cast<int32_t>(NodeSlots.size());
  }

  // Appends a slot owned by owner and returns its index.
  int32_t AddSlot(cQEL* owner);
  // Removes a slot; later slots move down one place, each owner is told, and
  // afterwards no node is current.
  void RemoveSlot(int32_t slotIndex);

  // The state of a slot, shared so that code up the stack keeps it alive when
  // a handler shuts its node down.
  const std::shared_ptr<NodeState>& Slot(int32_t slotIndex) const { return NodeSlots[slotIndex]; }
  int32_t SlotCount() const { return static_cast<int32_t>(NodeSlots.size()) - 1; }

  bool Initialised = false;
  int32_t CurrentSlot = 0;

 private:
  // Position 0 is never a valid slot.
  std::vector<std::shared_ptr<NodeState>> NodeSlots;
};

// The process-wide module; set up by the first node object.
Module& TheModule();

// Turns log on when the per-user setting "enabled" in section "debug" of
// store says so, with its opening lines; a log that is on stays on.
void CheckDebugMode(DebugLog& log, const UserSettings& store, const std::string& localAddress);

}  // namespace qel
