#include "net/memory_link.h"

#include <utility>

#include "net/link_table.h"

namespace qel {

std::pair<LinkId, LinkId> JoinInMemory(LinkOwner& dialler, const LinkLimits& diallerLimits,
                                       LinkOwner& acceptor, const LinkLimits& acceptorLimits) {
  auto dialled = std::make_unique<Socket>();
  auto accepted = std::make_unique<Socket>();
  Socket::JoinInMemory(*dialled, *accepted);
  LinkTable& table = LinkTable::Get();
  // The accepting end first: the dialler may write (a ClientHello, an INFO) as it comes up.
  const LinkId acceptorEnd =
      table.Adopt(acceptor, std::move(accepted), true, acceptorLimits, "memory:2");
  const LinkId diallerEnd =
      table.Adopt(dialler, std::move(dialled), false, diallerLimits, "memory:1");
  return {diallerEnd, acceptorEnd};
}

LinkId OpenInMemory(LinkOwner& owner, const LinkLimits& limits, bool accepted,
                    std::shared_ptr<std::string> sent) {
  auto socket = std::make_unique<Socket>();
  socket->ConnectInMemory(std::move(sent));
  return LinkTable::Get().Adopt(owner, std::move(socket), accepted, limits, "memory:1");
}

void ReceiveInMemory(LinkId link, std::string_view bytes) {
  if (ClosedInMemory(link)) return;
  LinkTable::Get().At(link.index).sck->ReceiveInMemory(bytes);
}

bool ClosedInMemory(LinkId link) {
  LinkTable& table = LinkTable::Get();
  return !table.Holds(link) || table.At(link.index).sck->State() == SocketState::Closed;
}

}  // namespace qel
