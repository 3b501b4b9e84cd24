// The node's user list: one settings section per user.
#pragma once

#include <string>
#include <string_view>

namespace qel {

class cSettings;

// Writes a user's record (Password, Authority, Updated) into list; an empty
// stamp means now. A name that is empty, holds "<" or ">" or starts with
// "/", or a value holding "</", would not read back from the list's text:
// QelError 5, and nothing is written.
void SetUser(cSettings& list, const std::string& userName, const std::string& password,
             const std::string& authority, const std::string& updated = {});

// Takes each user of received whose stamp is later than the local one's (or
// whom list does not hold), keeping the received stamp; a received stamp
// that cannot be read is never taken. A record lacking Updated, or a taken
// one lacking Password or Authority, throws QelError 2 at that user: the
// users before it stay merged.
void MergeUserList(cSettings& list, cSettings& received);

// The answer to a LOGIN's "Authentication" value "name:password": "OK" when
// list holds the user with exactly that password, else "INVALID", also for a
// user list does not hold, whatever the password. A value without ":" throws
// QelError 5.
std::string LoginAnswer(cSettings& list, std::string_view authentication);

}  // namespace qel
