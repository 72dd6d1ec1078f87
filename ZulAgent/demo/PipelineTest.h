#pragma once

#include <chrono>
#include <functional>
#include <string_view>

#include "ZulCore/Media/CaptureSource.h"
#include "ZulCore/Media/VideoEncoder.h"

namespace zul {

// The fixed settings of the capture-and-encode test: 960x540 at 10 frames
// per second, 3000 kbps; hardware required with the real backends.
CaptureOptions pipelineCaptureOptions();
VideoEncoderSettings pipelineEncoderSettings(bool useRealBackends);

inline constexpr std::chrono::seconds pipelineDuration{3};

using LineSink = std::function<void(std::string_view)>;

// Configures the encoder, captures for `duration` while encoding every frame
// (the first forced to a key frame), stops, and prints a line per frame and
// the totals. Failures are printed, never thrown.
void runPipelineTest(CaptureSource& source, VideoEncoder& encoder, const CaptureOptions& options,
                     const VideoEncoderSettings& settings, std::chrono::nanoseconds duration,
                     const LineSink& print);

}  // namespace zul
