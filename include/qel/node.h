// cQEL: one node of the overlay network.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <qel/export.h>
#include <qel/rpc.h>
#include <qel/snapshot.h>
#include <qel/types.h>

namespace qel {

// The address this host advertises to other nodes: QEL_LOCAL_ADDRESS when set,
// else the first IPv4 address that is neither 127.* nor 192.168.*, else the
// first one. Fixed when the first node object is created.
QEL_API std::string LocalAddress();

namespace detail {
struct NodeAccess;
}

// A node object. Several may live in one process; each is a separate node
// with its own identity, settings and event handlers.
//
// Threading: create, call and destroy node objects on one thread, the event
// loop's (<qel/event_loop.h> says which); a method called on another thread
// throws QelError -2147221500. Events are raised synchronously on that
// thread, from inside QEL's calls.
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
  // Shuts the node down without raising events; never throws.
  ~cQEL();
  cQEL(const cQEL&) = delete;
  cQEL& operator=(const cQEL&) = delete;

  // Gives the node a fresh identifier and encryption key, its name, port,
  // role and descriptor, shares sharedDir when it is not blank, and reads the
  // advanced settings from section "Common" of advancedSettings (a cSettings
  // text): Timeout, TTL, useEnc, netPass, useComp, seeSelf, announceSelf,
  // maxRoutes, confirmMode, confirmTimeout, confirmRetry, filePacket (KiB),
  // packetCache, maxMessage, memoryBudget, stallTimeout, maxConnections,
  // listenAddress, keyFile (docs/guide.md lists their meanings and defaults).
  // The node's key comes from keyFile, read or created there, or is fresh
  // when keyFile is blank, even when another setting is wrong. Absent
  // keys keep their defaults; text that is not a settings text is reported through Error
  // (Error 4) and leaves every default; a value of the wrong type is reported through Error with
  // its key and what the key takes, and stops reading at that key. May be called again on a live
  // node.
  void Initialise(const std::string& nodeName, int32_t listenPort = 0, enmRole Role = role_Peer,
                  const std::string& Descriptor = "", const std::string& sharedDir = "",
                  const std::string& advancedSettings = "");

  // Offers a local folder to the network under its last path component. A
  // blank or missing path is ignored silently.
  void shareFolder(std::string strPath);

  // Listens for other nodes on lngPort, or on the port given to Initialise
  // when lngPort is 0; with both 0, on any free port, which the node then
  // advertises. Throws QelError -2147221501 when this process already
  // listens on the port.
  bool Listen(int32_t lngPort = 0);

  // Connects to strServer ("host:port", or a host, which dials the node's own
  // listen port), or to the address discovery learned for a node identifier
  // when isNodeID. Waits up to Timeout ms, running the event loop. With
  // bMaintain the connection is re-dialled whenever it drops (every 5 s while
  // it cannot be made). False when the link is not up, with the reason
  // through Error ("Connect to <address> failed: connection refused", "host
  // not found (...)", "no connection within <Timeout> ms", "malformed address
  // (...)"); a malformed address is not maintained.
  bool Connect(std::string strServer, bool isNodeID = false, bool bMaintain = false);

  // Closes this node's connections to strServer (or, when isNodeID, to the
  // address known for that node and any link it announced itself on),
  // accepted or made, and stops maintaining them. True only when it closed a
  // connection that was open.
  bool DisconnectFrom(const std::string& strServer, bool isNodeID = false);

  // Stops listening and closes this node's connections, accepted ones too.
  bool DisconnectAll();

  // Describes the nodes of the network. "BROADCAST" asks every node and waits
  // the full Timeout for answers (element 0 of the result is empty); a node
  // identifier gives one element, from the cache when bUseCached and known,
  // otherwise by asking it and waiting up to Timeout ms for an answer given
  // after the question (an empty element when none came).
  std::vector<typNodeInfo> GetNodeInfo(const std::string& strDestination = "BROADCAST",
                                       bool bUseCached = true);

