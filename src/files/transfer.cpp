#include "files/transfer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include <qel/event_loop.h>
#include <qel/variant.h>

#include "core/new_id.h"
#include "core/stats.h"
#include "files/confined_open.h"
#include "files/ranges.h"
#include "files/regular_file.h"
#include "files/remote_path.h"
#include "files/sharing.h"
#include "net/event_loop.h"
#include "net/file_span.h"
#include "protocol/fields.h"
#include "routing/link_flow.h"
#include "routing/outgoing.h"
#include "routing/report.h"
#include "routing/routing_node.h"
#include "routing/transmit.h"

namespace qel {
namespace {

void StartWaiting(RoutingNode& node, FileSharing& files);

// One file being served, piece by piece, from the loop. It holds one of the
// running places of files->Serving from its start to its end.
struct Serving : ServedProgress {
  std::weak_ptr<LinkOwner> owner;  // the serving node; gone: the transfer ends
  FileSharing* files = nullptr;    // lives as long as the node
  // Set by a cancel from the asker; shared with FileSharing::Served.
  std::shared_ptr<bool> cancelled;
  // Shared with the pieces queued from it, which may outlive the transfer.
  std::shared_ptr<const SharedFile> file;
  // A whole file ends with a piece shorter than a packet, an empty one when
  // its length is a multiple of it; a range ends with its last byte.
  bool whole = true;
  size_t packet = 0;
  // The link the asker's GET came on, if any: once it is gone nobody is left
  // to serve, and what follows would flood.
  LinkId link;
  // Ends a transfer whose link took no piece for a stall time: a peer that
  // stops reading must not keep its places (and descriptors) for ever.
  std::unique_ptr<Timer> stallTimer;
  int64_t waitingSince = 0;  // TickCount when it began to wait; 0: not waiting
  bool finished = false;

