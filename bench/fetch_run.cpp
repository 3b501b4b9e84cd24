#include "fetch_run.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace qelbench {
namespace {

using nlohmann::json;

// Generous: a transfer that stops is caught by its pieces stopping.
constexpr int kTransferTimeoutMs = 600000;
constexpr int kStallMs = 30000;
// A fetched copy's blocks compared with the source's: cheap, and a transfer
// that skipped or misplaced pieces fails it.
constexpr size_t kBlock = 4096;
constexpr int kCheckedBlocks = 64;

std::string RangeWords(const Span& span, int64_t fileSize) {
  if (span.offset == 0 && span.length == fileSize) return "";
  return " " + std::to_string(span.offset) + "-" + std::to_string(span.offset + span.length - 1);
}

// A few blocks spread over span, in the source and in a fetched copy.
std::vector<int64_t> CheckedBlocks(const Span& span) {
  std::vector<int64_t> at;
  const int64_t room = std::max<int64_t>(0, span.length - int64_t{kBlock});
  for (int i = 0; i < kCheckedBlocks; ++i)
    at.push_back(span.offset + room * i / (kCheckedBlocks - 1));
  return at;
}

// Overwrites the checked blocks of an earlier copy, so that a transfer that
// skips them cannot pass for whole: the file itself stays, as `get` writes
// over it in place and its pages are not taken anew.
void Stamp(const std::string& target, const Span& span) {
  const int file = open(target.c_str(), O_WRONLY);
  if (file < 0) return;
  struct stat info {};
  const std::vector<char> mark(kBlock, '\xA5');
  if (fstat(file, &info) == 0) {
    for (int64_t at : CheckedBlocks(span)) {
      const int64_t local = at - span.offset;
      const int64_t length = std::min<int64_t>(kBlock, info.st_size - local);
      if (length > 0 && pwrite(file, mark.data(), static_cast<size_t>(length), local) < 0) break;
    }
  }
  close(file);
}

// Empty when target holds span as source does: its length (a range is the
// whole of the local file) and the checked blocks.
std::string CompareCopy(const std::string& source, const std::string& target, const Span& span,
                        int64_t) {
  std::error_code ec;
  const auto size = static_cast<int64_t>(std::filesystem::file_size(target, ec));
  if (ec) return "cannot read " + target + ": " + ec.message();
  if (size != span.length) {
    return target + " has " + std::to_string(size) + " bytes";
  }
  const int in = open(source.c_str(), O_RDONLY);
  const int out = open(target.c_str(), O_RDONLY);
  std::string wrong;
  std::vector<char> a(kBlock), b(kBlock);
  for (int64_t at : CheckedBlocks(span)) {
    const auto length =
        static_cast<size_t>(std::min<int64_t>(kBlock, span.offset + span.length - at));
    if (in < 0 || out < 0 || pread(in, a.data(), length, at) != static_cast<ssize_t>(length) ||
        pread(out, b.data(), length, at - span.offset) != static_cast<ssize_t>(length) ||
        std::memcmp(a.data(), b.data(), length) != 0) {
      wrong = target + " differs from the source at byte " + std::to_string(at);
      break;
    }
  }
  if (in >= 0) close(in);
  if (out >= 0) close(out);
  return wrong;
}

// The reason a `get` result line gives, in a few words.
std::string Describe(const json& result) {
  const json& value = result["value"];
  std::string text = result.value("error", "");
  if (value.is_object()) {
    text += std::string(text.empty() ? "" : "; ") + "FileStatus " + value["FileStatus"].dump() +
            ", " + value["bytes"].dump() + " bytes";
  }
  return text.empty() ? result.dump() : text;
}

}  // namespace

// The next JSON line of a node that matches, skipping the others.
std::optional<json> WaitLine(Child& node, const std::function<bool(const json&)>& match,
                             int timeoutMs, std::string& why) {
  const int64_t deadline = NowNs() + int64_t{timeoutMs} * 1'000'000;
  for (;;) {
    const int64_t left = (deadline - NowNs()) / 1'000'000;
    std::optional<std::string> line =
        left > 0 ? node.channel().Receive(static_cast<int>(left)) : std::nullopt;
    if (!line) {
      why = node.name() + ": no answer in time";
      return std::nullopt;
    }
    json parsed = json::parse(*line, nullptr, false);
    if (parsed.is_object() && match(parsed)) return parsed;
    if (line->starts_with("fail")) {
      why = node.name() + ": " + *line;
      return std::nullopt;
    }
  }
}

