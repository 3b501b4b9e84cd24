#include "protocol/body.h"

#include <gtest/gtest.h>

#include <qel/error.h>

namespace qel {
namespace {

std::string Bytes(size_t n) {
  std::string out(n, '\0');
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<char>(i * 37 + 11);
  return out;
}

TEST(BodyCipherTest, MatchesByteByByteXorOnEveryLength) {
  for (std::string key : {"k", "ab", "seven!!", "8bytekey", "nine-byte", "a longer pass phrase"}) {
    key[0] = '\xF3';  // high bytes must survive the word path too
    for (size_t n = 0; n <= 40; ++n) {
      std::string data = Bytes(n);
      std::string expected = data;
      for (size_t i = 0; i < n; ++i) expected[i] ^= key[i % key.size()];
      EncryptBody(data, key);
      ASSERT_EQ(data, expected) << "key " << key.size() << " length " << n;
      EncryptBody(data, key);
      ASSERT_EQ(data, Bytes(n));
    }
  }
}

TEST(BodyCipherTest, EmptyKeyIsRefused) {
  std::string data = "x";
  try {
    EncryptBody(data, "");
    FAIL();
  } catch (const QelError& e) {
    EXPECT_EQ(e.Number, 9);
    EXPECT_EQ(data, "x");
  }
}

TEST(BodyZlibTest, RoundTripsAndRefusesBadInput) {
  for (size_t n : {0, 1, 1000, 200000}) {
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
  // Announced far too short for what inflates: zlib runs out of room.
  EXPECT_EQ(UncompressBody(packed, 10, 1000), DecodeResult::Corrupt);
  packed.resize(packed.size() / 2);
  EXPECT_EQ(UncompressBody(packed, 1000, 1000), DecodeResult::Corrupt);
  packed = "not zlib";
  EXPECT_EQ(UncompressBody(packed, 1000, 1000), DecodeResult::Corrupt);
  EXPECT_EQ(packed, "not zlib");
  packed = received;
  EXPECT_EQ(UncompressBody(packed, 1000, 1000), DecodeResult::Ok);
}

TEST(BodyCodecTest, DecodeUndoesEveryEncoding) {
  struct Case {
    bool useEnc;
    const char* destinationKey;
    bool useComp;
    const char* flags;
  };
  for (const Case& c : {Case{false, "", false, ""}, Case{true, "", false, "NE,"},
                        Case{true, "OWNKEY", false, "KE,"}, Case{false, "", true, "Z,"},
                        Case{true, "", true, "NE,Z,"}, Case{true, "OWNKEY", true, "KE,Z,"}}) {
    typMessage m = NewMessage();
    m.Body = "a";  // one byte is still transformed
    EncodeBody(m, {c.useEnc, c.destinationKey, "netpass", c.useComp});
    EXPECT_EQ(GetSingleField(m.Fields, "Flags"), c.flags);
    EXPECT_EQ(GetSingleField(m.Fields, "Content-Length"), std::to_string(m.Body.size()));
    EXPECT_EQ(GetSingleField(m.Fields, "Original-Length"), c.useComp ? "1" : "");
    DecodeOutcome out = DecodeBody(m, "netpass", "OWNKEY", 100);
    EXPECT_EQ(out.result, DecodeResult::Ok);
    EXPECT_EQ(out.compressed, c.useComp);
    EXPECT_EQ(m.Body, "a") << c.flags;
  }

  typMessage empty = NewMessage();
  EncodeBody(empty, {true, "", "netpass", true});
  EXPECT_EQ(empty.Fields.size(), 1u);
}

TEST(BodyCodecTest, FailedDecodeLeavesBodyAsReceived) {
  typMessage m = NewMessage();
  m.Body = std::string(50, 'q');
  EncodeBody(m, {true, "", "netpass", true});
  const std::string received = m.Body;

  SetField(m.Fields, "Original-Length", "fifty");
  EXPECT_EQ(DecodeBody(m, "netpass", "k", 100).result, DecodeResult::Corrupt);
  SetField(m.Fields, "Original-Length", "500");
  EXPECT_EQ(DecodeBody(m, "netpass", "k", 100).result, DecodeResult::TooLarge);
  EXPECT_EQ(m.Body, received);
  EXPECT_THROW(DecodeBody(m, "", "k", 100), QelError);
  EXPECT_EQ(m.Body, received);
}

}  // namespace
}  // namespace qel
