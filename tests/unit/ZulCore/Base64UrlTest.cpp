#include <gtest/gtest.h>

#include "ZulCore/Trust/Base64Url.h"

namespace zul {
namespace {

struct RoundTrip {
  Bytes data;
  std::string text;
};

// RFC 4648 section 10, unpadded, plus the two characters that differ from
// standard base64.
const RoundTrip kRoundTrips[] = {
    {{}, ""},
    {toBytes("f"), "Zg"},
    {toBytes("fo"), "Zm8"},
    {toBytes("foo"), "Zm9v"},
    {toBytes("foob"), "Zm9vYg"},
    {toBytes("fooba"), "Zm9vYmE"},
    {toBytes("foobar"), "Zm9vYmFy"},
    {{0xFB, 0xFF}, "-_8"},
    {{0xFB, 0xEF, 0xBE}, "----"},
    {{0xFF, 0xFF, 0xFF}, "____"},
    {{0x00, 0x00, 0x00, 0x00}, "AAAAAA"},
};

TEST(Base64UrlTest, EncodesAndDecodesRfc4648Vectors) {
  for (const auto& [data, text] : kRoundTrips) {
    EXPECT_EQ(Base64Url::encode(data), text);
    EXPECT_EQ(Base64Url::decode(text), data) << text;
  }
}

TEST(Base64UrlTest, RoundTripsEveryByteValueAndLength) {
  Bytes all;
  for (int i = 0; i < 256; ++i) all.push_back(std::uint8_t(255 - i));
  for (std::size_t length = 0; length <= all.size(); length += 7) {
    Bytes data(all.begin(), all.begin() + length);
    auto text = Base64Url::encode(data);
    EXPECT_EQ(text.find_first_of("+/="), std::string::npos);
    EXPECT_EQ(Base64Url::decode(text), data);
  }
}

TEST(Base64UrlTest, AcceptsCorrectPaddingAndStandardDigits) {
  const std::pair<std::string, Bytes> accepted[] = {
      {"Zg==", toBytes("f")}, {"Zm8=", toBytes("fo")}, {"Zg=", toBytes("f")},
      {"+/8", {0xFB, 0xFF}},  {"-/8=", {0xFB, 0xFF}},  {"Zm9vYg==", toBytes("foob")},
  };
  for (const auto& [text, data] : accepted) EXPECT_EQ(Base64Url::decode(text), data) << text;
}

TEST(Base64UrlTest, RejectsMalformedText) {
  const char* rejected[] = {
      "A",    "Zm9vY", "Zm9vYmFyZ",                         // length 1 modulo 4
      "Zm 8", " Zm8",  "Zm8\n",       "Zm\t8",    "Zm8\r",  // whitespace
      "Zm8!", "Zm.8",  "Zm8\xC3\xA9",                       // outside the alphabet
      "Z===", "====",  "=Zm8",        "Zg==Zg==", "Zm=8",  "Zg===", "Zm9v=",
  };
  for (const char* text : rejected) EXPECT_FALSE(Base64Url::decode(text).has_value()) << text;
  EXPECT_FALSE(Base64Url::decode(std::string_view("Zm\0v", 4)).has_value());
}

}  // namespace
}  // namespace zul
