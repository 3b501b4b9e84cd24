#include "protocol/fields.h"

#include <charconv>

#include <qel/error.h>

#include "core/text.h"

namespace qel {
namespace {

constexpr std::string_view kMinSuffix = "-Min";
constexpr std::string_view kMaxSuffix = "-Max";

// Other nodes count array indices in a signed 16-bit integer.
constexpr int64_t kLowestIndex = -32768;
constexpr int64_t kHighestIndex = 32767;
// As many elements as such an index can address; a peer's bounds beyond
// that are not trusted with an allocation.
constexpr int64_t kMaxElements = kHighestIndex - kLowestIndex + 1;

bool HasNewLine(std::string_view text) {
  return text.find("\r\n") != std::string_view::npos;
}

[[noreturn]] void ThrowNewLine(const char* source) {
  throw QelError(errors::kNewLineInField, source,
                 "New line characters not allowed in header fields");
}

typField* FindMutable(FieldList& fields, std::string_view name) {
  for (size_t i = 1; i < fields.size(); ++i) {
    if (EqualsNoCase(fields[i].Name, name)) return &fields[i];
  }
  return nullptr;
}

std::string Joined(std::string_view name, std::string_view suffix) {
  std::string out;
  out.reserve(name.size() + suffix.size());
  out.append(name).append(suffix);
  return out;
}

bool HoldsArray(const FieldList& fields, std::string_view name) {
  const std::string* max = FindField(fields, Joined(name, kMaxSuffix));
  return max && !max->empty();
}

int32_t BoundFromText(const std::string& text) {
  try {
    return Variant(text).toInt32();
  } catch (const QelError& e) {
    throw QelError(e.Number, "GetField", e.Description);
  }
}

// The index that name + suffix was written with, when suffix is exactly the
// decimal form AddField writes (so "07" or "-0" name no element).
bool ParseIndex(std::string_view suffix, int64_t& index) {
  if (suffix.empty() || suffix.size() > 12) return false;
  const char* end = suffix.data() + suffix.size();
  auto [ptr, ec] = std::from_chars(suffix.data(), end, index);
  return ec == std::errc() && ptr == end && std::to_string(index) == suffix;
}

StringArray ReadArray(const FieldList& fields, std::string_view name, const std::string& maxText) {
  int32_t upper = BoundFromText(maxText);
  int32_t lower = BoundFromText(GetSingleField(fields, Joined(name, kMinSuffix)));
  int64_t count = int64_t{upper} - lower + 1;
  if (count < 0 || count > kMaxElements) {
    throw QelError(errors::kSubscriptOutOfRange, "GetField", "Subscript out of range");
  }
  StringArray array;
  array.Lower = lower;
  array.Items.resize(static_cast<size_t>(count));
  // One pass instead of a lookup per index: a peer may claim 65536 elements
  // in a long message. The first field for an index wins, as in every lookup.
  std::vector<bool> seen(array.Items.size());
  for (size_t i = 1; i < fields.size(); ++i) {
    std::string_view fieldName = fields[i].Name;
    if (fieldName.size() <= name.size() || !EqualsNoCase(fieldName.substr(0, name.size()), name)) {
      continue;
    }
    int64_t index;
    if (!ParseIndex(fieldName.substr(name.size()), index)) continue;
    if (index < lower || index > upper) continue;
    size_t slot = static_cast<size_t>(index - lower);
    if (seen[slot]) continue;
    seen[slot] = true;
    array.Items[slot] = fields[i].Value;
  }
  return array;
}

void EnsurePlaceholder(FieldList& fields) {
  if (fields.empty()) fields.emplace_back();
}

}  // namespace

FieldList NewFieldList() {
  // Room for a stamped message's fields, so building or parsing one never
  // regrows the list.
  constexpr size_t kTypicalFields = 12;
  FieldList list;
  list.reserve(kTypicalFields);
  list.emplace_back();
  return list;
}

int32_t StringArray::Upper() const {
  return static_cast<int32_t>(int64_t{Lower} + static_cast<int64_t>(Items.size()) - 1);
}

const std::string* FindField(const FieldList& fields, std::string_view name) {
  for (size_t i = 1; i < fields.size(); ++i) {
    if (EqualsNoCase(fields[i].Name, name)) return &fields[i].Value;
  }
  return nullptr;
}

std::string GetSingleField(const FieldList& fields, std::string_view name) {
  const std::string* value = FindField(fields, name);
  return value ? *value : std::string();
}

FieldValue GetField(const FieldList& fields, std::string_view name,
                    const FieldValue& defaultValue) {
  const std::string* max = FindField(fields, Joined(name, kMaxSuffix));
  if (max && !max->empty()) return ReadArray(fields, name, *max);
  const std::string* value = FindField(fields, name);
  if (value && !value->empty()) return Variant(*value);
  return defaultValue;
}

void AddSingleField(FieldList& fields, std::string_view name, const Variant& value) {
  std::string text = value.toString();
  if (HasNewLine(text)) ThrowNewLine("AddSingleField");
  EnsurePlaceholder(fields);
  fields.push_back({std::string(name), std::move(text)});
}

void AddField(FieldList& fields, std::string_view name, const FieldValue& value) {
  const auto* array = std::get_if<StringArray>(&value);
  if (!array) return AddSingleField(fields, name, std::get<Variant>(value));

  int64_t lower = array->Lower;
  int64_t upper = lower + static_cast<int64_t>(array->Items.size()) - 1;
  if (lower < kLowestIndex || lower > kHighestIndex || upper < kLowestIndex ||
      upper > kHighestIndex) {
    throw QelError(errors::kOverflow, "AddField", "Overflow");
  }
  // Check everything first so a bad element cannot leave half an array behind.
  for (const std::string& item : array->Items) {
    if (HasNewLine(item)) ThrowNewLine("AddSingleField");
  }
  EnsurePlaceholder(fields);
  fields.push_back({Joined(name, kMinSuffix), std::to_string(lower)});
  fields.push_back({Joined(name, kMaxSuffix), std::to_string(upper)});
  for (size_t i = 0; i < array->Items.size(); ++i) {
    fields.push_back(
        {Joined(name, std::to_string(lower + static_cast<int64_t>(i))), array->Items[i]});
  }
}

void SetField(FieldList& fields, std::string_view name, const FieldValue& value) {
  // Replacing an array in place would have to rewrite or drop its element
  // fields; no producer needs that, so it is refused.
  if (HoldsArray(fields, name)) {
    throw QelError(errors::kArrayFieldUpdate, "SetField", "Cannot update string array field");
  }
  typField* current = FindMutable(fields, name);
  // An empty current value is treated as absent and the new one appended
  // behind it; readers keep seeing the empty field. Other nodes behave the
  // same way, so this stays.
  if (!current || current->Value.empty()) return AddField(fields, name, value);

  const auto* single = std::get_if<Variant>(&value);
  if (!single) {
    throw QelError(errors::kArrayFieldUpdate, "SetField", "Cannot update string array field");
  }
  std::string text = single->toString();
  if (HasNewLine(text)) ThrowNewLine("SetField");
  current->Value = std::move(text);
}

void AppendField(FieldList& fields, std::string_view name, std::string_view value,
                 std::string_view separator) {
  // A name holding an array is refused by SetField, so the single value is
  // all there is to extend. A value already there grows in place: relays
  // extend every Route they pass on.
  typField* current = FindMutable(fields, name);
  if (current && !current->Value.empty() && !HoldsArray(fields, name)) {
    std::string& text = current->Value;
    const size_t before = text.size();
    text.append(value).append(separator);
    if (HasNewLine(std::string_view(text).substr(before - 1))) {
      text.resize(before);
      ThrowNewLine("SetField");
    }
    return;
  }
  std::string text = GetSingleField(fields, name);
  text.append(value).append(separator);
  SetField(fields, name, Variant(std::move(text)));
}

}  // namespace qel
