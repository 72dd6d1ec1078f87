#include <gtest/gtest.h>

#include "ZulCore/Trust/Base64Url.h"

namespace zul {
namespace {

// RFC 4648 section 10, unpadded, plus the two characters that differ from
// standard base64; every byte value round-trips.
TEST(Base64UrlTest, EncodesAndDecodes) {
  const std::pair<Bytes, std::string> vectors[] = {
      {{}, ""},
      {toBytes("f"), "Zg"},
      {toBytes("fo"), "Zm8"},
      {toBytes("foobar"), "Zm9vYmFy"},
      {{0xFB, 0xFF}, "-_8"},
      {{0xFB, 0xEF, 0xBE}, "----"},
  };
  for (const auto& [data, text] : vectors) {
    EXPECT_EQ(Base64Url::encode(data), text);
    EXPECT_EQ(Base64Url::decode(text), data) << text;
  }
  Bytes all;
  for (int i = 0; i < 256; ++i) all.push_back(std::uint8_t(255 - i));
  for (std::size_t length = 250; length <= all.size(); ++length) {
    Bytes data(all.begin(), all.begin() + length);
    EXPECT_EQ(Base64Url::decode(Base64Url::encode(data)), data);
  }
}

TEST(Base64UrlTest, AcceptsPaddingAndStandardDigitsRejectsMalformedText) {
  const std::pair<std::string, Bytes> accepted[] = {
      {"Zg==", toBytes("f")}, {"Zg=", toBytes("f")}, {"+/8", {0xFB, 0xFF}}, {"-/8=", {0xFB, 0xFF}}};
  for (const auto& [text, data] : accepted) EXPECT_EQ(Base64Url::decode(text), data) << text;
  const char* rejected[] = {
      "A",    "Zm9vY", "Zm 8",        "Zm8\n",  // length 1 modulo 4, whitespace
      "Zm8!", "Zm.8",  "Zm8\xC3\xA9",           // outside the alphabet
      "Z===", "=Zm8",  "Zg==Zg==",    "Zm=8",  "Zg===", "Zm9v="};
  for (const char* text : rejected) EXPECT_FALSE(Base64Url::decode(text).has_value()) << text;
  EXPECT_FALSE(Base64Url::decode(std::string_view("Zm\0v", 4)).has_value());
}

}  // namespace
}  // namespace zul