  // The listing of a shared path of node nodeID, as "\share\sub" (or "\sub"
  // on a node sharing one folder; "\" lists the shares of a node with
  // several): element 0 is empty, then folders ending with "\", then files;
  // with searchSubDirs everything below, as paths from the listed folder.
  // "/" counts as "\". Waits up to Timeout ms for the answer; a path holding
  // "..\", a refused path and no answer all give element 0 alone.
  std::vector<std::string> GetContents(std::string strPath, const std::string& nodeID,
                                       bool searchSubDirs = false);

  // Asks every node for nodes whose name contains SearchText (Find_Node) or
  // for shared files whose name does (Find_File), ignoring case; "*", "?",
  // "#" and "[...]" work as wildcards. Waits the full Timeout and returns
  // each answer of every node after an empty element 0: a file as a remote
  // path GetFileInfo and file requests accept.
  std::vector<typSearchResult> SearchReq(enmSearchType SearchType, const std::string& SearchText);

  // Size and, unless skipHash, MD5 of a shared file of node nodeID (paths as
  // for GetContents), waiting up to Timeout ms for the answer; a node hashes
  // a large file for a while, and may answer without a hash when it has
  // many to make. isAnswered tells an answer from none: answered, size -1
  // and no hash when it is not a file inside a share; not answered (size 0,
  // no hash) when no answer came within Timeout, when the answer could not
  // be read, or for a path holding "..\" (nothing is sent).
  typFileInfo GetFileInfo(std::string RemotePath, const std::string& nodeID, bool skipHash = true);

  // A byte range for RequestFile and SendFile: offsets from 0, end included;
  // -1 leaves a number out, and the range is empty when all three are.
  typQELRange MakeRange(int64_t lngStart = -1, int64_t lngEnd = -1, int64_t lngLen = -1);
  // Asks nodeID for a shared file, or the part Range names ("start-end",
  // "start-" to the end, or the last lngEnd bytes when lngStart is -1), and
  // returns the request identifier at once: the pieces arrive as
  // FileReceived with that identifier. Metadata travels along unread.
  std::string RequestFile(const std::string& RemotePath, const std::string& nodeID,
                          const typQELRange& Range, const std::string& Metadata = "");
  // Sends one piece of data to nodeID as a file transfer would (raised there
  // as FileReceived); an empty ReqID gets a new identifier. A piece with
  // FS_Canceled and a transfer's ReqID, sent to the node serving it, stops
  // that transfer.
  void SendFile(const std::string& nodeID, const typQELRange& Range, const std::string& Data = "",
                const std::string& ReqID = "", enmFileStatus FileStatus = FS_Transferring,
                const std::string& Metadata = "");

  // Fetches RemotePath (paths as for GetContents) of node nodeID into the
  // local file LocalPath, or the range Options names, and returns the
  // fetch's identifier at once; FetchProgress and then one FetchFinished
  // follow from the event loop. The file is asked for in ranged requests
  // with at most transferWindow KiB asked for and not yet here, so neither
  // the serving node nor a relay holds more than that for it. It is complete
  // only when every byte arrived (and, with verify, its MD5 matched): lost
  // pieces are asked for again, and a fetch that hears nothing for
  // transferStall seconds asks again, transferRetries times, then fails.
  // The local file is written in place and cut to the file's (or range's)
  // length when complete; one the fetch created is removed when it fails
  // before any byte. Pieces arrive out of order, so a whole-file fetch that
  // ends early cuts the file to the bytes that arrived without a gap: a
  // resumed fetch then goes on from a correct prefix. Its pieces are not raised as FileReceived. A
  // fetch that cannot start (no node given, a range that asks for nothing, a local file that cannot
  // be written) is reported through Error and gives "".
  std::string FetchFile(const std::string& nodeID, const std::string& RemotePath,
                        const std::string& LocalPath, const typFetchOptions& Options = {});
  // Stops a fetch of this node: the serving node is told, and FetchFinished
  // is raised with FS_Canceled and "cancelled" before this returns. False
  // for an identifier that names no running fetch.
  bool CancelFetch(const std::string& FetchID);

  // Sends a text message to a node identifier or to "BROADCAST". A strType
  // of "ERROR" makes the receiver raise Error instead of MessageReceived.
  void SendMessage(const std::string& strMessage, const std::string& nodeID,
                   const std::string& strType = "");

