// cSettings: a small sectioned key/value store with its own text form.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <qel/export.h>
#include <qel/variant.h>

namespace qel {

// Keys live in named sections ("Common" by default); key and section lookups
// ignore case, and names keep the case they were first saved with. The text
// form is
//   <Settings>\r\n  <Section>\r\n    <Key>value</Key>\r\n  </Section>\r\n</Settings>
// with nothing escaped. Values loaded from text come back as text. Errors are
// QelErrors with the small classic numbers: 2 not found, 3 file not found,
// 4 corrupt text, 5 bad key. Not thread-safe; copyable.
class QEL_API cSettings {
 public:
  cSettings();
  ~cSettings();
  cSettings(const cSettings&);
  cSettings& operator=(const cSettings&);
  cSettings(cSettings&&) noexcept;
  cSettings& operator=(cSettings&&) noexcept;

  // The whole store in its text form.
  std::string getXML() const;
  // Adds a "FileInfo" section (version, time, build, product) and writes
  // getXML() to strPath byte for byte, replacing any file there. File-system
  // failures throw std::system_error.
  void SaveSettings(const std::string& strPath);
  // Replaces the store with the content of strData. Returns true when all of it
  // was read; corrupt text throws QelError 4 and keeps what was read before the
  // fault.
  bool LoadXML(std::string strData);
  // LoadXML of a file's bytes; a missing file throws QelError 3.
  bool LoadSettings(const std::string& strPath);
  // When set, SaveSetting appends a new entry without looking for an old one.
  void ClearPrevOnSave(bool value);
  // Stores a value; a key holding a space throws QelError 5.
  void SaveSetting(const std::string& strName, const Variant& varValue,
                   const std::string& strSection = "Common");
  // Removes a key from a section; a key that is not there is ignored.
  void DeleteSetting(const std::string& strName, const std::string& strSection = "Common");
  // Reads an array saved with SaveSettingArray; without a default, a missing
  // array throws QelError 2.
  std::vector<std::string> GetSettingArray(const std::string& strKey,
                                           std::optional<std::vector<std::string>> DefaultVal = {});
  // Saves an array as section strKey with "Count" (the last index) and keys
  // "0", "1", ...
  void SaveSettingArray(const std::string& strKey, const std::vector<std::string>& strArray);
  // Reads a value; without a default, a missing key throws QelError 2.
  Variant GetSetting(const std::string& strName, std::optional<Variant> DefaultVal = {},
                     const std::string& strSection = "Common");
  // Section names in table order after an empty element 0; "Common" is left
  // out unless bIncludeCommon.
  std::vector<std::string> ListSections(bool bIncludeCommon = false);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qel
