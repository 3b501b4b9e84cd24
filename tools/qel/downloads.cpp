#include "downloads.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include <qel/md5.h>

namespace qelcli {
namespace {

constexpr auto kReportEvery = std::chrono::milliseconds(200);  // five reports a second at most
constexpr size_t kEndedKept = 16;

int32_t RangeNumber(std::string_view text, const std::string& range) {
  int32_t number = -1;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size() || number < 0) {
    throw std::invalid_argument("START-END must be offsets from 0 such as 0-99, 100- or -100, got '" +
                                range + "'");
  }
  return number;
}

// The bytes a request for asked yields from a file of length bytes.
int64_t Expected(const qel::typQELRange& asked, int64_t length) {
  if (asked.isEmpty) return length;
  if (asked.lngStart < 0) return std::min<int64_t>(asked.lngEnd, length);
  const int64_t end = asked.lngEnd < 0 ? length - 1 : std::min<int64_t>(asked.lngEnd, length - 1);
  return std::max<int64_t>(0, end - asked.lngStart + 1);
}

}  // namespace

CommandResult Downloads::Start(const GetRequest& request) {
  Download download;
  download.request = request;
  download.asked = node_.MakeRange();
  if (!request.range.empty()) {
    if (request.resume || request.verify)
      throw std::invalid_argument("resume and verify work on whole files, not on a range");
    const size_t dash = request.range.find('-');
    if (dash == std::string::npos) RangeNumber("", request.range);
    const std::string_view text = request.range;
    if (dash == 0) {
      download.asked = node_.MakeRange(-1, RangeNumber(text.substr(1), request.range));
    } else if (dash + 1 == text.size()) {
      download.asked = node_.MakeRange(RangeNumber(text.substr(0, dash), request.range));
    } else {
      const int32_t start = RangeNumber(text.substr(0, dash), request.range);
      const int32_t end = RangeNumber(text.substr(dash + 1), request.range);
      if (end < start) RangeNumber("", request.range);
      download.asked = node_.MakeRange(start, end);
    }
  }

  // A whole file replaces what the local one held, unless resumed.
  bool replace = request.range.empty();
  int64_t have = 0;
  int64_t remoteSize = -1;
  if (request.resume || request.verify) {
    const qel::typFileInfo info =
        node_.GetFileInfo(request.remotePath, request.nodeID, !request.verify);
    if (info.lngSize < 0) {
      return {false, nullptr, "no file " + request.remotePath + " shared by " + request.nodeID};
    }
    if (request.verify && info.strHash.empty()) {
      return {false, nullptr,
              "no hash from " + request.nodeID +
                  " within the node's Timeout (a large file may need more: --set Timeout=MS)"};
    }
    download.remoteHash = info.strHash;
    remoteSize = info.lngSize;
    std::error_code ec;
    const auto size = std::filesystem::file_size(request.localPath, ec);
    // A local file longer than the remote one is not a part of it: fetched anew.
    if (request.resume && !ec && size > 0 && static_cast<int64_t>(size) <= remoteSize) {
      have = static_cast<int64_t>(size);
      replace = false;
    }
  }
  std::error_code missing;
  download.created = !std::filesystem::exists(request.localPath, missing) && !missing;
  if (!download.file.openFile(request.localPath, true)) {
    return {false, nullptr, "cannot write " + request.localPath};
  }
  // Written over in place and cut to its new length at the end: the pages
  // of a file fetched again are not freed and taken anew.
  download.cutAtEnd = replace;
  if (have > 0) {
    download.total = remoteSize - have;
    if (have == remoteSize) {
      download.file.closeFile();
      return Outcome("", download, qel::FS_Complete, "", "nothing was missing");
    }
    download.asked = node_.MakeRange(static_cast<int32_t>(have));
  }
  download.started = Clock::now();
  const std::string reqID =
      node_.RequestFile(request.remotePath, request.nodeID, download.asked);
  running_.insert_or_assign(reqID, std::move(download));
  CommandResult pending;
  pending.pending = true;
  return pending;
}