bool IsCommand(const json& line, const char* word) {
  return line.value("command", "") == word;
}

// Timed by the fetching node, as the reference's processes time themselves:
// the command and result lines that pass through this process are not part
// of either transfer.
std::optional<double> Fetch(Child& fetcher, const std::string& serverID, const Span& span,
                            int64_t fileSize, const std::string& source, const std::string& target,
                            std::string& why) {
  Stamp(target, span);
  fetcher.channel().Send("get " + serverID + " \\big " + target + RangeWords(span, fileSize));
  const int64_t deadline = NowNs() + int64_t{kTransferTimeoutMs} * 1'000'000;
  int64_t received = 0;
  std::string lastError;
  const auto progress = [&] {
    return " after " + std::to_string(received) + " of " + std::to_string(span.length) + " bytes" +
           (lastError.empty() ? "" : " (last error: " + lastError + ")");
  };
  for (;;) {
    const int64_t left = (deadline - NowNs()) / 1'000'000;
    std::optional<std::string> line =
        left > 0 ? fetcher.channel().Receive(static_cast<int>(std::min<int64_t>(left, kStallMs)))
                 : std::nullopt;
    if (!line) {
      if (left <= 0) {
        why = fetcher.name() + ": no result within " + std::to_string(kTransferTimeoutMs / 1000) +
              " s" + progress();
      } else if (fetcher.channel().Pending(0)) {
        why = fetcher.name() + ": exited" + progress();
      } else {
        why = fetcher.name() + ": no piece for " + std::to_string(kStallMs / 1000) + " s" +
              progress();
      }
      return std::nullopt;
    }
    const json parsed = json::parse(*line, nullptr, false);
    if (!parsed.is_object()) {
      if (line->starts_with("fail")) {
        why = fetcher.name() + ": " + *line;
        return std::nullopt;
      }
      continue;
    }
    const std::string event = parsed.value("event", "");
    if (event == "Progress") {
      received = parsed.value("bytes", received);
    } else if (event == "Error") {
      lastError = parsed.value("strMessage", "");
    } else if (event == "ConnectionClosed") {
      // The fetcher's only link: nothing more can arrive.
      why = fetcher.name() + ": link to " + parsed.value("SourceIP", "?") + " closed" + progress();
      return std::nullopt;
    } else if (IsCommand(parsed, "get")) {
      const json& value = parsed["value"];
      if (!parsed.value("ok", false) || !value.is_object() || value["bytes"] != span.length ||
          !value["seconds"].is_number() || value["seconds"].get<double>() <= 0) {
        why = fetcher.name() + ": get failed: " + Describe(parsed);
        return std::nullopt;
      }
      if (std::string wrong = CompareCopy(source, target, span, fileSize); !wrong.empty()) {
        why = fetcher.name() + ": " + wrong;
        return std::nullopt;
      }
      return static_cast<double>(span.length) / value["seconds"].get<double>();
    }
  }
}

void Drain(Child* node, std::string& trouble, int waitMs) {
  if (!node) return;
  for (int wait = waitMs; node->channel().Pending(wait); wait = 0) {
    // Receive(0) would give up before reading what Pending saw.
    std::optional<std::string> line = node->channel().Receive(100);
    if (!line) return;
    const json parsed = json::parse(*line, nullptr, false);
    if (!parsed.is_object()) continue;
    const std::string event = parsed.value("event", "");
    if (event == "Error") {
      trouble = node->name() + ": " + parsed.value("strMessage", "");
    } else if (event == "ConnectionClosed") {
      trouble = node->name() + ": link to " + parsed.value("SourceIP", "?") + " closed";
    }
  }
}

std::string Megabytes(double bytesPerSecond) {
  char text[32];
  std::snprintf(text, sizeof text, "%.0f MB/s", bytesPerSecond / 1e6);
  return text;
}

std::string Mebibytes(int64_t kib) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(kib) / 1024);
  return kib < 0 ? "?" : text;
}

std::string Show(const char* name, const std::vector<double>& rates, const std::string& failure) {
  if (!failure.empty()) return std::string(name) + " failed (" + failure + ")";
  const Summary s = Summarise(rates);
  return std::string(name) + " " + Megabytes(s.median) + " " + FormatSpread(s);
}

}  // namespace qelbench
