#include <qel/advanced_settings.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <stdexcept>

#include <qel/error.h>
#include <qel/settings.h>

#include "core/text.h"
#include "node/advanced_values.h"
#include "settings/settings_text.h"

namespace qel {
namespace {

constexpr int64_t kInt32Max = INT32_MAX;

// docs/guide.md describes each key; keep the two in step.
constexpr std::array<AdvancedSetting, 26> kSettings = {{
    // The node's private key (PEM), created when missing; blank: a fresh key
    // each Initialise. First, so that a bad value of a later key, which stops
    // the reading, cannot leave the node under a fresh identity instead.
    {"keyFile", SettingType::Text, ""},
    // Next for the same reason: a bad later value must not leave the links
    // unprotected. The trust list first: a bad secureMode still keeps it.
    {"trustedPeers", SettingType::Text, ""},
    {"secureMode", SettingType::Text, "off"},
    {"Timeout", SettingType::Integer32, "500", 0, kInt32Max},
    {"TTL", SettingType::Integer32, "20", 0, kInt32Max},
    {"useEnc", SettingType::Boolean, "False"},
    {"netPass", SettingType::Text, "blankey"},
    {"useComp", SettingType::Boolean, "False"},
    {"seeSelf", SettingType::Boolean, "False"},
    {"announceSelf", SettingType::Boolean, "True"},
    {"maxRoutes", SettingType::Integer16, "10", 0, INT16_MAX},
    {"confirmMode", SettingType::Boolean, "False"},
    {"confirmTimeout", SettingType::Integer32, "30000", 0, kInt32Max},
    {"confirmRetry", SettingType::Integer32, "2", 0, kInt32Max},
    // Kilobytes: the bytes must fit 32 bits.
    {"filePacket", SettingType::Integer32, "256", 1, kInt32Max / 1024},
    {"packetCache", SettingType::Integer32, "50", 0, kInt32Max},
    // Seconds a message ID is remembered besides the packetCache list; 0:
    // only the list, as classic nodes do.
    {"dupWindow", SettingType::Integer32, "60", 0, kInt32Max},
    {"maxMessage", SettingType::Integer64, "67108864", 0, INT64_MAX},
    {"memoryBudget", SettingType::Integer64, "268435456", 0, INT64_MAX},
    {"stallTimeout", SettingType::Integer32, "30000", 0, kInt32Max},
    {"maxConnections", SettingType::Integer32, "1024", 0, kInt32Max},
    {"listenAddress", SettingType::Text, ""},
    // Seconds; the kernel takes at most 32767.
    {"keepAlive", SettingType::Integer32, "0", 0, 32767},
    // A fetch's bytes asked for and not yet here (KiB), how long it waits
    // for a piece (s) and how often it asks again before it fails.
    {"transferWindow", SettingType::Integer32, "8192", 64, kInt32Max / 1024},
    {"transferStall", SettingType::Integer32, "30", 1, 86400},
    {"transferRetries", SettingType::Integer32, "3", 0, 1000},
}};

// Text settings whose value must have a form; throws QelError 13 when it has not.
void CheckForm(std::string_view key, const Variant& value) {
  const bool fits = key == "secureMode"     ? ParseSecureMode(value.toString()).has_value()
                    : key == "trustedPeers" ? ParseKeyList(value.toString()).has_value()
                                            : true;
  if (!fits) throw QelError(errors::kTypeMismatch, "Initialise", "Type mismatch");
}

// The conversion Initialise makes; throws QelError 13 or 6.
Variant Convert(SettingType type, const Variant& value) {
  switch (type) {
    case SettingType::Boolean:
      return Variant(value.toBool());
    case SettingType::Integer16: {
      const int32_t number = value.toInt32();
      if (number < INT16_MIN || number > INT16_MAX) {
        throw QelError(errors::kOverflow, "Initialise", "Overflow");
      }
      return Variant(number);
    }
    case SettingType::Integer32:
      return Variant(value.toInt32());
    case SettingType::Integer64:
      return Variant(value.toInt64());
    case SettingType::Text:
      break;
  }
  return Variant(value.toString());
}

const AdvancedSetting* Find(std::string_view key) {
  for (const AdvancedSetting& setting : kSettings) {
    if (EqualsNoCase(setting.key, key)) return &setting;
  }
  return nullptr;
}

std::string Expected(const AdvancedSetting& setting) {
  switch (setting.type) {
    case SettingType::Boolean:
      return "must be True or False";
    case SettingType::Text:
      if (setting.key == "secureMode") return "must be off, prefer or require";
      if (setting.key == "trustedPeers") {
        return "must be key IDs (64 hex digits each) separated by commas";
      }
      return "";
    default:
      return "must be an integer from " + std::to_string(setting.min) + " to " +
             std::to_string(setting.max);
  }
}

struct Entry {
  std::string key;
  std::string value;
};

// The entries of section "Common" in the order the text has them, read back
// from the store's own text form: "\r\n    <Key>value</Key>" for an entry,
// "\r\n  <Name>" and "\r\n  </Name>" around a section. A loaded value never
// holds "</", so each one ends at the first.
std::vector<Entry> CommonEntries(const cSettings& store) {
  const std::string xml = store.getXML();
  const std::string_view text = xml;
  constexpr std::string_view kEntry = "\r\n    <", kSectionEnd = "\r\n  </", kSection = "\r\n  <";
  std::vector<Entry> entries;
  bool inCommon = false;
  for (size_t pos = text.find(kSection); pos != std::string_view::npos && pos < text.size();) {
    const std::string_view rest = text.substr(pos);
    if (rest.starts_with(kEntry)) {
      const size_t nameAt = pos + kEntry.size();
      const size_t nameEnd = text.find('>', nameAt);
      const size_t valueEnd = text.find("</", nameEnd);
      const size_t entryEnd = text.find('>', valueEnd);
      if (nameEnd == std::string_view::npos || entryEnd == std::string_view::npos) break;
      if (inCommon) {
        entries.push_back({std::string(text.substr(nameAt, nameEnd - nameAt)),
                           std::string(text.substr(nameEnd + 1, valueEnd - nameEnd - 1))});
      }
      pos = entryEnd + 1;
    } else if (rest.starts_with(kSectionEnd)) {
      inCommon = false;
      pos = text.find('>', pos + kSectionEnd.size());
      if (pos != std::string_view::npos) ++pos;
    } else if (rest.starts_with(kSection)) {
      const size_t nameAt = pos + kSection.size();
      const size_t nameEnd = text.find('>', nameAt);
      if (nameEnd == std::string_view::npos) break;
      inCommon = EqualsNoCase(text.substr(nameAt, nameEnd - nameAt), "Common");
      pos = nameEnd + 1;
    } else {
      break;
    }
  }
  return entries;
}

}  // namespace

std::optional<SecureMode> ParseSecureMode(std::string_view text) {
  text = Trim(text);
  if (EqualsNoCase(text, "off")) return SecureMode::Off;
  if (EqualsNoCase(text, "prefer")) return SecureMode::Prefer;
  if (EqualsNoCase(text, "require")) return SecureMode::Require;
  return std::nullopt;
}

std::optional<std::vector<std::string>> ParseKeyList(std::string_view text) {
  std::vector<std::string> ids;
  while (!text.empty()) {
    const size_t comma = std::min(text.find(','), text.size());
    const std::string_view item = Trim(text.substr(0, comma));
    text.remove_prefix(std::min(comma + 1, text.size()));
    if (item.empty()) continue;
    if (item.size() != 64 || !std::all_of(item.begin(), item.end(), [](char ch) {
          return std::isxdigit(static_cast<unsigned char>(ch)) != 0;
        })) {
      return std::nullopt;
    }
    std::string& id = ids.emplace_back(item);
    for (char& ch : id) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  }
  return ids;
}

std::span<const AdvancedSetting> AdvancedSettingsTable() {
  return kSettings;
}

std::vector<SettingProblem> CheckAdvancedSettings(const std::string& settingsText) {
  if (std::string why = WhyNotSettingsText(settingsText); !why.empty()) {
    return {{"", "", "not a settings text: " + why, true}};
  }
  cSettings store;
  try {
    store.LoadXML(settingsText);
  } catch (const QelError& e) {  // more entries than a store holds
    return {{"", "",
             "not a settings text: Error " + std::to_string(e.Number) + ": " + e.Description,
             true}};
  }
  std::vector<SettingProblem> problems;
  std::vector<const AdvancedSetting*> checked;
  for (const Entry& entry : CommonEntries(store)) {
    const AdvancedSetting* setting = Find(entry.key);
    if (!setting) {
      problems.push_back({entry.key, entry.value, "not a setting, ignored", false});
      continue;
    }
    // Only the first of a repeated key is read.
    if (std::find(checked.begin(), checked.end(), setting) != checked.end()) continue;
    checked.push_back(setting);
    bool fits = true;
    try {
      const Variant value = Convert(setting->type, Variant(entry.value));
      CheckForm(setting->key, value);
      if (value.kind() == Variant::Kind::Integer) {
        const int64_t number = value.toInt64();
        fits = number >= setting->min && number <= setting->max;
      }
    } catch (const QelError&) {
      fits = false;
    }
    if (!fits) problems.push_back({entry.key, entry.value, Expected(*setting), true});
  }
  return problems;
}

AdvancedValues::AdvancedValues(const std::string& settingsText) : given_(kSettings.size()) {
  if (settingsText.empty()) return;
  // Text that is not a settings text leaves every default, and says why.
  if (std::string why = WhyNotSettingsText(settingsText); !why.empty()) {
    fault_ = std::make_exception_ptr(
        QelError(errors::kCorruptSettings, "Initialise",
                 "Corrupt or incompatible XMLSettings file: advancedSettings is not a settings "
                 "text: " +
                     why));
    return;
  }
  cSettings settings;
  try {
    settings.LoadXML(settingsText);
  } catch (const QelError&) {
    fault_ = std::current_exception();  // more entries than a store holds
    return;
  }
  for (size_t i = 0; i < kSettings.size(); ++i) {
    Variant value;
    try {
      value = settings.GetSetting(std::string(kSettings[i].key), std::nullopt, "Common");
    } catch (const QelError&) {
      continue;  // not given
    }
    try {
      given_[i] = Convert(kSettings[i].type, value);
      CheckForm(kSettings[i].key, *given_[i]);
    } catch (const QelError& e) {
      // The classic number and text, then which key and what it takes.
      given_[i].reset();
      faultKey_ = kSettings[i].key;
      fault_ = std::make_exception_ptr(
          QelError(e.Number, "Initialise",
                   e.Description + ": advanced setting " + std::string(kSettings[i].key) + " = \"" +
                       value.toString() + "\" " + Expected(kSettings[i])));
      return;
    }
  }
}

size_t AdvancedValues::IndexOf(std::string_view key) const {
  for (size_t i = 0; i < kSettings.size(); ++i) {
    if (kSettings[i].key == key) return i;
  }
  throw std::logic_error("no advanced setting " + std::string(key));
}

Variant AdvancedValues::Get(std::string_view key) const {
  const size_t i = IndexOf(key);
  if (given_[i]) return *given_[i];
  return Convert(kSettings[i].type, Variant(kSettings[i].defaultValue));
}

bool AdvancedValues::Given(std::string_view key) const {
  return given_[IndexOf(key)].has_value();
}

void AdvancedValues::ThrowFault() const {
  if (fault_) std::rethrow_exception(fault_);
}

}  // namespace qel
