#include "files/fetch.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include <qel/md5.h>

#include "core/new_id.h"
#include "files/fetch_plan.h"
#include "files/ranges.h"
#include "files/regular_file.h"
#include "files/sharing.h"
#include "files/transfer.h"
#include "net/event_loop.h"
#include "net/worker.h"
#include "protocol/fields.h"
#include "routing/outgoing.h"
#include "routing/routing_node.h"

namespace qel {

namespace {

constexpr int32_t kTickMs = 250;
constexpr int64_t kProgressEveryMs = 100;
// A link that comes back wakes fetches that heard nothing for this long.
constexpr int64_t kQuietBeforeWakeMs = 1000;

enum class Stage { Size, Transfer, Hash, Verifying };

std::string Seconds(int32_t ms) {
  return ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms";
}

// The first part of a Content-Range, as offsets that must all be given.
std::optional<typQELRange> PieceRange(const typMessage& message) {
  std::optional<std::vector<typQELRange>> parts =
      ParseRanges(GetSingleField(message.Fields, "Content-Range"));
  if (!parts || parts->empty()) return std::nullopt;
  const typQELRange& r = parts->front();
  if (r.lngStart < 0 || r.lngEnd < r.lngStart) return std::nullopt;
  return r;
}

}  // namespace

struct FetchTable::Fetch {
  std::string id, nodeID, remotePath, localPath;
  typFetchOptions options;
  FetchSettings settings;
  int fd = -1;
  bool created = false;  // the local file is this fetch's own
  int64_t haveAtStart = 0;
  Stage stage = Stage::Size;
  int64_t size = -1;        // of the remote file, once known
  int64_t localBase = 0;    // remote offset written at local offset 0
  int64_t finalLength = 0;  // of the local file once complete
  std::optional<FetchPlan> plan;
  std::map<std::string, FetchAsk> asks;  // open requests
  std::string sizeReq, hashReq;          // open questions
  std::string remoteHash;
  bool hashKnown = false;
  int64_t written = 0;
  int64_t lastHeard = 0;   // the stall clock: the last answer, piece or asking again
  int64_t lastAnswer = 0;  // the last answer or piece alone
  int64_t lastProgress = 0;
  int32_t quietRounds = 0;  // asked again without a byte in between
  int64_t startTick = 0;

