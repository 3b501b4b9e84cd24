// The QelError a call throws, as hosts see it.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include <qel/error.h>

namespace qel::test {

// "number source: description", or "no error" when f throws none.
inline std::string ErrorText(const std::function<void()>& f) {
  try {
    f();
  } catch (const QelError& e) {
    EXPECT_STREQ(e.what(), e.Description.c_str());
    return std::to_string(e.Number) + " " + e.Source + ": " + e.Description;
  }
  return "no error";
}

}  // namespace qel::test
