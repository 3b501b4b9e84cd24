#include "users/user_list.h"

#include <qel/settings.h>

namespace qel {

void SetUser(cSettings& list, const std::string& userName, const std::string& password,
             const std::string& authority, const std::string& updated) {
  list.SaveSetting("Password", password, userName);
  list.SaveSetting("Authority", authority, userName);
  list.SaveSetting("Updated", updated.empty() ? Variant::Now() : Variant(updated), userName);
}

}  // namespace qel
