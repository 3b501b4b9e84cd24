#include "files/transfer.h"

#include <optional>
#include <utility>
#include <vector>

#include <qel/variant.h>

#include "core/new_id.h"
#include "files/ranges.h"
#include "files/sharing.h"
#include "protocol/fields.h"
#include "routing/outgoing.h"

namespace qel {

typMessage MakeGet(const std::string& remotePath, const std::string& nodeID,
                   const std::string& reqID, const typQELRange& range,
                   const std::string& metadata) {
  typMessage message = NewMessage();
  message.MsgType = "GET";
  message.Resource = remotePath;
  SetField(message.Fields, "ReqID", Variant(reqID));
  SetField(message.Fields, "Destination", Variant(nodeID));
  SetField(message.Fields, "Metadata", Variant(metadata));
  if (!range.isEmpty) SetField(message.Fields, "Range", Variant(RangeText(range)));
  return message;
}

typMessage MakeFilePiece(const std::string& destination, const std::string& rangeText,
                         std::string data, const std::string& reqID, enmFileStatus status,
                         const std::string& metadata) {
  typMessage message = NewMessage();
  message.MsgType = "FILE";
  SetField(message.Fields, "ReqID", Variant(reqID));
  SetField(message.Fields, "Destination", Variant(destination));
  SetField(message.Fields, "FileStatus", Variant(static_cast<int32_t>(status)));
  SetField(message.Fields, "Metadata", Variant(metadata));
  if (!rangeText.empty()) SetField(message.Fields, "Content-Range", Variant(rangeText));
  message.Body = std::move(data);
  return message;
}

std::string RequestFile(RoutingNode& node, const std::string& remotePath,
                        const std::string& nodeID, const typQELRange& range,
                        const std::string& metadata) {
  std::string reqID = NewID();
  typMessage get = MakeGet(remotePath, nodeID, reqID, range, metadata);
  SendPacket(node, get);
  return reqID;
}

void SendFilePiece(RoutingNode& node, const std::string& destination, const std::string& rangeText,
                   std::string data, std::string reqID, enmFileStatus status,
                   const std::string& metadata) {
  if (reqID.empty()) reqID = NewID();
  typMessage piece = MakeFilePiece(destination, rangeText, std::move(data), reqID, status, metadata);
  SendPacket(node, piece);
}

void OnFilePiece(FileSharing& files, TransferHost& host, const typMessage& message,
                 std::string data) {
  typQELRange range = MakeRange();
  if (const std::string text = GetSingleField(message.Fields, "Content-Range"); !text.empty()) {
    std::optional<std::vector<typQELRange>> parts = ParseRanges(text);
    if (parts && !parts->empty()) range = MakeRange(parts->front().lngStart, parts->front().lngEnd,
                                                    parts->front().lngLen);
  }
  // A status that is not one of the three numbers reads as a piece still
  // under way: it is not a cancel, and not the end.
  enmFileStatus status = FS_Transferring;
  const std::optional<int64_t> number = ParseLength(GetSingleField(message.Fields, "FileStatus"));
  if (number && (*number == FS_Complete || *number == FS_Canceled)) {
    status = static_cast<enmFileStatus>(*number);
  }
  std::string reqID = GetSingleField(message.Fields, "ReqID");
  if (status == FS_Canceled) files.CancelledReqID = reqID;
  host.FileReceived(std::move(reqID), std::move(data), range, status,
                    GetSingleField(message.Fields, "Metadata"));
}

}  // namespace qel
