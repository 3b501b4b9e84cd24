#include <qel/variant.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <optional>

#include <qel/error.h>

#include "core/text.h"

namespace qel {
namespace {

[[noreturn]] void ThrowTypeMismatch() {
  throw QelError(errors::kTypeMismatch, "Variant", "Type mismatch");
}

std::optional<int64_t> ParseRadix(std::string_view digits, int base) {
  if (digits.empty()) return std::nullopt;
  uint64_t value = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
  if (ec != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  return static_cast<int64_t>(value);
}

// A number written as text, the way the classic conversions read it: blanks
// around it, a sign, decimals and an exponent, &H hex, &O octal, and the words
// True (-1) and False (0).
struct ParsedNumber {
  bool isInteger = false;
  int64_t integer = 0;
  double real = 0;
};

std::optional<ParsedNumber> ParseNumber(std::string_view text) {
  text = Trim(text);
  if (text.empty()) return std::nullopt;
  if (EqualsNoCase(text, "True")) return ParsedNumber{true, -1, -1};
  if (EqualsNoCase(text, "False")) return ParsedNumber{true, 0, 0};
  if (text.size() > 2 && text[0] == '&') {
    char radix = static_cast<char>(text[1] | 0x20);
    auto value = radix == 'h'   ? ParseRadix(text.substr(2), 16)
                 : radix == 'o' ? ParseRadix(text.substr(2), 8)
                                : std::nullopt;
    if (!value) return std::nullopt;
    return ParsedNumber{true, *value, static_cast<double>(*value)};
  }
  std::string_view body = text;
  if (body[0] == '+') body.remove_prefix(1);
  // Only plain decimal notation: no "inf", "nan" or hex floats.
  bool sawDigit = false;
  for (char c : body) {
    if (c >= '0' && c <= '9') {
      sawDigit = true;
    } else if (c != '-' && c != '.' && c != 'e' && c != 'E' && c != '+') {
      return std::nullopt;
    }
  }
  if (!sawDigit) return std::nullopt;
  ParsedNumber result;
  const char* first = body.data();
  const char* last = body.data() + body.size();
  auto [intEnd, intEc] = std::from_chars(first, last, result.integer);
  if (intEc == std::errc() && intEnd == last) {
    result.isInteger = true;
    result.real = static_cast<double>(result.integer);
    return result;
  }
  auto [end, ec] = std::from_chars(first, last, result.real);
  if (end != last || (ec != std::errc() && ec != std::errc::result_out_of_range)) {
    return std::nullopt;
  }
  if (ec == std::errc::result_out_of_range) result.real = std::copysign(HUGE_VAL, result.real);
  return result;
}

// Banker's rounding, as the classic integer conversions do.
int64_t RoundToInt64(double value) {
  if (!std::isfinite(value)) throw QelError(errors::kOverflow, "Variant", "Overflow");
  double rounded = std::nearbyint(value);
  if (rounded < -9223372036854775808.0 || rounded >= 9223372036854775808.0) {
    throw QelError(errors::kOverflow, "Variant", "Overflow");
  }
  return static_cast<int64_t>(rounded);
}

std::tm LocalTime(int64_t seconds) {
  std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  localtime_r(&t, &tm);
  return tm;
}

// Days from 1970-01-01 to a civil date (proleptic Gregorian).
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

// The classic numeric form of a date: days since 1899-12-30, local time.
double DateSerial(int64_t seconds) {
  std::tm tm = LocalTime(seconds);
  int64_t days =
      DaysFromCivil(tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday) - DaysFromCivil(1899, 12, 30);
  return static_cast<double>(days) + (tm.tm_hour * 3600 + tm.tm_min * 60 + tm.tm_sec) / 86400.0;
}

}  // namespace

Variant::Variant(Clock::time_point date)
    : kind_(Kind::Date),
      int_(std::chrono::duration_cast<std::chrono::seconds>(date.time_since_epoch()).count()) {}

Variant Variant::Now() {
  return Variant(Clock::now());
}

void Variant::ThrowOverflow() {
  throw QelError(errors::kOverflow, "Variant", "Overflow");
}

std::string Variant::toString() const {
  switch (kind_) {
    case Kind::Text:
      return text_;
    case Kind::Integer:
      return std::to_string(int_);
    case Kind::Boolean:
      return int_ ? "True" : "False";
    case Kind::Double: {
      char buffer[32];
      std::snprintf(buffer, sizeof buffer, "%.15G", double_);
      return buffer;
    }
    case Kind::Date: {
      std::tm tm = LocalTime(int_);
      char buffer[40];
      std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d %02d:%02d:%02d", tm.tm_year + 1900,
                    tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
      return buffer;
    }
  }
  return {};
}

int64_t Variant::toInt64() const {
  switch (kind_) {
    case Kind::Integer:
      return int_;
    case Kind::Boolean:
      return int_ ? -1 : 0;
    case Kind::Double:
      return RoundToInt64(double_);
    case Kind::Date:
      return RoundToInt64(DateSerial(int_));
    case Kind::Text: {
      auto parsed = ParseNumber(text_);
      if (!parsed) ThrowTypeMismatch();
      return parsed->isInteger ? parsed->integer : RoundToInt64(parsed->real);
    }
  }
  return 0;
}

int32_t Variant::toInt32() const {
  int64_t value = toInt64();
  if (value < INT32_MIN || value > INT32_MAX) ThrowOverflow();
  return static_cast<int32_t>(value);
}

double Variant::toDouble() const {
  switch (kind_) {
    case Kind::Integer:
      return static_cast<double>(int_);
    case Kind::Boolean:
      return int_ ? -1.0 : 0.0;
    case Kind::Double:
      return double_;
    case Kind::Date:
      return DateSerial(int_);
    case Kind::Text: {
      auto parsed = ParseNumber(text_);
      if (!parsed) ThrowTypeMismatch();
      return parsed->real;
    }
  }
  return 0;
}

bool Variant::toBool() const {
  switch (kind_) {
    case Kind::Integer:
    case Kind::Boolean:
      return int_ != 0;
    case Kind::Double:
      return double_ != 0;
    case Kind::Date:
      return DateSerial(int_) != 0;
    case Kind::Text: {
      auto parsed = ParseNumber(text_);
      if (!parsed) ThrowTypeMismatch();
      return parsed->real != 0;
    }
  }
  return false;
}

Variant::Clock::time_point Variant::toDate() const {
  if (kind_ == Kind::Date) return Clock::time_point(std::chrono::seconds(int_));
  if (kind_ != Kind::Text) ThrowTypeMismatch();
  std::tm tm{};
  int matched = std::sscanf(text_.c_str(), "%d-%d-%d %d:%d:%d", &tm.tm_year, &tm.tm_mon,
                            &tm.tm_mday, &tm.tm_hour, &tm.tm_min, &tm.tm_sec);
  if (matched != 3 && matched != 6) ThrowTypeMismatch();
  if (tm.tm_mon < 1 || tm.tm_mon > 12 || tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour < 0 ||
      tm.tm_hour > 23 || tm.tm_min < 0 || tm.tm_min > 59 || tm.tm_sec < 0 || tm.tm_sec > 59) {
    ThrowTypeMismatch();
  }
  tm.tm_year -= 1900;
  tm.tm_mon -= 1;
  tm.tm_isdst = -1;
  std::time_t t = std::mktime(&tm);
  return Clock::from_time_t(t);
}

bool Variant::operator==(const Variant& other) const {
  if (kind_ != other.kind_) return false;
  switch (kind_) {
    case Kind::Text:
      return text_ == other.text_;
    case Kind::Double:
      return double_ == other.double_;
    default:
      return int_ == other.int_;
  }
}

}  // namespace qel
