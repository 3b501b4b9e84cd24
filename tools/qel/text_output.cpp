#include "output.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

namespace qelcli {
namespace {

void AppendVisible(std::string& out, std::string_view bytes) {
  constexpr char kHex[] = "0123456789abcdef";
  for (char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == '\n') {
      out += "\\n";
    } else if (byte == '\r') {
      out += "\\r";
    } else if ((byte < 0x20 && byte != '\t') || byte == 0x7f) {
      out += {'\\', 'x', kHex[byte >> 4], kHex[byte & 0xF]};
    } else {
      out += c;
    }
  }
}

void AppendPlain(std::string& out, const Json& value) {
  if (value.is_string()) {
    AppendVisible(out, value.get_ref<const std::string&>());
  } else {
    // Nested records: json's form, with what is not UTF-8 replaced.
    AppendVisible(out, value.dump(-1, ' ', false, Json::error_handler_t::replace));
  }
}

// 1.5 MiB, 320 KiB, 12 B.
std::string Size(double bytes) {
  const char* units[] = {"B", "KiB", "MiB", "GiB"};
  int unit = 0;
  while (bytes >= 1024 && unit < 3) {
    bytes /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
  return text;
}

// get 3f2a91c0: [########------------]  41%  420.0 MiB / 1.0 GiB  312.4 MB/s  2 s left
std::string Bar(const Progress& p) {
  constexpr int kWidth = 20;
  std::string line = "get " + p.reqID.substr(0, 8) + ": ";
  if (p.total > 0) {
    const double done = std::min(1.0, static_cast<double>(p.bytes) / static_cast<double>(p.total));
    const int filled = static_cast<int>(done * kWidth);
    line += "[" + std::string(filled, '#') + std::string(kWidth - filled, '-') + "] ";
    char percent[8];
    std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(done * 100));
    line += std::string(percent) + "  " + Size(static_cast<double>(p.bytes)) + " / " +
            Size(static_cast<double>(p.total));
  } else {
    line += Size(static_cast<double>(p.bytes));
  }
  char rate[32];
  std::snprintf(rate, sizeof rate, "  %.1f MB/s", p.bytesPerSecond / 1e6);
  line += rate;
  if (p.total > 0 && p.bytesPerSecond > 0) {
    const double left = static_cast<double>(p.total - p.bytes) / p.bytesPerSecond;
    line += "  " + std::to_string(static_cast<int64_t>(std::ceil(std::max(0.0, left)))) + " s left";
  }
  return line + "\n";
}

// A number of a snapshot's JSON, 0 when absent.
int64_t Number(const Json& object, const char* key) {
  const auto it = object.find(key);
  return it != object.end() && it->is_number() ? it->get<int64_t>() : 0;
}

const Json& Part(const Json& object, const char* key) {
  static const Json none = Json::array();
  const auto it = object.find(key);
  return it != object.end() ? *it : none;
}

std::string Text(const Json& object, const char* key) {
  const auto it = object.find(key);
  std::string text;
  if (it != object.end()) AppendPlain(text, *it);
  return text;
}

// The status command's snapshot, a few lines per part: who, links, nodes, transfers, figures.
std::string StatusText(const Json& s) {
  auto size = [](int64_t bytes) { return Size(static_cast<double>(bytes)); };
  std::string text = "node " + Text(s, "name") + "  " + Text(s, "nodeID") + "  port " +
                     std::to_string(Number(s, "port")) +
                     (s.value("listening", false) ? " (listening)" : "") + "  secure " +
                     Text(s, "secureMode");
  if (const std::string key = Text(s, "keyID"); !key.empty()) text += "  key " + key;
  text += "\nlinks: " + std::to_string(Part(s, "links").size()) + "\n";
  for (const Json& l : Part(s, "links")) {
    text += "  " + Text(l, "address") + "  " + Text(l, "nodeID") + "  " +
            (l.value("accepted", false) ? "accepted" : "dialled") +
            (l.value("secure", false) ? "  TLS" : "") +
            (l.value("up", false) ? "" : "  connecting") + "  in " +
            std::to_string(Number(l, "messagesIn")) + " msgs/" + size(Number(l, "bytesIn")) +
            "  out " + std::to_string(Number(l, "messagesOut")) + " msgs/" +
            size(Number(l, "bytesOut")) + "  queued " + size(Number(l, "bytesQueued")) + "  age " +
            std::to_string(Number(l, "ageSeconds")) + " s\n";
  }
  text += "known nodes: " + std::to_string(Part(s, "knownNodes").size()) + "\n";
  for (const Json& n : Part(s, "knownNodes")) {
    text += "  " + Text(n, "nodeID") + "  " + Text(n, "name") + "  " + Text(n, "address") +
            (n.value("direct", false) ? "  direct" : "") + "  INFO " +
            std::to_string(Number(n, "secondsSinceInfo")) + " s ago\n";
  }
  text += "transfers: " + std::to_string(Part(s, "transfers").size()) + "\n";
  for (const Json& t : Part(s, "transfers")) {
    const int64_t total = Number(t, "bytesTotal");
    text += "  " + std::string(t.value("incoming", false) ? "from " : "to ") + Text(t, "nodeID") +
            "  " + Text(t, "path") + "  " + size(Number(t, "bytesDone")) + " / " +
            (total < 0 ? std::string("?") : size(total)) + "  " +
            size(Number(t, "bytesPerSecond")) + "/s  " + Text(t, "reqID") + "\n";
  }
  text += "routes " + std::to_string(Number(s, "routes")) + "  dup window " +
          std::to_string(Number(s, "dupWindowIDs")) + " IDs  rpc pending " +
          std::to_string(Number(s, "rpcPending")) + "  users " +
          std::to_string(Number(s, "usersKnown")) + "  memory " + size(Number(s, "memoryHeld")) +
          " of " + size(Number(s, "memoryBudget")) + "\n";
  text += "messages in " + std::to_string(Number(s, "messagesReceived")) + " out " +
          std::to_string(Number(s, "messagesSent")) + "  bytes in " +
          size(Number(s, "bytesReceived")) + " out " + size(Number(s, "bytesSent")) + "  relayed " +
          std::to_string(Number(s, "relayed")) + "  duplicates dropped " +
          std::to_string(Number(s, "duplicatesDropped")) + "  events " +
          std::to_string(Number(s, "eventsRaised")) + "\n";
  text += "refused (this node / process):";
  for (const auto& [reason, counts] : Part(s, "refusals").items()) {
    text += " " + reason + " " + std::to_string(Number(counts, "node")) + "/" +
            std::to_string(Number(counts, "process"));
  }
  return text + "\n";
}

class TextOutput : public Output {
 public:
  TextOutput(std::function<void(std::string_view)> write,
             std::function<void(std::string_view)> status)
      : write_(std::move(write)), status_(std::move(status)) {}

