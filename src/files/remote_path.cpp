#include "files/remote_path.h"

#include <system_error>

#include "protocol/percent.h"

namespace qel {

namespace fs = std::filesystem;

namespace {

// "C:" and the like would name another drive on the classic nodes' systems.
bool IsDriveLike(std::string_view name) {
  return name.size() >= 2 && name[1] == ':' &&
         ((name[0] >= 'A' && name[0] <= 'Z') || (name[0] >= 'a' && name[0] <= 'z'));
}

}  // namespace

std::optional<std::string> CleanRemotePath(std::string_view remotePath) {
  bool failed = false;
  std::string decoded = DecodePath(std::string(remotePath), &failed);
  if (failed) return std::nullopt;
  std::string clean = "\\";
  for (char c : decoded) {
    if (c != '\\' || clean.back() != '\\') clean += c;
  }
  return clean;
}

ShareSpot ResolveShare(const std::vector<typSharedFolder>& folders, const std::string& cleanPath) {
  if (folders.size() >= 2) {
    for (size_t i = 0; i < folders.size(); ++i) {
      const std::string& name = folders[i].Name;
      // An empty name would need "\\", which a clean path never holds.
      if (name.empty() || cleanPath.size() < name.size() + 2 || cleanPath[0] != '\\' ||
          cleanPath.compare(1, name.size(), name) != 0 || cleanPath[name.size() + 1] != '\\') {
        continue;
      }
      return {i, cleanPath.substr(name.size() + 1)};
    }
  }
  return {0, cleanPath};
}

bool IsAddressableName(std::string_view name) {
  if (name.empty() || name == "." || name == "..") return false;
  if (name.find_first_of(std::string_view("\\/%\0", 4)) != std::string_view::npos) return false;
  return !IsDriveLike(name);
}

bool IsInsideFolder(const fs::path& root, const fs::path& path) {
  // A trailing separator shows up as an empty element; it says nothing.
  auto r = root.begin();
  auto p = path.begin();
  for (; r != root.end(); ++r) {
    if (r->empty()) continue;
    while (p != path.end() && p->empty()) ++p;
    if (p == path.end() || *p != *r) return false;
    ++p;
  }
  return true;
}

std::optional<PathInShare> SplitPathInShare(const std::vector<typSharedFolder>& folders,
                                            bool sharing, std::string_view remotePath) {
  if (!sharing || folders.empty()) return std::nullopt;
  std::optional<std::string> clean = CleanRemotePath(remotePath);
  if (!clean || clean->find('\0') != std::string::npos) return std::nullopt;
  const ShareSpot spot = ResolveShare(folders, *clean);
  const typSharedFolder& folder = folders[spot.index];
  if (folder.Path.empty()) return std::nullopt;
  PathInShare result{folder.Path, {}};
  size_t begin = 1;  // rest begins with "\"
  while (begin <= spot.rest.size()) {
    size_t end = spot.rest.find('\\', begin);
    if (end == std::string::npos) end = spot.rest.size();
    std::string_view part = std::string_view(spot.rest).substr(begin, end - begin);
    begin = end + 1;
    if (part.empty() || part == ".") continue;
    // "/" separates on this system: a component holding one would climb.
    if (part == ".." || IsDriveLike(part) || part.find('/') != std::string_view::npos) {
      return std::nullopt;
    }
    result.parts.emplace_back(part);
  }
  return result;
}

std::optional<fs::path> LocalPathInShare(const std::vector<typSharedFolder>& folders, bool sharing,
                                         std::string_view remotePath) {
  const std::optional<PathInShare> split = SplitPathInShare(folders, sharing, remotePath);
  if (!split) return std::nullopt;
  fs::path local = split->root;
  for (const std::string& part : split->parts) local /= part;
  std::error_code ec;
  const fs::path root = fs::weakly_canonical(split->root, ec);
  if (ec) return std::nullopt;
  fs::path target = fs::weakly_canonical(local, ec);
  if (ec || !IsInsideFolder(root, target)) return std::nullopt;
  return target;
}

}  // namespace qel
