// Windowed fetches: a file, or a range of it, fetched from another node as a
// sequence of ranged GETs with a bounded number of bytes asked for and not
// yet here, written to a local file as the pieces come, complete only when
// every byte arrived. Nothing new goes on the wire: any node that answers
// ranged GETs and GETFILEINFO can serve a fetch.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include <qel/types.h>

#include "protocol/message.h"

namespace qel {

struct RoutingNode;
class LinkOwner;
class Timer;

// What the node above hears of its fetches. Both may run the loop and call
// back into the table (a handler may cancel or start fetches).
class FetchHost {
 public:
  virtual void FetchProgress(std::string fetchID, int64_t done, int64_t total) = 0;
  // FS_Complete with an empty reason, or FS_Canceled with the reason.
  virtual void FetchFinished(std::string fetchID, enmFileStatus status, std::string reason) = 0;

 protected:
  ~FetchHost() = default;
};

// A node's settings for its fetches.
struct FetchSettings {
  int64_t windowBytes = int64_t{8} << 20;  // asked for and not yet here, per fetch
  int64_t chunkBytes = int64_t{1} << 20;   // one GET asks for at most this much
  int32_t stallMs = 30000;                 // nothing arrived for this long: ask again
  int32_t retries = 3;                     // asking again this often without a byte: fail
  int32_t answerMs = 500;                  // wait for the file's size (the node's Timeout)
};

class FetchTable {
 public:
  FetchTable();
  ~FetchTable();
  FetchTable(const FetchTable&) = delete;
  FetchTable& operator=(const FetchTable&) = delete;

  // Starts fetching remotePath of nodeID into localPath and returns the
  // fetch's identifier; events follow from the loop. Throws
  // std::invalid_argument for options that ask for nothing sensible and
  // std::system_error when the local file cannot be opened for writing.
  std::string Start(RoutingNode& node, FetchHost& host, const FetchSettings& settings,
                    const std::string& nodeID, const std::string& remotePath,
                    const std::string& localPath, const typFetchOptions& options);
  // Stops a fetch: the serving node is told, FetchFinished says "cancelled".
  // False for an identifier that names no running fetch.
  bool Cancel(const std::string& fetchID);

  // A FILE for this node: true when it answers one of the fetches' requests
  // (it is then the fetch's, and not raised as FileReceived).
  bool OnPiece(const typMessage& message, const std::string& source, const std::string& data);
  // A FILEINFO for this node: true when it answers a fetch's question.
  bool OnInfo(const typMessage& message, const std::string& source);
  // One of the node's links came up: fetches that have been waiting ask
  // again now instead of at their stall time.
  void OnLinkUp();

  size_t Count() const { return fetches_.size(); }
  // What a running fetch shows of itself: total is -1 until the size is known.
  struct State {
    const std::string& id;
    const std::string& nodeID;
    const std::string& remotePath;
    int64_t done = 0;
    int64_t total = -1;
    int64_t startTick = 0;
  };
  // Calls fn for each running fetch; fn must not start or end fetches.
  void ForEach(const std::function<void(const State&)>& fn) const;
  // Pieces of fetches that were refused: from another node, outside what
  // was asked, or of the wrong length.
  uint64_t RefusedPieces() const { return refused_; }

 private:
  struct Fetch;
  using FetchPtr = std::shared_ptr<Fetch>;

  // The node, when it is still alive.
  RoutingNode* Node() const;
  FetchPtr Find(const std::string& fetchID) const;
  void AskInfo(Fetch& fetch, bool hash);
  // Plans the bytes to fetch once the file's size is known; false when the
  // range asks for nothing the file has.
  bool Plan(Fetch& fetch, int64_t size);
  void Pump(Fetch& fetch);
  // After the plan moved: ends a complete fetch, else asks for more and
  // reports progress (always for the first report).
  void Advance(const FetchPtr& fetch, bool first);
  void Forget(Fetch& fetch, const std::string& reqID);
  // Tells the serving node to stop every open request and forgets them.
  void StopAsks(Fetch& fetch);
  // A request is over: its identifier leaves the table for the retired ones.
  void Retire(const std::string& reqID);
  void Tick();
  void Stalled(const FetchPtr& fetch);
  // Asks again for what the fetch waits for: the size, the hash, or the
  // bytes still missing (the open requests are stopped first).
  void AskAgain(const FetchPtr& fetch);
  // Every byte is here: cut the file to length, verify if asked, finish.
  void Arrived(const FetchPtr& fetch);
  void CheckHashes(const FetchPtr& fetch);
  // The local file's MD5 (or why it could not be read) against the remote.
  void Compare(const FetchPtr& fetch, const std::string& local, const std::string& fault);
  // Takes a fetch out of the table, stops its requests and leaves the local
  // file as the outcome wants it; false when it was not in the table.
  bool Close(Fetch& fetch, bool complete);
  // Ends a fetch and raises FetchFinished; the table may change meanwhile,
  // so callers return right after.
  void Finish(const FetchPtr& fetch, enmFileStatus status, std::string reason);
  void Progress(const FetchPtr& fetch, bool force);

  std::weak_ptr<LinkOwner> owner_;
  FetchHost* host_ = nullptr;
  std::map<std::string, FetchPtr> fetches_;
  std::unordered_map<std::string, std::string> byRequest_;  // request -> fetch
  static constexpr size_t kRetiredKept = 1024;
  std::deque<std::string> retired_;
  std::unordered_set<std::string> retiredSet_;
  std::unique_ptr<Timer> tick_;
  uint64_t refused_ = 0;
};

}  // namespace qel
