#include "protocol/message.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <unordered_map>

#include "core/text.h"
#include "protocol/percent.h"

namespace qel {
namespace {

constexpr std::string_view kCrLf = "\r\n";
constexpr std::string_view kMaxSuffix = "-Max";

// Stores header lines with SetField's rules without its per-call copies and
// without a scan per line once the list is long: a peer may send thousands of
// tiny lines, and a scan per line would make that quadratic.
class FieldInserter {
 public:
  explicit FieldInserter(FieldList& fields) : fields_(fields) {
    if (fields_.empty()) fields_.emplace_back();
  }

  // False where SetField would throw: name already holds an array.
  bool Set(std::string_view name, std::string_view value) {
    if (fields_.size() > kIndexFrom && index_.empty()) BuildIndex();
    typField* current = nullptr;
    const typField* max = nullptr;
    if (index_.empty()) {
      for (size_t i = 1; i < fields_.size() && !(current && max); ++i) {
        std::string_view field = fields_[i].Name;
        if (!current && EqualsNoCase(field, name)) current = &fields_[i];
        if (!max && field.size() == name.size() + kMaxSuffix.size() &&
            EqualsNoCase(field.substr(0, name.size()), name) &&
            EqualsNoCase(field.substr(name.size()), kMaxSuffix)) {
          max = &fields_[i];
        }
      }
    } else {
      key_ = ToUpper(name);
      current = Lookup();
      key_.append("-MAX");
      max = Lookup();
    }
    if (max && !max->Value.empty()) return false;
    // An empty value counts as absent, so the new one goes behind it.
    if (current && !current->Value.empty()) {
      current->Value.assign(value);
      return true;
    }
    fields_.push_back({std::string(name), std::string(value)});
    if (!index_.empty()) index_.try_emplace(ToUpper(name), fields_.size() - 1);
    return true;
  }

 private:
  static constexpr size_t kIndexFrom = 32;

  void BuildIndex() {
    for (size_t i = 1; i < fields_.size(); ++i) index_.try_emplace(ToUpper(fields_[i].Name), i);
  }

  typField* Lookup() {
    auto it = index_.find(key_);
    return it == index_.end() ? nullptr : &fields_[it->second];
  }

  FieldList& fields_;
  // Upper-cased name -> position of the first field with it.
  std::unordered_map<std::string, size_t> index_;
  std::string key_;
};

}  // namespace

typMessage NewMessage() {
  typMessage message;
  message.Fields = NewFieldList();
  return message;
}

namespace {

// The header, with room reserved for a body of bodyRoom bytes after it.
void AppendHeader(const typMessage& message, std::string& out, size_t bodyRoom) {
  const size_t spaces =
      static_cast<size_t>(std::count(message.Resource.begin(), message.Resource.end(), ' '));
  size_t size = message.MsgType.size() + 1 + message.Resource.size() + 2 * spaces + 1 +
                kProtocolVersion.size() + 2;
  for (size_t i = 1; i < message.Fields.size(); ++i) {
    size += message.Fields[i].Name.size() + 2 + message.Fields[i].Value.size() + 2;
  }
  size += 2 + bodyRoom;
  out.reserve(out.size() + size);

  out.append(message.MsgType).push_back(' ');
  std::string_view resource = message.Resource;
  for (size_t space; (space = resource.find(' ')) != std::string_view::npos;) {
    out.append(resource.substr(0, space)).append("%20");
    resource.remove_prefix(space + 1);
  }
  out.append(resource).push_back(' ');
  out.append(kProtocolVersion).append(kCrLf);
  for (size_t i = 1; i < message.Fields.size(); ++i) {
    out.append(message.Fields[i].Name).append(": ");
    out.append(message.Fields[i].Value).append(kCrLf);
  }
  out.append(kCrLf);
}

}  // namespace

void SerialiseHeader(const typMessage& message, std::string& out) {
  AppendHeader(message, out, 0);
}

void SerialiseMessage(const typMessage& message, std::string& out) {
  AppendHeader(message, out, message.Body.size());
  out.append(message.Body);
}

std::string SerialiseMessage(const typMessage& message) {
  std::string out;
  SerialiseMessage(message, out);
  return out;
}

bool ParseHeader(typMessage& message) {
  return ParseHeader(message, message.Header);
}

bool ParseHeader(typMessage& message, std::string_view header) {
  std::string_view rest = header;
  size_t end = rest.find(kCrLf);
  std::string_view startLine = rest.substr(0, end);
  rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + kCrLf.size());

  size_t space = startLine.find(' ');
  if (space == std::string_view::npos) return false;
  message.MsgType = ToUpper(startLine.substr(0, space));
  std::string_view afterType = startLine.substr(space + 1);
  std::string_view resource = afterType.substr(0, afterType.find(' '));
  if (resource.empty()) {
    message.Resource.clear();
  } else {
    bool failed = false;
    message.Resource = DecodePath(std::string(resource), &failed);
    message.ResourceUndecodable = failed;
    if (message.Resource.empty() || message.Resource.front() != '\\') {
      message.Resource.insert(message.Resource.begin(), '\\');
    }
  }

  if (message.Fields.empty()) message.Fields = NewFieldList();
  FieldInserter fields(message.Fields);
  // A last line without CR LF is not a header line; it ends parsing.
  while ((end = rest.find(kCrLf)) != std::string_view::npos) {
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end + kCrLf.size());
    if (line.empty()) break;
    size_t colon = line.find(": ");
    if (colon == std::string_view::npos) return false;
    if (!fields.Set(line.substr(0, colon), line.substr(colon + 2))) return false;
  }
  return true;
}

bool HasFlag(const typMessage& message, std::string_view flag) {
  const std::string* flags = FindField(message.Fields, "Flags");
  return flags && FlagsHold(*flags, flag);
}

bool FlagsHold(std::string_view text, std::string_view flag) {
  for (size_t at = 0; (at = FindNoCase(text, flag, at)) != std::string_view::npos; ++at) {
    if (at + flag.size() < text.size() && text[at + flag.size()] == ',') return true;
  }
  return false;
}

std::optional<int64_t> ParseLength(std::string_view text) {
  text = Trim(text);
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    if (!text.empty() && text.front() == '-') return std::nullopt;
  }
  int64_t value = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (text.empty() || ptr != end) return std::nullopt;
  if (ec == std::errc::result_out_of_range) return text.front() == '-' ? INT64_MIN : INT64_MAX;
  if (ec != std::errc()) return std::nullopt;
  return value;
}

}  // namespace qel
