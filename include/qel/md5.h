// cMD5: MD5 digests as the file information of a node gives them.
#pragma once

#include <string>

#include <qel/export.h>

namespace qel {

class QEL_API cMD5 {
 public:
  // The MD5 digest of sMessage's bytes as 32 lower-case hexadecimal digits.
  std::string MD5(const std::string& sMessage) const;
};

}  // namespace qel
