#include "ZulAgent/demo/PhoneDemo.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <thread>

#include "ZulAgent/orchestration/CaptureGeometry.h"
#include "ZulTransport/LocalOfferSession.h"

namespace zul {
namespace {

constexpr std::string_view duplicateAnswerText =
    "already connected to a previous answer \u2014 reload the computer-side demo (not just the "
    "phone page) to retry";

MiniHTTPServer::Response text(int status, std::string_view body) {
  return {status, "text/plain; charset=utf-8", toBytes(body)};
}

bool isPrivate(std::uint32_t address) {
  return (address >> 24) == 10 || (address >> 20) == (172u << 4 | 1) ||
         (address >> 16) == (192u << 8 | 168);
}

}  // namespace

PhoneDemoSettings PhoneDemoSettings::fromValues(const char* seconds, const char* port) {
  PhoneDemoSettings settings;
  if (seconds && *seconds) {
    char* end = nullptr;
    const double value = std::strtod(seconds, &end);
    // Capped so that the wait's nanoseconds fit the clock (about 31 years).
    constexpr double maxSeconds = 1e9;
    if (end && *end == '\0' && std::isfinite(value) && value >= 0) {
      settings.seconds = std::min(value, maxSeconds);
    }
  }
  if (port && *port) {
    char* end = nullptr;
    const long value = std::strtol(port, &end, 10);
    if (end && *end == '\0' && value >= 0 && value <= 65535) settings.port = value;
  }
  return settings;
}

PhoneDemoSettings PhoneDemoSettings::fromEnvironment() {
  PhoneDemoSettings settings =
      fromValues(std::getenv("ZUL_DEMO_SECONDS"), std::getenv("ZUL_DEMO_PORT"));
  settings.framesPerSecond = framesPerSecondFrom(std::getenv("ZUL_MAX_FPS"));
  return settings;
}

PhoneDemoRoutes::PhoneDemoRoutes(std::string offerSdp, AcceptAnswer acceptAnswer, Print print)
    : offerSdp_(std::move(offerSdp)),
      acceptAnswer_(std::move(acceptAnswer)),
      print_(std::move(print)) {}

MiniHTTPServer::Response PhoneDemoRoutes::handle(const std::string& method, const std::string& path,
                                                 const Bytes& body) {
  if (method == "GET" && path == "/") return {200, "text/html; charset=utf-8", toBytes(page())};
  if (method == "GET" && path == "/offer") return text(200, offerSdp_);
  if (method != "POST" || path != "/answer") return text(404, "not found");

  {
    std::lock_guard lock(mutex_);
    if (answer_ != AnswerState::none) {
      if (print_)
        print_(std::string("rejected duplicate /answer: ") + std::string(duplicateAnswerText));
      return text(409, duplicateAnswerText);
    }
    answer_ = AnswerState::applying;
  }
  try {
    acceptAnswer_(toString(body));
  } catch (const std::exception& error) {
    // A refused answer leaves the offer open for a corrected one.
    std::lock_guard lock(mutex_);
    answer_ = AnswerState::none;
    return text(400, std::string("failed to accept answer: ") + error.what());
  }
  std::lock_guard lock(mutex_);
  answer_ = AnswerState::accepted;
  return text(200, "answer accepted \u2014 ICE negotiation should start now");
}

const std::string& PhoneDemoRoutes::page() {
  static const std::string html = R"html(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Zul Linux agent — transport smoke test</title>
<style>
body { margin: 0; padding: 16px; background: #111; color: #eee; font-family: system-ui, sans-serif; }
video { width: 100%; border-radius: 8px; background: #000; }
#status { margin-top: 8px; font-size: 14px; color: #9a9; }
#status.error { color: #e66; }
</style>
</head>
<body>
<video id="video" autoplay playsinline muted></video>
<div id="status">connecting…</div>
<script>
const video = document.getElementById("video");
const statusLine = document.getElementById("status");
function setStatus(text, isError) {
  statusLine.textContent = text;
  statusLine.className = isError ? "error" : "";
}
const pc = new RTCPeerConnection({ iceServers: [] });
// Once frames show, the status says so until the connection ends.
let playing = false;
video.addEventListener("playing", () => {
  playing = true;
  setStatus("playing (" + video.videoWidth + "×" + video.videoHeight + ")");
});
pc.ontrack = (event) => {
  video.srcObject = event.streams[0];
  if (!playing) setStatus("video track received");
};
pc.oniceconnectionstatechange = () => {
  const state = pc.iceConnectionState;
  if (state === "failed" || state === "disconnected" || state === "closed") {
    playing = false;
    setStatus("connection " + state + " (restart the demo to connect again)", state !== "closed");
  } else if (!playing) {
    setStatus("ice: " + state);
  }
};
function gatheringComplete() {
  return new Promise((resolve) => {
    if (pc.iceGatheringState === "complete") return resolve();
    pc.addEventListener("icegatheringstatechange", () => {
      if (pc.iceGatheringState === "complete") resolve();
    });
  });
}
async function connect() {
  setStatus("fetching offer…");
  const offer = await (await fetch("/offer")).text();
  await pc.setRemoteDescription({ type: "offer", sdp: offer });
  setStatus("creating answer…");
  await pc.setLocalDescription(await pc.createAnswer());
  await gatheringComplete();
  setStatus("sending answer…");
  const reply = await fetch("/answer", { method: "POST", body: pc.localDescription.sdp });
  if (!reply.ok) throw new Error(await reply.text());
  if (!playing) setStatus("waiting for video…");
}
connect().catch((error) => setStatus("error: " + error, true));
</script>
</body>
</html>
)html";
  return html;
}

std::optional<std::string> chooseLANAddress(const std::vector<InterfaceAddress>& addresses) {
  std::optional<std::string> fallback;
  for (const auto& entry : addresses) {
    if (!entry.up || entry.loopback) continue;
    in_addr parsed{};
    if (inet_pton(AF_INET, entry.ipv4.c_str(), &parsed) != 1) continue;
    const std::uint32_t address = ntohl(parsed.s_addr);
    if ((address >> 24) == 127 || (address >> 16) == (169u << 8 | 254)) continue;
    if (isPrivate(address)) return entry.ipv4;
    if (!fallback) fallback = entry.ipv4;
  }
  return fallback;
}

std::optional<std::string> detectLANAddress() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return std::nullopt;
  std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owned(list, freeifaddrs);
  std::vector<InterfaceAddress> addresses;
  for (ifaddrs* it = list; it; it = it->ifa_next) {
    if (!it->ifa_addr || it->ifa_addr->sa_family != AF_INET) continue;
    char buffer[INET_ADDRSTRLEN] = {};
    const auto* in = reinterpret_cast<const sockaddr_in*>(it->ifa_addr);
    if (!inet_ntop(AF_INET, &in->sin_addr, buffer, sizeof buffer)) continue;
    addresses.push_back({it->ifa_name ? it->ifa_name : "", buffer, (it->ifa_flags & IFF_UP) != 0,
                         (it->ifa_flags & IFF_LOOPBACK) != 0});
  }
  return chooseLANAddress(addresses);
}

std::vector<std::string> phoneDemoBanner(const std::optional<std::string>& address,
                                         std::uint16_t port, double seconds) {
  const std::string rule(58, '=');
  return {"",
          rule,
          "Open this on your phone, same Wi-Fi as this computer:",
          "",
          "    http://" + address.value_or("<this-computer-lan-ip>") + ":" + std::to_string(port),
          "",
          "Running for " + std::to_string(static_cast<long long>(seconds)) +
              "s (override with ZUL_DEMO_SECONDS=<n>).",
          rule};
}

void runPhoneDemo(const PhoneDemoSettings& settings, const CaptureSourceFactory& makeCaptureSource,
                  const std::function<void(std::string_view)>& print) {
  // The session first, so that the first frames already have a track to go to.
  auto session =
      std::make_shared<LocalOfferSession>(std::vector<std::string>{}, settings.videoEncoding);
  session->onIceConnectionStateChange = [print](int state) {
    print("ice connection state: " + std::to_string(state) + " (" + iceConnectionStateName(state) +
          ")");
  };

  print("starting capture\u2026");
  std::unique_ptr<CaptureSource> capture = makeCaptureSource();
  capture->setFrameReady([session](const CapturedFrame& frame) {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const std::int64_t timestampNs =
        std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
    session->push(frame, timestampNs);
  });
  // Native size; a change is read as soon as the X server reports it, so a
  // still screen needs no more than the idle rate.
  CaptureOptions options;
  options.displayIndex = 0;
  options.framesPerSecond = settings.framesPerSecond;
  options.idleFramesPerSecond = std::min(settings.framesPerSecond, idleFramesPerSecond);
  options.adaptiveRate = settings.videoEncoding.frameRate;
  capture->start(options);

  try {
    print("creating offer + gathering ICE candidates\u2026");
    const std::string offer = session->createOfferWithGatheredCandidates();
    print("offer ready (" + std::to_string(offer.size()) + " bytes)");

    auto routes = std::make_shared<PhoneDemoRoutes>(
        offer, [session](const std::string& sdp) { session->acceptAnswer(sdp); }, print);
    MiniHTTPServer server(
        settings.port, [routes](const std::string& method, const std::string& path,
                                const Bytes& body) { return routes->handle(method, path, body); });
    server.start();

    for (const auto& line : phoneDemoBanner(detectLANAddress(), server.port(), settings.seconds)) {
      print(line);
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(settings.seconds));
    capture->stop();
    server.stop();
  } catch (...) {
    capture->stop();
    throw;
  }
  session->close();
}

}  // namespace zul
