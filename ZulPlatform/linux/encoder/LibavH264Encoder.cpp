#include "ZulPlatform/linux/encoder/LibavH264Encoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/hwcontext.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <climits>
#include <deque>
#include <filesystem>
#include <mutex>

#include "ZulCore/Media/Nv12Surface.h"
#include "ZulPlatform/linux/capture/Nv12FrameSurface.h"
#include "ZulPlatform/linux/encoder/H264AnnexB.h"

namespace zul {
namespace {

struct CodecContextDeleter {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FrameDeleter {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketDeleter {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct BufferDeleter {
  void operator()(AVBufferRef* buffer) const { av_buffer_unref(&buffer); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using BufferPtr = std::unique_ptr<AVBufferRef, BufferDeleter>;

std::optional<std::string> firstRenderNode() {
  std::error_code error;
  for (int minor = 128; minor < 136; ++minor) {
    std::string path = "/dev/dri/renderD" + std::to_string(minor);
    if (std::filesystem::exists(path, error)) return path;
  }
  return std::nullopt;
}

// Where an NV12 picture's planes are, and what keeps them alive.
struct Nv12Planes {
  const std::uint8_t* luma = nullptr;
  int lumaStride = 0;
  const std::uint8_t* chroma = nullptr;
  int chromaStride = 0;
  std::size_t size = 0;
  std::shared_ptr<const void> owner;
};

std::optional<Nv12Planes> planesOf(const CapturedFrame& frame) {
  if (auto* surface = dynamic_cast<Nv12Surface*>(frame.nativeSurface.get())) {
    const Nv12PlaneView view = surface->planes();
    if (view.width != frame.width || view.height != frame.height || !view.luma || !view.chroma ||
        view.lumaStride < view.width || view.chromaStride < (view.width + 1) / 2 * 2) {
      return std::nullopt;
    }
    return Nv12Planes{view.luma, view.lumaStride, view.chroma, view.chromaStride,
                      // The planes may live apart; the size only tells libavcodec
                      // how much the first one spans.
                      view.chroma > view.luma
                          ? std::size_t(view.chroma - view.luma) +
                                std::size_t(view.chromaStride) * ((view.height + 1) / 2)
                          : std::size_t(view.lumaStride) * view.height,
                      frame.nativeSurface};
  }
  if (frame.pixelFormat == PixelFormat::nv12 && frame.data && frame.width > 0 && frame.height > 0 &&
      frame.width <= 16384 && frame.height <= 16384 &&
      frame.data->size() >= Nv12FrameSurface::bytesFor(int(frame.width), int(frame.height))) {
    const int width = int(frame.width), height = int(frame.height);
    return Nv12Planes{frame.data->data(),
                      width,
                      frame.data->data() + std::size_t(width) * height,
                      (width + 1) / 2 * 2,
                      frame.data->size(),
                      frame.data};
  }
  return std::nullopt;
}

constexpr int coarsestQuantizer = 51;

void releaseOwner(void* opaque, std::uint8_t*) {
  delete static_cast<std::shared_ptr<const void>*>(opaque);
}

}  // namespace

// One opened libavcodec encoder. Its own lock serialises the calls into the
// codec context, which is not thread-safe; the encoder's lock is never held
// while the codec works.
struct LibavH264Encoder::Session {
  std::mutex mutex;
  CodecContextPtr context;
  BufferPtr hardwareDevice;
  PacketPtr packet{av_packet_alloc()};
  std::string codecName;
  bool hardware = false;
  std::int64_t framesPerSecond = 1;  // the rate the codec was opened with
  double frameRate = 1;              // the rate frames actually arrive at
  std::int64_t bitrateKbps = 0;
  bool firstPictureOut = false;  // the session's first picture has been encoded
  H264AccessUnitWriter writer;
  // Capture times of the frames inside the codec, by time stamp.
  std::deque<std::pair<std::int64_t, std::chrono::system_clock::time_point>> inFlight;

