#include "files/listing.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "core/text.h"
#include "files/like.h"
#include "files/remote_path.h"

namespace qel {

namespace fs = std::filesystem;

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

// The folders and files below dir (canonical, inside the canonical root),
// folders first, each sorted. Links are never entered, so nothing loops.
std::vector<Entry> Walk(const fs::path& root, const fs::path& dir, bool recursive) {
  std::vector<Entry> entries;
  std::vector<std::pair<fs::path, std::string>> pending{{dir, ""}};
  while (!pending.empty()) {
    auto [here, prefix] = std::move(pending.back());
    pending.pop_back();
    std::error_code ec;
    fs::directory_iterator it(here, fs::directory_options::skip_permission_denied, ec);
    for (; !ec && it != fs::directory_iterator(); it.increment(ec)) {
      const std::string name = it->path().filename().string();
      if (!IsAddressableName(name)) continue;
      std::error_code entryError;
      const bool link = it->is_symlink(entryError);
      if (link) {
        const fs::path target = fs::weakly_canonical(it->path(), entryError);
        if (entryError || !IsInsideFolder(root, target)) continue;
      }
      const fs::file_status status = it->status(entryError);
      if (entryError) continue;
      std::string path = prefix + "\\" + name;
      if (fs::is_directory(status)) {
        if (recursive && !link) pending.emplace_back(it->path(), path);
        entries.push_back({std::move(path), true});
      } else if (fs::is_regular_file(status)) {
        entries.push_back({std::move(path), false});
      }
    }
  }
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
  std::optional<fs::path> local = LocalPathInShare(folders, sharing, *clean);
  std::error_code ec;
  if (!local || !fs::is_directory(*local, ec)) return result;
  const typSharedFolder& share = folders[ResolveShare(folders, *clean).index];
  const fs::path root = fs::weakly_canonical(share.Path, ec);
  if (ec) return result;
  const std::string prefix = searchSubDirs && folders.size() >= 2 ? share.Name + "\\" : "";
  for (Entry& entry : Walk(root, *local, searchSubDirs)) {
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
    std::error_code ec;
    const fs::path root = fs::weakly_canonical(share.Path, ec);
    if (share.Path.empty() || ec || !fs::is_directory(root, ec)) continue;
    for (const Entry& entry : Walk(root, root, true)) {
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
