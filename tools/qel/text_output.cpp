#include "output.h"

namespace qelcli {
namespace {

std::string Plain(const Json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

class TextOutput : public Output {
 public:
  TextOutput(std::ostream& out, bool prompt) : out_(out), prompt_(prompt) {}

  void Event(std::string_view name, const Json& fields) override {
    // Clears the prompt line on the terminal and redraws it below the event.
    bool redraw = waiting_;
    if (redraw) out_ << "\r\x1b[K";
    out_ << "* " << name;
    const char* separator = ": ";
    for (const auto& [key, value] : fields.items()) {
      out_ << separator << key << "=" << Plain(value);
      separator = ", ";
    }
    out_ << "\n";
    waiting_ = false;
    if (redraw) Prompt();
    out_.flush();
  }

  void Result(std::string_view, const CommandResult& result) override {
    waiting_ = false;
    if (!result.ok) {
      out_ << "error: " << result.error << "\n";
    } else if (result.value.is_array()) {
      if (result.value.empty()) out_ << "(none)\n";
      for (const auto& item : result.value) WriteItem(item);
    } else if (!result.value.is_null() && !result.value.is_boolean()) {
      WriteItem(result.value);
    } else {
      out_ << "ok\n";
    }
    out_.flush();
  }

  void Close() override {
    if (waiting_) out_ << "\n" << std::flush;  // the shell's prompt goes on a line of its own
    waiting_ = false;
  }

  void Prompt() override {
    if (!prompt_) return;
    out_ << "qel> " << std::flush;
    waiting_ = true;
  }

 private:
  void WriteItem(const Json& item) {
    if (!item.is_object()) {
      out_ << Plain(item) << "\n";
      return;
    }
    const char* separator = "";
    for (const auto& [key, value] : item.items()) {
      out_ << separator << key << "=" << Plain(value);
      separator = "  ";
    }
    out_ << "\n";
  }

  std::ostream& out_;
  bool prompt_;
  bool waiting_ = false;
};

}  // namespace

std::unique_ptr<Output> MakeTextOutput(std::ostream& out, bool prompt) {
  return std::make_unique<TextOutput>(out, prompt);
}

}  // namespace qelcli
