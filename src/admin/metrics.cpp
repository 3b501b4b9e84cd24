#include "admin/metrics.h"

#include <algorithm>
#include <map>
#include <vector>

namespace qel::admin {
namespace {

class Writer {
 public:
  // HELP and TYPE once per family; help holds no backslash or newline.
  void Family(std::string_view name, std::string_view type, std::string_view help) {
    text_.append("# HELP ").append(name).append(" ").append(help).append("\n");
    text_.append("# TYPE ").append(name).append(" ").append(type).append("\n");
  }
  void Sample(std::string_view name, int64_t value, std::string_view labels = {}) {
    text_.append(name);
    if (!labels.empty()) text_.append("{").append(labels).append("}");
    text_.append(" ").append(std::to_string(value)).append("\n");
  }
  void One(std::string_view name, std::string_view type, std::string_view help, int64_t value) {
    Family(name, type, help);
    Sample(name, value);
  }
  std::string Take() { return std::move(text_); }

 private:
  std::string text_;
};

struct PeerFigures {
  int64_t bytesIn = 0, bytesOut = 0, messagesIn = 0, messagesOut = 0, queued = 0;
};

}  // namespace

std::string EscapeLabel(std::string_view value) {
  std::string out;
  out.reserve(value.size());
  for (char c : value) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '"') {
      out += "\\\"";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out;
}

std::string Metrics(const NodeSnapshot& s) {
  Writer w;
  const char* counter = "counter";
  const char* gauge = "gauge";
  w.One("qel_messages_received_total", counter, "Whole messages this node received over its links.",
        s.messagesReceived);
  w.One("qel_messages_sent_total", counter, "Whole messages this node sent over its links.",
        s.messagesSent);
  w.One("qel_bytes_received_total", counter, "Bytes this node received over its links.",
        s.bytesReceived);
  w.One("qel_bytes_sent_total", counter, "Bytes this node sent over its links.", s.bytesSent);
  w.One("qel_relayed_total", counter, "Messages this node passed on towards other nodes.",
        s.relayed);
  w.One("qel_duplicates_dropped_total", counter,
        "Copies of messages this node dropped as seen before.", s.duplicatesDropped);
  w.One("qel_events_total", counter, "Events this node raised to its host.", s.eventsRaised);
  w.Family("qel_refusals_total", counter,
           "What this node refused because a peer asked for more than its limits allow, by reason.");
  for (const RefusalSnapshot& r : s.refusals) {
    w.Sample("qel_refusals_total", r.node, "reason=\"" + EscapeLabel(r.reason) + "\"");
  }
  w.One("qel_links", gauge, "Links of this node, open or coming up.",
        static_cast<int64_t>(s.links.size()));
  w.One("qel_known_nodes", gauge, "Nodes this node holds an entry for.",
        static_cast<int64_t>(s.knownNodes.size()));
  w.One("qel_routes", gauge, "Routes this node learned.", s.routes);
  w.One("qel_memory_held_bytes", gauge, "Bytes the node's links hold against memoryBudget.",
        s.memoryHeld);
  w.One("qel_memory_budget_bytes", gauge, "The node's memoryBudget.", s.memoryBudget);
  w.One("qel_transfers_active", gauge, "File transfers running, fetched or served.",
        static_cast<int64_t>(s.transfers.size()));
  w.One("qel_rpc_pending", gauge, "Calls from other nodes waiting for the host's answer.",
        s.rpcPending);

  // One series per peer, links to the same peer added up; a peer that has not
  // announced itself counts under peer="".
  std::map<std::string, PeerFigures> byPeer;
  for (const LinkSnapshot& l : s.links) {
    PeerFigures& p = byPeer[l.nodeID];
    p.bytesIn += l.bytesIn;
    p.bytesOut += l.bytesOut;
    p.messagesIn += l.messagesIn;
    p.messagesOut += l.messagesOut;
    p.queued += l.bytesQueued;
  }
  std::vector<std::pair<const std::string*, const PeerFigures*>> peers;
  for (const auto& [id, figures] : byPeer) peers.emplace_back(&id, &figures);
  const auto busier = [](const auto& a, const auto& b) {
    return a.second->bytesIn + a.second->bytesOut > b.second->bytesIn + b.second->bytesOut;
  };
  if (peers.size() > kMetricPeers) {
    std::partial_sort(peers.begin(), peers.begin() + kMetricPeers, peers.end(), busier);
    peers.resize(kMetricPeers);
  }
  std::vector<std::string> labels;
  for (const auto& [id, figures] : peers) labels.push_back("peer=\"" + EscapeLabel(*id) + "\"");
  const auto perPeer = [&](std::string_view name, std::string_view type, std::string_view help,
                           int64_t PeerFigures::*figure) {
    w.Family(name, type, help);
    for (size_t i = 0; i < peers.size(); ++i) w.Sample(name, peers[i].second->*figure, labels[i]);
  };
  perPeer("qel_link_bytes_received_total", counter,
          "Bytes received from a neighbour, by its node ID (the 64 busiest neighbours).",
          &PeerFigures::bytesIn);
  perPeer("qel_link_bytes_sent_total", counter,
          "Bytes sent to a neighbour, by its node ID (the 64 busiest neighbours).",
          &PeerFigures::bytesOut);
  perPeer("qel_link_messages_received_total", counter,
          "Messages received from a neighbour, by its node ID (the 64 busiest neighbours).",
          &PeerFigures::messagesIn);
  perPeer("qel_link_messages_sent_total", counter,
          "Messages sent to a neighbour, by its node ID (the 64 busiest neighbours).",
          &PeerFigures::messagesOut);
  perPeer("qel_link_queued_bytes", gauge,
          "Bytes waiting to be sent to a neighbour, by its node ID (the 64 busiest neighbours).",
          &PeerFigures::queued);
  return w.Take();
}

}  // namespace qel::admin
