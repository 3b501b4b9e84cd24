#include "connection_target.h"

#include <stdexcept>
#include <string>
#include <string_view>

#include <qel/event_loop.h>
#include <qel/node.h>

#include "net/connections.h"
#include "node/module.h"
#include "node/node_access.h"
#include "protocol/feeder.h"

namespace qel {
namespace {

// Port 0 refuses at once: the dial only makes the table hand out an element
// with the node as its owner, which then goes in-memory.
constexpr const char* kNowhere = "127.0.0.1:0";

// Small enough that inflating bodies stays fast, large enough for any input.
constexpr int64_t kMaxMessage = 1 << 20;

}  // namespace

struct ConnectionFuzzer::Impl {
  struct Link {
    int32_t index = 0;
    std::shared_ptr<std::string> sent = std::make_shared<std::string>();
  };

  Impl() {
    node.Initialise("fuzz");
    state = TheModule().Slot(detail::NodeAccess::SlotIndex(node));
    // Fixed, so that inputs can address the node and decrypt for it.
    state->NodeID = kNodeID;
    state->EncryptionKey = kEncryptionKey;
    state->netPass = kNetPass;
    state->maxMessage = kMaxMessage;
    in = Open();
    out = Open();
  }

  Link Open() {
    node.Connect(kNowhere);
    auto& table = Connections::Get();
    for (int32_t i = table.Count(); i >= 1; --i) {
      Connection& c = table.At(i);
      if (c.Owner.lock().get() == state.get() && c.Address == kNowhere &&
          c.sck->State() == SocketState::Closed) {
        Link link{.index = i};
        c.sck->ConnectInMemory(link.sent);
        return link;
      }
    }
    throw std::runtime_error("the connection table gave the node no element");
  }

  // Every input starts from the same state: both links up and empty, no
  // message seen and no route learned.
  void Reset(Link& link) {
    Connection& c = Connections::Get().At(link.index);
    if (c.sck->State() != SocketState::Connected) c.sck->ConnectInMemory(link.sent);
    c.Partial = MessageFeeder(
        {.maxHeader = 65536, .maxMessage = c.limits.maxMessage, .keepPlainAsBytes = true});
    c.inbox.Release();
    c.inboxBytes = 0;
    c.drainPending = false;
    c.backlogFull = false;
    link.sent->clear();
  }

  cQEL node;
  std::shared_ptr<NodeState> state;
  Link in;
  Link out;
};

ConnectionFuzzer::ConnectionFuzzer() : impl_(std::make_unique<Impl>()) {}

ConnectionFuzzer::~ConnectionFuzzer() = default;

const std::string& ConnectionFuzzer::Relayed() const {
  return *impl_->out.sent;
}

void ConnectionFuzzer::Receive(std::string_view data) {
  impl_->out.sent->clear();
  Connections::Get().At(impl_->in.index).sck->ReceiveInMemory(data);
}

bool ConnectionFuzzer::Run(const uint8_t* data, size_t size) {
  if (size < 2) return true;
  Impl& f = *impl_;
  f.Reset(f.in);
  f.Reset(f.out);
  f.state->SeenIDs = PacketCache(f.state->SeenIDs.Capacity());
  f.state->Routes = RouteTable(f.state->maxRoutes);

  // The first two bytes pick the piece size, so splits are explored too.
  const size_t piece = 1 + ((data[0] << 8 | data[1]) % 4096);
  std::string_view input(reinterpret_cast<const char*>(data + 2), size - 2);
  Socket& socket = *Connections::Get().At(f.in.index).sck;
  for (size_t at = 0; at < input.size(); at += piece) {
    socket.ReceiveInMemory(input.substr(at, piece));
  }
  DoEvents(0);  // what the table deferred: closes and drains

  // A relay writes whole messages, which the next node must be able to cut.
  MessageFeeder reread({.maxHeader = 65536, .maxMessage = kMaxMessage});
  auto outcome = reread.Feed(*f.out.sent, [](typMessage&&) {});
  return outcome == MessageFeeder::Outcome::Ok && !reread.InProgress();
}

}  // namespace qel
