#include "stamped_message.h"

#include "core/new_id.h"
#include "harness.h"
#include "node/module.h"
#include "node/node_access.h"
#include "node/node_state.h"
#include "routing/outgoing.h"

namespace qelbench {

qel::typMessage StampedMessage(qel::cQEL& node) {
  qel::NodeState& state = *qel::TheModule().Slot(qel::detail::NodeAccess::SlotIndex(node));
  qel::typMessage message = qel::NewMessage();
  qel::SetField(message.Fields, "Type", qel::Variant(""));
  qel::SetField(message.Fields, "Destination", qel::Variant(qel::NewID()));
  message.MsgType = "MSG";
  message.Body = Payload();
  qel::StampMessage(state, message);
  return message;
}

}  // namespace qelbench
