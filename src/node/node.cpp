#include <qel/node.h>

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <source_location>
#include <stdexcept>
#include <string_view>

#include <qel/error.h>

#include "core/debug_log.h"
#include "core/fault.h"
#include "core/new_id.h"
#include "core/node_key.h"
#include "core/text.h"
#include "files/ranges.h"
#include "files/sharing.h"
#include "files/transfer.h"
#include "net/event_loop.h"
#include "net/links.h"
#include "net/local_address.h"
#include "net/tls_engine.h"
#include "node/advanced_values.h"
#include "node/module.h"
#include "node/node_access.h"
#include "node/snapshot.h"
#include "routing/confirm.h"
#include "routing/discovery.h"
#include "routing/outgoing.h"
#include "routing/report.h"
#include "rpc/rpc.h"
#include "users/user_list.h"
#include "users/users.h"

namespace qel {
namespace {

// "cQEL::Connect" from the compiler's full name of the method.
std::string MethodName(std::string_view full) {
  full = full.substr(0, full.find('('));
  const size_t at = full.rfind("cQEL::");
  return std::string(at == std::string_view::npos ? full : full.substr(at));
}

// The guard every public method passes: refuses a thread other than the
// loop's, makes the node current and keeps its state alive for the rest of
// the call, even if a handler shuts it down.
std::shared_ptr<NodeState> Enter(cQEL& self,
                                 std::source_location where = std::source_location::current()) {
  if (!OnLoopThread()) ThrowWrongThread(MethodName(where.function_name()));
  Module& module = TheModule();
  int32_t slot = detail::NodeAccess::SlotIndex(self);
  module.SwitchSession(slot, true);
  return module.Slot(slot);
}

// The OS account running the process, cut to 24 characters as other nodes
// announce it.
std::string AccountName() {
  std::string name;
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::string buffer(size > 0 ? static_cast<size_t>(size) : 16384, '\0');
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found) {
    name = found->pw_name;
  } else if (const char* user = std::getenv("USER")) {
    name = user;
  }
  return name.substr(0, 24);
}

// Table sizes below zero are the classic subscript fault.
void MakeTable(int32_t upper, const char* key) {
  if (upper < 0) {
    throw QelError(errors::kSubscriptOutOfRange, "Initialise",
                   std::string("Subscript out of range: advanced setting ") + key + " = \"" +
                       std::to_string(upper) + "\" must be 0 or more");
  }
}

void ApplySettings(NodeState& node, const std::string& nodeName, int32_t listenPort, enmRole role,
                   const std::string& descriptor, const std::string& sharedDir,
                   const AdvancedValues& values) {
  node.EncryptionKey = NewID();
  node.NodeID = NewID();
  node.ListenPort = listenPort;
  node.Name = nodeName;
  node.Role = role;
  node.Descriptor = descriptor;

  // Keys the text does not give take the table's defaults, all but the pass
  // phrase, which a node keeps from its last Initialise. A value of the wrong
  // type stops the reading there, with the earlier keys already set.
  node.Timeout = values.Get("Timeout").toInt32();
  node.TTL = values.Get("TTL").toInt32();
  node.useEnc = values.Get("useEnc").toBool();
  if (values.Given("netPass")) node.netPass = values.Get("netPass").toString();
  node.useComp = values.Get("useComp").toBool();
  node.seeSelf = values.Get("seeSelf").toBool();
  node.announceSelf = values.Get("announceSelf").toBool();
  node.maxRoutes = static_cast<int16_t>(values.Get("maxRoutes").toInt32());
  node.confirmMode = values.Get("confirmMode").toBool();
  node.confirmTimeout = values.Get("confirmTimeout").toInt32();
  node.confirmRetry = values.Get("confirmRetry").toInt32();
  const int32_t filePacket = values.Get("filePacket").toInt32();
  const int32_t packetCache = values.Get("packetCache").toInt32();
  const int32_t dupWindow = values.Get("dupWindow").toInt32();
  node.maxMessage = values.Get("maxMessage").toInt64();
  node.memoryBudget = values.Get("memoryBudget").toInt64();
  node.stallTimeout = values.Get("stallTimeout").toInt32();
  node.maxConnections = values.Get("maxConnections").toInt32();
  node.keepAlive = values.Get("keepAlive").toInt32();
  node.listenAddress = Trim(values.Get("listenAddress").toString());
  node.Security = LinkSecurity();
  if (auto mode = ParseSecureMode(values.Get("secureMode").toString())) node.Security.mode = *mode;
  if (auto trusted = ParseKeyList(values.Get("trustedPeers").toString())) {
    node.Security.trusted = std::move(*trusted);
  }
  // A value that does not read must not leave the links open to anyone: the node requires
  // TLS then, and a trust list that does not read trusts no key.
  if (values.FaultKey() == "secureMode" || values.FaultKey() == "trustedPeers") {
    node.Security.mode = SecureMode::Require;
  }
  if (values.FaultKey() == "trustedPeers") node.Security.trusted = {"no key"};
  // Out of range values are held to the range: a fetch needs a window and a
  // stall time to work at all.
  FetchSettings& fetch = node.FetchConfig;
  fetch.windowBytes = std::max<int64_t>(values.Get("transferWindow").toInt32(), 64) * 1024;
  fetch.chunkBytes = std::min<int64_t>(fetch.windowBytes, int64_t{1} << 20);
  fetch.stallMs = std::clamp(values.Get("transferStall").toInt32(), 1, 86400) * 1000;
  fetch.retries = std::clamp(values.Get("transferRetries").toInt32(), 0, 1000);
  values.ThrowFault();
  if (node.netPass.empty()) node.netPass = "blankey";

  int64_t packetBytes = int64_t{filePacket} * 1024;
  if (packetBytes > INT32_MAX || packetBytes < INT32_MIN) {
    throw QelError(errors::kOverflow, "Initialise",
                   "Overflow: advanced setting filePacket = \"" + std::to_string(filePacket) +
                       "\" must be an integer from 1 to " + std::to_string(INT32_MAX / 1024));
  }
  node.FilePacketBytes = static_cast<int32_t>(packetBytes);
  fetch.answerMs = std::max(node.Timeout, 1);

  node.RoutingOn = node.maxRoutes >= 1;
  // Negative sizes fail as the classic table set-up did.
  MakeTable(node.maxRoutes, "maxRoutes");
  MakeTable(packetCache, "packetCache");
  node.Routes = RouteTable(node.maxRoutes);
  node.SeenIDs = PacketCache(packetCache);
  node.RecentIDs = DupWindow();
  node.RecentIDs.SetSpan(std::max(dupWindow, 0) * int64_t{1000});
  node.Resends = ResendWindow();
  // Every write and resend of a confirmed message, as this node would make
  // them, and a second for the last to arrive.
  node.Resends.SetSpan(int64_t{node.confirmTimeout} * (int64_t{node.confirmRetry} + 1) + 1000);
  node.Files.Folders.assign(1, typSharedFolder{});
  node.SharingFiles = false;

  if (!Trim(sharedDir).empty()) ShareFolder(node.Files.Folders, node.SharingFiles, sharedDir);
  TheModule().UpdateConfirmTimer();
}

// The key of keyFile, or a fresh one for this run when it is blank. A file
// that gives no key leaves the node without one: running under another
// identity than the one asked for would be worse than running without.
void TakeKey(NodeState& node, const std::string& keyFile) {
  node.Key = NodeKey();
  if (keyFile.empty()) {
    node.Key = NodeKey::Fresh();
    if (!node.Key.Valid()) throw std::runtime_error("no node key could be made");
    DebugLine("Node " + node.Name + ": no keyFile, a fresh key for this run: key ID " +
              node.Key.ID());
    return;
  }
  LoadedKey loaded = LoadOrCreateNodeKey(keyFile);
  if (!loaded.key.Valid()) {
    throw QelError(errors::kCorruptSettings, "Initialise",
                   "Bad key file: advanced setting keyFile: " + keyFile + " " + loaded.why);
  }
  node.Key = std::move(loaded.key);
  if (loaded.created) DebugLine("Node " + node.Name + ": created key file " + keyFile);
}

}  // namespace

