#include "users/users.h"

#include <qel/error.h>

#include "core/text.h"
#include "net/event_loop.h"
#include "routing/discovery.h"
#include "routing/outgoing.h"
#include "routing/routing_node.h"
#include "users/user_list.h"

namespace qel {
namespace {

void OnUpdateUser(RoutingNode& node, UserState& users, const typMessage& message,
                  const std::string& source) {
  cSettings body;
  body.LoadXML(message.Body);
  const std::string name = body.GetSetting("Name").toString();
  const std::string operation = ToUpper(body.GetSetting("Operation").toString());
  if (operation == "UPDATE") {
    const std::string password = body.GetSetting("Password").toString();
    // The record names the node that set it, so only a node this one has
    // information on may set a user here.
    const int32_t at = FindCachedNode(node, source);
    if (at < 0) throw QelError(errors::kSubscriptOutOfRange, "UPDATEUSER", "Subscript out of range");
    SetUser(users.List, name, password, node.NodeCache[at].Name);
  } else if (operation == "REMOVE") {
    // The section stays, empty: the user logs in nowhere but is still listed.
    users.List.DeleteSetting("Password", name);
    users.List.DeleteSetting("Authority", name);
    users.List.DeleteSetting("Updated", name);
  }
}

void OnUserList(UserState& users, const typMessage& message) {
  cSettings received;
  received.LoadXML(message.Body);
  MergeUserList(users.List, received);
}

void OnLogin(RoutingNode& node, UserState& users, const typMessage& message,
             const std::string& source) {
  const std::string answer =
      LoginAnswer(users.List, GetSingleField(message.Fields, "Authentication"));
  typMessage reply = MakeLoginResult(source, GetSingleField(message.Fields, "ID"), answer);
  SendPacket(node, reply);
}

}  // namespace

bool HandleUserMessage(RoutingNode& node, UserState& users, const typMessage& message,
                       const std::string& source) {
  const std::string& type = message.MsgType;
  if (type == "UPDATEUSER") {
    OnUpdateUser(node, users, message, source);
  } else if (type == "SYNCUSERS") {
    typMessage reply = MakeUserList(source, users.List);
    SendPacket(node, reply);
  } else if (type == "USERLIST") {
    OnUserList(users, message);
  } else if (type == "LOGIN") {
    OnLogin(node, users, message, source);
  } else if (type == "LOGINRESULT") {
    // Whichever login it answers: the first to come decides the one waiting.
    users.LoginResult = GetSingleField(message.Fields, "Login-Result");
    if (users.LoginResult.empty()) users.LoginResult = "FAIL";
  } else {
    return false;
  }
  return true;
}

void UpdateUser(RoutingNode& node, UserState& users, const std::string& userName,
                const std::string& password, enmUserOp operation) {
  const std::string kept = operation == user_Update ? password : std::string();
  SetUser(users.List, userName, kept, node.Name);
  typMessage message = MakeUpdateUser(userName, kept, operation);
  SendPacket(node, message);
}

void SyncUsers(RoutingNode& node, UserState& users) {
  typMessage list = MakeUserList("BROADCAST", users.List);
  SendPacket(node, list);
  typMessage ask = MakeMessage("SYNCUSERS", "BROADCAST");
  SendPacket(node, ask);
}

bool LoginAs(RoutingNode& node, UserState& users, const std::string& userName,
             const std::string& password) {
  users.LoginResult.clear();
  typMessage login = MakeLogin(userName, password);
  SendPacket(node, login);
  RunUntil([&users] { return !users.LoginResult.empty(); }, node.Timeout);
  if (users.LoginResult != "OK") return false;
  node.ActiveUser = userName;
  return true;
}

typMessage MakeUpdateUser(const std::string& userName, const std::string& password,
                          enmUserOp operation) {
  cSettings body;
  body.SaveSetting("Operation", Variant(operation == user_Update ? "UPDATE" : "REMOVE"));
  body.SaveSetting("Name", Variant(userName));
  body.SaveSetting("Password", Variant(password));
  typMessage message = MakeMessage("UPDATEUSER", "BROADCAST");
  message.Body = body.getXML();
  return message;
}

typMessage MakeUserList(const std::string& destination, const cSettings& list) {
  typMessage message = MakeMessage("USERLIST", destination);
  message.Body = list.getXML();
  return message;
}

typMessage MakeLogin(const std::string& userName, const std::string& password) {
  typMessage message = MakeMessage("LOGIN", "BROADCAST");
  SetField(message.Fields, "Authentication", Variant(userName + ":" + password));
  return message;
}

typMessage MakeLoginResult(const std::string& asker, const std::string& loginID,
                           const std::string& result) {
  typMessage message = MakeMessage("LOGINRESULT", asker);
  // Every node answers a login with this same ID, so relays pass on only
  // the first answer to reach them.
  SetField(message.Fields, "ID", Variant(loginID + "L"));
  SetField(message.Fields, "Login-Result", Variant(result));
  return message;
}

}  // namespace qel
