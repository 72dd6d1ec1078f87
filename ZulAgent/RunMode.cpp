#include "ZulAgent/RunMode.h"

#include <algorithm>
#include <string>

namespace zul {

LaunchPlan chooseRunMode(const std::vector<std::string>& arguments,
                         std::optional<std::string_view> captureBackend, bool launchedAsApp) {
  auto has = [&](std::string_view flag) {
    return std::find(arguments.begin(), arguments.end(), flag) != arguments.end();
  };
  if (has("--help") || has("-h")) return {RunMode::help, false};
  if (has("--webrtc-smoke")) return {RunMode::webrtcSmoke, false};
  if (has("--real-agent") || launchedAsApp) return {RunMode::realAgent, false, has("--at-login")};
  if (has("--phone-demo")) return {RunMode::phoneDemo, false};
  const bool useReal = captureBackend == "real" || has("--real");
  return {RunMode::pipeline, useReal};
}

std::string helpText() {
  return R"(Usage: zul-agent [--real-agent | --phone-demo | --webrtc-smoke | --real]

Lets a paired phone see this computer's screen and drive it.

Modes (the first that matches wins):
  --webrtc-smoke  create and close a WebRTC peer connection, then exit
  --real-agent    the agent: the setup window on $DISPLAY, or no windows when
                  ZUL_SIGNALING_URL is set (the pairing link is printed then)
    --at-login    started with the desktop session: connects at once to the
                  server last used, the window opening only when it cannot
  --phone-demo    this screen in a phone's browser on the same network, over
                  HTTP on port 8787, without pairing
  --real          the three-second capture-and-encode test on the real screen
  (nothing)       the same test with synthetic frames and encoder
  --help, -h      this text

Environment:
  ZUL_SIGNALING_URL    the rendezvous server's address (real agent, no windows)
  ZUL_DEMO_SECONDS     stop after this many seconds (phone demo: default 300)
  ZUL_DEMO_PORT        the phone demo's port (default 8787; 0: any free one)
  ZUL_MAX_FPS          video frames per second while the screen moves, 1 to 60
  ZUL_CAPTURE_BACKEND  "real": the capture-and-encode test uses the real screen
  ZUL_SECRET_BACKEND   where keys and paired phones live: auto, secret-service
                       or file
  ZUL_VERBOSE          1: detailed diagnostics (connection states, requests,
                       library warnings); without it, one line per event
  ZUL_WEBRTC_LOG       WebRTC's own log: verbose, info, warning or error
  ZUL_SERVER_CERT_SHA256  trust the server's certificate with this SHA-256
                       fingerprint (a development server's own)
  ZUL_ASK_BEFORE_CONNECTING  1: a phone without unattended access waits for
                       the person at the computer to allow it (30 s)
  ZUL_DESKTOP          x11 or gnome: the desktop to drive, instead of the one
                       the session says (gnome: mutter's remote desktop)
  ZUL_PHONE_APP_URL    where the pairing window says the phone app lives
                       (default: the server's address)
  ZUL_PAIRING_SHORT_URL  a short address that opens the phone app with the
                       current link (a development server keeps one), shown
                       with its own QR code in the pairing window
  DISPLAY              the X display that is shown and controlled

Every mode exits with status 0; its outcome is what it prints.
)";
}

}  // namespace zul
