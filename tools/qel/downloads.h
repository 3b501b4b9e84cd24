// Files the console fetches with `get`. Each runs in the background while
// the console takes further commands; its result is written when it ends.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <string>

#include <qel/file_io.h>
#include <qel/node.h>

#include "output.h"

namespace qelcli {

struct GetRequest {
  std::string nodeID;
  std::string remotePath;
  std::string localPath;
  std::string range;    // "START-END", "START-" or "-COUNT"; empty: the whole file
  bool resume = false;  // fetch only what the local file lacks
  bool verify = false;  // compare the MD5 of the finished file with the remote one
};

class Downloads {
 public:
  Downloads(qel::cQEL& node, Output& out) : node_(node), out_(out) {}

  // Starts a download: a failed result when it cannot start, a pending one
  // when it runs. Throws std::invalid_argument for a range that does not
  // parse. The local file mirrors the remote one: each piece is written at
  // its own offset, so a range leaves the bytes before it as they were. A
  // file the download created is removed when it fails before any byte.
  CommandResult Start(const GetRequest& request);

  // Asks nodeID to stop serving reqID. A download of this console with that
  // identifier ends at once, cancelled.
  CommandResult Cancel(const std::string& nodeID, const std::string& reqID);

  // Whether a piece with this identifier belongs to a download, running or
  // recently ended: those go to OnPiece alone, not out as events.
  bool Owns(const std::string& reqID) const;

  // A piece arrived (FileReceived).
  void OnPiece(const std::string& reqID, const std::string& data, const qel::typQELRange& range,
               qel::enmFileStatus status);

 private:
  using Clock = std::chrono::steady_clock;

  struct Download {
    GetRequest request;
    qel::typQELRange asked;  // as sent; lngStart -1 for the last lngEnd bytes
    qel::clsFileIO2 file;
    std::string remoteHash;  // when verifying
    bool created = false;    // the local file is this download's: removed if it stays empty
    bool cutAtEnd = false;   // a whole file: what lies past its end once complete goes
    int64_t bytes = 0;       // written so far
    int64_t total = -1;      // to write, once the file's length is known
    Clock::time_point started = Clock::now();  // reset when the request goes out
    Clock::time_point reported{};
    double seconds = 0;  // from the request to the end, once ended
  };
  using Iterator = std::map<std::string, Download>::iterator;

  void Report(const std::string& reqID, Download& download, bool done);
  // Writes the download's result and forgets it.
  void Finish(Iterator it, qel::enmFileStatus status, std::string error = "");
  // The result: {ReqID, FileStatus, bytes, seconds, path}, failed when error is set,
  // when the download did not complete or its MD5 differs.
  static CommandResult Outcome(const std::string& reqID, const Download& download,
                               qel::enmFileStatus status, std::string error,
                               std::string note = "");

  qel::cQEL& node_;
  Output& out_;
  std::map<std::string, Download> running_;  // by request identifier
  std::deque<std::string> ended_;            // the last few, whose late pieces are dropped
};

}  // namespace qelcli
