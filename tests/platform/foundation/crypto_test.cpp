#include "platform/foundation/crypto.h"

#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <set>
#include <string>

namespace {

std::span<const std::uint8_t> asBytes(std::string_view s) {
  return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

TEST(CryptoTest, DigestsMatchPublishedVectors) {
  struct Case {
    std::string input;
    const char* md5;
    const char* sha256;
  };
  const Case cases[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e",
       "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72",
       "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", "8215ef0796a20bcaaae116d3876c664a",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21",
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.input.substr(0, 20));
    EXPECT_EQ(ZRBHexString(ZRBMD5(c.input)), c.md5);
    EXPECT_EQ(ZRBHexString(ZRBSHA256(asBytes(c.input))), c.sha256);
  }
  EXPECT_EQ(ZRBHexString(ZRBMD5("abc"), false), "900150983CD24FB0D6963F7D28E17F72");
}

TEST(CryptoTest, IncrementalSHA256EqualsOneShotAtEverySplitAndResetsAfterFinal) {
  std::vector<std::uint8_t> message = ZRBRandomBytes(300);
  auto expected = ZRBSHA256(message);
  std::span<const std::uint8_t> all(message);
  ZRBSHA256Context context;
  for (std::size_t split = 0; split <= message.size(); ++split) {
    context.update(all.first(split));
    context.update(all.subspan(split));
    // final() must leave the context empty, or every digest after the first would be wrong.
    ASSERT_EQ(context.final(), expected) << "split at " << split;
  }
  ZRBSHA256Context moved(std::move(context));
  moved.update("abc");
  EXPECT_EQ(ZRBHexString(moved.final()), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(CryptoTest, Base64MatchesPublishedVectorsBothWays) {
  // One of each padding shape, and more than one group.
  const std::pair<const char*, const char*> cases[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}};
  for (auto [plain, encoded] : cases) {
    EXPECT_EQ(ZRBBase64Encode(std::string_view(plain)), encoded);
    EXPECT_EQ(ZRBBase64Decode(encoded), std::vector<std::uint8_t>(plain, plain + std::strlen(plain)))
        << encoded;
  }
}

TEST(CryptoTest, Base64RoundTripsRandomBinaryOfEveryLengthAndLineOption) {
  const unsigned long options[] = {
      0, ZRBBase64Encoding64CharacterLineLength,
      ZRBBase64Encoding76CharacterLineLength | ZRBBase64EncodingEndLineWithLineFeed,
      ZRBBase64Encoding64CharacterLineLength | ZRBBase64EncodingEndLineWithCarriageReturn};
  for (std::size_t length = 0; length <= 64; ++length) {
    std::vector<std::uint8_t> bytes = ZRBRandomBytes(length);
    for (unsigned long option : options) {
      std::string text = ZRBBase64Encode(bytes, option);
      auto decoded = ZRBBase64Decode(text, option ? 1UL * ZRBBase64DecodingIgnoreUnknownCharacters : 0UL);
      ASSERT_TRUE(decoded) << "length " << length << " options " << option << ": " << text;
      EXPECT_EQ(*decoded, bytes);
    }
  }
}

TEST(CryptoTest, Base64LineBreaksSeparateLinesWithoutTrailingEnding) {
  std::string exact(48, 'x');  // exactly one 64-character line
  EXPECT_EQ(ZRBBase64Encode(exact, ZRBBase64Encoding64CharacterLineLength).find('\n'), std::string::npos);

  std::string text = ZRBBase64Encode(std::string(49, 'x'), ZRBBase64Encoding64CharacterLineLength);
  ASSERT_EQ(text.size(), 64u + 2 + 4);
  EXPECT_EQ(text.substr(64, 2), "\r\n");
  std::string lf = ZRBBase64Encode(
      std::string(58, 'x'), ZRBBase64Encoding76CharacterLineLength | ZRBBase64EncodingEndLineWithLineFeed);
  ASSERT_EQ(lf.size(), 76u + 1 + 4);
  EXPECT_EQ(lf[76], '\n');
}

TEST(CryptoTest, StrictBase64RefusesWhatLenientSkips) {
  // Strict refusals, with what lenient decoding makes of the same text (nullopt when it refuses too).
  struct Case {
    const char* text;
    std::optional<std::string> lenient;
  };
  const Case cases[] = {
      {"Zm9v\r\nYg==", "foob"},    // line break
      {" Zm9v Yg==\t", "foob"},    // spaces and tabs
      {"Zm*9v!", "foo"},           // characters outside the alphabet
      {"Zm9v\xC3\xA9", "foo"},     // non-ASCII bytes
      {"Zg", std::nullopt},        // unpadded
      {"Zm9vYg", std::nullopt},    // unpadded after a whole group
      {"Zg=", std::nullopt},       // length not a multiple of 4
      {"Zg==Zg==", std::nullopt},  // padding in the middle
      {"Zm=v", std::nullopt},      // padding inside a group
      {"Z===", std::nullopt},     {"====", std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(ZRBBase64Decode(c.text)) << c.text;
    auto lenient = ZRBBase64Decode(c.text, ZRBBase64DecodingIgnoreUnknownCharacters);
    EXPECT_EQ(lenient ? std::optional(std::string(lenient->begin(), lenient->end())) : std::nullopt,
              c.lenient)
        << c.text;
  }
}

TEST(CryptoTest, RandomNumbersCoverTheirRange) {
  EXPECT_EQ(ZRBRandomUniform(0), 0u);
  EXPECT_EQ(ZRBRandomUniform(1), 0u);
  EXPECT_LT(ZRBRandomUniform(0xFFFFFFFFu), 0xFFFFFFFFu);
  std::uint32_t ones = 0, zeros = 0;
  for (int i = 0; i < 200; ++i) {
    std::uint32_t v = ZRBRandomUInt32();
    ones |= v;
    zeros |= ~v;
  }
  EXPECT_EQ(ones, 0xFFFFFFFFu) << "some bit was never 1";
  EXPECT_EQ(zeros, 0xFFFFFFFFu) << "some bit was never 0";
  int counts[7] = {};
  for (int i = 0; i < 7000; ++i) {
    std::uint32_t v = ZRBRandomUniform(7);
    ASSERT_LT(v, 7u);
    ++counts[v];
  }
  // Expected 1000 each; the bounds are many standard deviations (about 29) wide.
  for (int c : counts) EXPECT_TRUE(c > 700 && c < 1300) << c;
  EXPECT_EQ(ZRBRandomBytes(0).size(), 0u);
  EXPECT_NE(ZRBRandomBytes(32), ZRBRandomBytes(32));
}

TEST(CryptoTest, UUIDsHaveThePlatformShapeAndVersion4Bits) {
  const std::regex shape("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    std::string uuid = ZRBUUIDString();
    EXPECT_TRUE(std::regex_match(uuid, shape)) << uuid;
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), 100u);

  std::array<std::uint8_t, 16> bytes{0xE6, 0x21, 0xE1, 0xF8, 0xC3, 0x6C, 0x49, 0x5A,
                                     0x93, 0xFC, 0x0C, 0x24, 0x7A, 0x3E, 0x6E, 0x5F};
  EXPECT_EQ(ZRBUUIDStringFromBytes(bytes), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  bytes.fill(0);
  EXPECT_EQ(ZRBUUIDStringFromBytes(bytes), "00000000-0000-0000-0000-000000000000");  // left unchanged
}

}  // namespace