  // Round-trip time in ms to a node, or -1 when no answer came within
  // Timeout ms. A node not known yet is asked to describe itself first,
  // within the same Timeout; when it does not answer, throws QelError
  // -2147221503 ("Cannot ping unresolved node").
  int32_t Ping(const std::string& nodeID, int32_t Timeout = 3000);
  // Ping without waiting: returns at once, and done runs once, later, from
  // the event loop, with the round trip to the microsecond, or a negative
  // time when no answer came within Timeout ms (or the node did not describe
  // itself in time). A node not known yet is asked first, within the same Timeout. Any
  // number may be in flight, to one node or several. ShutDown (and so the
  // destructor) drops the pings in flight: their done is destroyed uncalled.
  // What done throws is stopped and reported as a handler's fault.
  void PingAsync(const std::string& nodeID,
                 std::function<void(std::chrono::microseconds rtt)> done, int32_t Timeout = 3000);

  // Users. Each node keeps a list of users (name, password, the name of the
  // node that last set the record, the time of the change) that the nodes
  // of an overlay share; its text is a cSettings text, one section per
  // user.

  // Sets a user here and tells every node. user_Remove leaves the user here
  // with an empty password and a fresh stamp; the other nodes empty the
  // record. A node takes an update only from a node it has information on
  // (GetNodeInfo); otherwise it reports the fault through Error. A value
  // longer than 4096 bytes, or a list past 1024 users or 256 KiB of text,
  // is reported through Error (6, saying which) and nothing is sent.
  void updateUser(const std::string& userName, const std::string& Password = "",
                  enmUserOp Operation = user_Update);
  // Asks every node to check the password and takes the first answer, within
  // Timeout ms: true makes userName the user this node announces as
  // activeUser. A node that does not know the user answers no.
  bool LoginAs(const std::string& userName, const std::string& Password = "");
  // Replaces the user list with a cSettings text; text that does not load is
  // reported through Error, and what was read before the fault is kept.
  void setUserXML(const std::string& userXML);
  std::string getUserXML();
  // Sends this node's list to every node and asks every node for its own:
  // each side takes the users whose stamp is later than its own.
  void SyncUserList();

  // Remote procedure calls. Names are matched ignoring case.

  // Binds a name for calls that arrive (RPC_INCOMING) or for the answers to
  // this node's calls (RPC_RETURN); events come through the handle. A second
  // binding of the same name and type is kept but never used before the
  // first is unbound.
  std::shared_ptr<cQELRPC> bindRPC(const std::string& ProcName, enmRPCType ReqType);
  // Removes the binding of exactly this name (case counts here) and type;
  // its calls waiting for an answer are dropped unanswered.
  void unbindRPC(const std::string& ProcName, enmRPCType ReqType);
  // Calls ProcName on nodeID, or on every node with "BROADCAST", and returns
  // the request identifier; the answers arrive through the RPC_RETURN
  // binding of ProcName. "-1", and nothing sent, without such a binding.
  std::string callRemoteProc(const std::string& nodeID, const std::string& ProcName,
                             const std::string& Params = "");
  // Answers a call that arrived; a request already answered (or unknown)
  // sends nothing.
  void returnRemoteProc(const std::string& ReqID, const std::string& Params = "");

  // Whether one of this node's connections, accepted or made, is up.
  bool isConnected();

  // This node's open links, accepted and made, in connection order: a link
  // still dialling is left out. Runs no events.
  std::vector<typLinkInfo> Links();
  // Inside a ConnectionEstab handler: the link that came up, as Links() lists it (whether
  // it is secure, the neighbour's key ID). Elsewhere, or once that link closed, a
  // typLinkInfo with Index 0. Runs no events.
  typLinkInfo EstablishedLink();

  // The node's state now: identity, links, known nodes, transfers, memory and its
  // counters, as plain values the caller keeps. On the loop's thread (QelError
  // -2147221500 on another); runs no events. Cheap enough to call every second: its cost
  // grows with the links, known nodes and transfers, never with the traffic.
  NodeSnapshot Snapshot() const;

