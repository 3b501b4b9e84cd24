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

namespace qel {

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

 private:
  size_t IndexOf(std::string_view key) const;

  std::vector<std::optional<Variant>> given_;  // in table order
  std::exception_ptr fault_;
};

}  // namespace qel
