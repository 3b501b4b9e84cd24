#include <qel/settings.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>

#include <qel/error.h>
#include <qel/version.h>

#include "core/text.h"
#include "settings/settings_text.h"

namespace qel {
namespace {

// Entry and section indices are 16-bit signed, so a store holds at most this
// many of each.
constexpr size_t kMaxCount = INT16_MAX;

constexpr std::string_view kCrLf = "\r\n";
constexpr const char* kDefaultSection = "Common";

[[noreturn]] void ThrowCorrupt() {
  throw QelError(errors::kCorruptSettings, "LoadSettings",
                 "Corrupt or incompatible XMLSettings file");
}

[[noreturn]] void ThrowOverflow(const char* source) {
  throw QelError(errors::kOverflow, source, "Overflow");
}

[[noreturn]] void ThrowFileError(const std::string& what) {
  int code = errno != 0 ? errno : EIO;
  throw std::system_error(code, std::generic_category(), what);
}

// Removes every non-overlapping occurrence of marker, scanning left to right
// once, so a marker rebuilt by a removal stays.
void RemoveAll(std::string& text, std::string_view marker) {
  size_t hit = text.find(marker);
  if (hit == std::string::npos) return;
  std::string out;
  out.reserve(text.size());
  size_t from = 0;
  for (; hit != std::string::npos; hit = text.find(marker, from)) {
    out.append(text, from, hit - from);
    from = hit + marker.size();
  }
  out.append(text, from, std::string::npos);
  text = std::move(out);
}

// A tag's name: what follows its "<" up to its first ">".
std::string_view NameFromXML(std::string_view tag) {
  size_t close = tag.find('>');
  return tag.substr(1, close == std::string_view::npos ? std::string_view::npos : close - 1);
}

// The value of one entry's text, or nothing when its end tag is missing.
// entryText runs from the "<" through the first ">" after its first "</", and
// a name never holds ">", so the only place "</name>" can sit inside it is its
// very end: checking the tail is the same as searching for the first one.
std::optional<std::string_view> FromXML(std::string_view entryText, std::string_view name) {
  const size_t valueStart = name.size() + 2;
  const size_t endTagSize = name.size() + 3;
  if (entryText.size() < valueStart + endTagSize) return std::nullopt;
  const size_t endTag = entryText.size() - endTagSize;
  if (entryText.compare(endTag, 2, "</") != 0 ||
      !EqualsNoCase(entryText.substr(endTag + 2, name.size()), name)) {
    return std::nullopt;
  }
  return entryText.substr(valueStart, endTag - valueStart);
}

// Matches how SaveSettingArray names elements: plain decimal, no sign or
// leading zeros. Returns -1 for any other key.
int32_t ArrayIndexOf(std::string_view key) {
  if (key.empty() || key.size() > 5 || (key.size() > 1 && key[0] == '0')) return -1;
  int32_t index = -1;
  auto [end, ec] = std::from_chars(key.data(), key.data() + key.size(), index);
  if (ec != std::errc() || end != key.data() + key.size() || index < 0) return -1;
  return index;
}

}  // namespace

struct cSettings::Impl {
  struct Entry {
    std::string name;
    std::string section;
    Variant value;
  };
  struct Section {
    std::string name;
    std::vector<int16_t> entries;  // indices into Impl::entries, in saved order
  };

  std::vector<Entry> entries;
  std::vector<Section> sections;
  // Upper-cased section name to index, so a text with many sections loads in
  // linear time.
  std::unordered_map<std::string, int16_t> sectionIndex;
  bool clearPrevOnSave = false;

  void resetClass() {
    entries.clear();
    sections.clear();
    sectionIndex.clear();
  }

  int GetEntryIndex(std::string_view name, std::string_view section) const {
    for (size_t i = 0; i < entries.size(); ++i) {
      if (EqualsNoCase(entries[i].name, name) && EqualsNoCase(entries[i].section, section)) {
        return static_cast<int>(i);
      }
    }
    return -1;
  }

  int FindSection(std::string_view name) const {
    auto it = sectionIndex.find(ToUpper(name));
    return it == sectionIndex.end() ? -1 : it->second;
  }

  // Callers check the section limit first, so a failed save leaves no trace.
  int AddSection(std::string_view name) {
    int found = FindSection(name);
    if (found >= 0) return found;
    auto index = static_cast<int16_t>(sections.size());
    sections.push_back({std::string(name), {}});
    sectionIndex.emplace(ToUpper(name), index);
    return index;
  }

