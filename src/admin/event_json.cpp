#include "admin/event_json.h"

#include <array>
#include <cstring>
#include <sstream>
#include <type_traits>
#include <vector>

namespace qel::admin {
namespace {

// Each byte as the code point of the same number.
std::string Latin1ToUtf8(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  size_t run = 0;  // start of the ASCII bytes not copied yet
  for (size_t i = 0; i < bytes.size(); ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    if (byte < 0x80) continue;
    text.append(bytes.data() + run, i - run);
    text += static_cast<char>(0xC0 | (byte >> 6));
    text += static_cast<char>(0x80 | (byte & 0x3F));
    run = i + 1;
  }
  text.append(bytes.data() + run, bytes.size() - run);
  return text;
}

// Each byte as json's dump() writes it inside a string: control bytes as
// \u00XX unless they have a short escape, quote and backslash escaped,
// everything else (UTF-8 included) as it is.
struct Escape {
  uint8_t length = 1;
  char text[6] = {};
};
constexpr std::array<Escape, 256> kEscapes = [] {
  constexpr char kHex[] = "0123456789abcdef";
  std::array<Escape, 256> table{};
  for (int c = 0; c < 0x20; ++c) {
    table[c] = {6, {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]}};
  }
  table['\b'] = {2, {'\\', 'b'}};
  table['\t'] = {2, {'\\', 't'}};
  table['\n'] = {2, {'\\', 'n'}};
  table['\f'] = {2, {'\\', 'f'}};
  table['\r'] = {2, {'\\', 'r'}};
  table['"'] = {2, {'\\', '"'}};
  table['\\'] = {2, {'\\', '\\'}};
  return table;
}();

// Whether s is well-formed UTF-8, by the same rule as json's dump(): no
// overlong forms, no surrogates, nothing above U+10FFFF, nothing cut off.
bool IsUtf8(std::string_view s) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  const auto* end = p + s.size();
  while (p < end) {
    // Text is mostly ASCII: skip it eight bytes at a time.
    while (end - p >= 8) {
      uint64_t word;
      std::memcpy(&word, p, 8);
      if (word & 0x8080808080808080ull) break;
      p += 8;
    }
    if (p == end) break;
    const unsigned char lead = *p;
    if (lead < 0x80) {
      ++p;
      continue;
    }
    int more;
    unsigned char low = 0x80, high = 0xBF;  // range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
      more = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      more = 2;
      if (lead == 0xE0) low = 0xA0;
      if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      more = 3;
      if (lead == 0xF0) low = 0x90;
      if (lead == 0xF4) high = 0x8F;
    } else {
      return false;
    }
    if (end - p <= more || p[1] < low || p[1] > high) return false;
    for (int k = 2; k <= more; ++k) {
      if (p[k] < 0x80 || p[k] > 0xBF) return false;
    }
    p += more + 1;
  }
  return true;
}

// Writes one line byte for byte as json's compact dump() would for its
// UTF-8 strings, through a small reused buffer: a message body of many MiB
// is escaped slice by slice and never held whole a second time. A string
// that is not UTF-8 goes out as Latin-1, and the key it sits under is listed
// in "latin1" at the end of its object.
class LineWriter {
 public:
  LineWriter(std::ostream& out, std::string& buffer) : out_(out), buffer_(buffer) {}

  // True when value is a string, or an array of them, that went out as
  // Latin-1: its key must be listed.
  bool Value(const Json& value) {
    if (value.is_string()) return String(value.get_ref<const std::string&>());
    bool latin1 = false;
    if (value.is_object() && !value.empty()) {
      std::vector<const std::string*> listed;
      char separator = '{';
      for (const auto& [key, item] : value.items()) {
        buffer_ += separator;
        separator = ',';
        String(key);
        buffer_ += ':';
        if (Value(item)) listed.push_back(&key);
      }
      if (!listed.empty()) {
        buffer_ += ",\"latin1\":";
        separator = '[';
        for (const std::string* key : listed) {
          buffer_ += separator;
          separator = ',';
          String(*key);
        }
        buffer_ += ']';
      }
      buffer_ += '}';
    } else if (value.is_array() && !value.empty()) {
      char separator = '[';
      for (const Json& item : value) {
        buffer_ += separator;
        separator = ',';
        if (Value(item)) latin1 = true;  // objects list their own keys and give false
      }
      buffer_ += ']';
    } else {
      buffer_ += value.dump();  // numbers, booleans, null: json's own digits
    }
    return latin1;
  }

