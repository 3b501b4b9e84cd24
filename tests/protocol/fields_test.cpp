#include "protocol/fields.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include <qel/error.h>

#include "core/text.h"

namespace qel {
namespace {

const std::string kArray = "-2147220990 SetField Cannot update string array field";

// Runs f, which must throw QelError without touching the list, and returns
// "number [source] description".
std::string Refused(FieldList& fields, const std::function<void()>& f) {
  const FieldList before = fields;
  try {
    f();
  } catch (const QelError& e) {
    EXPECT_EQ(fields, before);
    return std::to_string(e.Number) + " " + e.Source + " " + e.Description;
  }
  return "no error";
}

std::string NewLineFrom(const char* source) {
  return std::string("-2147220991 ") + source + " New line characters not allowed in header fields";
}

StringArray ArrayOf(const FieldList& fields, std::string_view name) {
  return std::get<StringArray>(GetField(fields, name));
}

TEST(FieldLookupTest, NamesMatchIgnoringCaseAndTheFirstFieldWins) {
  FieldList fields = NewFieldList();
  AddSingleField(fields, "TTL", 7);
  AddSingleField(fields, "ID", "first");
  AddSingleField(fields, "id", "second");
  AddSingleField(fields, "Push", true);
  EXPECT_EQ(GetSingleField(fields, "iD"), "first");
  EXPECT_EQ(std::get<Variant>(GetField(fields, "Id")).toString(), "first");
  EXPECT_EQ(GetSingleField(fields, "PUSH"), "True");
  EXPECT_EQ(GetSingleField(fields, "Missing"), "");
  EXPECT_EQ(std::get<Variant>(GetField(fields, "Missing", Variant(42))).toInt32(), 42);

  SetField(fields, "ttl", -5);
  EXPECT_EQ(fields[1], (typField{"TTL", "-5"}));
  EXPECT_EQ(fields.size(), 5u);

  // An empty value reads as absent, so setting it appends a field nobody reads.
  AddSingleField(fields, "Flags", "");
  EXPECT_EQ(std::get<Variant>(GetField(fields, "Flags", Variant("dflt"))).toString(), "dflt");
  SetField(fields, "Flags", "Z");
  EXPECT_EQ(fields.back(), (typField{"Flags", "Z"}));
  EXPECT_EQ(GetSingleField(fields, "Flags"), "");
  EXPECT_EQ(fields[0], typField{});
}

TEST(FieldErrorTest, FailuresCarryTheirNumberAndLeaveTheListAlone) {
  FieldList fields = NewFieldList();
  AddSingleField(fields, "A", "x\ny");  // only the CR LF pair is refused
  AddSingleField(fields, "B", "x\r");
  AddField(fields, "R", StringArray{0, {"a"}});
  EXPECT_EQ(Refused(fields, [&] { AddSingleField(fields, "C", "1\r\n2"); }),
            NewLineFrom("AddSingleField"));
  EXPECT_EQ(Refused(fields, [&] { SetField(fields, "A", "\r\n"); }), NewLineFrom("SetField"));
  EXPECT_EQ(Refused(fields, [&] { SetField(fields, "New", "\r\n"); }),
            NewLineFrom("AddSingleField"));
  // The pair may form where the old text meets the appended one.
  EXPECT_EQ(Refused(fields, [&] { AppendField(fields, "B", "\nz", ","); }),
            NewLineFrom("SetField"));
  EXPECT_EQ(Refused(fields,
                    [&] {
                      AddField(fields, "S", StringArray{0, {"a", "b\r\n"}});
                    }),
            NewLineFrom("AddSingleField"));

  EXPECT_EQ(Refused(fields, [&] { SetField(fields, "A", StringArray{0, {"b"}}); }), kArray);
  EXPECT_EQ(Refused(fields, [&] { SetField(fields, "r", "b"); }), kArray);
  EXPECT_EQ(Refused(fields, [&] { SetField(fields, "R", StringArray{0, {"b"}}); }), kArray);
  EXPECT_EQ(Refused(fields, [&] { AppendField(fields, "R", "b", ","); }), kArray);

  for (StringArray bad :
       {StringArray{-32769, {"a"}}, StringArray{32767, {"a", "b"}}, StringArray{-32768, {}}}) {
    EXPECT_EQ(Refused(fields, [&] { AddField(fields, "S", bad); }), "6 AddField Overflow");
  }
}

TEST(FieldArrayTest, RoundTripKeepsBoundsElementsAndFieldOrder) {
  FieldList fields = NewFieldList();
  SetField(fields, "Results", StringArray{0, {"a", "", "c"}});
  EXPECT_EQ(fields, (FieldList{{},
                               {"Results-Min", "0"},
                               {"Results-Max", "2"},
                               {"Results0", "a"},
                               {"Results1", ""},
                               {"Results2", "c"}}));
  for (StringArray array :
       {StringArray{5, {"x", "y\n"}}, StringArray{-2, {"m", "\r", "o"}}, StringArray{7, {}},
        StringArray{-32768, {"lo"}}, StringArray{32767, {"hi"}}}) {
    SCOPED_TRACE(array.Lower);
    FieldList list = NewFieldList();
    AddField(list, "R", array);
    EXPECT_EQ(GetSingleField(list, "R-Max"), std::to_string(array.Upper()));
    EXPECT_EQ(ArrayOf(list, "r"), array);
  }
  // Elements are found by the exact name AddField writes: no padding, no "-0".
  FieldList written = NewFieldList();
  for (auto [name, value] : {std::pair{"R-Min", "-1"},
                             {"R-Max", "2"},
                             {"r1", "first"},
                             {"R1", "second"},
                             {"R01", "pad"},
                             {"R-0", "sign"},
                             {"R-1", "m"}}) {
    AddSingleField(written, name, value);
  }
  EXPECT_EQ(ArrayOf(written, "R"), (StringArray{-1, {"m", "", "first", ""}}));
}

TEST(FieldArrayTest, BoundsFromAPeerAreCheckedBeforeAllocating) {
  auto read = [](const char* min, const char* max) {
    FieldList fields = NewFieldList();
    if (*min) AddSingleField(fields, "R-Min", min);
    AddSingleField(fields, "R-Max", max);
    return Refused(fields, [&] { GetField(fields, "R"); });
  };
  EXPECT_EQ(read("0", "many"), "13 GetField Type mismatch");
  EXPECT_EQ(read("", "3"), "13 GetField Type mismatch");
  EXPECT_EQ(read("0", "99999999999"), "6 GetField Overflow");
  EXPECT_EQ(read("0", "65536"), "9 GetField Subscript out of range");
  EXPECT_EQ(read("-2147483648", "2147483647"), "9 GetField Subscript out of range");
  EXPECT_EQ(read("5", "3"), "9 GetField Subscript out of range");

  FieldList fields = NewFieldList();
  AddSingleField(fields, "R-Min", "-32768");
  AddSingleField(fields, "R-Max", "32767");
  EXPECT_EQ(ArrayOf(fields, "R").Items.size(), 65536u);
}

TEST(FieldAppendTest, BuildsListsThatEndWithTheSeparator) {
  FieldList fields = NewFieldList();
  AppendField(fields, "Flags", "Z", ",");
  AppendField(fields, "flags", "C", ",");
  AddSingleField(fields, "Ext", "KE,");
  AppendField(fields, "Ext", "Z", ",");
  AppendField(fields, "Ext", "C", ",");
  EXPECT_EQ(fields, (FieldList{{}, {"Flags", "Z,C,"}, {"Ext", "KE,Z,C,"}}));
}

// Random operations on short lists; each must append, replace or refuse
// exactly as a plain scan of the previous list predicts.
TEST(FieldRandomTest, RandomOperationsMatchAPlainModel) {
  const uint32_t seed = 20240611;
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 rng(seed);
  const std::vector<std::string> names = {"ID", "id", "Flags", "R", "r", "R0", "r-1", "R-Max"};
  const std::vector<std::string> values = {"", "x", "\r", "\n", "\r\n", "a\r\nb", "-1", "2"};
  auto pick = [&](const std::vector<std::string>& from) { return from[rng() % from.size()]; };
  auto crlf = [](const std::string& text) { return text.find("\r\n") != std::string::npos; };
  auto first = [](const FieldList& list, const std::string& name) {
    for (size_t i = 1; i < list.size(); ++i) {
      if (EqualsNoCase(list[i].Name, name)) return list[i].Value;
    }
    return std::string();
  };

  FieldList fields;
  for (int step = 0; step < 3000; ++step) {
    SCOPED_TRACE(step);
    if (step % 100 == 0) fields = NewFieldList();
    const std::string name = pick(names), value = pick(values), current = first(fields, name);
    FieldList expected = fields;
    bool refuse = false;
    std::function<void()> op;
    if (rng() % 2) {
      StringArray array{static_cast<int32_t>(rng() % 5) - 2, {value, pick(values)}};
      refuse = crlf(array.Items[0]) || crlf(array.Items[1]);
      expected.push_back({name + "-Min", std::to_string(array.Lower)});
      expected.push_back({name + "-Max", std::to_string(array.Upper())});
      expected.push_back({name + std::to_string(array.Lower), array.Items[0]});
      expected.push_back({name + std::to_string(array.Upper()), array.Items[1]});
      op = [&, array] { AddField(fields, name, array); };
    } else {
      const bool append = rng() % 2;
      const std::string text = append ? current + value + "," : value;
      refuse = crlf(text) || !first(fields, name + "-Max").empty();
      auto it = std::find_if(expected.begin() + 1, expected.end(),
                             [&](const typField& f) { return EqualsNoCase(f.Name, name); });
      if (current.empty()) {
        expected.push_back({name, text});
      } else {
        it->Value = text;
      }
      op = [&, append] {
        append ? AppendField(fields, name, value, ",") : SetField(fields, name, value);
      };
    }
    if (refuse) {
      EXPECT_NE(Refused(fields, op), "no error");
    } else {
      op();
      ASSERT_EQ(fields, expected);
    }

    // Array reads must agree with reading each element on its own.
    const std::string probe = pick(names);
    try {
      FieldValue read = GetField(fields, probe);
      if (auto* array = std::get_if<StringArray>(&read)) {
        for (int64_t i = 0; i < static_cast<int64_t>(array->Items.size()); ++i) {
          EXPECT_EQ(array->Items[i], first(fields, probe + std::to_string(array->Lower + i)));
        }
      }
    } catch (const QelError& e) {
      // "R-Max" set as a plain field gives R bounds that need not make sense.
      EXPECT_TRUE(e.Number == errors::kTypeMismatch || e.Number == errors::kSubscriptOutOfRange);
    }
  }
}

}  // namespace
}  // namespace qel
