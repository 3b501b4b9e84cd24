#include "net/memory_link.h"

#include <utility>

#include "net/link_table.h"

namespace qel {

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
