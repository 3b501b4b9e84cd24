#include "node/user_settings.h"

#include <cstdlib>
#include <filesystem>

#include <qel/settings.h>

namespace qel {
namespace {

std::string DefaultPath() {
  std::filesystem::path base;
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg) {
    base = xdg;
  } else if (const char* home = std::getenv("HOME"); home && *home) {
    base = std::filesystem::path(home) / ".config";
  } else {
    return {};
  }
  return (base / "Mardek QEL" / "settings.xml").string();
}

}  // namespace

UserSettings::UserSettings() : path_(DefaultPath()) {}

std::string UserSettings::Get(const std::string& section, const std::string& key,
                              const std::string& fallback) const {
  std::error_code ec;
  if (path_.empty() || !std::filesystem::exists(path_, ec)) return fallback;
  try {
    cSettings store;
    store.LoadSettings(path_);
    return store.GetSetting(key, Variant(fallback), section).toString();
  } catch (const std::exception&) {
    return fallback;  // a damaged per-user file must not stop a node
  }
}

void UserSettings::Set(const std::string& section, const std::string& key,
                       const std::string& value) const {
  cSettings store;
  std::error_code ec;
  if (std::filesystem::exists(path_, ec)) {
    try {
      store.LoadSettings(path_);
    } catch (const std::exception&) {
      // keep what was read; the file is rewritten whole below
    }
  }
  store.SaveSetting(key, Variant(value), section);
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
  store.SaveSettings(path_);
}

}  // namespace qel