cQEL::cQEL() {
  if (!OnLoopThread()) ThrowWrongThread("cQEL::cQEL");
  Module& module = TheModule();
  if (!module.Initialised) module.Init();
  CheckDebugMode(TheDebugLog(), UserSettings(), AdvertisedAddress());
  slotIndex = module.AddSlot(this);
  NodeState& node = module.SwitchSession(slotIndex, module.CurrentSlot >= 1);
  node.LocalAccount = AccountName();
  node.ActiveUser = node.LocalAccount;
  try {
    // An account the OS would not name has no record to keep.
    if (!node.LocalAccount.empty()) SetUser(node.Users.List, node.LocalAccount, "", node.Name);
  } catch (...) {
    ReportCurrentFault(node);
  }
}

cQEL::~cQEL() {
  // Handlers often capture what owns this object, which may already be half
  // destroyed: the destructor raises no events.
  MessageReceived = nullptr;
  Error = nullptr;
  ConnectionReq = nullptr;
  ConnectionEstab = nullptr;
  ConnectionClosed = nullptr;
  FileReceived = nullptr;
  FetchProgress = nullptr;
  FetchFinished = nullptr;
  FileRequest = nullptr;
  try {
    if (slotIndex >= 1) ShutDown();
  } catch (const QelError& e) {
    // Closing from here would race the loop; the host must hear of it.
    if (e.Number == errors::kWrongThread) std::fprintf(stderr, "QEL: %s\n", e.Description.c_str());
  } catch (...) {
    // A destructor must not throw; there is nobody left to tell.
  }
}