  // Changes the role the node announces from now on; nothing is sent.
  void switchRole(enmRole Role);

  // Closes the node's connections and frees its slot. Node objects created
  // after this one keep working; every later call on this one throws.
  void ShutDown();

  // This node's identifier (empty before Initialise): the Source of its
  // messages and what other nodes address it by.
  std::string NodeID();

  // This node's key ID: SHA-256 of its Ed25519 public key (DER
  // SubjectPublicKeyInfo) as 64 lower-case hex digits. Empty before
  // Initialise and when keyFile gave no key (Initialise reported why).
  std::string KeyID();

  // The port the node listens on, or advertises when not listening yet.
  int32_t ListenPort();

  // Calls observer with every event this node raises, after the host's
  // handler has run (with what the handler left in the parameters), whether
  // a handler is set or not. Returns the observer's number for
  // RemoveEventObserver. An observer must not throw and must not shut the
  // node down; it may remove itself or add others, which see the next event.
  int32_t AddEventObserver(std::function<void(const typEvent&)> observer);
  // Stops one observer; an unknown number does nothing.
  void RemoveEventObserver(int32_t id);

  // Events. Parameters are references: a handler may change the ones QEL
  // reads back. A handler may call any method of any node, or destroy this
  // node object. An exception a handler throws stops at QEL: it is written to
  // stderr (and the debug log) as "QEL: the <event> handler threw (...)", the
  // event counts as handled and the node goes on.

  // A message for this node arrived: its text, its Type field, its sender.
  std::function<void(std::string& strMessage, std::string& strType, std::string& nodeID)>
      MessageReceived;
  // The node reports a fault, or a message of type "ERROR" arrived.
  std::function<void(std::string& strMessage, std::string& nodeID)> Error;
  // A remote host asks to connect; set Cancel to refuse it.
  std::function<void(std::string& SourceIP, bool& Cancel)> ConnectionReq;
  // A connection came up: accepted, made by Connect, or re-made for a
  // maintained link. SourceIP is the peer's IP, or the address dialled.
  std::function<void(std::string& SourceIP)> ConnectionEstab;
  // A connection of this node closed. SourceIP is "address:port": as
  // dialled, or the peer's IP with the port it advertised (else the port its
  // connection came from).
  std::function<void(std::string& SourceIP, std::string& nodeID)> ConnectionClosed;
  // A node asks for a shared file (GET): the path it sent, the local file
  // (empty when the path would leave the shares), the asker, the request,
  // its ranges and metadata. Set TakeNoAction to answer it yourself with
  // SendFile; otherwise the node serves the file.
  std::function<void(std::string& Resource, std::string& fullPath, std::string& nodeID,
                     std::string& ReqID, std::vector<typQELRange>& Range, std::string& Metadata,
                     bool& TakeNoAction)>
      FileRequest;
  // A piece of a file (or of data a node pushed with SendFile) arrived: the
  // request it answers, its bytes, the bytes of the file it holds (first and
  // last offset and the file's length, -1 where not given), FS_Complete on
  // the last piece and FS_Canceled when the sender stopped.
  std::function<void(std::string& ReqID, std::string& strData, typQELRange& Range,
                     enmFileStatus& FileStatus, std::string& Metadata)>
      FileReceived;
  // A fetch moved on: the bytes of the file (or range) it holds and the
  // bytes it fetches in all (a resumed fetch counts only what it fetches).
  // At most ten a second per fetch, and once more with both equal before a
  // complete FetchFinished.
  std::function<void(std::string& FetchID, int64_t& BytesDone, int64_t& BytesTotal)> FetchProgress;
  // A fetch ended: FS_Complete when every byte is in the local file (and
  // verified, when asked), else FS_Canceled with the reason ("cancelled"
  // for CancelFetch). Raised once per fetch.
  std::function<void(std::string& FetchID, enmFileStatus& FileStatus, std::string& Reason)>
      FetchFinished;

 private:
  friend struct detail::NodeAccess;
  int32_t slotIndex = 0;
};

}  // namespace qel
