#include "users/user_list.h"

#include <qel/error.h>
#include <qel/settings.h>

#include "users/stamps.h"

namespace qel {
namespace {

// The list travels as its text form, which escapes nothing: a name or value
// that would not read back would cut the list short on every node it
// reaches.
bool ReadsBack(std::string_view value) {
  return value.find("</") == std::string_view::npos &&
         value.find("<Settings>") == std::string_view::npos;
}

bool IsUserName(std::string_view name) {
  return !name.empty() && name.find_first_of("<>") == std::string_view::npos &&
         !name.starts_with('/') && name != "Settings" && ReadsBack(name);
}

}  // namespace

void SetUser(cSettings& list, const std::string& userName, const std::string& password,
             const std::string& authority, const std::string& updated) {
  if (!IsUserName(userName) || !ReadsBack(password) || !ReadsBack(authority) ||
      !ReadsBack(updated)) {
    throw QelError(5, "SetUser", "Invalid procedure call or argument");
  }
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