void cQEL::Initialise(const std::string& nodeName, int32_t listenPort, enmRole Role,
                      const std::string& Descriptor, const std::string& sharedDir,
                      const std::string& advancedSettings) {
  auto node = Enter(*this);
  try {
    const AdvancedValues values(advancedSettings);
    try {
      ApplySettings(*node, nodeName, listenPort, Role, Descriptor, sharedDir, values);
    } catch (...) {
      ReportCurrentFault(*node);
    }
    // A node has its key whatever else the settings got wrong.
    if (node->Alive()) {
      TakeKey(*node, std::string(Trim(values.Get("keyFile").toString())));
      if (node->Security.mode != SecureMode::Off) {
        auto identity = std::make_shared<const TlsIdentity>(node->Key);
        if (!identity->Valid()) {
          throw std::runtime_error("no TLS certificate for the node key: " + identity->Why());
        }
        node->Security.identity = std::move(identity);
      }
    }
  } catch (...) {
    ReportCurrentFault(*node);
  }
}

void cQEL::shareFolder(std::string strPath) {
  auto node = Enter(*this);
  try {
    ShareFolder(node->Files.Folders, node->SharingFiles, std::move(strPath));
  } catch (...) {
    ReportCurrentFault(*node);
  }
}

bool cQEL::Listen(int32_t lngPort) {
  auto node = Enter(*this);
  try {
    int32_t port = links::Listen(*node, lngPort != 0 ? lngPort : node->ListenPort,
                                 node->listenAddress, node->Limits());
    if (port == 0) return false;
    node->Listening = true;
    // A node told to take any free port advertises the one it got.
    if (node->ListenPort == 0) node->ListenPort = port;
    return true;
  } catch (const QelError& e) {
    if (e.Number == errors::kListenPortInUse) throw;  // misuse: the host hears of it
    ReportCurrentFault(*node);
  } catch (...) {
    ReportCurrentFault(*node);
  }
  return false;
}

bool cQEL::Connect(std::string strServer, bool isNodeID, bool bMaintain) {
  auto node = Enter(*this);
  try {
    std::string target = isNodeID ? ResolveAddress(*node, strServer) : strServer;
    if (isNodeID && target.empty()) {
      ReportError(*node, "Connect to node " + strServer + " failed: no address is known for it");
      return false;
    }
    const DialResult result = links::Connect(*node, target, bMaintain, node->Limits());
    if (!result && node->Alive())
      ReportError(*node, "Connect to " + target + " failed: " + result.why);
    return static_cast<bool>(result);
  } catch (...) {
    ReportCurrentFault(*node);
  }
  return false;
}

bool cQEL::DisconnectFrom(const std::string& strServer, bool isNodeID) {
  auto node = Enter(*this);
  try {
    std::string target = isNodeID ? KnownAddress(*node, strServer) : strServer;
    if (target.empty() && !isNodeID) return false;
    return links::CloseAddress(*node, target, isNodeID ? strServer : std::string());
  } catch (...) {
    ReportCurrentFault(*node);
  }
  return false;
}

