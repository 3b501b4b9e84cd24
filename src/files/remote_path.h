// Remote paths, as other nodes name what a node shares, and the one mapping
// from them to local files that every serving operation goes through.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "files/shares.h"

namespace qel {

// Undoes %-escapes (DecodePath, so "/" becomes "\"), collapses each run of
// "\" into one and makes the path begin with "\". Decoding a path that was
// decoded already changes nothing, so raw and parsed resources both do.
// nullopt when the escapes cannot be decoded.
std::optional<std::string> CleanRemotePath(std::string_view remotePath);

// Where a clean remote path points: an entry of the share table and the
// path inside that folder, beginning with "\".
struct ShareSpot {
  size_t index = 0;
  std::string rest;
};

// With two or more shares, the first entry whose Name the path starts with as
// "\" + Name + "\" (case-sensitive); a path naming no share lies inside entry
// 0. With one share the whole path is inside it, with no name in front.
ShareSpot ResolveShare(const std::vector<typSharedFolder>& folders, const std::string& cleanPath);

// True when name can be one component of a remote path that comes back as
// itself: no separator, NUL or "%" (decoding would change or refuse it), not
// "." or "..", and not drive-like ("X:..."). Other names cannot be served, so
// listings and searches leave them out.
bool IsAddressableName(std::string_view name);

// The folder of the share a remote path names (as the host gave it) and the
// components below it, or nullopt when nothing is shared, the path does not
// decode, or holds a NUL, a ".." or a drive-like component.
struct PathInShare {
  std::string root;
  std::vector<std::string> parts;
};
std::optional<PathInShare> SplitPathInShare(const std::vector<typSharedFolder>& folders,
                                            bool sharing, std::string_view remotePath);

// The local file or folder a remote path names, with links resolved, or
// nullopt when nothing is shared, the path does not decode, holds a NUL, a
// ".." or a drive-like component, or ends up outside its share's folder
// (through a link). The file need not exist. What it gives names a file
// only at the moment it checked: serving code opens through OpenBeneath
// (files/confined_open.h), and uses this for what it tells the host.
std::optional<std::filesystem::path> LocalPathInShare(const std::vector<typSharedFolder>& folders,
                                                      bool sharing, std::string_view remotePath);

// True when path is root or lies below it; both canonical.
bool IsInsideFolder(const std::filesystem::path& root, const std::filesystem::path& path);

}  // namespace qel
