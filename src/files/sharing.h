// What a node keeps for file sharing, the messages it asks and answers with,
// and the handlers that take them from routing.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <qel/types.h>

#include "core/request_slots.h"
#include "files/serving_queue.h"
#include "files/shares.h"
#include "protocol/message.h"

namespace qel {

struct RoutingNode;
class Dispatcher;
class FetchTable;
class TransferHost;

// A listing awaited from GETCONTENTS; done once any CONTENTS came.
struct ContentsSlot {
  std::vector<std::string> listing{""};
  bool done = false;
};

// The matches of a SEARCH, from every node that answered while it waited.
struct SearchSlot {
  std::vector<typSearchResult> results{typSearchResult{}};
  size_t bytes = 0;  // of the results kept, towards kMaxSearchBytes
};

struct FileInfoSlot {
  typFileInfo info;
  bool done = false;
};

// A search keeps at most this many results, and this many bytes of them
// (and never more than an eighth of memoryBudget), whatever the nodes
// answering send; what passes them is refused (Refusal::SearchResults).
inline constexpr size_t kMaxSearchResults = 65536;
inline constexpr size_t kMaxSearchBytes = size_t{64} << 20;

// Each node's file-sharing state. The sharing flag is RoutingNode's
// SharingFiles, since INFO announces it.
// How far a transfer this node serves has gone.
struct ServedProgress {
  std::string asker, reqID, resource;
  int64_t size = 0;
  int64_t first = 0;  // offset of the first byte to send
  int64_t next = 0;   // offset of the next byte to send
  int64_t last = 0;   // offset of the last byte to send
  int64_t startTick = 0;
};

struct FileSharing {
  // The share table: entry 0 stays empty until the first folder is shared.
  std::vector<typSharedFolder> Folders{typSharedFolder{}};
  RequestSlots<ContentsSlot> Contents;
  RequestSlots<SearchSlot> Searches;
  RequestSlots<FileInfoSlot> FileInfos;
  // Transfers this node serves or has queued, by asker and request
  // identifier, each with the flag its asker's cancel sets: a cancel stops
  // its own transfer only.
  std::unordered_map<std::string, std::shared_ptr<bool>> Served;
  // Which of them run and which wait; the ones running, as they go.
  ServingQueue Serving;
  std::unordered_set<const ServedProgress*> Running;
  // A start of waiting transfers is posted to the loop and has not run yet.
  bool StartPosted = false;
};

// The key of a served transfer in FileSharing::Served.
std::string ServedKey(const std::string& asker, const std::string& reqID);
// At most this many GETFILEINFO hashes wait or run at once, for all the
// nodes of the process: each costs a read of a whole file, and a peer must
// not be able to queue unbounded work. A request for a hash beyond them is
// answered at once with the size and no hash (counted in
// Stats::FileInfosWithoutHash); the asker may ask again later.
inline constexpr size_t kMaxHashJobs = 16;

// The hashes asked for by GETFILEINFO that wait or run now.
size_t PendingHashJobs();

// Registers the file types: GETCONTENTS, CONTENTS, SEARCH, SEARCHMATCH,
// GETFILEINFO and FILEINFO, answered here, and GET and FILE (see OnGet and
// OnFilePiece); FILE and FILEINFO that answer one of fetches' requests are
// the fetch's. Every reference must outlive the handlers; packetBytes is
// read at each GET. Requests are answered only from inside the shares; an
// answer whose ReqID has no open slot is dropped, and a body that does not
// load reads as empty. A GETFILEINFO asking for a hash is answered later,
// from the loop, once a worker thread has read the file (and not at all if
// the node is gone by then, or the file cannot be read: that fault is
// reported through the node's Error). The handlers throw when an answer
// cannot be sent, which the caller reports.
void RegisterFileHandlers(Dispatcher& handlers, FileSharing& files, FetchTable& fetches,
                          TransferHost& host, const int32_t& packetBytes);

// The asking side. Each sends its question and runs the loop until the
// answer, or for a search until Timeout has passed. A path has its "/"
// turned into "\"; one holding "..\" sends nothing and gives the empty
// result at once (a listing of element 0 alone, a zero record).
std::vector<std::string> AskContents(RoutingNode& node, FileSharing& files, std::string path,
                                     const std::string& nodeID, bool searchSubDirs);
// Every node's answers, element 0 empty.
std::vector<typSearchResult> AskSearch(RoutingNode& node, FileSharing& files, enmSearchType type,
                                       const std::string& text);
// A file that is not there (or not a file) has size -1; no answer, one
// without a readable size, or a path holding "..\" give the zero record,
// not answered.
typFileInfo AskFileInfo(RoutingNode& node, FileSharing& files, std::string path,
                        const std::string& nodeID, bool skipHash);

// What a FILEINFO body says, isAnswered set; nullopt when it gives no size
// that reads as one (a number of -1 or more, -1 being no such file).
std::optional<typFileInfo> ReadFileInfo(const std::string& body);

// The messages, not yet stamped.
typMessage MakeGetContents(const std::string& path, const std::string& nodeID,
                           const std::string& reqID, bool searchSubDirs);
typMessage MakeContents(const std::string& asker, const std::string& reqID,
                        const std::vector<std::string>& listing);
typMessage MakeSearch(enmSearchType type, const std::string& text, const std::string& reqID);
// results: nullptr leaves "Results" out of the document.
typMessage MakeSearchMatch(const std::string& asker, const std::string& reqID,
                           const std::vector<std::string>* results);
typMessage MakeGetFileInfo(const std::string& path, const std::string& nodeID,
                           const std::string& reqID, bool skipHash);
typMessage MakeFileInfo(const std::string& asker, const std::string& reqID, int64_t size,
                        const std::string& hash);

}  // namespace qel
