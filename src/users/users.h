// The user list a node shares with the overlay, and logging in against it.
#pragma once

#include <string>

#include <qel/settings.h>
#include <qel/types.h>

#include "protocol/message.h"

namespace qel {

struct RoutingNode;
class Dispatcher;

// Each node's users; the active user is RoutingNode's ActiveUser, since INFO
// announces it.
struct UserState {
  // One section per user: Password, Authority, Updated.
  cSettings List;
  // The last LOGINRESULT's answer; empty while none came since LoginAs began.
  std::string LoginResult;
};

// Registers UPDATEUSER, SYNCUSERS, USERLIST, LOGIN and LOGINRESULT, acting
// on users, which must outlive the handlers. They throw on what cannot be
// taken (a body that does not load or lacks its keys, an update from a node
// this one has no information on, a login without ":"), which the caller
// reports; the list keeps what was merged before the fault.
void RegisterUserHandlers(Dispatcher& handlers, UserState& users);

// Writes the user here (with this node's name as authority and a fresh
// stamp; a removal writes an empty password) and tells every node.
void UpdateUser(RoutingNode& node, UserState& users, const std::string& userName,
                const std::string& password, enmUserOp operation);

// Sends this node's list to every node, then asks every node for its own.
void SyncUsers(RoutingNode& node, UserState& users);

// Broadcasts LOGIN and runs the loop until the first answer or Timeout;
// on "OK" userName becomes the active user.
bool LoginAs(RoutingNode& node, UserState& users, const std::string& userName,
             const std::string& password);

// The messages, not yet stamped.
typMessage MakeUpdateUser(const std::string& userName, const std::string& password,
                          enmUserOp operation);
typMessage MakeUserList(const std::string& destination, const cSettings& list);
typMessage MakeLogin(const std::string& userName, const std::string& password);
typMessage MakeLoginResult(const std::string& asker, const std::string& loginID,
                           const std::string& result);

}  // namespace qel
