// Header field lists: the ordered, named fields every message carries.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <qel/variant.h>

namespace qel {

// One header field. Name keeps the case it was first added with; Value is
// always text.
struct typField {
  std::string Name;
  std::string Value;
  bool operator==(const typField&) const = default;
};

// Position 0 is a placeholder that holds no field; fields occupy 1..size()-1
// in the order they were first added. Names compare ignoring (ASCII) case and
// the first match wins everywhere, so later duplicates are never read. An
// empty vector gets its placeholder from the first addition.
using FieldList = std::vector<typField>;

// A list with exactly the placeholder element; start every message with one.
FieldList NewFieldList();

// A string array with its bounds. Upper() is Lower + Items.size() - 1, so an
// empty array has Upper() == Lower - 1.
struct StringArray {
  int32_t Lower = 0;
  std::vector<std::string> Items;
  int32_t Upper() const;
  bool operator==(const StringArray&) const = default;
};

// What a field holds: a single value, or an array spread over the fields
// <name>-Min, <name>-Max and <name><index>.
using FieldValue = std::variant<Variant, StringArray>;

// The value of the first field called name, or nullptr. The pointer lives
// until the list is next changed. Never copies; meant for hot paths.
const std::string* FindField(const FieldList& fields, std::string_view name);

// The value of the first field called name; "" when absent.
std::string GetSingleField(const FieldList& fields, std::string_view name);

// Reads a field, single or multi-value. An array comes back when <name>-Max
// is non-empty; a missing element reads as "". Otherwise the single value as
// text, or defaultValue when it is absent or empty (the two look the same).
// Throws QelError (source "GetField") when the bounds are not 32-bit integers
// (13 "Type mismatch", or 6 "Overflow" when out of range) and 9 "Subscript out
// of range" when they describe more than 65536 elements or Max < Min - 1;
// bounds come from peers, so they must not decide how much is allocated.
FieldValue GetField(const FieldList& fields, std::string_view name,
                    const FieldValue& defaultValue = Variant());

// Appends one field at the end, even if the name already exists. Throws
// QelError kNewLineInField (source "AddSingleField") when the value's text
// contains CR LF; a lone CR or LF is stored as it is.
void AddSingleField(FieldList& fields, std::string_view name, const Variant& value);

// Appends a field; an array becomes <name>-Min, <name>-Max, then one field per
// index from Lower to Upper(). Throws QelError 6 "Overflow" (source
// "AddField") when a bound leaves -32768..32767, and kNewLineInField as
// AddSingleField does when any element holds CR LF.
void AddField(FieldList& fields, std::string_view name, const FieldValue& value);

// Replaces the value of the first field called name, keeping its position and
// the case of its name. When the current value is absent or empty the field is
// appended instead, so an existing empty field stays first and keeps being
// read. Throws QelError (source "SetField"): kArrayFieldUpdate when the name
// holds an array or a non-empty single value is to become an array;
// kNewLineInField when a replacing value holds CR LF. Appending throws as
// AddField does.
void SetField(FieldList& fields, std::string_view name, const FieldValue& value);

// Sets the field to its current text + value + separator, so a list built
// this way ends with the separator ("KE,Z,C,"). Throws as SetField does.
void AppendField(FieldList& fields, std::string_view name, std::string_view value,
                 std::string_view separator);

// Every operation above leaves the list unchanged when it throws.

}  // namespace qel
