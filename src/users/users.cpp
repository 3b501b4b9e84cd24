#include "users/users.h"

#include <qel/error.h>

#include <chrono>
#include <exception>

#include "core/text.h"
#include "net/event_loop.h"
#include "routing/discovery.h"
#include "routing/dispatch.h"
#include "routing/outgoing.h"
#include "routing/report.h"
#include "routing/routing_node.h"
#include "users/user_list.h"

namespace qel {
namespace {

std::string UserCapsText(const std::string& type) {
  return type + ": users refused: a value longer than " + std::to_string(kMaxUserValue) +
         " bytes, or the list past " + std::to_string(kMaxUsers) + " users or " +
         std::to_string(kMaxUserListBytes) + " bytes";
}

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
    if (at < 0)
      throw QelError(errors::kSubscriptOutOfRange, "UPDATEUSER", "Subscript out of range");
    try {
      SetUser(users.List, name, password, node.NodeCache[at].Name());
    } catch (const QelError& fault) {
      if (fault.Number != errors::kOverflow) throw;
      ReportRefusal(node, Refusal::UserValues, UserCapsText("UPDATEUSER"), source);
    }
  } else if (operation == "REMOVE") {
    // The section stays, empty: the user logs in nowhere but is still listed.
    users.List.DeleteSetting("Password", name);
    users.List.DeleteSetting("Authority", name);
    users.List.DeleteSetting("Updated", name);
  }
}

void OnUserList(RoutingNode& node, UserState& users, const typMessage& message,
                const std::string& source) {
  cSettings received;
  received.LoadXML(message.Body);
  MergeRefusals refused;
  // What was refused is reported also when a broken record stops the merge.
  std::exception_ptr fault;
  try {
    MergeUserList(users.List, received,
                  std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()),
                  refused);
  } catch (...) {
    fault = std::current_exception();
  }
  if (refused.tooLarge > 0) {
    ReportRefusal(node, Refusal::UserValues, UserCapsText("USERLIST"), source);
  }
  if (refused.future > 0) {
    ReportRefusal(node, Refusal::FutureStamp,
                  "USERLIST: users stamped more than a day ahead of this node's clock refused",
                  source);
  }
  if (fault) std::rethrow_exception(fault);
}

void OnLogin(RoutingNode& node, UserState& users, const typMessage& message,
             const std::string& source) {
  const std::string answer =
      LoginAnswer(users.List, GetSingleField(message.Fields, "Authentication"));
  typMessage reply = MakeLoginResult(source, GetSingleField(message.Fields, "ID"), answer);
  SendPacket(node, reply);
}

}  // namespace

void RegisterUserHandlers(Dispatcher& handlers, UserState& users) {
  handlers.Register("UPDATEUSER", users, OnUpdateUser);
  handlers.Register("SYNCUSERS", [&users](RoutingNode& node, typMessage&, const Arrival& from) {
    typMessage reply = MakeUserList(from.source, users.List);
    SendPacket(node, reply);
  });
  handlers.Register("USERLIST", users, OnUserList);
  handlers.Register("LOGIN", users, OnLogin);
  handlers.Register("LOGINRESULT", [&users](RoutingNode&, typMessage& message, const Arrival&) {
    // Whichever login it answers: the first to come decides the one waiting.
    users.LoginResult = GetSingleField(message.Fields, "Login-Result");
    if (users.LoginResult.empty()) users.LoginResult = "FAIL";
  });
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