  bool canChangeBitrateLive() const { return codecName != "h264_vaapi"; }
};

namespace {

// The encoders spread the average bit rate over the frame rate they were
// opened with; frames that come slower (a still screen, a throttled link)
// each get the share of the rate that actually arrives. The ceiling equal to
// the average turns on the rate control's buffer model, without which libx264
// ignores later rate changes; half a second of the rate keeps a single frame
// from growing larger than the link carries in that time. The first picture
// of a session may take two seconds of the rate: the phone's first view of a
// page of text is sharp rather than a blur that clears over seconds.
void applyRates(AVCodecContext& context, std::int64_t kbps, std::int64_t openedFps,
                double frameRate, bool firstPicture) {
  const double fps = std::clamp(frameRate, 1.0, double(std::max<std::int64_t>(openedFps, 1)));
  const auto bitsPerSecond =
      std::int64_t(double(kbps) * 1000.0 * double(std::max<std::int64_t>(openedFps, 1)) / fps);
  context.bit_rate = bitsPerSecond;
  context.rc_max_rate = bitsPerSecond;
  context.rc_buffer_size =
      int(std::min<std::int64_t>(firstPicture ? kbps * 1000 * 2 : kbps * 1000 / 2, INT_MAX));
}

// Opens `codecName` with the settings; the libav status on failure.
int openSession(LibavH264Encoder::Session& session, const std::string& codecName,
                const VideoEncoderSettings& settings, double frameRate) {
  const AVCodec* codec = avcodec_find_encoder_by_name(codecName.c_str());
  if (!codec) return AVERROR_ENCODER_NOT_FOUND;
  const bool vaapi = codecName == "h264_vaapi";
  const bool nvenc = codecName == "h264_nvenc";
  if (vaapi) {
    auto node = firstRenderNode();
    if (!node) return AVERROR(ENODEV);
  }
  if (nvenc && !std::filesystem::exists("/dev/nvidiactl")) return AVERROR(ENODEV);

  CodecContextPtr context(avcodec_alloc_context3(codec));
  if (!context) return AVERROR(ENOMEM);
  const int fps = int(std::max<std::int64_t>(settings.framesPerSecond, 1));
  context->width = int(settings.width);
  context->height = int(settings.height);
  context->time_base = AVRational{1, fps};  // a time stamp counts frames
  context->framerate = AVRational{fps, 1};  // the expected frame rate
  applyRates(*context, settings.bitrateKbps, fps, frameRate, /*firstPicture=*/true);
  // A key frame at least every ten seconds, or only on request: a 1080p key
  // frame is a burst that a live stream feels as a stall.
  context->gop_size = settings.keyFramesOnRequestOnly ? (1 << 30) : fps * 10;
  context->max_b_frames = 0;  // no frame reordering
  context->pix_fmt = AV_PIX_FMT_NV12;
  context->color_range = AVCOL_RANGE_JPEG;  // the capture's NV12 is full range
  context->colorspace = AVCOL_SPC_SMPTE170M;
  context->flags |= AV_CODEC_FLAG_LOW_DELAY;

  AVDictionary* options = nullptr;
  if (vaapi) {
    AVBufferRef* device = nullptr;
    int status = av_hwdevice_ctx_create(&device, AV_HWDEVICE_TYPE_VAAPI, firstRenderNode()->c_str(),
                                        nullptr, 0);
    if (status < 0) return status;
    session.hardwareDevice.reset(device);
    BufferPtr frames(av_hwframe_ctx_alloc(device));
    if (!frames) return AVERROR(ENOMEM);
    auto* framesContext = reinterpret_cast<AVHWFramesContext*>(frames->data);
    framesContext->format = AV_PIX_FMT_VAAPI;
    framesContext->sw_format = AV_PIX_FMT_NV12;
    framesContext->width = context->width;
    framesContext->height = context->height;
    framesContext->initial_pool_size = 4;
    if ((status = av_hwframe_ctx_init(frames.get())) < 0) return status;
    context->pix_fmt = AV_PIX_FMT_VAAPI;
    context->hw_frames_ctx = av_buffer_ref(frames.get());
    context->profile = FF_PROFILE_H264_CONSTRAINED_BASELINE;
    av_dict_set(&options, "async_depth", "1", 0);  // real time: one frame in, one out
  } else if (nvenc) {
    av_dict_set(&options, "preset", "p1", 0);
    av_dict_set(&options, "tune", "ull", 0);
    av_dict_set(&options, "zerolatency", "1", 0);
    av_dict_set(&options, "delay", "0", 0);
    av_dict_set(&options, "profile", "baseline", 0);
    av_dict_set(&options, "forced-idr", "1", 0);
  } else {
    // Real time in software: the fastest preset, no look-ahead, no delay;
    // sliced threads on every core (libavcodec's default is one thread).
    context->thread_count = 0;
    // Where a frame would overflow the buffer model, libx264 goes past the
    // coarsest quantizer H.264 has (51) into an emergency mode that drops
    // most of the residual: on a link that carries little, a small change
    // beside a large one (a flipped square on a new page of text) is left
    // out of the frame and shows only when the picture is sent again. At 51
    // every change is in the frame, which then overshoots the buffer a
    // little (about 60 kB instead of 35 kB for a page of text at 0.8 Mbit/s).
    context->qmax = coarsestQuantizer;
    av_dict_set(&options, "preset", "ultrafast", 0);
    av_dict_set(&options, "tune", "zerolatency", 0);
    av_dict_set(&options, "profile", "baseline", 0);
    av_dict_set(&options, "forced-idr", "1", 0);
  }
  const int status = avcodec_open2(context.get(), codec, &options);
  av_dict_free(&options);
  if (status < 0) return status;

  if (context->extradata && context->extradata_size > 0) {
    session.writer.learnParameterSets({context->extradata, std::size_t(context->extradata_size)});
  }
  session.context = std::move(context);
  session.codecName = codecName;
  session.hardware = LibavH264Encoder::isHardwareCodec(codecName);
  session.framesPerSecond = fps;
  session.frameRate = std::clamp(frameRate, 1.0, double(fps));
  session.bitrateKbps = settings.bitrateKbps;
  return 0;
}

}  // namespace

LibavH264Encoder::LibavH264Encoder(std::vector<std::string> candidates)
    : candidates_(std::move(candidates)) {
  // libavcodec and libx264 report every session's statistics on standard
  // error; the agent's own lines say what matters.
  static std::once_flag quiet;
  std::call_once(quiet, [] { av_log_set_level(AV_LOG_ERROR); });
}

LibavH264Encoder::~LibavH264Encoder() = default;

std::vector<std::string> LibavH264Encoder::defaultCandidates() {
  return {"h264_vaapi", "h264_nvenc", "libx264"};
}

bool LibavH264Encoder::isHardwareCodec(const std::string& codecName) {
  return codecName == "h264_vaapi" || codecName == "h264_nvenc";
}

std::string LibavH264Encoder::name() const {
  const std::string codec = codecName();
  return codec.empty() ? "libav-h264" : "libav-h264/" + codec;
}

bool LibavH264Encoder::isHardwareAccelerated() const {
  std::lock_guard lock(mutex_);
  return session_ && session_->hardware;
}

std::string LibavH264Encoder::codecName() const {
  std::lock_guard lock(mutex_);
  return session_ ? session_->codecName : std::string();
}

std::optional<VideoEncoderSettings> LibavH264Encoder::settings() const {
  std::lock_guard lock(mutex_);
  return settings_;
}

void LibavH264Encoder::configure(const VideoEncoderSettings& settings) {
  if (settings.bFrames != 0) throw MediaError::bFramesNotSupported();
  if (settings.width % 2 != 0 || settings.height % 2 != 0 || settings.width > INT_MAX ||
      settings.height > INT_MAX) {
    throw MediaError::invalidDimensions();
  }
  {
    // The old session goes first, so a failed reconfiguration leaves nothing.
    std::shared_ptr<Session> old;
    std::lock_guard lock(mutex_);
    old = std::move(session_);
    settings_.reset();
  }
  if (settings.bitrateKbps < 0 || settings.bitrateKbps > INT64_MAX / 1000) {
    throw MediaError::sessionCreationFailed(AVERROR(EINVAL));
  }

  int lastStatus = AVERROR_ENCODER_NOT_FOUND;
  std::shared_ptr<Session> opened;
  for (const auto& candidate : candidates_) {
    const bool hardware = isHardwareCodec(candidate);
    if (!hardware && settings.hardwareRequired) continue;
    auto session = std::make_shared<Session>();
    const int status = openSession(*session, candidate, settings,
                                   double(std::max<std::int64_t>(settings.framesPerSecond, 1)));
    if (status == 0) {
      opened = std::move(session);
      break;
    }
    if (!hardware) lastStatus = status;  // software failures say more about the settings
  }
  if (!opened) {
    if (settings.hardwareRequired) throw MediaError::hardwareUnavailable();
    throw MediaError::sessionCreationFailed(lastStatus);
  }
  std::lock_guard lock(mutex_);
  session_ = std::move(opened);
  settings_ = settings;
}

std::pair<std::shared_ptr<LibavH264Encoder::Session>, VideoEncoderSettings>
LibavH264Encoder::configured() const {
  std::lock_guard lock(mutex_);
  if (!session_ || !settings_) throw MediaError::notConfigured();
  return {session_, *settings_};
}

std::optional<EncodedVideoFrame> LibavH264Encoder::encode(const CapturedFrame& frame,
                                                          bool forceKeyFrame) {
  auto [session, settings] = configured();
  auto planes = planesOf(frame);
  if (!planes) throw MediaError::missingNativeSurface();
  if (frame.width != settings.width || frame.height != settings.height) {
    throw MediaError::encodeFailed(AVERROR(EINVAL));
  }

  // The encoder reads the captured pixels in place; the buffer reference keeps
  // them alive for as long as the codec holds the picture.
  FramePtr picture(av_frame_alloc());
  if (!picture) throw MediaError::encodeFailed(AVERROR(ENOMEM));
  picture->format = AV_PIX_FMT_NV12;
  picture->width = int(frame.width);
  picture->height = int(frame.height);
  picture->color_range = AVCOL_RANGE_JPEG;
  picture->data[0] = const_cast<std::uint8_t*>(planes->luma);
  picture->linesize[0] = planes->lumaStride;
  picture->data[1] = const_cast<std::uint8_t*>(planes->chroma);
  picture->linesize[1] = planes->chromaStride;
  auto* owner = new std::shared_ptr<const void>(planes->owner);
  picture->buf[0] = av_buffer_create(const_cast<std::uint8_t*>(planes->luma), planes->size,
                                     releaseOwner, owner, AV_BUFFER_FLAG_READONLY);
  if (!picture->buf[0]) {
    delete owner;
    throw MediaError::encodeFailed(AVERROR(ENOMEM));
  }
  // Time stamps follow the capture counter: frame n is at n / F seconds.
  picture->pts = frame.sequence;
  picture->pict_type = forceKeyFrame ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;

  std::lock_guard codecLock(session->mutex);
  AVCodecContext* context = session->context.get();
  AVFrame* submitted = picture.get();
  FramePtr uploaded;
  if (context->hw_frames_ctx) {
    uploaded.reset(av_frame_alloc());
    if (!uploaded) throw MediaError::encodeFailed(AVERROR(ENOMEM));
    int status = av_hwframe_get_buffer(context->hw_frames_ctx, uploaded.get(), 0);
    if (status >= 0) status = av_hwframe_transfer_data(uploaded.get(), picture.get(), 0);
    if (status >= 0) status = av_frame_copy_props(uploaded.get(), picture.get());
    if (status < 0) throw MediaError::encodeFailed(status);
    submitted = uploaded.get();
  }
  session->inFlight.emplace_back(frame.sequence, frame.capturedAt);
  if (session->inFlight.size() > 64) session->inFlight.pop_front();
  int status = avcodec_send_frame(context, submitted);
  if (status < 0) {
    session->inFlight.pop_back();
    throw MediaError::encodeFailed(status);
  }

  Bytes encoded;
  std::int64_t pts = frame.sequence;
  for (;;) {
    status = avcodec_receive_packet(context, session->packet.get());
    if (status == AVERROR(EAGAIN) || status == AVERROR_EOF) break;
    if (status < 0) throw MediaError::encodeFailed(status);
    AVPacket* packet = session->packet.get();
    if (packet->pts != AV_NOPTS_VALUE) pts = packet->pts;
    encoded.insert(encoded.end(), packet->data, packet->data + packet->size);
    av_packet_unref(packet);
  }
  if (encoded.empty()) return std::nullopt;
  if (!session->firstPictureOut) {
    session->firstPictureOut = true;
    if (session->canChangeBitrateLive()) {
      applyRates(*context, session->bitrateKbps, session->framesPerSecond, session->frameRate,
                 /*firstPicture=*/false);
    }
  }

  // The unit may belong to an earlier frame if the codec held one back.
  auto capturedAt = frame.capturedAt;
  while (!session->inFlight.empty() && session->inFlight.front().first <= pts) {
    if (session->inFlight.front().first == pts) capturedAt = session->inFlight.front().second;
    session->inFlight.pop_front();
  }
  auto unit = session->writer.rewrite(encoded);
  return EncodedVideoFrame{.sequence = pts,
                           .capturedAt = capturedAt,
                           .codec = VideoCodec::h264,
                           .annexB = std::move(unit.annexB),
                           .rtpDuration = rtpDuration(settings.framesPerSecond),
                           .isKeyFrame = unit.isKeyFrame};
}

void LibavH264Encoder::setBitrate(std::int64_t kbps) {
  auto [session, settings] = configured();
  if (kbps <= 0 || kbps > INT64_MAX / 1000 / 64) {
    throw MediaError::propertyUpdateFailed(AVERROR(EINVAL));
  }

  settings.bitrateKbps = kbps;
  if (session->canChangeBitrateLive()) {
    // libx264 and NVENC pick the new rate up with the next frame.
    std::lock_guard codecLock(session->mutex);
    session->bitrateKbps = kbps;
    applyRates(*session->context, kbps, session->framesPerSecond, session->frameRate,
               !session->firstPictureOut);
  } else {
    // VAAPI cannot change its rate control in flight: a new session at the
    // new rate takes over, starting with a key frame.
    double frameRate = 0;
    {
      std::lock_guard codecLock(session->mutex);
      frameRate = session->frameRate;
    }
    auto replacement = std::make_shared<Session>();
    const int status = openSession(*replacement, session->codecName, settings, frameRate);
    if (status < 0) throw MediaError::propertyUpdateFailed(status);
    std::lock_guard lock(mutex_);
    if (session_ == session) session_ = std::move(replacement);
  }
  std::lock_guard lock(mutex_);
  if (session_ && settings_) settings_->bitrateKbps = kbps;
}

void LibavH264Encoder::setFrameRate(double framesPerSecond) {
  auto [session, settings] = configured();
  if (!(framesPerSecond > 0)) throw MediaError::propertyUpdateFailed(AVERROR(EINVAL));
  std::lock_guard codecLock(session->mutex);
  session->frameRate = std::clamp(framesPerSecond, 1.0, double(session->framesPerSecond));
  if (session->canChangeBitrateLive()) {
    applyRates(*session->context, session->bitrateKbps, session->framesPerSecond,
               session->frameRate, !session->firstPictureOut);
  }
}

double LibavH264Encoder::frameRate() const {
  std::shared_ptr<Session> session;
  {
    std::lock_guard lock(mutex_);
    session = session_;
  }
  if (!session) return 0;
  std::lock_guard codecLock(session->mutex);
  return session->frameRate;
}

}  // namespace zul
