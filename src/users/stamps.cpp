#include "users/stamps.h"

#include <array>
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

// "a<sep>b<sep>c": three numbers of at most the digits given.
std::optional<std::array<int, 3>> Three(std::string_view& text, char sep,
                                        std::array<size_t, 3> digits) {
  std::array<int, 3> out{};
  for (size_t i = 0; i < 3; ++i) {
    if (i > 0 && !Take(text, std::string_view(&sep, 1))) return std::nullopt;
    std::optional<int> n = Number(text, digits[i]);
    if (!n) return std::nullopt;
    out[i] = *n;
  }
  return out;
}

// "YYYY-MM-DD HH:MM:SS"
std::optional<Fields> ReadIso(std::string_view text) {
  auto date = Three(text, '-', {4, 2, 2});
  if (!date || !Take(text, " ")) return std::nullopt;
  auto time = Three(text, ':', {2, 2, 2});
  if (!time || !text.empty()) return std::nullopt;
  return Fields{(*date)[0], (*date)[1], (*date)[2], (*time)[0], (*time)[1], (*time)[2]};
}

// "M/D/YYYY h:mm:ss AM", or "M/D/YYYY" for midnight.
std::optional<Fields> ReadGeneral(std::string_view text) {
  auto date = Three(text, '/', {2, 2, 4});
  if (!date) return std::nullopt;
  Fields f{(*date)[2], (*date)[0], (*date)[1]};
  if (text.empty()) return f;
  if (!Take(text, " ")) return std::nullopt;
  auto time = Three(text, ':', {2, 2, 2});
  if (!time || !Take(text, " ")) return std::nullopt;
  const bool pm = text == "PM";
  if ((!pm && text != "AM") || (*time)[0] < 1 || (*time)[0] > 12) return std::nullopt;
  f.hour = (*time)[0] % 12 + (pm ? 12 : 0);
  f.minute = (*time)[1];
  f.second = (*time)[2];
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
