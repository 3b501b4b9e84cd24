#include "rpc/rpc.h"

#include <algorithm>
#include <optional>

#include "core/fault.h"
#include "core/new_id.h"
#include "core/text.h"
#include "routing/dispatch.h"
#include "routing/outgoing.h"
#include "routing/report.h"
#include "routing/routing_node.h"

namespace qel {
namespace {

uint64_t NextCallSerial() {
  static uint64_t serial = 0;
  return ++serial;
}

// What every binding's pending calls may hold together.
size_t PendingLimit(const RoutingNode& node) {
  return static_cast<size_t>(std::max<int64_t>(node.memoryBudget, 0) / 4);
}

// The bytes the call held; 0 when there was none.
size_t ClosePending(RpcBinding& binding, const std::string& reqID) {
  const std::optional<PendingCall> call = binding.Pending.Close(reqID);
  if (!call) return 0;
  const size_t bytes = PendingCallBytes(reqID, call->NodeID);
  binding.PendingBytes -= bytes;
  return bytes;
}

// Drops the oldest pending call of any binding; the bytes it held, 0 when
// none waits.
size_t DropOldestCall(RpcBindings& bindings) {
  RpcBinding* oldest = nullptr;
  for (RpcBinding& binding : bindings) {
    const auto* call = binding.Pending.Oldest();
    if (call && (!oldest || call->second.Serial < oldest->Pending.Oldest()->second.Serial)) {
      oldest = &binding;
    }
  }
  if (!oldest) return 0;
  return ClosePending(*oldest, std::string(oldest->Pending.Oldest()->first));
}

struct Added {
  int32_t at = -1;     // the binding that holds the call; -1: name is not bound so
  size_t dropped = 0;  // older calls dropped to make room
};

// Older calls of any binding make room for the call; the caller reports
// them once it no longer needs the bindings, as reporting may run the loop.
Added AddPendingCall(RoutingNode& node, RpcBindings& bindings, const std::string& name,
                     const std::string& nodeID, const std::string& reqID, enmRPCType type) {
  const int32_t at = FindBinding(bindings, name, type);
  if (at < 0) return {};
  RpcBinding& binding = bindings[at];
  ClosePending(binding, reqID);
  if (binding.Pending.size() >= PendingCalls::kLimit) {
    ClosePending(binding, std::string(binding.Pending.Oldest()->first));
  }
  const size_t bytes = PendingCallBytes(reqID, nodeID);
  size_t held = 0;
  for (const RpcBinding& b : bindings) held += b.PendingBytes;
  size_t dropped = 0;
  while (held + bytes > PendingLimit(node)) {
    const size_t freed = DropOldestCall(bindings);
    if (freed == 0) break;
    held -= freed;
    ++dropped;
  }
  binding.Pending.Open(reqID);
  *binding.Pending.Find(reqID) = {nodeID, NextCallSerial()};
  binding.PendingBytes += bytes;
  return {at, dropped};
}

void ReportDropped(RoutingNode& node, size_t dropped) {
  if (dropped == 0) return;
  ReportRefusal(node, Refusal::RpcCalls,
                "RPC: calls waiting for an answer passed a quarter of memoryBudget; the oldest " +
                    std::to_string(dropped) + " dropped unanswered");
}

void OnRpc(RoutingNode& node, RpcBindings& bindings, const typMessage& message,
           const std::string& source) {
  std::string name = GetSingleField(message.Fields, "Name");
  std::string reqID = GetSingleField(message.Fields, "ReqID");
  if (name.empty() || reqID.empty()) return;  // nothing could answer it
  std::string params = GetSingleField(message.Fields, "Params");
  // The identifier waits with the call, and the parameters go to the host
  // whole: a call that alone would take the calls' share is not taken.
  if (reqID.size() > kMaxRpcReqID ||
      PendingCallBytes(reqID, source) + params.size() > PendingLimit(node)) {
    ReportRefusal(node, Refusal::RpcCalls,
                  "RPC call refused: ReqID longer than " + std::to_string(kMaxRpcReqID) +
                      " bytes, or the call larger than a quarter of memoryBudget",
                  source);
    return;
  }
  const auto [at, dropped] = AddPendingCall(node, bindings, name, source, reqID, RPC_INCOMING);
  if (at < 0) {
    typMessage reply = MakeRpcReturn(source, reqID, "RPC_UNBOUND");
    SendPacket(node, reply);
    return;
  }
  // Copies: the handler may unbind the name or drop the handle.
  const std::shared_ptr<cQELRPC> handle = bindings[at].Handle;
  const auto handler = handle->RemoteProcCall;
  std::string caller = source;
  const std::string answering = reqID;
  bool sendOK = false;
  ReportDropped(node, dropped);
  if (node.Alive()) RunHandler("RemoteProcCall", handler, name, params, reqID, caller, sendOK);
  if (sendOK && node.Alive()) ReturnRemoteProc(node, bindings, answering, "OK");
}

void OnRpcReturn(RoutingNode& node, RpcBindings& bindings, const typMessage& message,
                 const std::string& source) {
  std::string reqID = GetSingleField(message.Fields, "ReqID");
  for (RpcBinding& binding : bindings) {
    const PendingCall* call = binding.Pending.Find(reqID);
    if (!call) continue;
    // A call to every node stays pending for the answers still to come, and
    // each names the node that gave it. The others go before the host
    // hears, so nothing it does in its handler can meet the call again.
    const bool everyNode = call->NodeID == "BROADCAST";
    std::string nodeID = everyNode ? source : call->NodeID;
    if (!everyNode) ClosePending(binding, reqID);
    const std::shared_ptr<cQELRPC> handle = binding.Handle;
    std::string name = binding.ProcName;
    std::string params = GetSingleField(message.Fields, "Params");
    const auto handler = handle->RemoteProcReturn;
    if (node.Alive()) RunHandler("RemoteProcReturn", handler, name, params, reqID, nodeID);
    return;
  }
}

}  // namespace

size_t PendingCallBytes(const std::string& reqID, const std::string& nodeID) {
  // reqID is kept twice (the order and the index); the rest is the nodes
  // of both, roughly.
  constexpr size_t kOverhead = 160;
  return 2 * reqID.size() + nodeID.size() + kOverhead;
}

int32_t FindBinding(const RpcBindings& bindings, const std::string& name, enmRPCType type) {
  for (size_t i = 0; i < bindings.size(); ++i) {
    if (bindings[i].ReqType == type && EqualsNoCase(bindings[i].ProcName, name)) {
      return static_cast<int32_t>(i);
    }
  }
  return -1;
}

std::shared_ptr<cQELRPC> BindRpc(RpcBindings& bindings, const std::string& name, enmRPCType type) {
  auto handle = std::make_shared<cQELRPC>();
  bindings.push_back({name, type, handle, {}, 0});
  return handle;
}

void UnbindRpc(RpcBindings& bindings, const std::string& name, enmRPCType type) {
  for (auto it = bindings.begin(); it != bindings.end(); ++it) {
    if (it->ReqType == type && it->ProcName == name) {
      bindings.erase(it);
      return;
    }
  }
}

std::string CallRemoteProc(RoutingNode& node, RpcBindings& bindings, const std::string& nodeID,
                           const std::string& name, const std::string& params) {
  if (FindBinding(bindings, name, RPC_RETURN) < 0) return "-1";
  const std::string reqID = NewID();
  // Made first: parameters a header cannot carry throw before the call waits.
  typMessage call = MakeRpc(nodeID, name, reqID, params);
  const auto [at, dropped] = AddPendingCall(node, bindings, name, nodeID, reqID, RPC_RETURN);
  try {
    SendPacket(node, call);
  } catch (...) {
    ClosePending(bindings[at], reqID);
    throw;
  }
  ReportDropped(node, dropped);
  return reqID;
}

void ReturnRemoteProc(RoutingNode& node, RpcBindings& bindings, const std::string& reqID,
                      const std::string& params) {
  for (RpcBinding& binding : bindings) {
    const PendingCall* call = binding.Pending.Find(reqID);
    if (!call) continue;
    // An answer that cannot be sent leaves the call waiting for another.
    typMessage reply = MakeRpcReturn(call->NodeID, reqID, params);
    SendPacket(node, reply);
    ClosePending(binding, reqID);
    return;
  }
}

void RegisterRpcHandlers(Dispatcher& handlers, RpcBindings& bindings) {
  handlers.Register("RPC", bindings, OnRpc);
  handlers.Register("RPCRETURN", bindings, OnRpcReturn);
}

typMessage MakeRpc(const std::string& nodeID, const std::string& name, const std::string& reqID,
                   const std::string& params) {
  typMessage message = NewMessage();
  message.MsgType = "RPC";
  SetField(message.Fields, "Name", Variant(name));
  SetField(message.Fields, "ReqID", Variant(reqID));
  SetField(message.Fields, "Destination", Variant(nodeID));
  SetField(message.Fields, "Params", Variant(params));
  return message;
}

typMessage MakeRpcReturn(const std::string& caller, const std::string& reqID,
                         const std::string& params) {
  typMessage message = NewMessage();
  message.MsgType = "RPCRETURN";
  SetField(message.Fields, "ReqID", Variant(reqID));
  SetField(message.Fields, "Destination", Variant(caller));
  SetField(message.Fields, "Params", Variant(params));
  return message;
}

}  // namespace qel
