#include <gtest/gtest.h>

#include "ZulPlatform/linux/DesktopBackend.h"
#include "unit/ZulCore/Outcome.h"

namespace zul {
namespace {

// Which backend a session gets, or the error that names what is missing.
TEST(DesktopChoiceTest, FollowsTheSessionAndTheForcedSetting) {
  const struct {
    DesktopSessionFacts facts;
    std::string backend;  // empty: an error whose text holds `error`
    std::string error;
  } cases[] = {
      {{.sessionType = "x11", .x11Display = ":0"}, "x11", ""},
      {{.sessionType = "wayland",
        .waylandDisplay = "wayland-0",
        .x11Display = ":0",
        .mutterRemoteDesktop = true},
       "gnome",
       ""},
      // No session type: a Wayland display decides.
      {{.waylandDisplay = "wayland-0", .mutterRemoteDesktop = true}, "gnome", ""},
      {{.x11Display = ":1", .mutterRemoteDesktop = true}, "x11", ""},
      {{.mutterRemoteDesktop = true}, "gnome", ""},
      // Wayland without mutter: XWayland would show only X11 windows.
      {{.sessionType = "wayland", .waylandDisplay = "wayland-1", .x11Display = ":0"},
       "",
       "org.freedesktop.portal.RemoteDesktop"},
      {{}, "", "unsupportedSession"},
      {{.forced = "x11", .sessionType = "wayland", .mutterRemoteDesktop = true}, "x11", ""},
      {{.forced = "gnome", .sessionType = "x11", .x11Display = ":0"}, "gnome", ""},
      {{.forced = "portal", .sessionType = "wayland"}, "", "portal"},
      {{.forced = "kde"}, "", "unknownBackend(\"kde\")"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("type=" + c.facts.sessionType + " forced=" + c.facts.forced);
    std::string backend;
    const auto text =
        test::outcome<DesktopBackendError>([&] { backend = chooseDesktop(c.facts).backend; });
    EXPECT_EQ(backend, c.backend);
    EXPECT_NE(text.find(c.error.empty() ? "ok" : c.error), std::string::npos) << text;
  }
}

}  // namespace
}  // namespace zul
