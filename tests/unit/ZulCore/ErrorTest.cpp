#include <gtest/gtest.h>

#include "ZulCore/Media/CaptureSource.h"
#include "ZulCore/Media/VideoEncoder.h"
#include "ZulCore/Support/Console.h"
#include "ZulCore/Trust/DevicePermission.h"

namespace zul {
namespace {

TEST(ErrorText, CaseNameWithPayload) {
  struct Case {
    std::string text;
    std::string expected;
  };
  const Case cases[] = {
      {CaptureError::displayUnavailable(2).text(), "displayUnavailable(index: 2)"},
      {CaptureError::displayUnavailable(-1).text(), "displayUnavailable(index: -1)"},
      {CaptureError::alreadyRunning().text(), "alreadyRunning"},
      {CaptureError::platformUnsupported("no \"X\"").text(),
       R"(platformUnsupported(reason: "no \"X\""))"},
      {MediaError::encodeFailed(-12902).text(), "encodeFailed(-12902)"},
      {MediaError::notConfigured().text(), "notConfigured"},
      {PermissionGateError::denied(DevicePermission::control).text(), "denied(control)"},
      {formatErrorCase("pair", {field("a", 1), field("b")}), R"(pair(a: 1, "b"))"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.text, c.expected);
}

TEST(ErrorEquality, ComparesCaseAndPayload) {
  EXPECT_EQ(MediaError::encodeFailed(-1), MediaError::encodeFailed(-1));
  EXPECT_NE(MediaError::encodeFailed(-1), MediaError::encodeFailed(-2));
  EXPECT_NE(MediaError::encodeFailed(-1), MediaError::propertyUpdateFailed(-1));
  EXPECT_EQ(CaptureError::displayUnavailable(3), CaptureError::displayUnavailable(3));
  EXPECT_NE(CaptureError::displayUnavailable(3), CaptureError::displayUnavailable(4));
  EXPECT_NE(CaptureError::alreadyRunning(), CaptureError::notRunning());
}

TEST(RtpDuration, NinetyKilohertzTicksPerFrame) {
  const std::pair<std::int64_t, std::uint32_t> cases[] = {
      {10, 9000}, {30, 3000}, {60, 1500}, {7, 12857}, {1, 90000}, {0, 90000}, {-5, 90000}};
  for (auto [fps, ticks] : cases) EXPECT_EQ(rtpDuration(fps), ticks) << fps;
}

TEST(PermissionGate, AllowsAndDemandsGrantedRightsOnly) {
  const PermissionGate viewOnly{{DevicePermission::view}};
  EXPECT_TRUE(viewOnly.allows(DevicePermission::view));
  EXPECT_FALSE(viewOnly.allows(DevicePermission::control));
  EXPECT_NO_THROW(viewOnly.demand(DevicePermission::view));
  try {
    viewOnly.demand(DevicePermission::control);
    FAIL() << "control was not denied";
  } catch (const PermissionGateError& error) {
    EXPECT_EQ(error, PermissionGateError::denied(DevicePermission::control));
  }
  for (auto permission : allDevicePermissions) {
    EXPECT_EQ(devicePermissionFromRaw(rawValue(permission)), permission);
  }
  EXPECT_FALSE(devicePermissionFromRaw("View"));
  EXPECT_FALSE(devicePermissionFromRaw(""));
}

}  // namespace
}  // namespace zul

namespace zul {
namespace {

TEST(Console, PrintedLinesKeepEveryControlCharacterVisible) {
  const std::pair<std::string, std::string> cases[] = {
      {"peer ready: device_A", "peer ready: device_A"},
      {"name\nsecond line\r", "name\\nsecond line\\r"},
      {"\x1b[2J\x07tab\there", "\\x1b[2J\\x07tab\\there"},
      {std::string("nul\0end", 7), "nul\\x00end"},
      {"back\\slash \x7f", "back\\\\slash \\x7f"},
      {"c1 \xC2\x9B"
       "31m, \xE2\x80\xA8 and \xE2\x80\xA9",
       "c1 \\u009b31m, \\u2028 and \\u2029"},
      {"Код \u2026 \u2014 ok", "Код \u2026 \u2014 ok"},
  };
  for (const auto& [text, shown] : cases) EXPECT_EQ(escapeControlCharacters(text), shown);
}

}  // namespace
}  // namespace zul
