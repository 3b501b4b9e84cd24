// The node's user list: one settings section per user.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "users/stamps.h"

namespace qel {

class cSettings;

// Caps of the list: any node may add users to it, and every SYNCUSERS is
// answered with all of it.
inline constexpr size_t kMaxUserValue = 4096;  // each of name, password, authority, stamp
inline constexpr size_t kMaxUsers = 1024;
inline constexpr size_t kMaxUserListBytes = 256 * 1024;  // of its text
// How far ahead of this node's clock a received stamp may be: a record
// stamped years ahead would beat every later change.
inline constexpr std::chrono::hours kMaxStampAhead{24};

// Writes a user's record (Password, Authority, Updated) into list; an empty
// stamp means now. A name that is empty, holds "<" or ">" or starts with
// "/", or a value holding "</", would not read back from the list's text:
// QelError 5. A value longer than kMaxUserValue, or a record that would
// take the list past kMaxUsers or kMaxUserListBytes: QelError 6 saying
// which. Nothing is written then. Measures the whole list.
void SetUser(cSettings& list, const std::string& userName, const std::string& password,
             const std::string& authority, const std::string& updated = {});

// The records MergeUserList left out.
struct MergeRefusals {
  size_t tooLarge = 0;  // past the caps
  size_t future = 0;    // stamped more than kMaxStampAhead after now
};

// Takes each user of received whose stamp is later than the local one's (or
// whom list does not hold), keeping the received stamp; a received stamp
// that cannot be read is never taken, nor one more than kMaxStampAhead after
// now, nor a record past the caps (each counted in refused). A record
// lacking Updated, or a taken one lacking Password or Authority, throws
// QelError 2 at that user: the users before it stay merged.
void MergeUserList(cSettings& list, cSettings& received, Stamp now, MergeRefusals& refused);

// The answer to a LOGIN's "Authentication" value "name:password": "OK" when
// list holds the user with exactly that password, else "INVALID", also for a
// user list does not hold, whatever the password. A value without ":" throws
// QelError 5.
std::string LoginAnswer(cSettings& list, std::string_view authentication);

}  // namespace qel
