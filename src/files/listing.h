// What a node answers about its shares: folder listings and searches. Every
// result is an array whose element 0 is empty, as the answers carry them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "files/shares.h"

namespace qel {

// The content of the shared folder remotePath names (LocalPathInShare):
// folders end with "\", files do not. Without searchSubDirs each entry is
// "\" + its name; with it, every file and folder below, as its path from the
// listed folder ("\sub\a.txt"), and with two or more shares each of those
// entries is prefixed by the share's Name and "\" ("docs\\sub\a.txt", as the
// classic nodes answer). With two or more shares the path "\" lists
// "\" + Name + "\" for each share, in table order. Folders come first, then
// files, each sorted bytewise. Only folders and regular files are listed,
// and only names a remote path can carry (IsAddressableName); links are
// listed when they lead to something inside the share, and never entered,
// so a listing cannot loop. Everything is opened beneath the share's folder
// (OpenBeneath), and folders more than 128 levels below the listed one are
// left out. A refused path or one that is not a folder gives element 0
// alone.
std::vector<std::string> ListSharedPath(const std::vector<typSharedFolder>& folders, bool sharing,
                                        std::string_view remotePath, bool searchSubDirs);

// Every shared file whose name contains text, ignoring ASCII case; wildcards
// in text work as in LikePattern ("*" + text + "*" against the name). text
// is the search text without the "\" the message parser puts in front of
// it. Each result is a remote path LocalPathInShare maps back to that file:
// with one share "\" + its path from the share ("\\sub\a.txt", the classic
// form), with two or more "\" + Name + its path ("\docs\sub\a.txt"). With
// two or more shares, a share whose Name an earlier share has already (or
// that cannot be carried) is left out: paths would reach the other one.
std::vector<std::string> SearchFiles(const std::vector<typSharedFolder>& folders, bool sharing,
                                     std::string_view text);

// True when name contains text, ignoring ASCII case, with text's wildcards
// working as in SearchFiles.
bool MatchesNodeName(std::string_view name, std::string_view text);

}  // namespace qel
