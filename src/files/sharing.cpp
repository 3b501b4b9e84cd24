#include "files/sharing.h"

#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <system_error>

#include <qel/settings.h>

#include "core/new_id.h"
#include "core/stats.h"
#include "core/text.h"
#include "files/confined_open.h"
#include "files/fetch.h"
#include "files/listing.h"
#include "files/regular_file.h"
#include "files/transfer.h"
#include "net/event_loop.h"
#include "net/worker.h"
#include "routing/discovery.h"
#include "routing/dispatch.h"
#include "routing/outgoing.h"
#include "routing/report.h"
#include "routing/routing_node.h"

namespace qel {

namespace {

// A document a peer sent; one that does not load reads as empty.
cSettings LoadBody(const std::string& body) {
  cSettings document;
  try {
    document.LoadXML(body);
  } catch (...) {
    document = cSettings();
  }
  return document;
}

bool ReadBool(cSettings& document, const char* key, bool missing) {
  try {
    return document.GetSetting(key, Variant(missing)).toBool();
  } catch (...) {
    return missing;
  }
}

// The store holds at most 32767 entries, so an array a peer sends is bounded
// by that as well as by the message size.
std::vector<std::string> ReadArray(cSettings& document, const char* key) {
  try {
    return document.GetSettingArray(key, std::vector<std::string>{});
  } catch (...) {
    return {};
  }
}

// Listings run to thousands of entries: appending without looking for an
// earlier key keeps building linear, and the text is the same for new keys.
void SaveArray(cSettings& document, const char* key, const std::vector<std::string>& items) {
  document.ClearPrevOnSave(true);
  document.SaveSettingArray(key, items);
  document.ClearPrevOnSave(false);
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  for (size_t begin = 0;;) {
    const size_t end = text.find(separator, begin);
    parts.push_back(text.substr(begin, end - begin));
    if (end == std::string::npos) return parts;
    begin = end + 1;
  }
}

std::string ReqID(const typMessage& message) {
  return GetSingleField(message.Fields, "ReqID");
}

typMessage Addressed(const char* type, const std::string& destination, const std::string& reqID,
                     const cSettings& document) {
  typMessage message = MakeRequest(type, destination, reqID);
  message.Body = document.getXML();
  return message;
}

// Opens a slot, sends the question and runs the loop until done(answer), the
// slot is gone (pushed out by newer ones) or Timeout has passed.
template <typename Answer, typename Done>
Answer Await(RoutingNode& node, RequestSlots<Answer>& slots, typMessage question,
             const std::string& reqID, Done done) {
  slots.Open(reqID);
  try {
    SendPacket(node, question);
    RunUntil(
        [&] {
          const Answer* answer = slots.Find(reqID);
          return !answer || done(*answer);
        },
        node.Timeout);
  } catch (...) {
    slots.Close(reqID);
    throw;
  }
  return slots.Close(reqID).value_or(Answer{});
}

// Turns "/" into "\" in place; true when the path climbs with "..\". Servers
// refuse such paths too, but classic ones relied on the asker for it.
bool LeavesShare(std::string& path) {
  std::replace(path.begin(), path.end(), '/', '\\');
  return path.find("..\\") != std::string::npos;
}

void OnGetContents(RoutingNode& node, FileSharing& files, const typMessage& message,
                   const std::string& source) {
  cSettings body = LoadBody(message.Body);
  const bool searchSubDirs = ReadBool(body, "SearchSubDirs", false);
  typMessage reply = MakeContents(
      source, ReqID(message),
      ListSharedPath(files.Folders, node.SharingFiles, message.Resource, searchSubDirs));
  SendPacket(node, reply);
}

void OnContents(FileSharing& files, const typMessage& message) {
  ContentsSlot* slot = files.Contents.Find(ReqID(message));
  if (!slot) return;
  cSettings body = LoadBody(message.Body);
  slot->listing = ReadArray(body, "Contents");
  if (slot->listing.empty()) slot->listing.emplace_back();
  slot->done = true;
}

void OnSearch(RoutingNode& node, FileSharing& files, const typMessage& message,
              const std::string& source) {
  const std::string type = ToUpper(GetSingleField(message.Fields, "Type"));
  // The parser puts a "\" in front of every resource.
  std::string_view text = message.Resource;
  if (text.starts_with('\\')) text.remove_prefix(1);
  std::vector<std::string> results;
  bool answered = false;
  if (type == "NODE") {
    answered = MatchesNodeName(node.Name, text);
    if (answered) results = Split(node.Name, '|');
  } else if (type == "FILE") {
    results = SearchFiles(files.Folders, node.SharingFiles, text);
    answered = true;
  }
  typMessage reply = MakeSearchMatch(source, ReqID(message), answered ? &results : nullptr);
  SendPacket(node, reply);
}

void OnSearchMatch(RoutingNode& node, FileSharing& files, const typMessage& message,
                   const std::string& source) {
  SearchSlot* slot = files.Searches.Find(ReqID(message));
  if (!slot) return;
  cSettings body = LoadBody(message.Body);
  const size_t maxBytes =
      std::min(kMaxSearchBytes, static_cast<size_t>(std::max<int64_t>(node.memoryBudget, 0) / 8));
  // Element 0 counts too: a node's name arrives there (classic askers lost it).
  for (std::string& result : ReadArray(body, "Results")) {
    if (result.empty()) continue;
    // What a kept result costs: both its strings and the record holding them.
    const size_t bytes = sizeof(typSearchResult) + source.size() + result.size();
    if (slot->results.size() > kMaxSearchResults || slot->bytes + bytes > maxBytes) {
      // Counted once for each answer cut short.
      ReportRefusal(node, Refusal::SearchResults,
                    "Search results past " + std::to_string(slot->results.size() - 1) +
                        " results or " + std::to_string(maxBytes) + " bytes refused",
                    source);
      return;
    }
    slot->bytes += bytes;
    slot->results.push_back({source, std::move(result)});
  }
}

// Hash jobs handed to the worker and not yet answered, of every node of the
// process; counted on the loop thread only.
size_t pendingHashJobs = 0;

void AnswerFileInfo(RoutingNode& node, const std::string& asker, const std::string& reqID,
                    int64_t size, const std::string& hash) {
  typMessage reply = MakeFileInfo(asker, reqID, size, hash);
  SendPacket(node, reply);
}

// Hashes the open file off the loop, which meanwhile serves every other
// message, and answers from it if the node is still there. A file that
// cannot be read is reported, and nothing is answered, as when the hash
// held the loop.
void HashThenAnswer(RoutingNode& node, std::shared_ptr<ClosingFd> file, std::string path,
                    std::string asker, std::string reqID, int64_t size) {
  ++pendingHashJobs;
  RunOffLoop([owner = node.weak_from_this(), file = std::move(file), path = std::move(path),
              asker = std::move(asker), reqID = std::move(reqID),
              size]() mutable -> std::function<void()> {
    std::string hash;
    std::exception_ptr fault;
    try {
      hash = HashOpenFile(file->fd, path);
    } catch (...) {
      fault = std::current_exception();
    }
    file.reset();  // the descriptor goes back at once, not when the loop gets to the answer
    return [owner, asker, reqID, size, hash = std::move(hash), fault] {
      --pendingHashJobs;
      const auto alive = owner.lock();
      if (!alive || !alive->Alive()) return;
      auto& node = static_cast<RoutingNode&>(*alive);
      try {
        if (fault) std::rethrow_exception(fault);
        AnswerFileInfo(node, asker, reqID, size, hash);
      } catch (...) {
        ReportCurrentFault(node);
      }
    };
  });
}

void OnGetFileInfo(RoutingNode& node, FileSharing& files, const typMessage& message,
                   const std::string& source) {
  cSettings body = LoadBody(message.Body);
  // Hashing costs a read of the whole file: only when asked for.
  const bool skipHash = ReadBool(body, "skipHash", true);
  // Size and hash both come from the one descriptor opened beneath the share.
  auto file = std::make_shared<ClosingFd>(
      OpenSharedFile(files.Folders, node.SharingFiles, message.Resource));
  int64_t size = -1;
  struct stat info {};
  if (file->fd >= 0 && fstat(file->fd, &info) == 0) size = static_cast<int64_t>(info.st_size);
  if (size < 0 || skipHash) return AnswerFileInfo(node, source, ReqID(message), size, "");
  if (pendingHashJobs >= kMaxHashJobs) {
    // A peer must not pile up work: the size alone answers at once, and the
    // asker may ask again later.
    ++TheStats().FileInfosWithoutHash;
    return AnswerFileInfo(node, source, ReqID(message), size, "");
  }
  HashThenAnswer(node, std::move(file), message.Resource, source, ReqID(message), size);
}

void OnFileInfo(FileSharing& files, const typMessage& message) {
  FileInfoSlot* slot = files.FileInfos.Find(ReqID(message));
  if (!slot) return;
  // An answer without a size we can read ends the wait, but says nothing:
  // taking it for an empty file would be a lie.
  slot->done = true;
  if (std::optional<typFileInfo> info = ReadFileInfo(message.Body)) slot->info = *info;
}

}  // namespace

std::optional<typFileInfo> ReadFileInfo(const std::string& body) {
  cSettings document = LoadBody(body);
  try {
    const int64_t size = document.GetSetting("FileSize", Variant("")).toInt64();
    if (size < -1) return std::nullopt;
    return typFileInfo{size, document.GetSetting("Hash", Variant("")).toString(), true};
  } catch (...) {
    return std::nullopt;  // no size, one beyond 64 bits, or not a number
  }
}

size_t PendingHashJobs() {
  return pendingHashJobs;
}

void RegisterFileHandlers(Dispatcher& handlers, FileSharing& files, FetchTable& fetches,
                          TransferHost& host, const int32_t& packetBytes) {
  handlers.Register("GETCONTENTS", files, OnGetContents);
  handlers.Register("CONTENTS", [&files](RoutingNode&, typMessage& message, const Arrival&) {
    OnContents(files, message);
  });
  handlers.Register("SEARCH", files, OnSearch);
  handlers.Register("SEARCHMATCH", files, OnSearchMatch);
  handlers.Register("GETFILEINFO", files, OnGetFileInfo);
  // A fetch's answers are the fetch's; any other goes to the question slots.
  handlers.Register("FILEINFO",
                    [&files, &fetches](RoutingNode&, typMessage& message, const Arrival& from) {
                      if (!fetches.OnInfo(message, from.source)) OnFileInfo(files, message);
                    });
  handlers.Register("GET", [&files, &host, &packetBytes](RoutingNode& node, typMessage& message,
                                                         const Arrival& from) {
    OnGet(node, files, host, message, from.source, packetBytes, from.conn);
  });
  handlers.Register("FILE", [&files, &fetches, &host](RoutingNode& node, typMessage& message,
                                                      const Arrival& from) {
    if (fetches.OnPiece(message, from.source, message.Body)) return;
    OnFilePiece(node, files, host, message, from.source,
                from.keepBody ? message.Body : std::move(message.Body));
  });
}

std::string ServedKey(const std::string& asker, const std::string& reqID) {
  return asker + '\n' + reqID;
}

std::vector<std::string> AskContents(RoutingNode& node, FileSharing& files, std::string path,
                                     const std::string& nodeID, bool searchSubDirs) {
  if (LeavesShare(path)) return {""};
  const std::string reqID = NewID();
  return Await(node, files.Contents, MakeGetContents(path, nodeID, reqID, searchSubDirs), reqID,
               [](const ContentsSlot& slot) { return slot.done; })
      .listing;
}

std::vector<typSearchResult> AskSearch(RoutingNode& node, FileSharing& files, enmSearchType type,
                                       const std::string& text) {
  const std::string reqID = NewID();
  // Any number of nodes may answer, so the wait always runs to its end.
  return Await(node, files.Searches, MakeSearch(type, text, reqID), reqID,
               [](const SearchSlot&) { return false; })
      .results;
}

typFileInfo AskFileInfo(RoutingNode& node, FileSharing& files, std::string path,
                        const std::string& nodeID, bool skipHash) {
  if (LeavesShare(path)) return {};
  const std::string reqID = NewID();
  return Await(node, files.FileInfos, MakeGetFileInfo(path, nodeID, reqID, skipHash), reqID,
               [](const FileInfoSlot& slot) { return slot.done; })
      .info;
}

namespace {

// A question about a remote path: the path as resource, one flag in the body.
typMessage PathQuestion(const char* type, const std::string& path, const std::string& nodeID,
                        const std::string& reqID, const char* flag, bool value) {
  cSettings document;
  document.SaveSetting(flag, Variant(value));
  typMessage message = Addressed(type, nodeID, reqID, document);
  message.Resource = path;
  return message;
}

}  // namespace

typMessage MakeGetContents(const std::string& path, const std::string& nodeID,
                           const std::string& reqID, bool searchSubDirs) {
  return PathQuestion("GETCONTENTS", path, nodeID, reqID, "SearchSubDirs", searchSubDirs);
}

typMessage MakeContents(const std::string& asker, const std::string& reqID,
                        const std::vector<std::string>& listing) {
  cSettings document;
  SaveArray(document, "Contents", listing);
  return Addressed("CONTENTS", asker, reqID, document);
}

typMessage MakeSearch(enmSearchType type, const std::string& text, const std::string& reqID) {
  typMessage message = NewMessage();
  message.MsgType = "SEARCH";
  message.Resource = text;
  if (type == Find_Node) SetField(message.Fields, "Type", Variant("Node"));
  if (type == Find_File) SetField(message.Fields, "Type", Variant("File"));
  SetField(message.Fields, "ReqID", Variant(reqID));
  return message;
}

typMessage MakeSearchMatch(const std::string& asker, const std::string& reqID,
                           const std::vector<std::string>* results) {
  cSettings document;
  if (results) SaveArray(document, "Results", *results);
  typMessage message = NewMessage();
  message.MsgType = "SEARCHMATCH";
  SetField(message.Fields, "ReqID", Variant(reqID));
  SetField(message.Fields, "Destination", Variant(asker));
  message.Body = document.getXML();
  return message;
}

typMessage MakeGetFileInfo(const std::string& path, const std::string& nodeID,
                           const std::string& reqID, bool skipHash) {
  return PathQuestion("GETFILEINFO", path, nodeID, reqID, "skipHash", skipHash);
}

typMessage MakeFileInfo(const std::string& asker, const std::string& reqID, int64_t size,
                        const std::string& hash) {
  cSettings document;
  document.SaveSetting("Hash", Variant(hash));
  document.SaveSetting("FileSize", Variant(size));
  return Addressed("FILEINFO", asker, reqID, document);
}

}  // namespace qel
