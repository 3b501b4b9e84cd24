#include "downloads.h"

#include <charconv>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <qel/file_io.h>

namespace qelcli {
namespace {

constexpr auto kReportEvery = std::chrono::milliseconds(200);  // five reports a second at most

int64_t RangeNumber(std::string_view text, const std::string& range) {
  int64_t number = -1;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size() || number < 0) {
    throw std::invalid_argument(
        "START-END must be offsets from 0 such as 0-99, 100- or -100, got '" + range + "'");
  }
  return number;
}

// "START-END", "START-" or "-COUNT" into the fetch's options.
void ParseRange(const std::string& range, qel::typFetchOptions& options) {
  const size_t dash = range.find('-');
  if (dash == std::string::npos) RangeNumber("", range);
  const std::string_view text = range;
  if (dash == 0) {
    options.lngEnd = RangeNumber(text.substr(1), range);
    if (options.lngEnd == 0) RangeNumber("", range);
  } else if (dash + 1 == text.size()) {
    options.lngStart = RangeNumber(text.substr(0, dash), range);
  } else {
    options.lngStart = RangeNumber(text.substr(0, dash), range);
    options.lngEnd = RangeNumber(text.substr(dash + 1), range);
    if (options.lngEnd < options.lngStart) RangeNumber("", range);
  }
}

}  // namespace

CommandResult Downloads::Start(const GetRequest& request) {
  qel::typFetchOptions options;
  options.resume = request.resume;
  options.verify = request.verify;
  if (!request.range.empty()) {
    if (request.resume) throw std::invalid_argument("resume works on whole files, not on a range");
    ParseRange(request.range, options);
  }
  // Said here, with its reason, rather than as an Error event of the node.
  {
    std::error_code ec;
    const bool existed = std::filesystem::exists(request.localPath, ec);
    qel::clsFileIO2 probe;
    if (!probe.openFile(request.localPath, true)) {
      return {false, nullptr, "cannot write " + request.localPath};
    }
    probe.closeFile();
    if (!existed) std::filesystem::remove(request.localPath, ec);
  }
  const std::string id =
      node_.FetchFile(request.nodeID, request.remotePath, request.localPath, options);
  if (id.empty()) return {false, nullptr, "the fetch could not start (see the error above)"};
  Download download;
  download.request = request;
  running_.insert_or_assign(id, std::move(download));
  CommandResult pending;
  pending.pending = true;
  return pending;
}

CommandResult Downloads::Cancel(const std::string& nodeID, const std::string& idPrefix) {
  std::vector<std::string> matches;
  for (const auto& [id, download] : running_) {
    if (!idPrefix.empty() && id.compare(0, idPrefix.size(), idPrefix) == 0) matches.push_back(id);
  }
  if (matches.size() > 1) {
    return {false, nullptr,
            "'" + idPrefix + "' starts " + std::to_string(matches.size()) +
                " downloads' identifiers; give more of it"};
  }
  if (matches.size() == 1) {
    node_.CancelFetch(matches.front());  // its result line follows from OnFinished
    return {true, matches.front(), ""};
  }
  if (nodeID.empty()) return {false, nullptr, "no download " + idPrefix + " is running"};
  node_.SendFile(nodeID, node_.MakeRange(), "", idPrefix, qel::FS_Canceled);
  return {true, idPrefix, "",
          "no download of this console has that identifier: asked " + nodeID +
              " to stop the transfer it serves to this node under it"};
}

void Downloads::OnProgress(const std::string& fetchID, int64_t done, int64_t total) {
  auto it = running_.find(fetchID);
  if (it == running_.end()) return;
  it->second.bytes = done;
  it->second.total = total;
  if (Clock::now() - it->second.reported >= kReportEvery) Report(fetchID, it->second, false);
}

void Downloads::OnFinished(const std::string& fetchID, qel::enmFileStatus status,
                           const std::string& reason) {
  auto it = running_.find(fetchID);
  if (it == running_.end()) return;
  Download download = std::move(it->second);
  running_.erase(it);
  Report(fetchID, download, true);
  // Taken by the node itself, as the file is whole on disk: what a reader of
  // the result line measures would add the time the line takes to reach it.
  const double seconds = std::chrono::duration<double>(Clock::now() - download.started).count();
  const bool ok = status == qel::FS_Complete;
  CommandResult result{ok,
                       {{"ReqID", fetchID},
                        {"FileStatus", static_cast<int32_t>(status)},
                        {"bytes", download.bytes},
                        {"seconds", seconds},
                        {"path", download.request.localPath}},
                       ok ? std::string() : reason,
                       ""};
  out_.Result("get", result);
}

void Downloads::Report(const std::string& fetchID, Download& download, bool done) {
  download.reported = Clock::now();
  const double seconds =
      std::chrono::duration<double>(download.reported - download.started).count();
  out_.Report({fetchID, download.bytes, download.total,
               seconds > 0 ? static_cast<double>(download.bytes) / seconds : 0, done});
}

}  // namespace qelcli
