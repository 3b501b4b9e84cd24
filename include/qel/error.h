// QelError: how QEL reports misuse to the host.
#pragma once

#include <cstdint>
#include <exception>
#include <string>

#include <qel/export.h>

namespace qel {

// A numbered error with the routine that raised it. Raised for misuse (a call
// on a node that was shut down, a call from a thread other than the event
// loop's, a settings key with a space, ...); faults that
// happen while a node works are reported through its Error event instead.
class QEL_API QelError : public std::exception {
 public:
  QelError(int32_t number, std::string source, std::string description);

  // Returns Description.
  const char* what() const noexcept override;

  int32_t Number;
  std::string Source;
  std::string Description;
};

// The error numbers QEL raises. The first four are application codes
// (hexadecimal 80040001 and up); the small ones are the classic run-time codes.
// kWrongThread: a call on a thread other than the event loop's (see
// <qel/event_loop.h>).
namespace errors {
inline constexpr int32_t kNotInitialised = -2147221503;    // 0x80040001
inline constexpr int32_t kInvalidSession = -2147221502;    // 0x80040002
inline constexpr int32_t kListenPortInUse = -2147221501;   // 0x80040003
inline constexpr int32_t kWrongThread = -2147221500;       // 0x80040004
inline constexpr int32_t kNewLineInField = -2147220991;    // 0x80040201
inline constexpr int32_t kArrayFieldUpdate = -2147220990;  // 0x80040202
inline constexpr int32_t kSettingNotFound = 2;
inline constexpr int32_t kFileNotFound = 3;
inline constexpr int32_t kCorruptSettings = 4;
inline constexpr int32_t kBadTag = 5;
inline constexpr int32_t kOverflow = 6;
inline constexpr int32_t kOutOfMemory = 7;
inline constexpr int32_t kSubscriptOutOfRange = 9;
inline constexpr int32_t kTypeMismatch = 13;
}  // namespace errors

}  // namespace qel