  // However the transfer ends, it leaves the table of served transfers
  // (while the node lives), unless a later GET with the same key took the
  // entry over, and gives its place to one that waits.
  void Finish() {
    if (std::exchange(finished, true)) return;
    file.reset();
    stallTimer.reset();
    auto node = owner.lock();
    if (files && node) files->Running.erase(this);
    if (!files || !node || !node->Alive()) return;
    auto it = files->Served.find(ServedKey(asker, reqID));
    if (it != files->Served.end() && it->second == cancelled) files->Served.erase(it);
    files->Serving.Ended(asker);
    StartWaiting(static_cast<RoutingNode&>(*node), *files);
  }
  ~Serving() { Finish(); }
};

void SendPieces(const std::shared_ptr<Serving>& job);

// Goes on once the asker's link has room for more.
void Continue(RoutingNode& node, const std::shared_ptr<Serving>& job) {
  if (job->waitingSince == 0) job->waitingSince = std::max<int64_t>(TickCount(), 1);
  if (!job->stallTimer && node.stallTimeout > 0) {
    job->stallTimer = std::make_unique<Timer>([weak = std::weak_ptr<Serving>(job),
                                               stallMs = int64_t{node.stallTimeout}] {
      const auto waiting = weak.lock();
      if (waiting && waiting->waitingSince != 0 && TickCount() - waiting->waitingSince >= stallMs) {
        waiting->Finish();
      }
    });
    job->stallTimer->SetInterval(node.stallTimeout);
    job->stallTimer->Enable(true);
  }
  WhenDrained(PacingLink(node, job->asker, job->link), 2 * job->packet, [job] { SendPieces(job); });
}

// Sends want bytes from first, the next piece, straight from the file when the way allows
// it (see SendPacketFromFile) and the file still holds them; false, having sent nothing,
// when the piece must be read here (a file cut meanwhile is then answered as such).
bool SendPieceFromFile(RoutingNode& node, const std::shared_ptr<Serving>& job, int64_t first,
                       int64_t want) {
  struct stat info {};
  if (want <= 0 || fstat(job->file->fd(), &info) != 0 || info.st_size < first + want) {
    return false;
  }
  const bool done =
      job->whole ? want < static_cast<int64_t>(job->packet) : first + want > job->last;
  const enmFileStatus status = *job->cancelled ? FS_Canceled : done ? FS_Complete : FS_Transferring;
  typMessage piece = MakeFilePiece(job->asker, ContentRangeText(first, first + want - 1, job->size),
                                   "", job->reqID, status, "");
  if (!SendPacketFromFile(node, piece,
                          {.file = job->file, .offset = first, .length = static_cast<size_t>(want)},
                          ReplyLink(node, job->asker, job->link))) {
    return false;
  }
  job->next = first + want;
  if (status == FS_Transferring) Continue(node, job);
  return true;
}

void SendPieces(const std::shared_ptr<Serving>& job) {
  auto owner = job->owner.lock();
  if (!owner || !owner->Alive() || job->finished) return;
  auto& node = static_cast<RoutingNode&>(*owner);
  if (job->link && !LinkLasts(job->link)) return;
  // Every transfer to an asker waits on the same link, and all wake when it
  // drains: the first to run refills it, the others wait again, so the link
  // holds a few pieces however many transfers share it.
  if (QueuedOn(PacingLink(node, job->asker, job->link)) >= 2 * job->packet) {
    return Continue(node, job);
  }
  job->waitingSince = 0;
  try {
    const int64_t first = job->next;
    const int64_t want = std::min<int64_t>(static_cast<int64_t>(job->packet),
                                           std::max<int64_t>(job->last - first + 1, 0));
    if (SendPieceFromFile(node, job, first, want)) return;
    std::string data(static_cast<size_t>(want), '\0');
    const auto got = static_cast<int64_t>(
        ReadAt(job->file->fd(), data.data(), data.size(), first, "reading a shared file"));
    data.resize(static_cast<size_t>(got));
    job->next = first + got;
    const bool shrank = got < want;  // the file was cut while it was served
    const bool done = job->whole ? want < static_cast<int64_t>(job->packet) || shrank
                                 : job->next > job->last || shrank;
    enmFileStatus status = done ? FS_Complete : FS_Transferring;
    if (shrank || *job->cancelled) status = FS_Canceled;
    SendFilePiece(node, job->asker, ContentRangeText(first, first + got - 1, job->size),
                  std::move(data), job->reqID, status, "", ReplyLink(node, job->asker, job->link));
    if (status == FS_Transferring) Continue(node, job);
  } catch (...) {
    ReportCurrentFault(node);
  }
}

// Starts a GET that holds a running place: the file is opened beneath its
// share now, and size, type and reads all come from that descriptor.
void Start(RoutingNode& node, FileSharing& files, QueuedGet get) {
  auto job = std::make_shared<Serving>();
  job->owner = node.weak_from_this();
  job->files = &files;
  job->asker = get.asker;
  job->reqID = get.reqID;
  job->cancelled = get.cancelled;
  job->packet = get.packet;
  job->link = get.link;
  // An asker gone while its GET waited is left alone: its pieces would flood.
  if (job->link && !LinkLasts(job->link)) return;
  auto cancel = [&] {
    SendFilePiece(node, get.asker, "", "", get.reqID, FS_Canceled, "",
                  ReplyLink(node, get.asker, get.link));
  };
  if (const int fd = OpenSharedFile(files.Folders, node.SharingFiles, get.resource); fd >= 0) {
    job->file = std::make_shared<const SharedFile>(fd);
  }
  struct stat info {};
  if (!job->file || fstat(job->file->fd(), &info) != 0) return cancel();
  job->size = info.st_size;
  if (get.range.isEmpty) {
    job->last = job->size - 1;
  } else {
    std::optional<ByteSpan> span = ServedSpan(get.range, job->size);
    if (!span) return cancel();
    job->whole = false;
    job->next = span->first;
    job->last = span->last;
  }
  job->resource = get.resource;
  job->first = job->next;
  job->startTick = TickCount();
  files.Running.insert(job.get());
  SendPieces(job);
}

// Starts, from the loop, the waiting GETs that now have a place; posted so
// that a transfer ending inside another's sending starts none there.
void StartWaiting(RoutingNode& node, FileSharing& files) {
  if (files.Serving.Waiting() == 0 || files.StartPosted) return;
  files.StartPosted = true;
  Post([owner = node.weak_from_this(), files = &files] {
    const auto alive = owner.lock();
    if (!alive || !alive->Alive()) return;
    auto& node = static_cast<RoutingNode&>(*alive);
    files->StartPosted = false;
    std::vector<QueuedGet> dropped;
    while (std::optional<QueuedGet> get = files->Serving.Next(dropped)) {
      try {
        Start(node, *files, std::move(*get));
      } catch (...) {
        ReportCurrentFault(node);
      }
    }
    for (const QueuedGet& get : dropped) {
      auto it = files->Served.find(ServedKey(get.asker, get.reqID));
      if (it != files->Served.end() && it->second == get.cancelled) files->Served.erase(it);
      try {
        SendFilePiece(node, get.asker, "", "", get.reqID, FS_Canceled, "",
                      ReplyLink(node, get.asker, get.link));
      } catch (...) {
        ReportCurrentFault(node);
      }
    }
  });
}

}  // namespace

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
                   const std::string& metadata, LinkId viaConn) {
  if (reqID.empty()) reqID = NewID();
  typMessage piece = MakeFilePiece(destination, rangeText, std::move(data), reqID, status, metadata);
  SendPacket(node, piece, viaConn);
}

