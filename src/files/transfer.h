// File transfer: GET asks a node for a shared file or a range of it, and
// FILE carries the pieces back (or data a host pushes with SendFile).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <qel/types.h>

#include "net/link_id.h"
#include "protocol/message.h"

namespace qel {

struct RoutingNode;
struct FileSharing;

// What the node above hears of arriving pieces.
class TransferHost {
 public:
  // A GET for this node: true when the host answers it itself (with
  // SendFile). fullPath is the local file, empty when the path would leave
  // the shares.
  virtual bool FileRequest(std::string resource, std::string fullPath, std::string asker,
                           std::string reqID, std::vector<typQELRange> ranges,
                           std::string metadata) = 0;
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
// Sends one FILE; an empty reqID gets a new identifier. A viaConn given sends
// it on that link alone instead of by route.
void SendFilePiece(RoutingNode& node, const std::string& destination, const std::string& rangeText,
                   std::string data, std::string reqID, enmFileStatus status,
                   const std::string& metadata, LinkId viaConn = {});

// A GET for this node from asker: FileRequest first; unless the host takes
// it, the file (or the bytes its first range names) goes back in FILE
// pieces of at most packetBytes, the next piece read only when fewer than
// two wait to be sent on the asker's link (whatever else is sent there), so
// a slow asker never makes the node hold the file. At most
// kServingPerAsker and kServingPerNode transfers run at once; the others
// wait in files.Serving holding no descriptor, and the file is opened
// (beneath its share) when its turn comes. A GET past the queue's caps, a
// path outside the shares, a missing file or a range the file cannot meet
// is answered with one FILE of FS_Canceled (the first also counted and
// reported as Refusal::Serving). Between pieces the loop runs: a cancel for
// the transfer ends it with one last FS_Canceled piece (an empty one while
// it waits). Answers to an asker no route leads to go back on conn, the
// link the GET came on.
void OnGet(RoutingNode& node, FileSharing& files, TransferHost& host, const typMessage& message,
           const std::string& asker, int32_t packetBytes, LinkId conn);

// A FILE for this node from source: a cancel (FS_Canceled) stops the
// transfer this node serves to source under that ReqID, within one more
// piece (one that waits is dropped, answered with an empty FS_Canceled
// piece); one that names no such transfer is counted (Stats::IgnoredCancels)
// and changes nothing. Every piece goes up as FileReceived with the first
// part of its Content-Range (an unreadable one reads as empty). data is the
// message's body, moved in.
void OnFilePiece(RoutingNode& node, FileSharing& files, TransferHost& host,
                 const typMessage& message, const std::string& source, std::string data);

}  // namespace qel