  ~Fetch() {
    if (fd >= 0) close(fd);
  }
};

FetchTable::FetchTable() = default;
FetchTable::~FetchTable() = default;

void FetchTable::ForEach(const std::function<void(const State&)>& fn) const {
  for (const auto& [id, fetch] : fetches_) {
    fn({.id = fetch->id,
        .nodeID = fetch->nodeID,
        .remotePath = fetch->remotePath,
        .done = fetch->plan ? fetch->plan->Held() : 0,
        .total = fetch->plan ? fetch->plan->Length() : -1,
        .startTick = fetch->startTick});
  }
}

RoutingNode* FetchTable::Node() const {
  auto owner = owner_.lock();
  if (!owner || !owner->Alive()) return nullptr;
  return static_cast<RoutingNode*>(owner.get());
}

FetchTable::FetchPtr FetchTable::Find(const std::string& fetchID) const {
  auto it = fetches_.find(fetchID);
  return it == fetches_.end() ? nullptr : it->second;
}

std::string FetchTable::Start(RoutingNode& node, FetchHost& host, const FetchSettings& settings,
                              const std::string& nodeID, const std::string& remotePath,
                              const std::string& localPath, const typFetchOptions& options) {
  const bool ranged = options.lngStart >= 0 || options.lngEnd >= 0;
  if (nodeID.empty()) throw std::invalid_argument("no node to fetch from");
  // Other nodes close a link whose header passes 64 KiB.
  if (remotePath.size() > kMaxFieldBytes)
    throw std::invalid_argument("the remote path is too long");
  if (ranged && options.resume) throw std::invalid_argument("resume works on whole files");
  if (options.lngStart < -1 || options.lngEnd < -1 ||
      (options.lngStart >= 0 && options.lngEnd >= 0 && options.lngEnd < options.lngStart) ||
      (options.lngStart < 0 && options.lngEnd == 0)) {
    throw std::invalid_argument("the range asks for no bytes");
  }
  owner_ = node.weak_from_this();
  host_ = &host;

  auto fetch = std::make_shared<Fetch>();
  std::error_code ec;
  fetch->created = !std::filesystem::exists(localPath, ec) && !ec;
  fetch->fd = OpenRegularFile(localPath, O_RDWR | O_CREAT);
  if (fetch->fd < 0) {
    throw std::system_error(errno, std::generic_category(), "cannot write " + localPath);
  }
  if (options.resume) {
    struct stat info {};
    if (fstat(fetch->fd, &info) == 0) fetch->haveAtStart = info.st_size;
  }
  fetch->id = NewID();
  fetch->nodeID = nodeID;
  fetch->remotePath = remotePath;
  fetch->localPath = localPath;
  fetch->options = options;
  fetch->settings = settings;
  fetch->lastHeard = fetch->lastAnswer = fetch->startTick = TickCount();
  fetches_.emplace(fetch->id, fetch);

  if (!tick_) {
    tick_ = std::make_unique<Timer>([this] {
      if (Node()) Tick();
    });
    tick_->SetInterval(kTickMs);
  }
  tick_->Enable(true);
  try {
    AskInfo(*fetch, false);
    if (options.verify) AskInfo(*fetch, true);
  } catch (...) {
    Close(*fetch, false);  // not started after all: nothing of it stays
    throw;
  }
  return fetch->id;
}

void FetchTable::AskInfo(Fetch& fetch, bool hash) {
  RoutingNode* node = Node();
  if (!node) return;
  std::string& slot = hash ? fetch.hashReq : fetch.sizeReq;
  if (!slot.empty()) Retire(slot);
  slot = NewID();
  byRequest_[slot] = fetch.id;
  // The size alone first: a hash takes the server a read of the whole file,
  // and the transfer need not wait for it.
  typMessage question = MakeGetFileInfo(fetch.remotePath, fetch.nodeID, slot, !hash);
  SendPacket(*node, question);
}

bool FetchTable::Cancel(const std::string& fetchID) {
  FetchPtr fetch = Find(fetchID);
  if (!fetch) return false;
  Finish(fetch, FS_Canceled, "cancelled");
  return true;
}

bool FetchTable::OnInfo(const typMessage& message, const std::string& source) {
  const std::string reqID = GetSingleField(message.Fields, "ReqID");
  auto it = byRequest_.find(reqID);
  if (it == byRequest_.end()) return retiredSet_.count(reqID) > 0;
  FetchPtr fetch = Find(it->second);
  if (!fetch || source != fetch->nodeID) {
    ++refused_;
    return true;
  }
  const bool isHash = reqID == fetch->hashReq;
  Retire(reqID);
  (isHash ? fetch->hashReq : fetch->sizeReq).clear();
  fetch->lastHeard = fetch->lastAnswer = TickCount();
  std::optional<typFileInfo> answer = ReadFileInfo(message.Body);
  if (!answer) {
    Finish(fetch, FS_Canceled, fetch->nodeID + " answered with an unreadable file description");
    return true;
  }
  if (answer->lngSize < 0) {
    Finish(fetch, FS_Canceled, "no file " + fetch->remotePath + " shared by " + fetch->nodeID);
    return true;
  }
  if (isHash) {
    // A node with too many hashes waiting answers without one: asked again
    // when the stall time has passed.
    if (answer->strHash.empty() && answer->lngSize > 0) return true;
    fetch->remoteHash = answer->strHash;
    fetch->hashKnown = true;
    if (fetch->stage == Stage::Hash) CheckHashes(fetch);
    return true;
  }
  if (fetch->stage != Stage::Size) return true;
  if (!Plan(*fetch, answer->lngSize)) {
    Finish(fetch, FS_Canceled,
           "the range asks for nothing " + fetch->remotePath + " has (it holds " +
               std::to_string(answer->lngSize) + " bytes)");
    return true;
  }
  Advance(fetch, true);
  return true;
}

void FetchTable::Advance(const FetchPtr& fetch, bool first) {
  if (fetch->plan->Complete()) {
    Arrived(fetch);
    return;
  }
  try {
    Pump(*fetch);
  } catch (const std::exception& e) {
    Finish(fetch, FS_Canceled, std::string("cannot ask for the file: ") + e.what());
    return;
  }
  Progress(fetch, first);
}

bool FetchTable::Plan(Fetch& fetch, int64_t size) {
  fetch.size = size;
  fetch.stage = Stage::Transfer;
  fetch.quietRounds = 0;
  const typFetchOptions& o = fetch.options;
  int64_t first = 0, last = size - 1;
  if (o.lngStart >= 0 || o.lngEnd >= 0) {
    std::optional<ByteSpan> span = ServedSpan(MakeRange(o.lngStart, o.lngEnd), size);
    if (!span) return false;
    first = span->first;
    last = span->last;
    fetch.localBase = first;
    fetch.finalLength = last - first + 1;
  } else {
    // A local file longer than the remote one is not a part of it.
    if (o.resume && fetch.haveAtStart <= size) first = fetch.haveAtStart;
    fetch.finalLength = size;
  }
  fetch.plan.emplace(first, last, fetch.settings.chunkBytes, fetch.settings.windowBytes);
  return true;
}

void FetchTable::Pump(Fetch& fetch) {
  RoutingNode* node = Node();
  if (!node) return;
  while (std::optional<FetchAsk> ask = fetch.plan->Next()) {
    const std::string reqID = NewID();
    fetch.asks.emplace(reqID, *ask);
    byRequest_[reqID] = fetch.id;
    typMessage get =
        MakeGet(fetch.remotePath, fetch.nodeID, reqID, MakeRange(ask->first, ask->last), "");
    SendPacket(*node, get);
  }
}

void FetchTable::Forget(Fetch& fetch, const std::string& reqID) {
  auto it = fetch.asks.find(reqID);
  if (it == fetch.asks.end()) return;
  fetch.plan->Drop(it->second);
  fetch.asks.erase(it);
  Retire(reqID);
}

void FetchTable::Retire(const std::string& reqID) {
  if (!byRequest_.erase(reqID)) return;
  // Pieces of a request asked again may still be on their way: they are
  // the fetch's, not the host's, so they are swallowed for a while.
  if (retired_.size() >= kRetiredKept) {
    retiredSet_.erase(retired_.front());
    retired_.pop_front();
  }
  retired_.push_back(reqID);
  retiredSet_.insert(reqID);
}

void FetchTable::StopAsks(Fetch& fetch) {
  RoutingNode* node = Node();
  for (const auto& [reqID, ask] : fetch.asks) {
    Retire(reqID);
    if (!node) continue;
    try {
      SendFilePiece(*node, fetch.nodeID, "", "", reqID, FS_Canceled, "");
    } catch (...) {
      // The serving node ends the request by itself when the asker is gone.
    }
  }
  fetch.asks.clear();
  if (fetch.plan) fetch.plan->DropAll();
}

bool FetchTable::OnPiece(const typMessage& message, const std::string& source,
                         const std::string& data) {
  const std::string reqID = GetSingleField(message.Fields, "ReqID");
  auto owner = byRequest_.find(reqID);
  if (owner == byRequest_.end()) return retiredSet_.count(reqID) > 0;
  FetchPtr fetch = Find(owner->second);
  if (!fetch || source != fetch->nodeID || !fetch->asks.count(reqID)) {
    // Another node cannot feed or stop this fetch.
    ++refused_;
    return true;
  }
  const std::string status = GetSingleField(message.Fields, "FileStatus");
  if (status == "2") {
    Finish(fetch, FS_Canceled,
           fetch->nodeID + " stopped serving " + fetch->remotePath +
               " (the file is gone, cut or no longer shared)");
    return true;
  }
  const FetchAsk ask = fetch->asks.at(reqID);
  std::optional<typQELRange> range = PieceRange(message);
  if (data.empty()) return true;  // an empty last piece says nothing new
  if (!range || range->lngStart < ask.first || range->lngEnd > ask.last ||
      range->lngEnd - range->lngStart + 1 != static_cast<int64_t>(data.size())) {
    ++refused_;
    return true;
  }
  if (range->lngLen >= 0 && range->lngLen != fetch->size) {
    Finish(fetch, FS_Canceled,
           fetch->remotePath + " changed size while it was fetched (" +
               std::to_string(fetch->size) + " bytes, now " + std::to_string(range->lngLen) + ")");
    return true;
  }
  try {
    WriteAt(fetch->fd, data, range->lngStart - fetch->localBase, "writing");
  } catch (const std::exception& e) {
    Finish(fetch, FS_Canceled, "cannot write " + fetch->localPath + ": " + e.what());
    return true;
  }
  fetch->written += static_cast<int64_t>(data.size());
  // Written first: a refused piece leaves its bytes unheld, asked again.
  if (fetch->plan->Arrived(range->lngStart, range->lngEnd) < 0) {
    ++refused_;
    return true;
  }
  fetch->lastHeard = fetch->lastAnswer = TickCount();
  fetch->quietRounds = 0;
  if (fetch->plan->Done(ask)) Forget(*fetch, reqID);
  Advance(fetch, false);
  return true;
}

void FetchTable::Progress(const FetchPtr& fetch, bool force) {
  const int64_t now = TickCount();
  if (!force && now - fetch->lastProgress < kProgressEveryMs) return;
  fetch->lastProgress = now;
  if (host_) host_->FetchProgress(fetch->id, fetch->plan->Held(), fetch->plan->Length());
}

void FetchTable::Arrived(const FetchPtr& fetch) {
  if (ftruncate(fetch->fd, static_cast<off_t>(fetch->finalLength)) != 0) {
    Finish(fetch, FS_Canceled,
           "cannot write " + fetch->localPath + ": " + std::generic_category().message(errno));
    return;
  }
  if (!fetch->options.verify) {
    Finish(fetch, FS_Complete, "");
    return;
  }
  fetch->stage = Stage::Hash;
  fetch->lastHeard = fetch->lastAnswer = TickCount();
  fetch->quietRounds = 0;
  if (fetch->hashKnown) CheckHashes(fetch);
}

void FetchTable::CheckHashes(const FetchPtr& fetch) {
  fetch->stage = Stage::Verifying;
  // Some nodes cannot hash an empty file and send no hash for it.
  if (fetch->remoteHash.empty() && fetch->size == 0) {
    Finish(fetch, FS_Complete, "");
    return;
  }
  // A read of the whole file: on the worker, so the node keeps answering.
  RunOffLoop([weak = owner_, table = this, id = fetch->id,
              path = fetch->localPath]() -> std::function<void()> {
    std::string local, fault;
    try {
      local = GetFileHash(path);
    } catch (const std::exception& e) {
      fault = e.what();
    }
    return [weak, table, id, local, fault] {
      auto owner = weak.lock();
      if (!owner || !owner->Alive()) return;
      if (FetchPtr fetch = table->Find(id)) table->Compare(fetch, local, fault);
    };
  });
}

void FetchTable::Compare(const FetchPtr& fetch, const std::string& local,
                         const std::string& fault) {
  if (!fault.empty()) {
    Finish(fetch, FS_Canceled, "cannot hash " + fetch->localPath + ": " + fault);
    return;
  }
  if (local != fetch->remoteHash) {
    Finish(fetch, FS_Canceled,
           "MD5 of " + fetch->localPath + " is " + local + ", the remote file's " +
               (fetch->remoteHash.empty() ? std::string("unknown") : fetch->remoteHash) +
               "; the file is kept");
    return;
  }
  Finish(fetch, FS_Complete, "");
}

void FetchTable::OnLinkUp() {
  // What was asked for while the link was down is lost: ask again now. This
  // is not a retry, and the stall clock runs on, so the deadline holds.
  const int64_t now = TickCount();
  std::vector<std::string> quiet;
  for (const auto& [id, fetch] : fetches_) {
    if (fetch->stage != Stage::Verifying && now - fetch->lastAnswer >= kQuietBeforeWakeMs) {
      quiet.push_back(id);
    }
  }
  for (const std::string& id : quiet) {
    if (!Node()) return;
    if (FetchPtr fetch = Find(id)) AskAgain(fetch);
  }
}

void FetchTable::AskAgain(const FetchPtr& fetch) {
  try {
    if (fetch->stage == Stage::Size) {
      AskInfo(*fetch, false);
    } else if (fetch->stage == Stage::Hash) {
      AskInfo(*fetch, true);
    } else if (fetch->stage == Stage::Transfer) {
      StopAsks(*fetch);
      Pump(*fetch);
    }
  } catch (const std::exception& e) {
    Finish(fetch, FS_Canceled, std::string("cannot ask again: ") + e.what());
  }
}

void FetchTable::Tick() {
  std::vector<std::string> ids;
  ids.reserve(fetches_.size());
  for (const auto& entry : fetches_) ids.push_back(entry.first);
  for (const std::string& id : ids) {
    if (!Node()) return;
    if (FetchPtr fetch = Find(id)) Stalled(fetch);
  }
  if (fetches_.empty() && tick_) tick_->Enable(false);
}

void FetchTable::Stalled(const FetchPtr& fetch) {
  const int64_t now = TickCount();
  const FetchSettings& s = fetch->settings;
  const bool asking = fetch->stage == Stage::Size;
  const int64_t wait = asking ? s.answerMs : s.stallMs;
  if (fetch->stage == Stage::Verifying || now - fetch->lastHeard < wait) return;
  if (fetch->quietRounds >= s.retries) {
    std::string reason;
    if (asking) {
      reason = "no answer from " + fetch->nodeID + " about " + fetch->remotePath + " within " +
               Seconds(s.answerMs) + ", asked " + std::to_string(s.retries + 1) + " times";
    } else if (fetch->stage == Stage::Hash) {
      reason = "no hash of " + fetch->remotePath + " from " + fetch->nodeID + " within " +
               Seconds(s.stallMs * (s.retries + 1)) + "; the file is kept unverified";
    } else {
      reason = "nothing arrived from " + fetch->nodeID + " for " + Seconds(s.stallMs) +
               ", asked again " + std::to_string(s.retries) + " times; " +
               std::to_string(fetch->plan->Held()) + " of " +
               std::to_string(fetch->plan->Length()) + " bytes arrived";
    }
    Finish(fetch, FS_Canceled, std::move(reason));
    return;
  }
  ++fetch->quietRounds;
  fetch->lastHeard = now;
  AskAgain(fetch);
}

bool FetchTable::Close(Fetch& fetch, bool complete) {
  if (!fetches_.erase(fetch.id)) return false;
  StopAsks(fetch);
  for (std::string* req : {&fetch.sizeReq, &fetch.hashReq}) {
    if (!req->empty()) Retire(*req);
  }
  // Pieces land out of order: a whole file that ends early keeps only what
  // arrived without a gap, so the file's length is what a resume can trust.
  const bool whole = fetch.options.lngStart < 0 && fetch.options.lngEnd < 0;
  if (!complete && whole && fetch.plan && fetch.fd >= 0 && fetch.written > 0) {
    if (ftruncate(fetch.fd, static_cast<off_t>(fetch.plan->HeldUpTo())) != 0) {
      // The fetch fails anyway; its reason says why, and a verified resume
      // would catch what stayed.
    }
  }
  if (fetch.fd >= 0) close(fetch.fd);
  fetch.fd = -1;
  if (!complete && fetch.created && fetch.written == 0) {
    std::error_code ignored;
    std::filesystem::remove(fetch.localPath, ignored);
  }
  if (fetches_.empty() && tick_) tick_->Enable(false);
  return true;
}

void FetchTable::Finish(const FetchPtr& fetch, enmFileStatus status, std::string reason) {
  if (!Close(*fetch, status == FS_Complete)) return;
  if (status == FS_Complete && host_) {
    host_->FetchProgress(fetch->id, fetch->plan->Length(), fetch->plan->Length());
    if (!Node()) return;
  }
  if (host_) host_->FetchFinished(fetch->id, status, std::move(reason));
}

}  // namespace qel
