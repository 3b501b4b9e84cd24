#include "settings_target.h"

#include <string>

#include <qel/error.h>
#include <qel/settings.h>

namespace qel {

void FuzzSettingsInput(const uint8_t* data, size_t size) {
  cSettings store;
  try {
    store.LoadXML(std::string(reinterpret_cast<const char*>(data), size));
  } catch (const QelError&) {
    // Corrupt text is reported this way; the store keeps what was read.
  }
  // What was read must serialise, load again and answer lookups; anything
  // thrown here other than a QelError reaches libFuzzer as a crash.
  try {
    cSettings copy;
    copy.LoadXML(store.getXML());
    for (const std::string& section : copy.ListSections(true)) {
      if (section.empty()) continue;
      copy.GetSettingArray(section, std::vector<std::string>{});
      copy.GetSetting("Count", Variant(""), section);
      copy.SaveSetting("Fuzz", Variant(1), section);
      copy.DeleteSetting("Count", section);
    }
    copy.getXML();
  } catch (const QelError&) {
    // Values are stored unescaped, so some texts that load do not load again.
  }
}

}  // namespace qel
