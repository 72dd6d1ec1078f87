#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ZulAgent/demo/MiniHTTPServer.h"
#include "ZulCore/Media/CaptureSource.h"
#include "ZulTransport/PeerVideoEncoding.h"

namespace zul {

// How long the LAN phone demo runs and where it listens.
struct PhoneDemoSettings {
  double seconds = 300;
  std::int64_t port = 8787;
  std::int64_t framesPerSecond = 60;  // ZUL_MAX_FPS
  // The encoder of the page's video; the library's own when unset.
  PeerVideoEncoding videoEncoding;

  // ZUL_DEMO_SECONDS (a decimal number; 300 when unset or not a number) and
  // ZUL_DEMO_PORT (8787 when unset or not a port; 0 picks a free one).
  static PhoneDemoSettings fromValues(const char* seconds, const char* port);
  static PhoneDemoSettings fromEnvironment();
};

// The demo's HTTP routes: the page, the one offer, and at most one accepted
// answer per run.
class PhoneDemoRoutes {
 public:
  // Applies an answer; throws on failure.
  using AcceptAnswer = std::function<void(const std::string& sdp)>;
  using Print = std::function<void(std::string_view line)>;

  PhoneDemoRoutes(std::string offerSdp, AcceptAnswer acceptAnswer, Print print);

  MiniHTTPServer::Response handle(const std::string& method, const std::string& path,
                                  const Bytes& body);

  // The self-contained page that answers the offer and shows the video.
  static const std::string& page();

 private:
  enum class AnswerState { none, applying, accepted };

  std::string offerSdp_;
  AcceptAnswer acceptAnswer_;
  Print print_;
  std::mutex mutex_;
  AnswerState answer_ = AnswerState::none;
};

// One address of a network interface, as the system lists them.
struct InterfaceAddress {
  std::string name;
  std::string ipv4;  // dotted quad
  bool up = false;
  bool loopback = false;
};

// The LAN address to show: a private IPv4 address of an interface that is up
// and not loopback, else any such IPv4 address that is not link-local.
std::optional<std::string> chooseLANAddress(const std::vector<InterfaceAddress>& addresses);
// The same over this machine's interfaces.
std::optional<std::string> detectLANAddress();

// The banner lines, first an empty one.
std::vector<std::string> phoneDemoBanner(const std::optional<std::string>& address,
                                         std::uint16_t port, double seconds);

using CaptureSourceFactory = std::function<std::unique_ptr<CaptureSource>()>;

// Serves the screen to a browser on the LAN for `settings.seconds`, then
// stops. Throws what the session, the offer or the server throw.
void runPhoneDemo(const PhoneDemoSettings& settings, const CaptureSourceFactory& makeCaptureSource,
                  const std::function<void(std::string_view)>& print);

}  // namespace zul
