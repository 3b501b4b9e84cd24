// The advanced settings of an Initialise call, read from its text through
// the table of include/qel/advanced_settings.h.
#pragma once

#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <qel/advanced_settings.h>
#include <qel/variant.h>

#include "net/link_owner.h"

namespace qel {

// The mode secureMode names (off, prefer or require, in any case); none for other text.
std::optional<SecureMode> ParseSecureMode(std::string_view text);
// The key IDs of a trustedPeers value, lower-cased, blanks and empty items dropped; none
// when an item is not 64 hex digits.
std::optional<std::vector<std::string>> ParseKeyList(std::string_view text);

class AdvancedValues {
 public:
  // Reads the keys in table order, each converted to its type. A value that
  // does not convert stops the reading: it and the keys after it count as
  // not given, and ThrowFault() raises its QelError. A text that is not a
  // settings text gives nothing, without a fault.
  explicit AdvancedValues(const std::string& settingsText);

  // The converted value, or the key's default when the text did not give it.
  Variant Get(std::string_view key) const;
  bool Given(std::string_view key) const;
  // Rethrows what stopped the reading, if anything did.
  void ThrowFault() const;
  // The key whose value stopped the reading; empty when none did.
  std::string_view FaultKey() const { return faultKey_; }

 private:
  size_t IndexOf(std::string_view key) const;

  std::vector<std::optional<Variant>> given_;  // in table order
  std::exception_ptr fault_;
  std::string_view faultKey_;
};

}  // namespace qel
