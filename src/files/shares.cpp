#include "files/shares.h"

#include <filesystem>
#include <system_error>

#include "core/text.h"

namespace qel {

std::string LastPathPart(const std::string& path) {
  size_t slash = path.find_last_of("/\\");
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

void ShareFolder(std::vector<typSharedFolder>& folders, bool& sharing, std::string strPath) {
  if (Trim(strPath).empty()) return;
  std::error_code ec;
  // A file as well as a folder passes this test, as the share lookup of the
  // classic nodes does.
  if (!std::filesystem::exists(strPath, ec)) return;
  // Every trailing separator goes, or the name would come out empty.
  while (strPath.size() > 1 && (strPath.back() == '/' || strPath.back() == '\\')) {
    strPath.pop_back();
  }

  typSharedFolder folder;
  folder.Path = strPath;
  if (strPath.size() == 2 && strPath[1] == ':') {
    folder.Name = std::string(1, strPath[0]) + " Drive";
  } else {
    folder.Name = LastPathPart(strPath);
  }
  // The table keeps an empty entry 0 until the first folder is shared.
  if (!sharing) {
    folders.assign(1, folder);
  } else {
    folders.push_back(folder);
  }
  sharing = true;
}

}  // namespace qel
