// The table of folders a node shares.
#pragma once

#include <string>
#include <vector>

namespace qel {

// A shared folder: its local path and the name it is offered under.
struct typSharedFolder {
  std::string Path;
  std::string Name;
};

// Adds strPath, without its trailing "/" or "\", to folders and sets sharing.
// A blank path or one that does not exist is ignored silently. folders keeps
// an empty entry 0 until the first folder is shared, which then takes its
// place.
void ShareFolder(std::vector<typSharedFolder>& folders, bool& sharing, std::string strPath);

// Everything after the last separator of path, or all of it.
std::string LastPathPart(const std::string& path);

}  // namespace qel
