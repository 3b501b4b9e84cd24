// The per-user settings store of application "Mardek QEL": a settings text
// in $XDG_CONFIG_HOME/Mardek QEL/settings.xml (~/.config without
// XDG_CONFIG_HOME), one section per settings section.
#pragma once

#include <string>

namespace qel {

class UserSettings {
 public:
  // The store at the default per-user location.
  UserSettings();
  explicit UserSettings(std::string path) : path_(std::move(path)) {}

  // The value of key in section, or fallback when the store, the section or
  // the key is missing or the file cannot be read.
  std::string Get(const std::string& section, const std::string& key,
                  const std::string& fallback) const;
  // Writes one value, creating the folder and file as needed. Throws
  // std::system_error or QelError when it cannot.
  void Set(const std::string& section, const std::string& key, const std::string& value) const;

  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace qel
