// Remote procedure calls: the node's bindings, the calls waiting for an
// answer, and the RPC and RPCRETURN messages that carry them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <qel/rpc.h>
#include <qel/types.h>

#include "core/request_slots.h"
#include "protocol/message.h"

namespace qel {

struct RoutingNode;
class Dispatcher;

// A call waiting for an answer: for an incoming binding the caller, for a
// return binding the node called (or "BROADCAST"); Serial orders the calls
// of all bindings, oldest first.
struct PendingCall {
  std::string NodeID;
  uint64_t Serial = 0;
};

// Calls waiting for an answer, by request identifier. Peers choose how many
// calls they make and hosts may never answer, so past the limit the oldest
// call is dropped unanswered.
using PendingCalls = RequestSlots<PendingCall, 65536>;

// The longest request identifier a node takes in a call. Its own are 32
// characters; a peer's is kept while the call waits.
inline constexpr size_t kMaxRpcReqID = 256;

struct RpcBinding {
  std::string ProcName;
  enmRPCType ReqType = RPC_INCOMING;
  std::shared_ptr<cQELRPC> Handle;
  PendingCalls Pending;
  // What Pending holds (see PendingCallBytes). The calls of all bindings
  // together stay within a quarter of the node's memoryBudget.
  size_t PendingBytes = 0;
};

// In binding order: lookups take the first match.
using RpcBindings = std::vector<RpcBinding>;

// The bytes one waiting call is counted for: its identifiers and the
// tables' own overhead.
size_t PendingCallBytes(const std::string& reqID, const std::string& nodeID);

// The first binding of name (ignoring case) and type; -1 when none.
int32_t FindBinding(const RpcBindings& bindings, const std::string& name, enmRPCType type);

std::shared_ptr<cQELRPC> BindRpc(RpcBindings& bindings, const std::string& name,
                                 enmRPCType type);
// Removes the first binding of exactly name and type, with its pending calls.
void UnbindRpc(RpcBindings& bindings, const std::string& name, enmRPCType type);

// Sends RPC and returns its request identifier; "-1", and nothing sent,
// when name is not bound for returns.
std::string CallRemoteProc(RoutingNode& node, RpcBindings& bindings, const std::string& nodeID,
                           const std::string& name, const std::string& params);
// Answers the first pending call of reqID, in binding order; nothing when
// there is none.
void ReturnRemoteProc(RoutingNode& node, RpcBindings& bindings, const std::string& reqID,
                      const std::string& params);

// Registers RPC and RPCRETURN, acting on bindings, which must outlive the
// handlers. A call lacking its name or request identifier, and an answer to no
// pending call, are dropped. A call whose request identifier is longer than
// kMaxRpcReqID, or that would not fit the pending calls' share of
// memoryBudget alone, is refused unanswered; to make room for one that fits,
// the oldest pending calls of any binding are dropped unanswered. Each is a
// refusal, reported. An answer to a call made to every node names the node
// that answered.
void RegisterRpcHandlers(Dispatcher& handlers, RpcBindings& bindings);

// The messages, not yet stamped.
typMessage MakeRpc(const std::string& nodeID, const std::string& name, const std::string& reqID,
                   const std::string& params);
typMessage MakeRpcReturn(const std::string& caller, const std::string& reqID,
                         const std::string& params);

}  // namespace qel
