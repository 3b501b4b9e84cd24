#include "rpc/rpc.h"

#include "core/fault.h"
#include "core/new_id.h"
#include "core/text.h"
#include "routing/outgoing.h"
#include "routing/routing_node.h"

namespace qel {
namespace {

// The binding that holds the call now, or -1 when name is not bound so.
int32_t AddPendingCall(RpcBindings& bindings, const std::string& name, const std::string& nodeID,
                       const std::string& reqID, enmRPCType type) {
  const int32_t at = FindBinding(bindings, name, type);
  if (at < 0) return -1;
  PendingCalls& pending = bindings[at].Pending;
  pending.Open(reqID);
  *pending.Find(reqID) = nodeID;
  return at;
}

void OnRpc(RoutingNode& node, RpcBindings& bindings, const typMessage& message,
           const std::string& source) {
  std::string name = GetSingleField(message.Fields, "Name");
  std::string reqID = GetSingleField(message.Fields, "ReqID");
  if (name.empty() || reqID.empty()) return;  // nothing could answer it
  std::string params = GetSingleField(message.Fields, "Params");
  const int32_t at = AddPendingCall(bindings, name, source, reqID, RPC_INCOMING);
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
  if (node.Alive()) RunHandler("RemoteProcCall", handler, name, params, reqID, caller, sendOK);
  if (sendOK && node.Alive()) ReturnRemoteProc(node, bindings, answering, "OK");
}

void OnRpcReturn(RoutingNode& node, RpcBindings& bindings, const typMessage& message) {
  std::string reqID = GetSingleField(message.Fields, "ReqID");
  for (RpcBinding& binding : bindings) {
    std::string* callee = binding.Pending.Find(reqID);
    if (!callee) continue;
    std::string nodeID = *callee;
    // A call to every node stays pending for the answers still to come.
    // The others go before the host hears, so nothing it does in its
    // handler can meet the call again.
    if (nodeID != "BROADCAST") binding.Pending.Close(reqID);
    const std::shared_ptr<cQELRPC> handle = binding.Handle;
    std::string name = binding.ProcName;
    std::string params = GetSingleField(message.Fields, "Params");
    const auto handler = handle->RemoteProcReturn;
    if (node.Alive()) RunHandler("RemoteProcReturn", handler, name, params, reqID, nodeID);
    return;
  }
}

}  // namespace

int32_t FindBinding(const RpcBindings& bindings, const std::string& name, enmRPCType type) {
  for (size_t i = 0; i < bindings.size(); ++i) {
    if (bindings[i].ReqType == type && EqualsNoCase(bindings[i].ProcName, name)) {
      return static_cast<int32_t>(i);
    }
  }
  return -1;
}

std::shared_ptr<cQELRPC> BindRpc(RpcBindings& bindings, const std::string& name,
                                 enmRPCType type) {
  auto handle = std::make_shared<cQELRPC>();
  bindings.push_back({name, type, handle, {}});
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
  const int32_t at = AddPendingCall(bindings, name, nodeID, reqID, RPC_RETURN);
  try {
    SendPacket(node, call);
  } catch (...) {
    bindings[at].Pending.Close(reqID);
    throw;
  }
  return reqID;
}

void ReturnRemoteProc(RoutingNode& node, RpcBindings& bindings, const std::string& reqID,
                      const std::string& params) {
  for (RpcBinding& binding : bindings) {
    const std::string* caller = binding.Pending.Find(reqID);
    if (!caller) continue;
    // An answer that cannot be sent leaves the call waiting for another.
    typMessage reply = MakeRpcReturn(*caller, reqID, params);
    SendPacket(node, reply);
    binding.Pending.Close(reqID);
    return;
  }
}

bool HandleRpcMessage(RoutingNode& node, RpcBindings& bindings, const typMessage& message,
                      const std::string& source) {
  if (message.MsgType == "RPC") {
    OnRpc(node, bindings, message, source);
  } else if (message.MsgType == "RPCRETURN") {
    OnRpcReturn(node, bindings, message);
  } else {
    return false;
  }
  return true;
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
