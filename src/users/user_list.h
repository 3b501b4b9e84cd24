// The node's user list: one settings section per user.
#pragma once

#include <string>

namespace qel {

class cSettings;

// Writes a user's record (Password, Authority, Updated) into list; an empty
// stamp means now.
void SetUser(cSettings& list, const std::string& userName, const std::string& password,
             const std::string& authority, const std::string& updated = {});

}  // namespace qel