  void Report(const Progress& progress) override {
    if (!status_) return;
    if (progress.done) {
      bars_.erase(progress.reqID);
    } else {
      bars_[progress.reqID] = Bar(progress);
    }
    std::string lines;
    for (const auto& [id, bar] : bars_) lines += bar;
    status_(lines);
  }

  void Event(std::string_view name, const Json& fields) override {
    std::string line = "* ";
    line += name;
    const char* separator = ": ";
    for (const auto& [key, value] : fields.items()) {
      line += separator;
      line += key;
      line += '=';
      AppendPlain(line, value);
      separator = ", ";
    }
    write_(line += '\n');
  }

  void Result(std::string_view command, const CommandResult& result) override {
    std::string text;
    if (command == "status" && result.ok && result.value.is_object()) {
      write_(StatusText(result.value));
      return;
    }
    if (!result.ok) {
      text = "error: ";
      // A background command's failure comes later, among others: say which.
      if (result.value.is_object() && result.value.contains("ReqID") &&
          result.value["ReqID"].is_string()) {
        AppendVisible(text, result.value["ReqID"].get<std::string>());
        text += ": ";
      }
      AppendVisible(text, result.error);
      text += '\n';
    } else if (result.value.is_string()) {
      AppendLines(text, result.value.get_ref<const std::string&>());
    } else if (result.value.is_array()) {
      if (result.value.empty()) text = "(none)\n";
      for (const auto& item : result.value) AppendItem(text, item);
    } else if (!result.value.is_null() && !result.value.is_boolean()) {
      AppendItem(text, result.value);
    } else {
      text = "ok\n";
    }
    if (result.ok && !result.note.empty()) {
      text.insert(text.size() - 1, " (" + result.note + ")");
    }
    write_(text);
  }

 private:
  // A text of several lines (the user list) is easier read as lines.
  static void AppendLines(std::string& text, std::string_view value) {
    do {
      const size_t eol = std::min(value.find('\n'), value.size());
      std::string_view line = value.substr(0, eol);
      if (line.ends_with('\r')) line.remove_suffix(1);
      AppendVisible(text, line);
      text += '\n';
      value.remove_prefix(std::min(eol + 1, value.size()));
    } while (!value.empty());
  }

  static void AppendItem(std::string& text, const Json& item) {
    if (!item.is_object()) {
      AppendPlain(text, item);
      text += '\n';
      return;
    }
    const char* separator = "";
    for (const auto& [key, value] : item.items()) {
      text += separator;
      text += key;
      text += '=';
      AppendPlain(text, value);
      separator = "  ";
    }
    text += '\n';
  }

  std::function<void(std::string_view)> write_;
  std::function<void(std::string_view)> status_;
  std::map<std::string, std::string> bars_;  // by request
};

}  // namespace

std::unique_ptr<Output> MakeTextOutput(std::function<void(std::string_view)> write,
                                       std::function<void(std::string_view)> status) {
  return std::make_unique<TextOutput>(std::move(write), std::move(status));
}

}  // namespace qelcli