  // A reader waits on whole lines, so each one is flushed at once.
  void EndLine() {
    buffer_ += '\n';
    Spill();
    out_.flush();
  }

 private:
  static constexpr size_t kSlice = 16384;  // input bytes escaped at a time
  static constexpr size_t kSpillAt = 65536;

  // True when s is not UTF-8 and went out as Latin-1.
  bool String(std::string_view s) {
    const bool latin1 = !IsUtf8(s);
    buffer_ += '"';
    for (size_t from = 0; from < s.size(); from += kSlice) {
      const std::string_view slice = s.substr(from, kSlice);
      AppendEscaped(latin1 ? std::string_view(mapped_ = Latin1ToUtf8(slice)) : slice);
      if (buffer_.size() >= kSpillAt) Spill();
    }
    buffer_ += '"';
    return latin1;
  }

  // Plain runs are copied whole; the escaped size is known before writing.
  void AppendEscaped(std::string_view s) {
    size_t size = 0;
    for (unsigned char c : s) size += kEscapes[c].length;
    const size_t at = buffer_.size();
    // Escapes are copied six bytes at a time, so the last one may write past
    // its own end: room for that is added and cut off again.
    buffer_.resize(at + size + sizeof(Escape::text));
    char* dst = buffer_.data() + at;
    size_t run = 0;  // start of the bytes not copied yet
    for (size_t i = 0; i < s.size(); ++i) {
      const auto& escape = kEscapes[static_cast<unsigned char>(s[i])];
      if (escape.length == 1) continue;
      std::memcpy(dst, s.data() + run, i - run);
      dst += i - run;
      run = i + 1;
      std::memcpy(dst, escape.text, sizeof(escape.text));
      dst += escape.length;
    }
    std::memcpy(dst, s.data() + run, s.size() - run);
    buffer_.resize(at + size);
  }

  void Spill() {
    out_.write(buffer_.data(), static_cast<std::streamsize>(buffer_.size()));
    buffer_.clear();
  }

  std::ostream& out_;
  std::string& buffer_;
  std::string mapped_;  // a Latin-1 slice as UTF-8
};

Json RangeJson(const typQELRange& range) {
  return {{"lngStart", range.lngStart}, {"lngEnd", range.lngEnd}, {"lngLen", range.lngLen}};
}

}  // namespace

Json EventFields(const typEvent& event) {
  Json fields = Json::object();
  for (const typEventField& field : event.Fields) {
    Json& value = fields[field.Name];
    std::visit(
        [&value](const auto& v) {
          using T = std::decay_t<decltype(v)>;
          if constexpr (std::is_same_v<T, typQELRange>) {
            value = RangeJson(v);
          } else if constexpr (std::is_same_v<T, std::vector<typQELRange>>) {
            value = Json::array();
            for (const typQELRange& range : v) value.push_back(RangeJson(range));
          } else {
            value = v;
          }
        },
        field.Value);
  }
  return fields;
}

void WriteJsonLine(std::ostream& out, const Json& line, std::string& buffer) {
  buffer.clear();
  LineWriter writer(out, buffer);
  writer.Value(line);
  writer.EndLine();
}

std::string EventLine(const typEvent& event) {
  Json line = {{"event", event.Name}};
  line.update(EventFields(event));
  std::ostringstream text;
  std::string buffer;
  WriteJsonLine(text, line, buffer);
  return std::move(text).str();
}

}  // namespace qel::admin
