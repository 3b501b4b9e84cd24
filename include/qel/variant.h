// Variant: the loosely typed value of settings, header fields and events.
#pragma once

#include <chrono>
#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

#include <qel/export.h>

namespace qel {

// Holds text, a 64-bit integer, a double, a boolean or a date, and converts
// between them the classic way: numbers as plain decimal text, booleans as
// "True"/"False", dates as local time "YYYY-MM-DD HH:MM:SS". Text is bytes.
// Conversions that fail throw QelError 13 "Type mismatch"; an integer that does
// not fit throws QelError 6 "Overflow".
class QEL_API Variant {
 public:
  enum class Kind { Text, Integer, Double, Boolean, Date };
  using Clock = std::chrono::system_clock;

  Variant() = default;  // empty text
  Variant(const char* text) : kind_(Kind::Text), text_(text ? text : "") {}
  Variant(std::string text) : kind_(Kind::Text), text_(std::move(text)) {}
  Variant(std::string_view text) : kind_(Kind::Text), text_(text) {}
  template <std::integral T>
  requires(!std::same_as<T, bool> && !std::same_as<T, char>) Variant(T value)
      : kind_(Kind::Integer), int_(CheckedInt(value)) {}
  Variant(double value) : kind_(Kind::Double), double_(value) {}
  Variant(bool value) : kind_(Kind::Boolean), int_(value ? 1 : 0) {}
  Variant(Clock::time_point date);

  // The present local date and time, to the second.
  static Variant Now();

  Kind kind() const { return kind_; }

  std::string toString() const;
  int32_t toInt32() const;
  int64_t toInt64() const;
  double toDouble() const;
  bool toBool() const;
  // Dates convert to text, and from text written in the form toString() uses.
  Clock::time_point toDate() const;

  // Same kind and same value (texts compare byte for byte).
  bool operator==(const Variant& other) const;

 private:
  template <std::integral T>
  static int64_t CheckedInt(T value) {
    if constexpr (std::is_unsigned_v<T> && sizeof(T) >= sizeof(int64_t)) {
      if (value > static_cast<T>(INT64_MAX)) ThrowOverflow();
    }
    return static_cast<int64_t>(value);
  }
  [[noreturn]] static void ThrowOverflow();

  Kind kind_ = Kind::Text;
  std::string text_;
  int64_t int_ = 0;  // integers, booleans (0/1) and dates (seconds since the epoch)
  double double_ = 0;
};

}  // namespace qel
