// Where the console writes events and command results: JSON lines or text.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace qelcli {

// Keys keep the order they were written in, so "event" and "command" come
// first. Strings hold QEL's bytes as they are, UTF-8 or not; each output
// decides how to write them.
using Json = nlohmann::ordered_json;

// What a command gives back. A failed command carries an error text; value
// may still hold what the method returned. A note tells the reader what the
// command chose on its own.
struct CommandResult {
  bool ok = true;
  Json value;
  std::string error;
  std::string note;
  bool pending = false;  // runs on: its result is written when it ends
};

// How far a download has come. total is -1 until the first piece tells.
struct Progress {
  std::string reqID;
  int64_t bytes = 0;
  int64_t total = -1;
  double bytesPerSecond = 0;
  bool done = false;  // the last report of this download
};

class Output {
 public:
  virtual ~Output() = default;
  // An event; fields is an object keyed by the event's parameter names.
  virtual void Event(std::string_view name, const Json& fields) = 0;
  virtual void Result(std::string_view command, const CommandResult& result) = 0;
  virtual void Report(const Progress& progress) = 0;
};

// {"event":NAME,...} and {"command":WORD,"ok":...,"value":...} lines;
// progress as {"event":"Progress","ReqID":...,"bytes":...,"total":...}. A
// string that is not UTF-8 is written byte by byte as the characters
// U+0000..U+00FF, and its key is listed under "latin1" in its object.
std::unique_ptr<Output> MakeJsonOutput(std::ostream& out);
// Readable lines, each handed whole to write. Bytes go out as they are,
// but control characters show as \n, \r or \xNN: a peer's text must not
// move the cursor or drive the terminal. Progress goes to status as one
// bar a line for each download under way (empty when none is), or nowhere
// when status is null.
std::unique_ptr<Output> MakeTextOutput(std::function<void(std::string_view)> write,
                                       std::function<void(std::string_view)> status = nullptr);

}  // namespace qelcli
