#include "users/user_list.h"

#include <qel/error.h>
#include <qel/settings.h>

#include <algorithm>

#include "core/text.h"
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

bool ValuesFit(const std::string& userName, const std::string& password,
               const std::string& authority, const std::string& updated) {
  for (const std::string* value : {&userName, &password, &authority, &updated}) {
    if (value->size() > kMaxUserValue) return false;
  }
  return true;
}

// A record's share of the list's text: the user's tags and the three keys'
// tags around the values, with their indentation.
size_t RecordBytes(const std::string& userName, const std::string& password,
                   const std::string& authority, const std::string& updated) {
  constexpr size_t kTags = 100;
  return 2 * userName.size() + password.size() + authority.size() + updated.size() + kTags;
}

bool HasUser(cSettings& list, const std::string& userName) {
  for (const std::string& user : list.ListSections()) {
    if (!user.empty() && EqualsNoCase(user, userName)) return true;
  }
  return false;
}

// The list's size as the caps count it, followed while a merge adds users.
struct ListSize {
  size_t users = 0;
  size_t bytes = 0;

  explicit ListSize(cSettings& list)
      : users(list.ListSections().size() - 1), bytes(list.getXML().size()) {}

  // Whether the record fits in place of the user's own, if any; counted
  // when it does.
  bool Take(cSettings& list, const std::string& userName, size_t recordBytes) {
    const bool known = HasUser(list, userName);
    size_t old = 0;
    if (known) {
      auto value = [&](const char* key) { return list.GetSetting(key, "", userName).toString(); };
      old = RecordBytes(userName, value("Password"), value("Authority"), value("Updated"));
    }
    const size_t after = bytes - std::min(old, bytes) + recordBytes;
    if ((!known && users >= kMaxUsers) || after > kMaxUserListBytes) return false;
    users += known ? 0 : 1;
    bytes = after;
    return true;
  }
};

void WriteUser(cSettings& list, const std::string& userName, const std::string& password,
               const std::string& authority, const std::string& updated) {
  list.SaveSetting("Password", password, userName);
  list.SaveSetting("Authority", authority, userName);
  list.SaveSetting("Updated", updated, userName);
}

}  // namespace

void SetUser(cSettings& list, const std::string& userName, const std::string& password,
             const std::string& authority, const std::string& updated) {
  if (!IsUserName(userName) || !ReadsBack(password) || !ReadsBack(authority) ||
      !ReadsBack(updated)) {
    throw QelError(5, "SetUser", "Invalid procedure call or argument");
  }
  if (!ValuesFit(userName, password, authority, updated)) {
    throw QelError(errors::kOverflow, "SetUser",
                   "A user's name, password, authority and stamp hold at most " +
                       std::to_string(kMaxUserValue) + " bytes each");
  }
  const std::string stamp =
      updated.empty()
          ? WriteStamp(std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()))
          : updated;
  if (!ListSize(list).Take(list, userName, RecordBytes(userName, password, authority, stamp))) {
    throw QelError(errors::kOverflow, "SetUser",
                   "The user list holds at most " + std::to_string(kMaxUsers) + " users and " +
                       std::to_string(kMaxUserListBytes) + " bytes of text");
  }
  WriteUser(list, userName, password, authority, stamp);
}

void MergeUserList(cSettings& list, cSettings& received, Stamp now, MergeRefusals& refused) {
  const std::vector<std::string> users = received.ListSections();
  ListSize size(list);
  for (size_t i = 1; i < users.size(); ++i) {
    const std::string& user = users[i];
    const std::string stamp = received.GetSetting("updated", std::nullopt, user).toString();
    if (const std::optional<Stamp> when = ReadStamp(stamp); when && *when > now + kMaxStampAhead) {
      ++refused.future;
      continue;
    }
    const std::string local = list.GetSetting("updated", "", user).toString();
    if (!ReceivedIsNewer(stamp, local)) continue;
    const std::string password = received.GetSetting("password", std::nullopt, user).toString();
    const std::string authority = received.GetSetting("authority", std::nullopt, user).toString();
    if (!IsUserName(user) || !ReadsBack(password) || !ReadsBack(authority) || !ReadsBack(stamp)) {
      throw QelError(5, "SetUser", "Invalid procedure call or argument");
    }
    if (!ValuesFit(user, password, authority, stamp) ||
        !size.Take(list, user, RecordBytes(user, password, authority, stamp))) {
      ++refused.tooLarge;
      continue;
    }
    WriteUser(list, user, password, authority, stamp);
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
