#include "protocol/fields.h"

#include <gtest/gtest.h>

#include "../support/error_text.h"

namespace qel::test {
namespace {

// What f throws; a refused call leaves the list as it was.
std::string Refused(FieldList& fields, const std::function<void()>& f) {
  const FieldList before = fields;
  const std::string error = ErrorText(f);
  EXPECT_EQ(fields, before);
  return error;
}

std::string NewLineFrom(const char* source) {
  return std::string("-2147220991 ") + source +
         ": New line characters not allowed in header fields";
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
  const std::string array = "-2147220990 SetField: Cannot update string array field";
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
      {[&] { AddField(fields, "S", low); }, "6 AddField: Overflow"},
      {[&] { AddField(fields, "S", high); }, "6 AddField: Overflow"},
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
  for (auto [min, max, error] :
       {std::tuple{"0", "many", "13 GetField: Type mismatch"},
        {"", "3", "13 GetField: Type mismatch"},
        {"0", "99999999999", "6 GetField: Overflow"},
        {"0", "65536", "9 GetField: Subscript out of range"},
        {"-2147483648", "2147483647", "9 GetField: Subscript out of range"},
        {"5", "3", "9 GetField: Subscript out of range"},
        {"-32768", "32767", "no error"}}) {
    FieldList fields = NewFieldList();
    if (*min) AddSingleField(fields, "R-Min", min);
    AddSingleField(fields, "R-Max", max);
    EXPECT_EQ(Refused(fields, [&] { GetField(fields, "R"); }), error) << min << " " << max;
  }
}

TEST(FieldSetTest, SetReplacesTheFirstMatchUnlessItIsEmptyAndAppendGrowsIt) {
  FieldList fields = List({"id=", "Flags=a,"});
  SetField(fields, "ID", "1");  // an empty value counts as absent: appended behind
  SetField(fields, "iD", "2");
  SetField(fields, "flags", "b,");  // replaced in place, name as it was
  AppendField(fields, "FLAGS", "c", ",");
  AppendField(fields, "id", "z", ",");
  AppendField(fields, "Route", "S", ",");
  EXPECT_EQ(fields, List({"id=", "Flags=b,c,", "ID=1", "iD=2", "id=z,", "Route=S,"}));
}

}  // namespace
}  // namespace qel::test
