#include "admin/snapshot_json.h"

namespace qel::admin {

Json SnapshotJson(const qel::NodeSnapshot& s) {
  Json links = Json::array();
  for (const qel::LinkSnapshot& l : s.links) {
    links.push_back({{"address", l.address},
                     {"nodeID", l.nodeID},
                     {"peerKey", l.peerKey},
                     {"accepted", l.accepted},
                     {"secure", l.secure},
                     {"up", l.up},
                     {"bytesIn", l.bytesIn},
                     {"bytesOut", l.bytesOut},
                     {"messagesIn", l.messagesIn},
                     {"messagesOut", l.messagesOut},
                     {"bytesQueued", l.bytesQueued},
                     {"ageSeconds", l.ageSeconds}});
  }
  Json known = Json::array();
  for (const qel::KnownNodeSnapshot& n : s.knownNodes) {
    known.push_back({{"nodeID", n.nodeID},
                     {"name", n.name},
                     {"address", n.address},
                     {"direct", n.direct},
                     {"secondsSinceInfo", n.secondsSinceInfo}});
  }
  Json transfers = Json::array();
  for (const qel::TransferSnapshot& t : s.transfers) {
    transfers.push_back({{"reqID", t.reqID},
                         {"nodeID", t.nodeID},
                         {"path", t.path},
                         {"incoming", t.incoming},
                         {"bytesDone", t.bytesDone},
                         {"bytesTotal", t.bytesTotal},
                         {"bytesPerSecond", t.bytesPerSecond}});
  }
  Json refusals = Json::object();
  for (const qel::RefusalSnapshot& r : s.refusals) {
    refusals[r.reason] = {{"node", r.node}, {"process", r.process}};
  }
  return {{"name", s.name},
          {"nodeID", s.nodeID},
          {"keyID", s.keyID},
          {"port", s.port},
          {"listening", s.listening},
          {"secureMode", s.secureMode},
          {"links", std::move(links)},
          {"knownNodes", std::move(known)},
          {"routes", s.routes},
          {"dupWindowIDs", s.dupWindowIDs},
          {"learnedRoutes", s.learnedRoutes},
          {"transfers", std::move(transfers)},
          {"rpcPending", s.rpcPending},
          {"usersKnown", s.usersKnown},
          {"memoryHeld", s.memoryHeld},
          {"memoryBudget", s.memoryBudget},
          {"messagesReceived", s.messagesReceived},
          {"messagesSent", s.messagesSent},
          {"bytesReceived", s.bytesReceived},
          {"bytesSent", s.bytesSent},
          {"relayed", s.relayed},
          {"duplicatesDropped", s.duplicatesDropped},
          {"eventsRaised", s.eventsRaised},
          {"refusals", std::move(refusals)}};
}

}  // namespace qel::admin
