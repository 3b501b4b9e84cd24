#include "node/module.h"

#include <qel/error.h>
#include <qel/variant.h>
#include <qel/version.h>

#include "core/debug_log.h"
#include "core/log.h"
#include "core/stats.h"
#include "net/event_loop.h"
#include "net/links.h"
#include "net/local_address.h"
#include "node/node_access.h"
#include "routing/confirm.h"

namespace qel {

Module& TheModule() {
  static Module module;
  return module;
}

namespace {

constexpr int32_t kConfirmIntervalMs = 500;

Timer& ConfirmTimer() {
  static Timer* timer = new Timer([] {
    Module& module = TheModule();
    for (int32_t slot = 1; slot <= module.SlotCount(); ++slot) {
      std::shared_ptr<NodeState> node = module.Slot(slot);
      if (node->confirmMode) ScanConfirmations(*node);
    }
  });
  return *timer;
}

}  // namespace

void CheckDebugMode(DebugLog& log, const UserSettings& store, const std::string& localAddress) {
  if (log.Enabled()) return;
  bool on = false;
  try {
    on = Variant(store.Get("debug", "enabled", "False")).toBool();
  } catch (const std::exception&) {
    on = false;  // an unreadable switch means off
  }
  if (!on) return;
  log.Open("Entered QEL Debug Mode " + Variant::Now().toString());
  log.Write(std::string("QEL Version ") + QEL_VERSION_STRING);
  log.Write("Local Address: " + localAddress + "\r\n");
}

void Module::UpdateConfirmTimer() {
  bool any = false;
  for (int32_t slot = 1; slot <= SlotCount() && !any; ++slot) any = Slot(slot)->confirmMode;
  Timer& timer = ConfirmTimer();
  if (any && !timer.Enabled()) timer.SetInterval(kConfirmIntervalMs);
  timer.Enable(any);
}

void Module::Init() {
  ReadLogEnvironment();
  AdvertisedAddress();
  NodeSlots.resize(1);
  // The statistics timer turns the counters into rates twice a second and
  // lets each node's duplicate window give back the IDs whose time is over,
  // which an idle node would otherwise hold; the link table starts its
  // 5-second upkeep timer.
  static Timer* statsTimer = new Timer([] {
    TheStats().Tick(statsTimer->Interval());
    Module& module = TheModule();
    const int64_t now = TickCount();
    for (int32_t slot = 1; slot <= module.SlotCount(); ++slot) {
      module.Slot(slot)->RecentIDs.Expire(now);
    }
  });
  statsTimer->SetInterval(500);
  statsTimer->Enable(true);
  links::Start();
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
