// The remote procedure names the console bound, and the handles through
// which the node raises their calls and answers as console events.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include <qel/node.h>
#include <qel/rpc.h>

#include "output.h"

namespace qelcli {

class RpcBindings {
 public:
  RpcBindings(qel::cQEL& node, Output& out) : node_(node), out_(out) {}
  // Leaves the handles mute: the node may outlive the console's part.
  ~RpcBindings();
  RpcBindings(const RpcBindings&) = delete;
  RpcBindings& operator=(const RpcBindings&) = delete;

  // Binds name for calls that arrive (RPC_INCOMING) or for the answers to
  // this console's calls (RPC_RETURN). With sendOK, calls are answered "OK"
  // at once. Binding a name and type held already only changes sendOK.
  CommandResult Bind(const std::string& name, qel::enmRPCType type, bool sendOK);
  CommandResult Unbind(const std::string& name, qel::enmRPCType type);
  // The request identifier, or a failed result when the node sent nothing.
  CommandResult Call(const std::string& nodeID, const std::string& name, const std::string& params);
  // Fails when no call with reqID is waiting for an answer here.
  CommandResult Return(const std::string& reqID, const std::string& params);

  // No more events are written.
  void Silence() { silent_ = true; }

 private:
  struct Binding {
    std::shared_ptr<qel::cQELRPC> handle;
    bool sendOK = false;
  };
  using Key = std::pair<std::string, qel::enmRPCType>;  // the name exactly as bound

  void Watch(qel::cQELRPC& handle, const Key& key);
  void Wait(const std::string& reqID, const Key& key);

  qel::cQEL& node_;
  Output& out_;
  std::map<Key, Binding> bound_;
  // Calls raised here and not answered yet, with the binding that took them
  // (unbinding drops its calls); order_ has them oldest first, so that a
  // peer calling without end cannot grow them past the node's own limit.
  std::map<std::string, Key> waiting_;
  std::deque<std::string> order_;
  bool silent_ = false;
};

}  // namespace qelcli
