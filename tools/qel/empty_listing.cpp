#include "empty_listing.h"

#include <algorithm>

namespace qelcli {
namespace {

// The node gives up on hostile paths after this many escapes; so does this.
constexpr int kMaxPasses = 1024;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// A decoded path goes back on the wire: control characters would end the
// message's first line, and the library refuses a path holding "..\" even
// where ".." is part of a name, so both travel escaped (a space the library
// escapes itself). Decoding on the node gives the path back, as it holds no
// "%".
std::string Escape(const std::string& path) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F || c == '.') {
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 15];
    } else {
      out += c;
    }
  }
  return out;
}

bool Lists(const ListingQuestions& ask, const std::string& folder, const std::string& name) {
  const std::vector<std::string> entries = ask.list(Escape(folder));
  return std::find(entries.begin(), entries.end(), "\\" + name + "\\") != entries.end();
}

// Whether the folder clean names is there, the node having answered.
EmptyListing Exists(std::string clean, const ListingQuestions& ask) {
  const bool trailing = clean.size() > 1 && clean.back() == '\\';
  if (trailing) clean.pop_back();
  if (clean == "\\") {
    // The top is there whenever the node shares anything.
    const std::optional<bool> sharing = ask.sharesFiles();
    return sharing && !*sharing ? EmptyListing::NotSharing : EmptyListing::Empty;
  }
  const size_t cut = clean.rfind('\\');
  const std::string above = clean.substr(0, cut + 1);
  const std::string name = clean.substr(cut + 1);
  // The node skips "." parts: the folder is the one above.
  if (name == ".") return Exists(above, ask);
  bool found = false;
  if (above != "\\") {
    // "\NAME\" in front names the same share in both paths.
    found = Lists(ask, above, name);
  } else {
    // A node of several shares reads "\NAME\" as its share NAME when it has
    // one, and any other path as inside its first share, whose top is "\.\"
    // ("\" lists the shares). A node of one share lists its top for both.
    found = (trailing && Lists(ask, "\\", name)) || Lists(ask, "\\.\\", name);
  }
  return found ? EmptyListing::Empty : EmptyListing::Missing;
}

}  // namespace

std::optional<std::string> DecodeRemotePath(const std::string& remotePath) {
  std::string path = remotePath;
  for (int pass = 0;; ++pass) {
    const size_t percent = path.find('%');
    if (percent == std::string::npos || percent + 2 >= path.size()) break;
    const int high = HexValue(path[percent + 1]);
    const int low = HexValue(path[percent + 2]);
    if (high < 0 || low < 0 || pass == kMaxPasses) return std::nullopt;
    path.replace(percent, 3, 1, static_cast<char>(high * 16 + low));
  }
  std::replace(path.begin(), path.end(), '/', '\\');
  std::string clean = "\\";
  for (char c : path) {
    if (c != '\\' || clean.back() != '\\') clean += c;
  }
  return clean;
}

EmptyListing ExplainEmptyListing(const std::string& remotePath, const ListingQuestions& ask) {
  std::string raw = remotePath;
  std::replace(raw.begin(), raw.end(), '/', '\\');
  if (raw.find("..\\") != std::string::npos) return EmptyListing::Refused;
  const qel::typFileInfo info = ask.fileInfo(remotePath);
  if (!info.isAnswered) return EmptyListing::NoAnswer;
  if (info.lngSize >= 0) return EmptyListing::File;
  // A node reads a path it cannot decode as the top.
  const std::string clean = DecodeRemotePath(remotePath).value_or("\\");
  // Names with a NUL are refused; names with "%" are never listed.
  if (clean.find('\0') != std::string::npos) return EmptyListing::Missing;
  if (clean.find('%') != std::string::npos) return EmptyListing::Unknown;
  return Exists(clean, ask);
}

}  // namespace qelcli
