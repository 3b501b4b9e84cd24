#include "protocol/body.h"

#include <gtest/gtest.h>

#include "../support/error_text.h"

namespace qel::test {
namespace {

std::string Bytes(size_t n) {
  std::string out(n, '\0');
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<char>(i * 37 + 11);
  return out;
}

const std::string kNoKey = "9 EncryptBody: Subscript out of range";

TEST(BodyCipherTest, MatchesByteByByteXorOnEveryLength) {
  for (std::string key :
       {"k", "ab", "abc", "seven!!", "8bytekey", "nine-byte", "a longer pass phrase"}) {
    key[0] = '\xF3';  // high bytes must survive the word path too
    for (size_t n = 0; n <= 100; ++n) {
      std::string data = Bytes(n);
      std::string expected = data;
      for (size_t i = 0; i < n; ++i) expected[i] ^= key[i % key.size()];
      EncryptBody(data, key);
      ASSERT_EQ(data, expected) << "key " << key.size() << " length " << n;
    }
  }
  std::string data = "x";
  EXPECT_EQ(ErrorText([&] { EncryptBody(data, ""); }), kNoKey);
  EXPECT_EQ(data, "x");
}

TEST(BodyZlibTest, RoundTripsAndRefusesBadInput) {
  for (size_t n : {0, 1, 200000}) {
    std::string data = Bytes(n);
    CompressBody(data);
    ASSERT_EQ(UncompressBody(data, static_cast<int64_t>(n), 1 << 20), DecodeResult::Ok);
    EXPECT_EQ(data, Bytes(n));
  }

  std::string packed = Bytes(1000);
  CompressBody(packed);
  const std::string received = packed;
  EXPECT_EQ(UncompressBody(packed, 1001, 1000), DecodeResult::TooLarge);
  EXPECT_EQ(UncompressBody(packed, -1, 1000), DecodeResult::TooLarge);
  // Output beyond the announced length is refused, even by one byte.
  EXPECT_EQ(UncompressBody(packed, 999, 1000), DecodeResult::Corrupt);
  EXPECT_EQ(packed, received);
  packed.resize(packed.size() / 2);
  EXPECT_EQ(UncompressBody(packed, 1000, 1000), DecodeResult::Corrupt);
  packed = received;
  EXPECT_EQ(UncompressBody(packed, 1000, 1000), DecodeResult::Ok);
}

TEST(BodyCodecTest, EncryptsBeforeCompressingAndDecodeUndoesEveryEncoding) {
  for (const std::string flags : {"", "NE,", "KE,", "Z,", "NE,Z,", "KE,Z,"}) {
    const bool useComp = flags.ends_with("Z,");
    typMessage m = NewMessage();
    m.Body = "a";  // one byte is still transformed
    EncodeBody(m, {flags.find('E') != std::string::npos, flags.starts_with("K") ? "OWNKEY" : "",
                   "netpass", useComp});
    EXPECT_EQ(GetSingleField(m.Fields, "Flags"), flags);
    EXPECT_EQ(GetSingleField(m.Fields, "Content-Length"), std::to_string(m.Body.size()));
    EXPECT_EQ(GetSingleField(m.Fields, "Original-Length"), useComp ? "1" : "");
    EXPECT_EQ(DecodeBody(m, "netpass", "OWNKEY", 100).compressed, useComp);
    EXPECT_EQ(m.Body, "a") << flags;
  }

  typMessage m = NewMessage();
  m.Body = "hello world";
  EncodeBody(m, {true, "", "netpass", true});
  const std::string received = m.Body;
  std::string plain = received;
  ASSERT_EQ(UncompressBody(plain, 11, 100), DecodeResult::Ok);
  EncryptBody(plain, "netpass");
  EXPECT_EQ(plain, "hello world");
  // A failed decode keeps the body as it came.
  SetField(m.Fields, "Original-Length", "eleven");
  EXPECT_EQ(DecodeBody(m, "netpass", "k", 100).result, DecodeResult::Corrupt);
  SetField(m.Fields, "Original-Length", "500");
  EXPECT_EQ(DecodeBody(m, "netpass", "k", 100).result, DecodeResult::TooLarge);
  EXPECT_EQ(ErrorText([&] { DecodeBody(m, "", "k", 100); }), kNoKey);
  EXPECT_EQ(m.Body, received);
}

}  // namespace
}  // namespace qel::test
