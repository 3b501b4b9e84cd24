#include "core/new_id.h"

#include <gtest/gtest.h>

#include <set>

namespace qel {
namespace {

TEST(NewIdTest, ShapeOverManyDraws) {
  std::set<std::string> seen;
  std::set<size_t> lengths;
  for (int i = 0; i < 20000; ++i) {
    std::string id = NewID();
    ASSERT_EQ(id.find_first_not_of("0123456789ABCDEF"), std::string::npos) << id;
    ASSERT_EQ(id[12], '4') << id;  // version 4 GUID
    lengths.insert(id.size());
    seen.insert(std::move(id));
  }
  EXPECT_EQ(seen.size(), 20000u);
  // Bytes 10 to 15 are written short, so lengths vary from 24 to 32.
  EXPECT_GE(lengths.size(), 4u);
  EXPECT_GE(*lengths.begin(), 24u);
  EXPECT_LE(*lengths.rbegin(), 32u);
}

TEST(NewIdTest, PadsDigitsButNotLoneLetters) {
  std::array<uint8_t, 16> guid = {0x00, 0x0A, 0x0B, 0x0C, 0x00, 0x01, 0x40, 0x02,
                                  0x07, 0x0C, 0x10, 0xFF, 0x00, 0x0F, 0xA0, 0x09};
  // In Data4 a lone letter loses its padding (0C -> C), a lone digit keeps it.
  EXPECT_EQ(FormatID(guid), "000A0B0C0001400207C10FF00FA009");
  std::array<uint8_t, 16> letters{};
  for (int i = 8; i < 16; ++i) letters[i] = 0x0C;
  EXPECT_EQ(FormatID(letters), "0000000000000000CCCCCCCC");
}

}  // namespace
}  // namespace qel
