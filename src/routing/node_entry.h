// What a node knows about another node.
#pragma once

#include <cstdint>
#include <string>

#include <qel/types.h>

namespace qel {

struct NodeEntry {
  std::string ID;
  std::string Name;
  enmRole Role = role_Peer;
  std::string Descriptor;
  bool directConn = false;
  std::string Address;
  bool sharingFiles = false;
  std::string activeUser;
  std::string EncryptionKey;
  // The last ping sent to the node.
  std::string PingReqID;
  int64_t PingStart = 0;
  int32_t PingTime = -1;

  typNodeInfo ToNodeInfo() const {
    return {ID, Name, Role, Descriptor, directConn, Address, sharingFiles, activeUser};
  }
};

}  // namespace qel
