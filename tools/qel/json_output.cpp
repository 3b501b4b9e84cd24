#include "output.h"

#include "admin/event_json.h"

namespace qelcli {
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
    Json line = {{"command", command}, {"ok", result.ok}};
    line["value"] = result.value;
    if (!result.ok) line["error"] = result.error;
    if (!result.note.empty()) line["note"] = result.note;
    Write(line);
  }

  void Report(const Progress& progress) override {
    if (progress.done) return;  // the result says how it ended
    Event("Progress",
          {{"ReqID", progress.reqID}, {"bytes", progress.bytes}, {"total", progress.total}});
  }

 private:
  void Write(const Json& line) { qel::admin::WriteJsonLine(out_, line, buffer_); }

  std::ostream& out_;
  std::string buffer_;  // every line's, kept to a few slices
};

}  // namespace

std::unique_ptr<Output> MakeJsonOutput(std::ostream& out) {
  return std::make_unique<JsonOutput>(out);
}

}  // namespace qelcli
