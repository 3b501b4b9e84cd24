// cMD5: MD5 digests as the file information of a node gives them.
#pragma once

#include <filesystem>
#include <string>

#include <qel/export.h>

namespace qel {

class QEL_API cMD5 {
 public:
  // The MD5 digest of sMessage's bytes as 32 lower-case hexadecimal digits.
  std::string MD5(const std::string& sMessage) const;
};

// The MD5 of a local file's bytes, in the same form: what GetFileInfo gives
// for a remote file, so a fetched file can be checked against it. The file
// is read in chunks, never held whole. A file that cannot be read (missing,
// a folder, not a regular file) throws std::system_error naming path.
QEL_API std::string GetFileHash(const std::filesystem::path& path);

}  // namespace qel