bool cQEL::DisconnectAll() {
  auto node = Enter(*this);
  try {
    // Closing a listener takes effect at once, so there is nothing to wait for.
    if (node->Listening) links::CloseListeners(*node);
    node->Listening = false;
    links::CloseAll(*node);
    return true;
  } catch (...) {
    ReportCurrentFault(*node);
  }
  return false;
}

std::vector<typNodeInfo> cQEL::GetNodeInfo(const std::string& strDestination, bool bUseCached) {
  auto node = Enter(*this);
  try {
    return QueryNodes(*node, strDestination, bUseCached);
  } catch (...) {
    ReportCurrentFault(*node);
  }
  return {};
}

std::vector<std::string> cQEL::GetContents(std::string strPath, const std::string& nodeID,
                                           bool searchSubDirs) {
  auto node = Enter(*this);
  try {
    return AskContents(*node, node->Files, std::move(strPath), nodeID, searchSubDirs);
  } catch (...) {
    ReportCurrentFault(*node);
  }
  return {};
}

std::vector<typSearchResult> cQEL::SearchReq(enmSearchType SearchType,
                                             const std::string& SearchText) {
  auto node = Enter(*this);
  try {
    return AskSearch(*node, node->Files, SearchType, SearchText);
  } catch (...) {
    ReportCurrentFault(*node);
  }
  return {};
}

typFileInfo cQEL::GetFileInfo(std::string RemotePath, const std::string& nodeID, bool skipHash) {
  auto node = Enter(*this);
  try {
    return AskFileInfo(*node, node->Files, std::move(RemotePath), nodeID, skipHash);
  } catch (...) {
    ReportCurrentFault(*node);
  }
  return {};
}

typQELRange cQEL::MakeRange(int64_t lngStart, int64_t lngEnd, int64_t lngLen) {
  Enter(*this);
  return qel::MakeRange(lngStart, lngEnd, lngLen);
}

std::string cQEL::RequestFile(const std::string& RemotePath, const std::string& nodeID,
                              const typQELRange& Range, const std::string& Metadata) {
  auto node = Enter(*this);
  try {
    return qel::RequestFile(*node, RemotePath, nodeID, Range, Metadata);
  } catch (...) {
    ReportCurrentFault(*node);
  }
  return {};
}

void cQEL::SendFile(const std::string& nodeID, const typQELRange& Range, const std::string& Data,
                    const std::string& ReqID, enmFileStatus FileStatus,
                    const std::string& Metadata) {
  auto node = Enter(*this);
  try {
    SendFilePiece(*node, nodeID, Range.isEmpty ? std::string() : RangeText(Range), Data, ReqID,
                  FileStatus, Metadata);
  } catch (...) {
    ReportCurrentFault(*node);
  }
}

std::string cQEL::FetchFile(const std::string& nodeID, const std::string& RemotePath,
                            const std::string& LocalPath, const typFetchOptions& Options) {
  auto node = Enter(*this);
  try {
    return node->Fetches.Start(*node, *node, node->FetchConfig, nodeID, RemotePath, LocalPath,
                               Options);
  } catch (...) {
    ReportCurrentFault(*node);
  }
  return {};
}

bool cQEL::CancelFetch(const std::string& FetchID) {
  auto node = Enter(*this);
  try {
    return node->Fetches.Cancel(FetchID);
  } catch (...) {
    ReportCurrentFault(*node);
  }
  return false;
}

void cQEL::SendMessage(const std::string& strMessage, const std::string& nodeID,
                       const std::string& strType) {
  auto node = Enter(*this);
  try {
    if (SendPlainMsg(*node, strType, nodeID, strMessage)) return;
    typMessage message = NewMessage();
    SetField(message.Fields, "Type", Variant(strType));
    SetField(message.Fields, "Destination", Variant(nodeID));
    message.MsgType = "MSG";
    message.Body = strMessage;
    SendPacket(*node, message);
  } catch (...) {
    ReportCurrentFault(*node);
  }
}

int32_t cQEL::Ping(const std::string& nodeID, int32_t Timeout) {
  auto node = Enter(*this);
  return PingNode(*node, nodeID, Timeout);
}

