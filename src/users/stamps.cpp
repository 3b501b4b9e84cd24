#include "users/stamps.h"

#include <charconv>
#include <cstdio>
#include <ctime>

namespace qel {
namespace {

// The digits at the front of text as a number, taken off it.
std::optional<int> Number(std::string_view& text, size_t maxDigits) {
  size_t digits = 0;
  while (digits < text.size() && digits < maxDigits && text[digits] >= '0' && text[digits] <= '9') {
    ++digits;
  }
  int value = 0;
  if (digits == 0 || std::from_chars(text.data(), text.data() + digits, value).ec != std::errc()) {
    return std::nullopt;
  }
  text.remove_prefix(digits);
  return value;
}

bool Take(std::string_view& text, std::string_view expected) {
  if (!text.starts_with(expected)) return false;
  text.remove_prefix(expected.size());
  return true;
}

struct Fields {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
};

// "YYYY-MM-DD HH:MM:SS"
std::optional<Fields> ReadIso(std::string_view text) {
  auto y = Number(text, 4);
  if (!y || !Take(text, "-")) return std::nullopt;
  auto mo = Number(text, 2);
  if (!mo || !Take(text, "-")) return std::nullopt;
  auto d = Number(text, 2);
  if (!d || !Take(text, " ")) return std::nullopt;
  auto h = Number(text, 2);
  if (!h || !Take(text, ":")) return std::nullopt;
  auto mi = Number(text, 2);
  if (!mi || !Take(text, ":")) return std::nullopt;
  auto s = Number(text, 2);
  if (!s || !text.empty()) return std::nullopt;
  return Fields{*y, *mo, *d, *h, *mi, *s};
}

// "M/D/YYYY h:mm:ss AM", or "M/D/YYYY" for midnight.
std::optional<Fields> ReadGeneral(std::string_view text) {
  auto mo = Number(text, 2);
  if (!mo || !Take(text, "/")) return std::nullopt;
  auto d = Number(text, 2);
  if (!d || !Take(text, "/")) return std::nullopt;
  auto y = Number(text, 4);
  if (!y) return std::nullopt;
  Fields f{*y, *mo, *d};
  if (text.empty()) return f;
  if (!Take(text, " ")) return std::nullopt;
  auto h = Number(text, 2);
  if (!h || !Take(text, ":")) return std::nullopt;
  auto mi = Number(text, 2);
  if (!mi || !Take(text, ":")) return std::nullopt;
  auto s = Number(text, 2);
  if (!s || !Take(text, " ")) return std::nullopt;
  const bool pm = text == "PM";
  if (!pm && text != "AM") return std::nullopt;
  if (*h < 1 || *h > 12) return std::nullopt;
  f.hour = *h % 12 + (pm ? 12 : 0);
  f.minute = *mi;
  f.second = *s;
  return f;
}

std::optional<Stamp> LocalTime(const Fields& f) {
  const std::chrono::year_month_day date{std::chrono::year(f.year), std::chrono::month(f.month),
                                         std::chrono::day(f.day)};
  if (!date.ok() || f.year < 1900 || f.hour > 23 || f.minute > 59 || f.second > 59) {
    return std::nullopt;
  }
  std::tm tm{};
  tm.tm_year = f.year - 1900;
  tm.tm_mon = f.month - 1;
  tm.tm_mday = f.day;
  tm.tm_hour = f.hour;
  tm.tm_min = f.minute;
  tm.tm_sec = f.second;
  tm.tm_isdst = -1;
  const std::time_t t = std::mktime(&tm);
  if (t == static_cast<std::time_t>(-1)) return std::nullopt;
  return Stamp(std::chrono::seconds(t));
}

}  // namespace

std::string WriteStamp(Stamp stamp) {
  const std::time_t t = static_cast<std::time_t>(stamp.time_since_epoch().count());
  std::tm tm{};
  localtime_r(&t, &tm);
  char text[80];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
  return text;
}

std::optional<Stamp> ReadStamp(std::string_view text) {
  std::optional<Fields> fields = ReadIso(text);
  if (!fields) fields = ReadGeneral(text);
  return fields ? LocalTime(*fields) : std::nullopt;
}

bool ReceivedIsNewer(std::string_view received, std::string_view local) {
  const std::optional<Stamp> theirs = ReadStamp(received);
  if (!theirs) return false;
  const std::optional<Stamp> ours = ReadStamp(local);
  return !ours || *theirs > *ours;
}

}  // namespace qel