  bool EntryInSection(int entry, int section) const {
    for (int16_t listed : sections[section].entries) {
      if (listed == entry) return true;
    }
    return false;
  }

  void AddEntryToSection(int entry, int section, bool checkListed) {
    if (checkListed && EntryInSection(entry, section)) return;
    sections[section].entries.push_back(static_cast<int16_t>(entry));
  }

  std::string MakeXML(const Entry& entry) const {
    std::string text;
    text.append("<").append(entry.name).append(">");
    text.append(entry.value.toString());
    text.append("</").append(entry.name).append(">");
    return text;
  }
};

cSettings::cSettings() : impl_(std::make_unique<Impl>()) {}
cSettings::~cSettings() = default;
cSettings::cSettings(const cSettings& other)
    : impl_(other.impl_ ? std::make_unique<Impl>(*other.impl_) : nullptr) {}
cSettings& cSettings::operator=(const cSettings& other) {
  if (this != &other) {
    impl_ = other.impl_ ? std::make_unique<Impl>(*other.impl_) : nullptr;
  }
  return *this;
}
cSettings::cSettings(cSettings&&) noexcept = default;
cSettings& cSettings::operator=(cSettings&&) noexcept = default;

std::string cSettings::getXML() const {
  std::string xml = "<Settings>";
  for (const Impl::Section& section : impl_->sections) {
    xml.append(kCrLf).append("  <").append(section.name).append(">");
    for (int16_t entry : section.entries) {
      xml.append(kCrLf).append("    ").append(impl_->MakeXML(impl_->entries[entry]));
    }
    xml.append(kCrLf).append("  </").append(section.name).append(">");
  }
  xml.append(kCrLf).append("</Settings>");
  return xml;
}

void cSettings::SaveSettings(const std::string& strPath) {
  SaveSetting("XMLSettingsVer", Variant("2.4"), "FileInfo");
  SaveSetting("LastSaved", Variant::Now(), "FileInfo");
  SaveSetting("AppBuild", Variant(static_cast<int16_t>(QEL_VERSION_PATCH)), "FileInfo");
  SaveSetting("AppName", Variant("Mardek QEL"), "FileInfo");

  const std::string xml = getXML();
  errno = 0;
  std::ofstream out(strPath, std::ios::binary | std::ios::trunc);
  if (!out) ThrowFileError("SaveSettings: " + strPath);
  out.write(xml.data(), static_cast<std::streamsize>(xml.size()));
  out.close();
  if (!out) ThrowFileError("SaveSettings: " + strPath);
}

namespace {

// Walks a settings text (with its <Settings> markers removed) as the store
// reads it, calling onSection(name) and onEntry(name, value) in order, and
// onStray(text) for non-blank text outside every entry, which the store
// skips. Throws QelError 4 where the text cannot be read on.
template <class OnSection, class OnEntry, class OnStray>
void WalkSettingsText(std::string_view data, OnSection onSection, OnEntry onEntry,
                      OnStray onStray) {
  size_t pos = 0;
  bool inSection = false;
  std::string_view sectionName;
  auto skipped = [&](size_t end) {
    constexpr std::string_view kBlank = " \t\r\n\v\f";
    std::string_view gap = data.substr(pos, end - pos);
    const size_t first = gap.find_first_not_of(kBlank);
    if (first == std::string_view::npos) return;
    gap = gap.substr(first, gap.find_last_not_of(kBlank) - first + 1);
    onStray(gap);
  };
  while (true) {
    const size_t open = data.find('<', pos);
    if (open == std::string_view::npos) return skipped(data.size());
    skipped(open);
    const size_t close = data.find('>', open);
    if (close == std::string_view::npos) ThrowCorrupt();
    const std::string_view name = NameFromXML(data.substr(open, close - open + 1));

    if (!inSection) {
      onSection(name);
      sectionName = name;
      inSection = true;
      pos = close + 1;
      continue;
    }

    // The section end must repeat the start tag's case exactly.
    if (name.size() == sectionName.size() + 1 && name[0] == '/' && name.substr(1) == sectionName) {
      inSection = false;
      sectionName = {};
      pos = close + 1;
      continue;
    }

    const size_t endTagOpen = data.find("</", open);
    if (endTagOpen == std::string_view::npos) ThrowCorrupt();
    const size_t entryEnd = data.find('>', endTagOpen + 2);
    if (entryEnd == std::string_view::npos) ThrowCorrupt();
    const std::optional<std::string_view> value =
        FromXML(data.substr(open, entryEnd - open + 1), name);
    if (!value) ThrowCorrupt();
    onEntry(name, sectionName, *value);
    pos = entryEnd + 1;
  }
}

}  // namespace

bool cSettings::LoadXML(std::string strData) {
  RemoveAll(strData, "<Settings>");
  RemoveAll(strData, "</Settings>");
  Impl& s = *impl_;
  s.resetClass();
  int section = -1;
  WalkSettingsText(
      strData,
      [&](std::string_view name) {
        // A text with more sections than the store can index is not one this
        // store wrote; report it like any other text it cannot read.
        if (s.FindSection(name) < 0 && s.sections.size() >= kMaxCount) ThrowCorrupt();
        section = s.AddSection(name);
      },
      [&](std::string_view name, std::string_view sectionName, std::string_view value) {
        if (s.entries.size() >= kMaxCount) ThrowCorrupt();
        s.entries.push_back({std::string(name), std::string(sectionName), Variant(value)});
        // Loading never merges repeated keys: the first one read wins on lookup.
        s.AddEntryToSection(static_cast<int>(s.entries.size() - 1), section, false);
      },
      [](std::string_view) {});  // skipped, as the classic store does
  return true;
}

std::string WhyNotSettingsText(std::string text) {
  RemoveAll(text, "<Settings>");
  RemoveAll(text, "</Settings>");
  std::string why;
  try {
    WalkSettingsText(
        text, [](std::string_view) {}, [](std::string_view, std::string_view, std::string_view) {},
        [&why](std::string_view stray) {
          if (!why.empty()) return;
          // Its first line, cut short: enough to recognise the file.
          constexpr size_t kShown = 24;
          const size_t shown = std::min({kShown, stray.find_first_of("\r\n"), stray.size()});
          why = "text outside any entry: \"" + std::string(stray.substr(0, shown)) +
                (shown < stray.size() ? "...\"" : "\"");
        });
  } catch (const QelError& e) {
    return "it does not load (Error " + std::to_string(e.Number) + ": " + e.Description + ")";
  }
  return why;
}

bool cSettings::LoadSettings(const std::string& strPath) {
  std::error_code ec;
  const auto status = std::filesystem::status(strPath, ec);
  if (status.type() == std::filesystem::file_type::not_found) {
    throw QelError(errors::kFileNotFound, "LoadSettings", "File Not Found: " + strPath);
  }
  if (ec) throw std::system_error(ec, "LoadSettings: " + strPath);
  // A directory opens as a stream that reads nothing; never load it as empty.
  if (status.type() == std::filesystem::file_type::directory) {
    throw std::system_error(EISDIR, std::generic_category(), "LoadSettings: " + strPath);
  }
  errno = 0;
  std::ifstream in(strPath, std::ios::binary);
  if (!in) ThrowFileError("LoadSettings: " + strPath);
  std::string data{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (in.bad()) ThrowFileError("LoadSettings: " + strPath);
  return LoadXML(std::move(data));
}

void cSettings::ClearPrevOnSave(bool value) {
  impl_->clearPrevOnSave = value;
}

void cSettings::SaveSetting(const std::string& strName, const Variant& varValue,
                            const std::string& strSection) {
  if (strName.find(' ') != std::string::npos) {
    throw QelError(errors::kBadTag, "SaveSetting", "Space characters not allowed in tag");
  }
  // Kept as the classic store has it: it tests the name, not the value, so it
  // never fires and a value holding its own end tag loads back cut short.
  const std::string upperName = ToUpper(strName);
  if (upperName.find("</" + upperName + ">") != std::string::npos) {
    throw QelError(errors::kBadTag, "SaveSetting", "End tag marker not allowed in data");
  }

  Impl& s = *impl_;
  const int found = s.clearPrevOnSave ? -1 : s.GetEntryIndex(strName, strSection);
  const bool sectionMissing = s.FindSection(strSection) < 0;
  if ((found < 0 && s.entries.size() >= kMaxCount) ||
      (sectionMissing && s.sections.size() >= kMaxCount)) {
    ThrowOverflow("SaveSetting");
  }

  int entry = found;
  if (entry < 0) {
    s.entries.push_back({strName, {}, {}});
    entry = static_cast<int>(s.entries.size() - 1);
  }
  s.entries[entry].value = varValue;
  s.entries[entry].section = strSection;
  const int section = s.AddSection(strSection);
  s.AddEntryToSection(entry, section, !s.clearPrevOnSave);
}

void cSettings::DeleteSetting(const std::string& strName, const std::string& strSection) {
  Impl& s = *impl_;
  // Every copy goes: with ClearPrevOnSave, or after loading a text that
  // repeats a key, one deletion must still make the key disappear.
  std::vector<int> remap(s.entries.size());
  std::vector<Impl::Entry> kept;
  kept.reserve(s.entries.size());
  bool removed = false;
  for (size_t i = 0; i < s.entries.size(); ++i) {
    Impl::Entry& e = s.entries[i];
    if (EqualsNoCase(e.name, strName) && EqualsNoCase(e.section, strSection)) {
      remap[i] = -1;
      removed = true;
    } else {
      remap[i] = static_cast<int>(kept.size());
      kept.push_back(std::move(e));
    }
  }
  if (!removed) return;
  s.entries = std::move(kept);
  for (Impl::Section& section : s.sections) {
    std::vector<int16_t> listed;
    listed.reserve(section.entries.size());
    for (int16_t old : section.entries) {
      if (remap[old] >= 0) listed.push_back(static_cast<int16_t>(remap[old]));
    }
    section.entries = std::move(listed);
  }
}

std::vector<std::string> cSettings::GetSettingArray(
    const std::string& strKey, std::optional<std::vector<std::string>> DefaultVal) {
  const Impl& s = *impl_;
  const int countEntry = s.GetEntryIndex("Count", strKey);
  if (countEntry < 0) {
    if (DefaultVal) return std::move(*DefaultVal);
    throw QelError(errors::kSettingNotFound, "GetSettingArray", "Setting array not found");
  }
  const int32_t count = s.entries[countEntry].value.toInt32();
  if (count < INT16_MIN || count > INT16_MAX) ThrowOverflow("GetSettingArray");
  if (count < -1) {
    throw QelError(errors::kSubscriptOutOfRange, "GetSettingArray", "Subscript out of range");
  }

  // One pass instead of a lookup per element; the first match of each key
  // wins, as GetSetting's would.
  std::vector<std::string> result(static_cast<size_t>(count + 1));
  std::vector<bool> filled(result.size(), false);
  for (const Impl::Entry& e : s.entries) {
    if (!EqualsNoCase(e.section, strKey)) continue;
    const int32_t index = ArrayIndexOf(e.name);
    if (index < 0 || index > count || filled[index]) continue;
    result[index] = e.value.toString();
    filled[index] = true;
  }
  for (size_t i = 0; i < filled.size(); ++i) {
    if (!filled[i]) GetSetting(std::to_string(i), std::nullopt, strKey);  // throws "not found"
  }
  return result;
}

void cSettings::SaveSettingArray(const std::string& strKey,
                                 const std::vector<std::string>& strArray) {
  // "Count" holds the upper bound, not the number of elements.
  const int64_t upperBound = static_cast<int64_t>(strArray.size()) - 1;
  SaveSetting("Count", Variant(upperBound), strKey);
  for (size_t i = 0; i < strArray.size(); ++i) {
    SaveSetting(std::to_string(i), Variant(strArray[i]), strKey);
  }
}

Variant cSettings::GetSetting(const std::string& strName, std::optional<Variant> DefaultVal,
                              const std::string& strSection) {
  const int entry = impl_->GetEntryIndex(strName, strSection);
  if (entry >= 0) return impl_->entries[entry].value;
  if (DefaultVal) return std::move(*DefaultVal);
  throw QelError(errors::kSettingNotFound, "GetSetting", "Setting not found");
}

std::vector<std::string> cSettings::ListSections(bool bIncludeCommon) {
  std::vector<std::string> names{""};
  for (const Impl::Section& section : impl_->sections) {
    if (!bIncludeCommon && EqualsNoCase(section.name, kDefaultSection)) continue;
    names.push_back(section.name);
  }
  return names;
}

}  // namespace qel
