#pragma once

namespace zul {

// Sets the WebRTC library's process-wide log level once, before anything of
// it runs (the capturer logs too): silent unless ZUL_WEBRTC_LOG names a level
// ("verbose", "info", "warning", "error").
void configureWebRtcLogging();

}  // namespace zul
