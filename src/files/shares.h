// The table of folders a node shares.
#pragma once

#include <string>
#include <vector>

namespace qel {

struct NodeState;

// A shared folder: its local path and the name it is offered under.
struct typSharedFolder {
  std::string Path;
  std::string Name;
};

// Adds strPath to the node's share table. A blank path or one that does not
// exist is ignored silently.
void ShareFolder(NodeState& node, std::string strPath);

// Everything after the last separator of path, or all of it.
std::string LastPathPart(const std::string& path);

}  // namespace qel
