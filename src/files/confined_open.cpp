#include "files/confined_open.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <filesystem>
#include <optional>
#include <system_error>

#include "files/regular_file.h"
#include "files/remote_path.h"

namespace qel {

namespace fs = std::filesystem;

namespace {

// As the kernel allows when it resolves a path itself.
constexpr int kMaxLinks = 40;

// The descriptors of the folders from the root down to where the walk is;
// ".." is taken here, never by the kernel, so it cannot climb past the root.
class FolderStack {
 public:
  ~FolderStack() {
    for (int fd : fds_) close(fd);
  }
  void Push(int fd) { fds_.push_back(fd); }
  int Top() const { return fds_.back(); }
  bool AtRoot() const { return fds_.size() == 1; }
  void Pop() {
    close(fds_.back());
    fds_.pop_back();
  }
  void PopToRoot() {
    while (!AtRoot()) Pop();
  }

 private:
  std::vector<int> fds_;
};

int Fail(int error) {
  errno = error;
  return -1;
}

// What a link fd (opened with O_PATH | O_NOFOLLOW) points to.
std::optional<std::string> ReadLink(int fd) {
  std::string target(256, '\0');
  for (;;) {
    const ssize_t n = readlinkat(fd, "", target.data(), target.size());
    if (n < 0) return std::nullopt;
    if (static_cast<size_t>(n) < target.size()) {
      target.resize(static_cast<size_t>(n));
      return target;
    }
    target.resize(target.size() * 2);
  }
}

// Puts the components of text, in order, in front of todo.
void PushFront(std::deque<std::string>& todo, const std::string& text) {
  std::vector<std::string> parts;
  for (size_t begin = 0; begin <= text.size();) {
    size_t end = text.find('/', begin);
    if (end == std::string::npos) end = text.size();
    parts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  todo.insert(todo.begin(), parts.begin(), parts.end());
}

}  // namespace

int OpenBeneath(const std::string& root, const std::vector<std::string>& parts, int flags) {
  std::error_code ec;
  const fs::path canonicalRoot = fs::canonical(root, ec);
  if (ec) return Fail(ec.value());
  const int rootFd = open(canonicalRoot.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (rootFd < 0) return -1;
  FolderStack folders;
  folders.Push(rootFd);
  const int finalFlags = flags | O_NOFOLLOW | O_CLOEXEC | ((flags & O_PATH) ? 0 : O_NONBLOCK);
  std::deque<std::string> todo(parts.begin(), parts.end());
  int links = 0;
  while (!todo.empty()) {
    const std::string name = std::move(todo.front());
    todo.pop_front();
    if (name.empty() || name == ".") continue;
    if (name == "..") {
      if (folders.AtRoot()) return Fail(EXDEV);
      folders.Pop();
      continue;
    }
    const bool last = todo.empty();
    int fd =
        openat(folders.Top(), name.c_str(), last ? finalFlags : O_PATH | O_NOFOLLOW | O_CLOEXEC);
    // Opened for reading, the last component fails on a link: look at the
    // link itself. Something else put in its place meanwhile fails the open.
    if (fd < 0 && last && (errno == ELOOP || errno == ENOTDIR)) {
      const int error = errno;
      fd = openat(folders.Top(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
      struct stat info {};
      if (fd >= 0 && (fstat(fd, &info) != 0 || !S_ISLNK(info.st_mode))) {
        close(fd);
        return Fail(error);
      }
      if (fd < 0) return Fail(error);
    }
    if (fd < 0) return -1;
    struct stat info {};
    if (fstat(fd, &info) != 0) {
      const int error = errno;
      close(fd);
      return Fail(error);
    }
    if (S_ISLNK(info.st_mode)) {
      std::optional<std::string> target = ReadLink(fd);
      close(fd);
      if (!target || target->empty()) return Fail(ENOENT);
      if (++links > kMaxLinks) return Fail(ELOOP);
      if (target->front() == '/') {
        // Measured against the root as the kernel names it; what follows the
        // root's own path is walked from the root again.
        const fs::path absolute(*target);
        if (!IsInsideFolder(canonicalRoot, absolute)) return Fail(EXDEV);
        folders.PopToRoot();
        const std::string rest = absolute.lexically_relative(canonicalRoot).string();
        PushFront(todo, rest);
      } else {
        PushFront(todo, *target);
      }
      continue;
    }
    if (last) return fd;
    if (!S_ISDIR(info.st_mode)) {
      close(fd);
      return Fail(ENOTDIR);
    }
    folders.Push(fd);
  }
  // The folder the walk ended in: the root, or one a trailing "/" named.
  return openat(folders.Top(), ".", (finalFlags & ~O_NOFOLLOW));
}

int OpenSharedFile(const std::vector<typSharedFolder>& folders, bool sharing,
                   std::string_view remotePath) {
  const std::optional<PathInShare> path = SplitPathInShare(folders, sharing, remotePath);
  if (!path) return Fail(ENOENT);
  const int fd = OpenBeneath(path->root, path->parts, O_RDONLY);
  return fd < 0 ? -1 : KeepIfRegular(fd);
}

}  // namespace qel
