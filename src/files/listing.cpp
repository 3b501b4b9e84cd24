#include "files/listing.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "core/text.h"
#include "files/confined_open.h"
#include "files/like.h"
#include "files/regular_file.h"
#include "files/remote_path.h"

namespace qel {

namespace {

struct Entry {
  std::string path;  // from the listed folder, "\"-separated, beginning with "\"
  bool folder = false;
};

std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = AsciiLower(c);
  return out;
}

// Folders below a listed one are opened while it is, one descriptor a
// level: deeper ones are left out rather than hold more.
constexpr size_t kMaxDepth = 128;

// The names in the folder fd, read through a descriptor of its own.
std::vector<std::string> Names(int fd) {
  std::vector<std::string> names;
  const int own = openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (own < 0) return names;
  DIR* dir = fdopendir(own);
  if (!dir) {
    close(own);
    return names;
  }
  while (const dirent* entry = readdir(dir)) names.emplace_back(entry->d_name);
  closedir(dir);
  return names;
}

// Adds what the folder fd (parts below the share's folder root) holds to
// entries, and with recursive what its folders hold. Links are listed as
// what they lead to when that is inside the share, and never entered, so
// nothing loops; folders are entered without following a link put in their
// place meanwhile.
void WalkFolder(const std::string& root, int fd, std::vector<std::string>& parts,
                const std::string& prefix, bool recursive, std::vector<Entry>& entries) {
  for (const std::string& name : Names(fd)) {
    if (!IsAddressableName(name)) continue;
    struct stat info {};
    if (fstatat(fd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
    const bool link = S_ISLNK(info.st_mode);
    if (link) {
      parts.push_back(name);
      const int target = OpenBeneath(root, parts, O_PATH);
      parts.pop_back();
      if (target < 0) continue;
      const bool known = fstat(target, &info) == 0;
      close(target);
      if (!known) continue;
    }
    std::string path = prefix + "\\" + name;
    if (S_ISDIR(info.st_mode)) {
      if (recursive && !link && parts.size() < kMaxDepth) {
        const int sub = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (sub >= 0) {
          const ClosingFd closer{sub};
          parts.push_back(name);
          WalkFolder(root, sub, parts, path, recursive, entries);
          parts.pop_back();
        }
      }
      entries.push_back({std::move(path), true});
    } else if (S_ISREG(info.st_mode)) {
      entries.push_back({std::move(path), false});
    }
  }
}

// The folders and files below the folder parts names in the share's folder
// root, folders first, each sorted; nothing when it cannot be opened as a
// folder beneath root.
std::vector<Entry> Walk(const std::string& root, std::vector<std::string> parts, bool recursive) {
  std::vector<Entry> entries;
  const int fd = OpenBeneath(root, parts, O_RDONLY | O_DIRECTORY);
  if (fd < 0) return entries;
  const ClosingFd closer{fd};
  WalkFolder(root, fd, parts, "", recursive, entries);
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
    return a.folder != b.folder ? a.folder : a.path < b.path;
  });
  return entries;
}

}  // namespace

std::vector<std::string> ListSharedPath(const std::vector<typSharedFolder>& folders, bool sharing,
                                        std::string_view remotePath, bool searchSubDirs) {
  std::vector<std::string> result(1);
  std::optional<std::string> clean = CleanRemotePath(remotePath);
  if (!sharing || folders.empty() || !clean) return result;
  if (folders.size() >= 2 && *clean == "\\") {
    for (const typSharedFolder& folder : folders) result.push_back("\\" + folder.Name + "\\");
    return result;
  }
  std::optional<PathInShare> local = SplitPathInShare(folders, sharing, *clean);
  if (!local) return result;
  const typSharedFolder& share = folders[ResolveShare(folders, *clean).index];
  const std::string prefix = searchSubDirs && folders.size() >= 2 ? share.Name + "\\" : "";
  for (Entry& entry : Walk(local->root, local->parts, searchSubDirs)) {
    result.push_back(prefix + entry.path + (entry.folder ? "\\" : ""));
  }
  return result;
}

std::vector<std::string> SearchFiles(const std::vector<typSharedFolder>& folders, bool sharing,
                                     std::string_view text) {
  std::vector<std::string> result(1);
  if (!sharing) return result;
  const LikePattern pattern("*" + Lower(text) + "*");
  for (size_t i = 0; i < folders.size(); ++i) {
    const typSharedFolder& share = folders[i];
    std::string front;
    if (folders.size() >= 2) {
      const auto same = [&](const typSharedFolder& f) { return f.Name == share.Name; };
      if (!IsAddressableName(share.Name) ||
          std::any_of(folders.begin(), folders.begin() + i, same)) {
        continue;
      }
      front = "\\" + share.Name;
    } else {
      front = "\\";
    }
    if (share.Path.empty()) continue;
    for (const Entry& entry : Walk(share.Path, {}, true)) {
      const std::string_view name = std::string_view(entry.path).substr(entry.path.rfind('\\') + 1);
      if (!entry.folder && pattern.Matches(Lower(name))) result.push_back(front + entry.path);
    }
  }
  return result;
}

bool MatchesNodeName(std::string_view name, std::string_view text) {
  return LikePattern("*" + Lower(text) + "*").Matches(Lower(name));
}

}  // namespace qel
