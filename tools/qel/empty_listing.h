// Why `ls` got an empty listing. A node answers an empty folder, a missing
// one and a refused path alike (element 0 alone), and the asker cannot tell
// those from no answer at all; a few more questions can.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <qel/types.h>

namespace qelcli {

// The questions the explanation asks the node that gave the listing.
struct ListingQuestions {
  // GetFileInfo of a path, without a hash.
  std::function<qel::typFileInfo(const std::string& path)> fileInfo;
  // GetContents of a folder, not recursive, without the blank element 0.
  std::function<std::vector<std::string>(const std::string& path)> list;
  // Whether the node says it shares files, asked afresh; nullopt without an
  // answer.
  std::function<std::optional<bool>()> sharesFiles;
};

enum class EmptyListing {
  Empty,       // the folder is there and holds nothing to list
  Missing,     // no folder of that path is shared (or the node refuses the path)
  File,        // the path is a shared file
  NotSharing,  // the top was asked for, and the node shares nothing
  NoAnswer,    // the node did not answer within its Timeout
  Refused,     // the path climbs with "..\": the library sends nothing
  Unknown,     // a "%" is left after decoding: no listing can show the name
};

// Explains an empty listing of remotePath, as typed. Existence is read from
// the listing of the folder above, which names a subfolder "\NAME\"; the
// folder above is written so that the node resolves it into the same share
// as remotePath.
EmptyListing ExplainEmptyListing(const std::string& remotePath, const ListingQuestions& ask);

// remotePath as the node reads it: %-escapes decoded (as often as the node
// decodes them), "/" as "\", runs of "\" as one, a "\" in front. nullopt
// when an escape is not hexadecimal.
std::optional<std::string> DecodeRemotePath(const std::string& remotePath);

}  // namespace qelcli
