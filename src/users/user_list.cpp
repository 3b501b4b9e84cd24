#include "users/user_list.h"

#include <qel/error.h>
#include <qel/settings.h>

#include "users/stamps.h"

namespace qel {

void SetUser(cSettings& list, const std::string& userName, const std::string& password,
             const std::string& authority, const std::string& updated) {
  list.SaveSetting("Password", password, userName);
  list.SaveSetting("Authority", authority, userName);
  list.SaveSetting("Updated",
                   updated.empty() ? WriteStamp(std::chrono::floor<std::chrono::seconds>(
                                         std::chrono::system_clock::now()))
                                   : updated,
                   userName);
}

void MergeUserList(cSettings& list, cSettings& received) {
  const std::vector<std::string> users = received.ListSections();
  for (size_t i = 1; i < users.size(); ++i) {
    const std::string& user = users[i];
    const std::string stamp = received.GetSetting("updated", std::nullopt, user).toString();
    const std::string local = list.GetSetting("updated", "", user).toString();
    if (!ReceivedIsNewer(stamp, local)) continue;
    SetUser(list, user, received.GetSetting("password", std::nullopt, user).toString(),
            received.GetSetting("authority", std::nullopt, user).toString(), stamp);
  }
}

std::string LoginAnswer(cSettings& list, std::string_view authentication) {
  const size_t colon = authentication.find(':');
  if (colon == std::string_view::npos) {
    throw QelError(5, "LOGIN", "Invalid procedure call or argument");
  }
  const std::string user(authentication.substr(0, colon));
  // An absent key (a user removed here keeps an empty section) is no user.
  const Variant known = list.GetSetting("Password", Variant(false), user);
  if (known.kind() != Variant::Kind::Text) return "INVALID";
  return known.toString() == authentication.substr(colon + 1) ? "OK" : "INVALID";
}

}  // namespace qel
