// File transfer: GET asks a node for a shared file or a range of it, and
// FILE carries the pieces back (or data a host pushes with SendFile).
#pragma once

#include <string>

#include <qel/types.h>

#include "protocol/message.h"

namespace qel {

struct RoutingNode;
struct FileSharing;

// What the node above hears of arriving pieces.
class TransferHost {
 public:
  virtual void FileReceived(std::string reqID, std::string data, typQELRange range,
                            enmFileStatus status, std::string metadata) = 0;

 protected:
  ~TransferHost() = default;
};

// GET for remotePath (sent as given) on nodeID; Range only when range is not
// empty.
typMessage MakeGet(const std::string& remotePath, const std::string& nodeID,
                   const std::string& reqID, const typQELRange& range, const std::string& metadata);
// One FILE: Content-Range only when rangeText is not empty.
typMessage MakeFilePiece(const std::string& destination, const std::string& rangeText,
                         std::string data, const std::string& reqID, enmFileStatus status,
                         const std::string& metadata);

// Sends GET and returns its new request identifier at once: the pieces
// arrive as FileReceived.
std::string RequestFile(RoutingNode& node, const std::string& remotePath,
                        const std::string& nodeID, const typQELRange& range,
                        const std::string& metadata);
// Sends one FILE; an empty reqID gets a new identifier.
void SendFilePiece(RoutingNode& node, const std::string& destination, const std::string& rangeText,
                   std::string data, std::string reqID, enmFileStatus status,
                   const std::string& metadata);

// A FILE for this node: a cancel is remembered for the transfer it names
// (the serving loop stops it), and every piece goes up as FileReceived with
// the first part of its Content-Range (an unreadable one reads as empty).
// data is the message's body, moved in.
void OnFilePiece(FileSharing& files, TransferHost& host, const typMessage& message,
                 std::string data);

}  // namespace qel
