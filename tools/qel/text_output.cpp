#include "output.h"

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

class TextOutput : public Output {
 public:
  explicit TextOutput(std::function<void(std::string_view)> write) : write_(std::move(write)) {}

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

  void Result(std::string_view, const CommandResult& result) override {
    std::string text;
    if (!result.ok) {
      text = "error: ";
      AppendVisible(text, result.error);
      text += '\n';
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
};

}  // namespace

std::unique_ptr<Output> MakeTextOutput(std::function<void(std::string_view)> write) {
  return std::make_unique<TextOutput>(std::move(write));
}

}  // namespace qelcli
