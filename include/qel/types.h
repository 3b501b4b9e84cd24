// The enumerations and records of QEL's public interface.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace qel {

enum enmSearchType : int32_t { Find_Node = 1, Find_File = 2 };

enum enmRole : int32_t { role_Peer = 0, role_Server = 1, role_Router = 2 };

enum enmFileStatus : int32_t { FS_Transferring = 0, FS_Complete = 1, FS_Canceled = 2 };

enum enmUserOp : int32_t { user_Update = 0, user_Remove = 1 };

enum enmRPCType : int32_t { RPC_INCOMING = 0, RPC_RETURN = 1 };

// Size and MD5 hex digest of a remote file, and whether the node answered:
// answered with size 0 is an empty file, answered with size -1 is no such
// file, and not answered (size 0, no hash) is no answer at all.
struct typFileInfo {
  int64_t lngSize = 0;
  std::string strHash;
  bool isAnswered = false;  // a FILEINFO answer arrived
};

// What a node announces about itself.
struct typNodeInfo {
  std::string ID;
  std::string Name;
  enmRole Role = role_Peer;
  std::string Descriptor;
  bool directConn = false;  // connected directly to this node
  std::string Address;
  bool sharingFiles = false;
  std::string activeUser;
};

// One open link of a node, as cQEL::Links lists it.
struct typLinkInfo {
  int32_t Index = 0;        // the connection's number, from 1, kept while the link is open
  std::string Address;      // "host:port", as ConnectionClosed will name the link
  std::string nodeID;       // the neighbour, once it announced itself; else empty
  bool isAccepted = false;  // the neighbour dialled this node; false: this node dialled
  bool isSecure = false;    // under TLS: encrypted, and the neighbour's key is known
  std::string PeerKey;      // the neighbour's key ID on a secure link; else empty
  int64_t lngAge = 0;       // whole seconds since the link came up
};

// One answer to a search: the node that answered and what it found.
struct typSearchResult {
  std::string nodeID;
  std::string Result;
};

// A byte range of a file transfer. Offsets and lengths are 64-bit, as
// every size and offset of the interface is.
struct typQELRange {
  int64_t lngStart = 0;
  int64_t lngEnd = 0;
  int64_t lngLen = 0;
  bool isEmpty = false;
};

// How cQEL::FetchFile fetches a file.
struct typFetchOptions {
  // A range of the remote file: offsets from 0, end included; -1 leaves a
  // number out (lngStart -1 with lngEnd n: the last n bytes). Both -1: the
  // whole file. A range is written to the local file from its start, so the
  // local file holds exactly the range.
  int64_t lngStart = -1;
  int64_t lngEnd = -1;
  // A whole file only: keep the bytes the local file already has and fetch
  // the rest (a local file longer than the remote one is fetched anew).
  bool resume = false;
  // Compare the MD5 of the finished local file with the serving node's.
  bool verify = false;
};

// An event as an observer of a node sees it (cQEL::AddEventObserver): the
// event's name and its parameters, named and ordered as the handler declares
// them. ConnectionEstab also carries Secure and PeerKey of the link that came
// up.
struct typEventField {
  std::string Name;
  std::variant<std::string, int64_t, bool, typQELRange, std::vector<typQELRange>> Value;
};
struct typEvent {
  std::string Name;
  std::vector<typEventField> Fields;
};

}  // namespace qel
