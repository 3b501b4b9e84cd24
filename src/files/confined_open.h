// Opening what a share holds without leaving it: each component is opened
// from the folder before it, and the kernel never follows a link; links are
// read here and resolved against the share's folder, so a file swapped for a
// link that leads out cannot be reached, however the race falls.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "files/remote_path.h"
#include "files/shares.h"

namespace qel {

// Opens parts below the folder root with flags (O_RDONLY, O_DIRECTORY or
// O_PATH; close-on-exec and non-blocking are added, so a FIFO does not
// wait). A link inside the share is followed as its target (an absolute one
// must name a path below root's canonical path); one that leads out fails
// with EXDEV, more than 40 links with ELOOP. Returns the descriptor, which
// the caller closes, or -1 with errno set. What it opened may be of any
// type: the caller checks with fstat on it.
int OpenBeneath(const std::string& root, const std::vector<std::string>& parts, int flags);

// The regular file a remote path names, opened for reading beneath its
// share (blocking reads), or -1 with errno set (EINVAL: not a regular file).
int OpenSharedFile(const std::vector<typSharedFolder>& folders, bool sharing,
                   std::string_view remotePath);

}  // namespace qel
