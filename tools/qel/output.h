// Where the console writes events and command results: JSON lines or text.
#pragma once

#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace qelcli {

// Keys keep the order they were written in, so "event" and "command" come first.
using Json = nlohmann::ordered_json;

// What a command gives back. A failed command carries an error text; value
// may still hold what the method returned.
struct CommandResult {
  bool ok = true;
  Json value;
  std::string error;
};

// QEL's strings are bytes: each byte becomes the code point of the same
// number, so any byte string makes valid UTF-8 and json never throws.
std::string Latin1ToUtf8(std::string_view bytes);
inline Json Text(std::string_view bytes) {
  return Latin1ToUtf8(bytes);
}

class Output {
 public:
  virtual ~Output() = default;
  // An event; fields is an object keyed by the event's parameter names.
  virtual void Event(std::string_view name, const Json& fields) = 0;
  virtual void Result(std::string_view command, const CommandResult& result) = 0;
  // Shows that the console waits for a command (interactive text only).
  virtual void Prompt() {}
  // The console is done: nothing more will be written.
  virtual void Close() {}
};

// {"event":NAME,...} and {"command":WORD,"ok":...,"value":...} lines.
std::unique_ptr<Output> MakeJsonOutput(std::ostream& out);
// Readable lines; with prompt, a "qel> " prompt that events redraw.
std::unique_ptr<Output> MakeTextOutput(std::ostream& out, bool prompt);

}  // namespace qelcli
