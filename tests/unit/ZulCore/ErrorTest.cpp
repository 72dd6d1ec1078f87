#include <gtest/gtest.h>

#include "ZulCore/Media/CaptureSource.h"
#include "ZulCore/Media/VideoEncoder.h"
#include "ZulCore/Support/Console.h"

namespace zul {
namespace {

// Error texts reach logs and the phone: the case name, payloads quoted.
TEST(ErrorText, CaseNameWithPayload) {
  const std::pair<std::string, std::string> cases[] = {
      {CaptureError::displayUnavailable(2).text(), "displayUnavailable(index: 2)"},
      {CaptureError::platformUnsupported("no \"X\"").text(),
       R"(platformUnsupported(reason: "no \"X\""))"},
      {MediaError::encodeFailed(-12902).text(), "encodeFailed(-12902)"},
      {formatErrorCase("pair", {field("a", 1), field("b")}), R"(pair(a: 1, "b"))"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(text, expected);
  EXPECT_NE(MediaError::encodeFailed(-1), MediaError::encodeFailed(-2));
}

TEST(RtpDuration, NinetyKilohertzTicksPerFrame) {
  const std::pair<std::int64_t, std::uint32_t> cases[] = {
      {30, 3000}, {7, 12857}, {1, 90000}, {0, 90000}, {-5, 90000}};
  for (auto [fps, ticks] : cases) EXPECT_EQ(rtpDuration(fps), ticks) << fps;
}

// A phone's name printed on the console must not drive the terminal.
TEST(Console, PrintedLinesKeepEveryControlCharacterVisible) {
  const std::pair<std::string, std::string> cases[] = {
      {"name\nsecond line\r", "name\\nsecond line\\r"},
      {"\x1b[2J\x07tab\there", "\\x1b[2J\\x07tab\\there"},
      {std::string("nul\0end", 7), "nul\\x00end"},
      {"back\\slash \x7f", "back\\\\slash \\x7f"},
      {"c1 \xC2\x9B"
       "31m, \xE2\x80\xA8 and \xE2\x80\xA9",
       "c1 \\u009b31m, \\u2028 and \\u2029"},
      {"Код \u2026 ok", "Код \u2026 ok"},
  };
  for (const auto& [text, shown] : cases) EXPECT_EQ(escapeControlCharacters(text), shown);
}

}  // namespace
}  // namespace zul
