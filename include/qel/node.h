// cQEL: one node of the overlay network.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <qel/export.h>
#include <qel/types.h>

namespace qel {

namespace detail {
struct NodeAccess;
}

// A node object. Several may live in one process; each is a separate node
// with its own identity, settings and event handlers.
//
// Threading: create, call and destroy node objects on one thread, the host's;
// events are raised synchronously on that thread, from inside QEL's calls.
//
// Errors: a call on a node that has been shut down throws QelError
// -2147221502 ("Cannot switch to session. Invalid session index: -1"). A fault
// while a method works is not thrown: it is reported through Error as
// "Error <number>: <description>" and the method returns its default.
class QEL_API cQEL {
 public:
  // Creates the node in a fresh slot, with the local account (at most 24
  // characters of the OS user name) in its user list. The first node object
  // of the process also sets up QEL's shared state.
  cQEL();
  // Shuts the node down; never throws.
  ~cQEL();
  cQEL(const cQEL&) = delete;
  cQEL& operator=(const cQEL&) = delete;

  // Gives the node a fresh identifier and encryption key, its name, port,
  // role and descriptor, shares sharedDir when it is not blank, and reads the
  // advanced settings from section "Common" of advancedSettings (a cSettings
  // text): Timeout, TTL, useEnc, netPass, useComp, seeSelf, announceSelf,
  // maxRoutes, confirmMode, confirmTimeout, confirmRetry, filePacket (KiB),
  // packetCache. Absent keys keep their defaults; text that is not a settings
  // text is ignored; a value of the wrong type is reported through Error and
  // stops reading at that key. May be called again on a live node.
  void Initialise(const std::string& nodeName, int32_t listenPort = 0, enmRole Role = role_Peer,
                  const std::string& Descriptor = "", const std::string& sharedDir = "",
                  const std::string& advancedSettings = "");

  // Offers a local folder to the network under its last path component. A
  // blank or missing path is ignored silently.
  void shareFolder(std::string strPath);

  // Changes the role the node announces from now on; nothing is sent.
  void switchRole(enmRole Role);

  // Closes the node's connections and frees its slot. Node objects created
  // after this one keep working; every later call on this one throws.
  void ShutDown();

  // Events. Parameters are references: a handler may change the ones QEL
  // reads back. A handler may call any method of any node, or destroy this
  // node object.

  // The node reports a fault, or a message of type "ERROR" arrived.
  std::function<void(std::string& strMessage, std::string& nodeID)> Error;

 private:
  friend struct detail::NodeAccess;
  int32_t slotIndex = 0;
};

}  // namespace qel
