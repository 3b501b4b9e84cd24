#include "net/links.h"

#include <algorithm>
#include <utility>

#include <qel/event_loop.h>

#include "net/link_table.h"

namespace qel::links {
namespace {

LinkTable& Table() {
  return LinkTable::Get();
}

// Whether link is up and still the link it named.
bool Current(LinkId link) {
  return Table().Holds(link) && Table().IsUp(link.index);
}

const std::string kNone;

}  // namespace

bool IsUp(LinkId link) {
  return Current(link);
}

void Write(LinkId link, std::string_view text) {
  if (Current(link)) Table().Write(link.index, text);
}

void WriteOwned(LinkId link, std::string&& text) {
  if (Current(link)) Table().WriteOwned(link.index, std::move(text));
}

void WriteOwned(LinkId link, std::string&& header, std::string&& body) {
  if (Current(link)) Table().WriteOwned(link.index, std::move(header), std::move(body));
}

bool CarriesFiles(LinkId link) {
  return Current(link) && Table().CarriesFiles(link.index);
}

void WriteFile(LinkId link, std::string&& header, FileSpan body) {
  if (CarriesFiles(link)) Table().WriteFile(link.index, std::move(header), std::move(body));
}

void WriteToAllExcept(const LinkOwner& owner, LinkId except, std::string_view text) {
  WriteToAllExcept(owner, except, std::span<const std::string_view>(&text, 1));
}

void WriteToAllExcept(const LinkOwner& owner, LinkId except,
                      std::span<const std::string_view> pieces) {
  Table().WriteToAllExcept(owner, Table().Holds(except) ? except.index : 0, pieces);
}

std::vector<LinkId> UpLinks(const LinkOwner& owner) {
  return Table().UpLinks(owner);
}

size_t QueuedBytes(LinkId link) {
  return Current(link) ? Table().QueuedBytes(link.index) : 0;
}

LinkId Fullest(const LinkOwner& owner) {
  const int32_t index = Table().Fullest(owner);
  return index == 0 ? LinkId{} : Table().Id(index);
}

void WhenDrained(LinkId link, size_t below, std::function<void()> fn) {
  if (Table().Holds(link)) return Table().At(link.index).WhenDrained(below, std::move(fn));
  // A link that is gone has nothing left to drain: fn runs from the loop and finds it down.
  Post(std::move(fn));
}

LinkId OfNode(const LinkOwner& owner, std::string_view nodeID) {
  const int32_t index = Table().LinkOfNode(owner, nodeID);
  return index == 0 ? LinkId{} : Table().Id(index);
}

const std::string& PeerNode(LinkId link) {
  return Table().Holds(link) ? Table().At(link.index).NodeID : kNone;
}

std::string SetPeerNode(LinkId link, const std::string& nodeID, std::string_view port) {
  if (!Table().Holds(link)) return {};
  return Table().SetPeerNode(link.index, nodeID, port);
}

const std::string& PeerKey(LinkId link) {
  return Table().Holds(link) ? Table().PeerKey(link.index) : kNone;
}

typLinkInfo Info(LinkId link) {
  return Table().Holds(link) ? Table().LinkInfo(link.index) : typLinkInfo{};
}

void CloseRefused(LinkId link, const std::string& text) {
  if (Current(link)) Table().CloseRefused(link.index, text);
}

bool HasOpenLink(const LinkOwner& owner) {
  return Table().HasOpenLink(owner);
}

std::vector<typLinkInfo> OpenLinks(const LinkOwner& owner) {
  return Table().OpenLinks(owner);
}

void Describe(const LinkOwner& owner, NodeSnapshot& into) {
  Table().Describe(owner, into);
}

int32_t Listen(LinkOwner& owner, int32_t port, const std::string& address,
               const LinkLimits& limits) {
  return Table().ListenOnPort(owner, port, address, limits);
}

DialResult Connect(LinkOwner& owner, const std::string& address, bool maintain,
                   const LinkLimits& limits) {
  return Table().ConnectTo(owner, address, maintain, limits);
}

bool CloseAddress(LinkOwner& owner, const std::string& address, const std::string& nodeID) {
  return Table().CloseAddress(owner, address, nodeID);
}

bool CloseListeners(const LinkOwner& owner) {
  return Table().CloseListeners(owner);
}

void CloseAll(const LinkOwner& owner) {
  Table().CloseOwnedBy(owner);
}

void Start() {
  Table();
}

}  // namespace qel::links
