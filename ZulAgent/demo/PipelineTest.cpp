#include "ZulAgent/demo/PipelineTest.h"

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <string>
#include <thread>

namespace zul {
namespace {

// Frame and byte counters, updated from the capture thread.
class Tally {
 public:
  void add(std::int64_t bytes) {
    std::lock_guard lock(mutex_);
    if (__builtin_add_overflow(received_, 1, &received_) ||
        __builtin_add_overflow(encodedBytes_, bytes, &encodedBytes_)) {
      std::abort();  // never expected: a counter overflowing is a bug
    }
  }
  std::pair<std::int64_t, std::int64_t> totals() const {
    std::lock_guard lock(mutex_);
    return {received_, encodedBytes_};
  }

 private:
  mutable std::mutex mutex_;
  std::int64_t received_ = 0;
  std::int64_t encodedBytes_ = 0;
};

}  // namespace

CaptureOptions pipelineCaptureOptions() {
  return CaptureOptions{.displayIndex = 0,
                        .width = 960,
                        .height = 540,
                        .framesPerSecond = 10,
                        .idleFramesPerSecond = 2};
}

VideoEncoderSettings pipelineEncoderSettings(bool useRealBackends) {
  return VideoEncoderSettings{.codec = VideoCodec::h264,
                              .width = 960,
                              .height = 540,
                              .framesPerSecond = 10,
                              .bitrateKbps = 3000,
                              .hardwareRequired = useRealBackends,
                              .lowLatency = true,
                              .bFrames = 0};
}

void runPipelineTest(CaptureSource& source, VideoEncoder& encoder, const CaptureOptions& options,
                     const VideoEncoderSettings& settings, std::chrono::nanoseconds duration,
                     const LineSink& print) {
  try {
    encoder.configure(settings);
    print("encoder: " + encoder.name() +
          ", hardware=" + (encoder.isHardwareAccelerated() ? "true" : "false"));

    Tally tally;
    source.setFrameReady([&](const CapturedFrame& frame) {
      const std::string prefix = "frame #" + std::to_string(frame.sequence) + ": ";
      std::optional<EncodedVideoFrame> encoded;
      try {
        encoded = encoder.encode(frame, frame.sequence == 1);
      } catch (const std::exception& error) {
        print(prefix + "encode failed: " + error.what());
        return;
      }
      if (!encoded) {
        print(prefix + "encoder buffered it, no output yet");
        return;
      }
      const auto bytes = static_cast<std::int64_t>(encoded->annexB.size());
      tally.add(bytes);
      print("frame #" + std::to_string(encoded->sequence) + ": " + std::to_string(bytes) +
            " bytes annexB, key=" + (encoded->isKeyFrame ? "true" : "false"));
    });

    source.start(options);
    std::this_thread::sleep_for(duration);  // steady clock
    source.stop();
    source.setFrameReady(nullptr);  // the handler refers to this frame's locals

    auto [received, encodedBytes] = tally.totals();
    print("stopped: " + std::to_string(received) + " frame(s) encoded, " +
          std::to_string(encodedBytes) + " total bytes");
  } catch (const std::exception& error) {
    source.setFrameReady(nullptr);
    print(std::string("pipeline failed: ") + error.what());
  }
}

}  // namespace zul
