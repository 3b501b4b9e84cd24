#include "protocol/fields.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include <qel/error.h>

#include "core/text.h"

namespace qel {
namespace {

// Runs f, which must throw QelError without touching the list, and returns
// "number source description".
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

// A list of "Name=Value" fields in that order.
FieldList List(std::initializer_list<std::string> fields) {
  FieldList list = NewFieldList();
  for (const std::string& f : fields)
    AddSingleField(list, f.substr(0, f.find('=')), f.substr(f.find('=') + 1));
  return list;
}

StringArray ArrayOf(const FieldList& fields, std::string_view name) {
  return std::get<StringArray>(GetField(fields, name));
}

TEST(FieldErrorTest, FailuresCarryTheirNumberAndLeaveTheListAlone) {
  FieldList fields = NewFieldList();
  AddSingleField(fields, "A", "x\ny");  // only the CR LF pair is refused
  AddSingleField(fields, "B", "x\r");
  AddField(fields, "R", StringArray{0, {"a"}});
  const std::string array = "-2147220990 SetField Cannot update string array field";
  const StringArray crlf{0, {"a", "b\r\n"}}, one{0, {"b"}}, low{-32769, {"a"}},
      high{32767, {"a", "b"}};
  const std::vector<std::pair<std::function<void()>, std::string>> cases = {
      {[&] { AddSingleField(fields, "C", "1\r\n2"); }, NewLineFrom("AddSingleField")},
      {[&] { SetField(fields, "A", "\r\n"); }, NewLineFrom("SetField")},
      {[&] { SetField(fields, "New", "\r\n"); }, NewLineFrom("AddSingleField")},
      // The pair may form where the old text meets the appended one.
      {[&] { AppendField(fields, "B", "\nz", ","); }, NewLineFrom("SetField")},
      {[&] { AddField(fields, "S", crlf); }, NewLineFrom("AddSingleField")},
      {[&] { SetField(fields, "A", one); }, array},
      {[&] { SetField(fields, "r", "b"); }, array},
      {[&] { AppendField(fields, "R", "b", ","); }, array},
      {[&] { AddField(fields, "S", low); }, "6 AddField Overflow"},
      {[&] { AddField(fields, "S", high); }, "6 AddField Overflow"},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(Refused(fields, cases[i].first), cases[i].second) << i;
  }
}

TEST(FieldArrayTest, RoundTripKeepsBoundsElementsAndFieldOrder) {
  FieldList fields = NewFieldList();
  SetField(fields, "Results", StringArray{0, {"a", "", "c"}});
  EXPECT_EQ(fields,
            List({"Results-Min=0", "Results-Max=2", "Results0=a", "Results1=", "Results2=c"}));
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
  EXPECT_EQ(ArrayOf(List({"R-Min=-1", "R-Max=2", "r1=first", "R1=second", "R01=pad", "R-0=sign",
                          "R-1=m"}),
                    "R"),
            (StringArray{-1, {"m", "", "first", ""}}));
}

TEST(FieldArrayTest, BoundsFromAPeerAreCheckedBeforeAllocating) {
  for (auto [min, max, error] : {std::tuple{"0", "many", "13 GetField Type mismatch"},
                                 {"", "3", "13 GetField Type mismatch"},
                                 {"0", "99999999999", "6 GetField Overflow"},
                                 {"0", "65536", "9 GetField Subscript out of range"},
                                 {"-2147483648", "2147483647", "9 GetField Subscript out of range"},
                                 {"5", "3", "9 GetField Subscript out of range"},
                                 {"-32768", "32767", "no error"}}) {
    FieldList fields = NewFieldList();
    if (*min) AddSingleField(fields, "R-Min", min);
    AddSingleField(fields, "R-Max", max);
    EXPECT_EQ(Refused(fields, [&] { GetField(fields, "R"); }), error) << min << " " << max;
  }
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
  auto first = [](FieldList& list, const std::string& name) {
    auto it = std::find_if(list.begin() + 1, list.end(),
                           [&](const typField& f) { return EqualsNoCase(f.Name, name); });
    return it == list.end() ? nullptr : &*it;
  };
  auto valueOf = [&](FieldList& list, const std::string& name) {
    typField* field = first(list, name);
    return field ? field->Value : std::string();
  };

  FieldList fields;
  for (int step = 0; step < 2000; ++step) {
    SCOPED_TRACE(step);
    if (step % 100 == 0) fields = NewFieldList();
    const std::string name = pick(names), value = pick(values);
    FieldList expected = fields;
    bool refuse = false;
    std::function<void()> op;
    if (rng() % 2) {
      StringArray array{static_cast<int32_t>(rng() % 5) - 2, {value, pick(values)}};
      refuse = crlf(array.Items[0]) || crlf(array.Items[1]);
      expected.insert(expected.end(), {{name + "-Min", std::to_string(array.Lower)},
                                       {name + "-Max", std::to_string(array.Upper())},
                                       {name + std::to_string(array.Lower), array.Items[0]},
                                       {name + std::to_string(array.Upper()), array.Items[1]}});
      op = [&, array] { AddField(fields, name, array); };
    } else {
      const bool append = rng() % 2;
      const std::string text = append ? valueOf(expected, name) + value + "," : value;
      refuse = crlf(text) || !valueOf(expected, name + "-Max").empty();
      typField* current = first(expected, name);
      if (current && !current->Value.empty()) {
        current->Value = text;
      } else {
        expected.push_back({name, text});
      }
      op = [&, append] {
        append ? AppendField(fields, name, value, ",") : SetField(fields, name, value);
      };
    }
    ASSERT_EQ(Refused(fields, op) != "no error", refuse);  // runs op
    if (!refuse) {
      ASSERT_EQ(fields, expected);
    }
  }
}

}  // namespace
}  // namespace qel