void OnFilePiece(RoutingNode& node, FileSharing& files, TransferHost& host,
                 const typMessage& message, const std::string& source, std::string data) {
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
  if (status == FS_Canceled) {
    // Only the asker may stop a transfer: anyone could read its ReqID.
    auto it = files.Served.find(ServedKey(source, reqID));
    if (it != files.Served.end()) {
      *it->second = true;
      StartWaiting(node, files);  // drops it at once if it waits
    } else {
      ++TheStats().IgnoredCancels;
    }
  }
  host.FileReceived(std::move(reqID), std::move(data), range, status,
                    GetSingleField(message.Fields, "Metadata"));
}

void OnGet(RoutingNode& node, FileSharing& files, TransferHost& host, const typMessage& message,
           const std::string& asker, int32_t packetBytes, LinkId conn) {
  const std::string rangeText = GetSingleField(message.Fields, "Range");
  std::optional<std::vector<typQELRange>> ranges = ParseRanges(rangeText);
  if (ranges && ranges->empty()) ranges->push_back(MakeRange());
  const std::string reqID = GetSingleField(message.Fields, "ReqID");
  const std::optional<std::filesystem::path> path =
      LocalPathInShare(files.Folders, node.SharingFiles, message.Resource);
  const bool hostAnswers =
      host.FileRequest(message.Resource, path ? path->string() : std::string(), asker, reqID,
                       ranges.value_or(std::vector<typQELRange>{MakeRange()}),
                       GetSingleField(message.Fields, "Metadata"));
  if (hostAnswers || !node.Alive()) return;

  const LinkId route = FindRoute(node, asker);
  auto cancel = [&] {
    SendFilePiece(node, asker, "", "", reqID, FS_Canceled, "", route ? LinkId{} : conn);
  };
  if (!path || !ranges) return cancel();
  QueuedGet get{.asker = asker,
                .reqID = reqID,
                .resource = message.Resource,
                .range = ranges->front(),
                .packet = static_cast<size_t>(std::max(packetBytes, 1)),
                .cancelled = std::make_shared<bool>(false)};
  get.link = route ? route : conn;
  // Waiting requests hold a sixteenth of the budget at most, beside what
  // the links and running transfers hold.
  const size_t maxBytes = static_cast<size_t>(std::max<int64_t>(node.memoryBudget, 0) / 16);
  const std::shared_ptr<bool> cancelled = get.cancelled;
  switch (files.Serving.Offer(get, maxBytes)) {
    case ServingQueue::Turn::Refused:
      cancel();
      ReportRefusal(node, Refusal::Serving,
                    "GET from " + asker + " refused: " + std::to_string(files.Serving.Running()) +
                        " transfers run and " + std::to_string(files.Serving.Waiting()) +
                        " wait already",
                    asker);
      return;
    case ServingQueue::Turn::Later:
      files.Served[ServedKey(asker, reqID)] = cancelled;
      return;
    case ServingQueue::Turn::Now:
      files.Served[ServedKey(asker, reqID)] = cancelled;
      Start(node, files, std::move(get));
      return;
  }
}

}  // namespace qel