void cQEL::PingAsync(const std::string& nodeID,
                     std::function<void(std::chrono::microseconds rtt)> done, int32_t Timeout) {
  auto node = Enter(*this);
  try {
    StartPing(*node, nodeID, Timeout, [done = std::move(done)](PingResult result) {
      RunHandler("PingAsync", done, result.rtt);
    });
  } catch (...) {
    ReportCurrentFault(*node);
  }
}

void cQEL::updateUser(const std::string& userName, const std::string& Password,
                      enmUserOp Operation) {
  auto node = Enter(*this);
  try {
    UpdateUser(*node, node->Users, userName, Password, Operation);
  } catch (...) {
    ReportCurrentFault(*node);
  }
}

bool cQEL::LoginAs(const std::string& userName, const std::string& Password) {
  auto node = Enter(*this);
  try {
    return qel::LoginAs(*node, node->Users, userName, Password);
  } catch (...) {
    ReportCurrentFault(*node);
  }
  return false;
}

void cQEL::setUserXML(const std::string& userXML) {
  auto node = Enter(*this);
  try {
    node->Users.List.LoadXML(userXML);
  } catch (...) {
    ReportCurrentFault(*node);
  }
}

std::string cQEL::getUserXML() {
  return Enter(*this)->Users.List.getXML();
}

void cQEL::SyncUserList() {
  auto node = Enter(*this);
  try {
    SyncUsers(*node, node->Users);
  } catch (...) {
    ReportCurrentFault(*node);
  }
}

std::shared_ptr<cQELRPC> cQEL::bindRPC(const std::string& ProcName, enmRPCType ReqType) {
  return BindRpc(Enter(*this)->Rpc, ProcName, ReqType);
}

void cQEL::unbindRPC(const std::string& ProcName, enmRPCType ReqType) {
  UnbindRpc(Enter(*this)->Rpc, ProcName, ReqType);
}

std::string cQEL::callRemoteProc(const std::string& nodeID, const std::string& ProcName,
                                 const std::string& Params) {
  auto node = Enter(*this);
  try {
    return CallRemoteProc(*node, node->Rpc, nodeID, ProcName, Params);
  } catch (...) {
    ReportCurrentFault(*node);
  }
  return {};
}

void cQEL::returnRemoteProc(const std::string& ReqID, const std::string& Params) {
  auto node = Enter(*this);
  try {
    ReturnRemoteProc(*node, node->Rpc, ReqID, Params);
  } catch (...) {
    ReportCurrentFault(*node);
  }
}

bool cQEL::isConnected() {
  return Enter(*this)->Connected;
}

std::vector<typLinkInfo> cQEL::Links() {
  auto node = Enter(*this);
  try {
    return links::OpenLinks(*node);
  } catch (...) {
    ReportCurrentFault(*node);
  }
  return {};
}

typLinkInfo cQEL::EstablishedLink() {
  auto node = Enter(*this);
  return links::Info(node->EstablishingLink);
}

int32_t cQEL::AddEventObserver(std::function<void(const typEvent&)> observer) {
  auto node = Enter(*this);
  node->Observers.emplace_back(++node->LastObserver, std::move(observer));
  return node->LastObserver;
}

void cQEL::RemoveEventObserver(int32_t id) {
  auto node = Enter(*this);
  std::erase_if(node->Observers, [id](const auto& entry) { return entry.first == id; });
}

std::string cQEL::NodeID() {
  return Enter(*this)->NodeID;
}

NodeSnapshot cQEL::Snapshot() const {
  // Enter takes the object only to find its slot.
  return TakeSnapshot(*Enter(const_cast<cQEL&>(*this)));
}

std::string cQEL::KeyID() {
  return Enter(*this)->Key.ID();
}

int32_t cQEL::ListenPort() {
  return Enter(*this)->ListenPort;
}

std::string LocalAddress() {
  return AdvertisedAddress();
}

void cQEL::switchRole(enmRole Role) {
  auto node = Enter(*this);
  node->Role = Role;
}

void cQEL::ShutDown() {
  auto node = Enter(*this);
  DisconnectAll();
  if (slotIndex < 1) return;  // a handler of the closing connections shut it down already
  // Nobody is left to resend them or to hear that they were lost.
  DropConfirmations(*node);
  DropPings(*node);
  int32_t start = slotIndex;
  slotIndex = -1;
  TheModule().RemoveSlot(start);
}

}  // namespace qel
