#include "core/module.h"

#include <qel/error.h>

#include "core/node_access.h"
#include "net/connections.h"
#include "net/event_loop.h"
#include "net/local_address.h"

namespace qel {

Module& TheModule() {
  static Module module;
  return module;
}

void Module::Init() {
  ProtocolVersion = "QEL/2.1";
  LocalAddress = GetLocalAddress();
  NodeSlots.resize(1);
  NodeInfoLimit = 20;
  NodeInfoList.resize(1);
  // The statistics timer turns the counters into rates twice a second; the
  // connection table starts its 5-second upkeep timer.
  static Timer* statsTimer = new Timer([] { TheModule().Statistics.Tick(statsTimer->Interval()); });
  statsTimer->SetInterval(500);
  statsTimer->Enable(true);
  Connections::Get();
  Initialised = true;
}

NodeState& Module::SwitchSession(int32_t slotIndex, bool reportBadCurrent) {
  if (!Initialised) {
    throw QelError(errors::kNotInitialised, "switchSession", "QEL not initialised");
  }
  // Each node's state stays in its slot, so switching saves nothing; a stale
  // current index is still worth reporting, as it means bookkeeping went wrong.
  if (slotIndex != CurrentSlot && CurrentSlot != 0 && !IsValidSlot(CurrentSlot) &&
      reportBadCurrent) {
    throw QelError(errors::kInvalidSession, "switchSession",
                   "Cannot save session. Invalid session index: " + std::to_string(slotIndex));
  }
  if (!IsValidSlot(slotIndex)) {
    throw QelError(errors::kInvalidSession, "switchSession",
                   "Cannot switch to session. Invalid session index: " + std::to_string(slotIndex));
  }
  CurrentSlot = slotIndex;
  return *NodeSlots[slotIndex];
}

int32_t Module::AddSlot(cQEL* owner) {
  auto state = std::make_shared<NodeState>();
  state->Owner = owner;
  NodeSlots.push_back(std::move(state));
  return static_cast<int32_t>(NodeSlots.size()) - 1;
}

void Module::RemoveSlot(int32_t slotIndex) {
  if (!IsValidSlot(slotIndex)) return;
  NodeSlots[slotIndex]->Owner = nullptr;
  NodeSlots.erase(NodeSlots.begin() + slotIndex);
  for (size_t i = slotIndex; i < NodeSlots.size(); ++i) {
    if (NodeSlots[i]->Owner) detail::NodeAccess::DecrementSlot(*NodeSlots[i]->Owner);
  }
  CurrentSlot = 0;
}

}  // namespace qel
