#include "rpc_bindings.h"

#include <algorithm>
#include <cctype>

namespace qelcli {
namespace {

// As many calls as the node keeps waiting for an answer.
constexpr size_t kWaitingKept = 65536;

std::string_view TypeWord(qel::enmRPCType type) {
  return type == qel::RPC_INCOMING ? "in" : "return";
}

bool SameIgnoringCase(const std::string& a, const std::string& b) {
  return std::ranges::equal(
      a, b, [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

}  // namespace

RpcBindings::~RpcBindings() {
  for (auto& [key, binding] : bound_) {
    binding.handle->RemoteProcCall = nullptr;
    binding.handle->RemoteProcReturn = nullptr;
  }
}

void RpcBindings::Watch(qel::cQELRPC& handle, const Key& key) {
  handle.RemoteProcCall = [this, key](std::string& ProcName, std::string& Params,
                                      std::string& ReqID, std::string& nodeID, bool& SendOK) {
    const auto it = bound_.find(key);
    if (it != bound_.end() && it->second.sendOK) SendOK = true;
    if (!SendOK) Wait(ReqID, key);
    if (silent_) return;
    out_.Event("RemoteProcCall", {{"ProcName", ProcName},
                                  {"Params", Params},
                                  {"ReqID", ReqID},
                                  {"nodeID", nodeID},
                                  {"SendOK", SendOK}});
  };
  handle.RemoteProcReturn = [this](std::string& ProcName, std::string& Params, std::string& ReqID,
                                   std::string& nodeID) {
    if (silent_) return;
    out_.Event("RemoteProcReturn",
               {{"ProcName", ProcName}, {"Params", Params}, {"ReqID", ReqID}, {"nodeID", nodeID}});
  };
}

void RpcBindings::Wait(const std::string& reqID, const Key& key) {
  if (!waiting_.emplace(reqID, key).second) return;
  order_.push_back(reqID);
  while (waiting_.size() > kWaitingKept) {
    waiting_.erase(order_.front());
    order_.pop_front();
  }
  // Answered calls linger in order_ until it is twice as long as it must be.
  if (order_.size() > 2 * kWaitingKept) {
    std::erase_if(order_, [this](const std::string& id) { return !waiting_.contains(id); });
  }
}

CommandResult RpcBindings::Bind(const std::string& name, qel::enmRPCType type, bool sendOK) {
  const Key key{name, type};
  if (auto it = bound_.find(key); it != bound_.end()) {
    it->second.sendOK = sendOK;
    return {true, nullptr, "",
            sendOK                      ? "bound already: its calls are now answered OK at once"
            : type == qel::RPC_INCOMING ? "bound already: its calls now wait for rpc-return"
                                        : "bound already"};
  }
  // The node matches names ignoring case and uses the first binding.
  std::string note;
  for (const auto& [other, binding] : bound_) {
    if (other.second == type && SameIgnoringCase(other.first, name)) {
      note = "calls go to " + other.first + ", bound " + std::string(TypeWord(type)) +
             " first, until it is unbound";
      break;
    }
  }
  std::shared_ptr<qel::cQELRPC> handle = node_.bindRPC(name, type);
  if (!handle) return {false, nullptr, "could not bind " + name};
  Watch(*handle, key);
  bound_[key] = {std::move(handle), sendOK};
  return {true, nullptr, "", note};
}

CommandResult RpcBindings::Unbind(const std::string& name, qel::enmRPCType type) {
  const auto it = bound_.find({name, type});
  if (it == bound_.end()) {
    return {false, nullptr,
            name + " is not bound " + std::string(TypeWord(type)) + " (names count case here)"};
  }
  node_.unbindRPC(name, type);
  std::erase_if(waiting_, [&](const auto& call) { return call.second == it->first; });
  it->second.handle->RemoteProcCall = nullptr;
  it->second.handle->RemoteProcReturn = nullptr;
  bound_.erase(it);
  return {};
}

CommandResult RpcBindings::Call(const std::string& nodeID, const std::string& name,
                                const std::string& params) {
  const std::string reqID = node_.callRemoteProc(nodeID, name, params);
  if (reqID == "-1") {
    return {false, reqID,
            "nothing sent: answers need a binding; rpc-bind " + name + " return first"};
  }
  if (reqID.empty()) return {false, reqID, "nothing sent: the node reported why"};
  return {true, reqID, ""};
}

CommandResult RpcBindings::Return(const std::string& reqID, const std::string& params) {
  // The node decides what it sends (nothing for a request it does not hold);
  // the console only tells what it saw of the calls.
  node_.returnRemoteProc(reqID, params);
  if (waiting_.erase(reqID) == 0) {
    return {false, nullptr, "no call " + reqID + " is waiting for an answer (answered already?)"};
  }
  return {};
}

}  // namespace qelcli
