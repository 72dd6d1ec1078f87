#include <gtest/gtest.h>

#include "ZulPlatform/linux/encoder/H264AnnexB.h"
#include "ZulPlatform/linux/encoder/LibavH264Encoder.h"
#include "ZulTransport/VideoEncoderAdapter.h"
#include "api/video/i420_buffer.h"
#include "api/video/nv12_buffer.h"
#include "modules/video_coding/include/video_codec_interface.h"
#include "modules/video_coding/include/video_error_codes.h"

namespace zul::webrtc_support {
namespace {

struct Output {
  bool key = false;
  std::uint32_t rtpTimestamp = 0;
  std::vector<int> nalTypes;  // in order, one per start code
  webrtc::H264PacketizationMode mode = webrtc::H264PacketizationMode::SingleNalUnit;
};

class Recorder : public webrtc::EncodedImageCallback {
 public:
  std::vector<Output> outputs;
  Result OnEncodedImage(const webrtc::EncodedImage& image,
                        const webrtc::CodecSpecificInfo* info) override {
    Output out{image._frameType == webrtc::VideoFrameType::kVideoFrameKey,
               image.Timestamp(),
               {},
               info->codecSpecific.H264.packetization_mode};
    const std::span<const std::uint8_t> data(image.data(), image.size());
    for (auto unit : h264::splitAnnexB(data)) out.nalTypes.push_back(h264::nalType(unit));
    EXPECT_TRUE(data.size() > 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1);
    EXPECT_EQ(image.playout_delay_, webrtc::VideoPlayoutDelay(0, 0));  // shown once decoded
    outputs.push_back(std::move(out));
    return Result(Result::OK);
  }
};

webrtc::VideoCodec codec(int width, int height) {
  webrtc::VideoCodec settings;
  settings.codecType = webrtc::kVideoCodecH264;
  settings.width = std::uint16_t(width);
  settings.height = std::uint16_t(height);
  settings.maxFramerate = 30;
  settings.startBitrate = 800;
  settings.maxBitrate = 4000;
  return settings;
}

const webrtc::VideoEncoder::Settings kSettings(webrtc::VideoEncoder::Capabilities(false), 2, 1200);

webrtc::VideoFrame frame(rtc::scoped_refptr<webrtc::VideoFrameBuffer> buffer, int index) {
  return webrtc::VideoFrame::Builder()
      .set_video_frame_buffer(buffer)
      .set_timestamp_rtp(std::uint32_t(3000 * index))
      .set_timestamp_us(std::int64_t(index) * 33'333)
      .build();
}

rtc::scoped_refptr<webrtc::VideoFrameBuffer> picture(bool nv12, int width, int height, int shade) {
  if (nv12) {
    auto buffer = webrtc::NV12Buffer::Create(width, height);
    std::fill_n(buffer->MutableDataY(), buffer->StrideY() * height, std::uint8_t(shade));
    std::fill_n(buffer->MutableDataUV(), buffer->StrideUV() * ((height + 1) / 2), 128);
    return buffer;
  }
  auto buffer = webrtc::I420Buffer::Create(width, height);
  webrtc::I420Buffer::SetBlack(buffer.get());
  return buffer;
}

TEST(VideoEncoderAdapterTest, OffersConstrainedBaselineFirstAndChecksSizesAtInit) {
  AgentVideoEncoderFactory factory([] { return std::make_unique<LibavH264Encoder>(); }, nullptr);
  const auto formats = factory.GetSupportedFormats();
  ASSERT_FALSE(formats.empty());
  EXPECT_EQ(formats[0].name, "H264");
  EXPECT_EQ(formats[0].parameters.at("profile-level-id"), "42e01f");
  EXPECT_EQ(formats[0].parameters.at("packetization-mode"), "1");
  for (std::size_t i = 1; i < formats.size(); ++i) EXPECT_FALSE(formats[i].IsSameCodec(formats[0]));

  // Sizes are checked at start: an odd one falls back to WebRTC's own encoder.
  struct Case {
    int width, height, result;
    std::string line;
  } cases[] = {
      {1920, 1080, WEBRTC_VIDEO_CODEC_OK,
       "video encoder: libav-h264/libx264 (software), 1920x1080"},
      {641, 361, WEBRTC_VIDEO_CODEC_ERROR, "falling back to WebRTC's OpenH264"},
      {0, 0, WEBRTC_VIDEO_CODEC_ERR_PARAMETER, ""},
      // With a rate that adapts, the line says both rates.
      {1280, 720, WEBRTC_VIDEO_CODEC_OK,
       "1280x720 at up to 60 fps, starting at 800 kbps; 30 fps while a frame takes longer to "
       "encode than 60 fps allow"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> lines;
    const bool adapts = c.width == 1280;
    VideoEncoderAdapter adapter(
        std::make_unique<LibavH264Encoder>(std::vector<std::string>{"libx264"}),
        [&](const std::string& line) { lines.push_back(line); },
        adapts ? std::make_shared<FrameRateChoice>(60, 30) : nullptr);
    auto settings = codec(c.width, c.height);
    if (adapts) settings.maxFramerate = 60;
    EXPECT_EQ(adapter.InitEncode(&settings, kSettings), c.result) << c.width;
    if (!c.line.empty()) {
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_NE(lines[0].find(c.line), std::string::npos) << lines[0];
    }
  }
}

TEST(VideoEncoderAdapterTest, EncodesKeyFramesOnRequestAndFollowsTheRate) {
  auto owned = std::make_unique<LibavH264Encoder>(std::vector<std::string>{"libx264"});
  LibavH264Encoder& encoder = *owned;
  VideoEncoderAdapter adapter(std::move(owned), nullptr);
  Recorder recorder;
  adapter.RegisterEncodeCompleteCallback(&recorder);
  const auto settings = codec(320, 240);
  ASSERT_EQ(adapter.InitEncode(&settings, kSettings), WEBRTC_VIDEO_CODEC_OK);

  const std::vector<webrtc::VideoFrameType> key{webrtc::VideoFrameType::kVideoFrameKey};
  const std::vector<webrtc::VideoFrameType> delta{webrtc::VideoFrameType::kVideoFrameDelta};
  struct Step {
    bool nv12;
    bool askForKey;
    bool expectKey;
  } steps[] = {{true, true, true}, {false, false, false}, {true, true, true}, {true, false, false}};
  for (int i = 0; i < int(std::size(steps)); ++i) {
    const auto& step = steps[i];
    ASSERT_EQ(adapter.Encode(frame(picture(step.nv12, 320, 240, 40 * i), i),
                             step.askForKey ? &key : &delta),
              WEBRTC_VIDEO_CODEC_OK);
    ASSERT_EQ(recorder.outputs.size(), std::size_t(i + 1)) << "frame " << i;
    const Output& out = recorder.outputs.back();
    EXPECT_EQ(out.key, step.expectKey) << "frame " << i;
    EXPECT_EQ(out.rtpTimestamp, std::uint32_t(3000 * i));
    EXPECT_EQ(out.mode, webrtc::H264PacketizationMode::NonInterleaved);
    // A key frame carries SPS and an IDR slice; other frames neither.
    for (int type : {h264::nalSps, h264::nalIdrSlice})
      EXPECT_EQ(std::count(out.nalTypes.begin(), out.nalTypes.end(), type) > 0, step.expectKey)
          << "frame " << i << " type " << type;
  }

  // A frame of another size before WebRTC reconfigures: a fresh key frame.
  ASSERT_EQ(adapter.Encode(frame(picture(true, 160, 120, 0), 8), &delta), WEBRTC_VIDEO_CODEC_OK);
  ASSERT_EQ(recorder.outputs.size(), std::size(steps) + 1);
  EXPECT_TRUE(recorder.outputs.back().key);
  EXPECT_EQ(adapter.settings().width, 160);

  // Bit rate and frame rate reach the encoder; a wobble of the frame rate
  // estimate does not, nor a rate above the configured one.
  webrtc::VideoBitrateAllocation bitrate;
  bitrate.SetBitrate(0, 0, 500'000);
  struct Rates {
    double fps, expected;
  } rates[] = {{15.0, 15.0}, {15.4, 15.0}, {120.0, 30.0}};
  for (const auto& r : rates) {
    adapter.SetRates(webrtc::VideoEncoder::RateControlParameters(bitrate, r.fps));
    EXPECT_EQ(encoder.settings()->bitrateKbps, 500) << r.fps;
    EXPECT_EQ(encoder.frameRate(), r.expected) << r.fps;
  }
  // No bits for the stream: frames are dropped, not encoded.
  adapter.SetRates(
      webrtc::VideoEncoder::RateControlParameters(webrtc::VideoBitrateAllocation(), 15.0));
  ASSERT_EQ(adapter.Encode(frame(picture(true, 160, 120, 0), 9), &delta), WEBRTC_VIDEO_CODEC_OK);
  EXPECT_EQ(recorder.outputs.size(), std::size(steps) + 1);
}

}  // namespace
}  // namespace zul::webrtc_support
