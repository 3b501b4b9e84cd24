// The advanced settings Initialise reads, and a check of a settings text
// against them before it is used.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <qel/export.h>

namespace qel {

enum class SettingType : int32_t { Boolean, Integer16, Integer32, Integer64, Text };

// One key of section "Common". Initialise converts the value to type; min
// and max are the numbers that make sense for an integer, which only
// CheckAdvancedSettings holds values to.
struct AdvancedSetting {
  std::string_view key;
  SettingType type;
  std::string_view defaultValue;  // as the settings text writes it
  int64_t min = 0;
  int64_t max = 0;
};

// Every key, in the order Initialise reads them.
QEL_API std::span<const AdvancedSetting> AdvancedSettingsTable();

struct SettingProblem {
  std::string key;    // empty when the text itself does not load
  std::string value;  // as the text has it
  std::string message;
  bool isError = false;  // false: a warning, e.g. a key Initialise does not read
};

// What is wrong with an advancedSettings text before Initialise reads it:
// a text that does not load, values of the wrong type or out of range
// (errors), and keys of section "Common" that are not settings (warnings).
// Empty when the text is fine; "" is fine.
QEL_API std::vector<SettingProblem> CheckAdvancedSettings(const std::string& settingsText);

}  // namespace qel
