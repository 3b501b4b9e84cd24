// Files the console fetches with `get`. Each runs in the background as a
// windowed fetch of the node while the console takes further commands; its
// result is written when it ends.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

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
  // parse. A range is written to the local file from its start, so the file
  // holds the range alone.
  CommandResult Start(const GetRequest& request);

  // Stops the download whose identifier starts with idPrefix (any unique
  // prefix, as the progress bar shows it). Without a download of that
  // identifier: when nodeID is given, asks nodeID to stop a transfer it
  // serves to this node under that request identifier (a RequestFile of a
  // host); otherwise fails.
  CommandResult Cancel(const std::string& nodeID, const std::string& idPrefix);

  // The node's fetch events.
  void OnProgress(const std::string& fetchID, int64_t done, int64_t total);
  void OnFinished(const std::string& fetchID, qel::enmFileStatus status, const std::string& reason);

 private:
  using Clock = std::chrono::steady_clock;

  struct Download {
    GetRequest request;
    int64_t bytes = 0;
    int64_t total = -1;
    Clock::time_point started = Clock::now();
    Clock::time_point reported{};
  };

  void Report(const std::string& fetchID, Download& download, bool done);

  qel::cQEL& node_;
  Output& out_;
  std::map<std::string, Download> running_;  // by fetch identifier
};

}  // namespace qelcli