CommandResult Downloads::Cancel(const std::string& nodeID, const std::string& reqID) {
  node_.SendFile(nodeID, node_.MakeRange(), "", reqID, qel::FS_Canceled);
  if (auto it = running_.find(reqID); it != running_.end()) Finish(it, qel::FS_Canceled, "cancelled");
  return {};
}

bool Downloads::Owns(const std::string& reqID) const {
  return running_.count(reqID) > 0 || std::find(ended_.begin(), ended_.end(), reqID) != ended_.end();
}

void Downloads::OnPiece(const std::string& reqID, const std::string& data,
                        const qel::typQELRange& range, qel::enmFileStatus status) {
  auto it = running_.find(reqID);
  if (it == running_.end()) return;
  Download& download = it->second;
  if (download.total < 0 && range.lngLen >= 0) download.total = Expected(download.asked, range.lngLen);
  if (!data.empty()) {
    try {
      // Pieces without an offset follow the one before.
      if (range.lngStart >= 0) {
        if (range.lngStart == INT32_MAX) throw std::out_of_range("offset beyond 2 GiB");
        download.file.filePos(range.lngStart + 1);
      }
      download.file.writeChunk(data);
    } catch (const std::exception& e) {
      node_.SendFile(download.request.nodeID, node_.MakeRange(), "", reqID, qel::FS_Canceled);
      Finish(it, qel::FS_Canceled, "cannot write " + download.request.localPath + ": " + e.what());
      return;
    }
    download.bytes += static_cast<int64_t>(data.size());
  }
  if (status == qel::FS_Transferring) {
    if (Clock::now() - download.reported >= kReportEvery) Report(reqID, download, false);
    return;
  }
  Finish(it, status, status == qel::FS_Canceled ? "the serving node cancelled the transfer" : "");
}

void Downloads::Report(const std::string& reqID, Download& download, bool done) {
  download.reported = Clock::now();
  const double seconds = std::chrono::duration<double>(download.reported - download.started).count();
  out_.Report({reqID, download.bytes, download.total,
               seconds > 0 ? static_cast<double>(download.bytes) / seconds : 0, done});
}

void Downloads::Finish(Iterator it, qel::enmFileStatus status, std::string error) {
  const std::string reqID = it->first;
  Download download = std::move(it->second);
  running_.erase(it);
  ended_.push_back(reqID);
  if (ended_.size() > kEndedKept) ended_.pop_front();
  download.file.closeFile();
  Report(reqID, download, true);
  if (status == qel::FS_Complete && download.cutAtEnd) {
    std::error_code ec;
    std::filesystem::resize_file(download.request.localPath, static_cast<uintmax_t>(download.bytes),
                                 ec);
    if (ec && error.empty()) error = "cannot write " + download.request.localPath + ": " + ec.message();
  }
  // Taken by the node itself, as the file is whole on disk: what a reader of
  // the result line measures would add the time the line takes to reach it.
  download.seconds = std::chrono::duration<double>(Clock::now() - download.started).count();
  const CommandResult result = Outcome(reqID, download, status, std::move(error));
  if (!result.ok && download.created && download.bytes == 0) {
    std::error_code ignored;
    std::filesystem::remove(download.request.localPath, ignored);
  }
  out_.Result("get", result);
}

CommandResult Downloads::Outcome(const std::string& reqID, const Download& download,
                                 qel::enmFileStatus status, std::string error, std::string note) {
  const std::string& path = download.request.localPath;
  if (error.empty() && status == qel::FS_Complete && download.request.verify) {
    std::string local;
    try {
      local = qel::GetFileHash(path);
    } catch (const std::exception& e) {
      error = e.what();
    }
    if (error.empty() && local != download.remoteHash) {
      error = "MD5 of " + path + " is " + local + ", the remote file's " + download.remoteHash +
              "; the file is kept";
    }
  }
  CommandResult result{error.empty(),
                       {{"ReqID", reqID},
                        {"FileStatus", static_cast<int32_t>(status)},
                        {"bytes", download.bytes},
                        {"seconds", download.seconds},
                        {"path", path}},
                       std::move(error),
                       std::move(note)};
  return result;
}

}  // namespace qelcli
