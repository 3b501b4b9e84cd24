#include "output.h"

namespace qelcli {

std::string Latin1ToUtf8(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (unsigned char byte : bytes) {
    if (byte < 0x80) {
      text += static_cast<char>(byte);
    } else {
      text += static_cast<char>(0xC0 | (byte >> 6));
      text += static_cast<char>(0x80 | (byte & 0x3F));
    }
  }
  return text;
}

namespace {

class JsonOutput : public Output {
 public:
  explicit JsonOutput(std::ostream& out) : out_(out) {}

  void Event(std::string_view name, const Json& fields) override {
    Json line = {{"event", name}};
    line.update(fields);
    Write(line);
  }

  void Result(std::string_view command, const CommandResult& result) override {
    Json line = {{"command", Latin1ToUtf8(command)}, {"ok", result.ok}};
    line["value"] = result.value;
    if (!result.ok) line["error"] = Latin1ToUtf8(result.error);
    Write(line);
  }

 private:
  // A reader waits on whole lines, so each one is flushed at once.
  void Write(const Json& line) { out_ << line.dump() << std::endl; }

  std::ostream& out_;
};

}  // namespace

std::unique_ptr<Output> MakeJsonOutput(std::ostream& out) {
  return std::make_unique<JsonOutput>(out);
}

}  // namespace qelcli
