#include "ZulPlatform/linux/gnome/PipeWireStream.h"

#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#include <spa/utils/result.h>

// The WebRTC library carries weak stand-ins for PipeWire's functions that
// call through pointers it fills when it loads libpipewire-0.3.so.0; the
// linker binds our calls to them too, so that loading comes first.
namespace webrtc {
bool InitPipewireStubs();
}

namespace zul {

PipeWireError PipeWireError::unavailable(std::string reason) {
  return {Case::unavailable, formatErrorCase("unavailable", {field(reason)})};
}
PipeWireError PipeWireError::connectFailed(std::uint32_t node, std::string reason) {
  return {Case::connectFailed,
          formatErrorCase("connectFailed", {field("node", std::int64_t(node)), field(reason)})};
}

struct PipeWireStream::Impl {
  OnPicture onPicture;
  OnEnded onEnded;
  pw_thread_loop* loop = nullptr;
  pw_context* context = nullptr;
  pw_core* core = nullptr;
  pw_stream* stream = nullptr;
  spa_hook coreListener{};
  spa_hook streamListener{};
  spa_video_info_raw format{};
  bool streaming = false;
  bool ended = false;  // loop thread only

  ~Impl() {
    // The loop thread ends first, so no callback runs while things go.
    if (loop) pw_thread_loop_stop(loop);
    if (stream) pw_stream_destroy(stream);
    if (core) pw_core_disconnect(core);
    if (context) pw_context_destroy(context);
    if (loop) pw_thread_loop_destroy(loop);
  }

  void end(const std::string& reason) {
    if (ended) return;
    ended = true;
    if (onEnded) {
      try {
        onEnded(reason);
      } catch (...) {
        // an owner's failure must not reach PipeWire
      }
    }
  }

  static void onStateChanged(void* data, pw_stream_state, pw_stream_state state,
                             const char* error) {
    auto* self = static_cast<Impl*>(data);
    if (state == PW_STREAM_STATE_STREAMING) self->streaming = true;
    if (state == PW_STREAM_STATE_ERROR) {
      self->end(std::string("stream error: ") + (error ? error : "unknown"));
    } else if (state == PW_STREAM_STATE_UNCONNECTED && self->streaming) {
      self->end("the screen-cast stream ended");
    }
  }

  static void onParamChanged(void* data, uint32_t id, const spa_pod* param) {
    auto* self = static_cast<Impl*>(data);
    if (!param || id != SPA_PARAM_Format) return;
    spa_video_info_raw info{};
    if (spa_format_video_raw_parse(param, &info) < 0) return;
    self->format = info;
    // Pictures in shared memory, mapped by PipeWire: no DMA-BUF, no GPU.
    std::uint8_t buffer[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof buffer);
    const spa_pod* params[2];
    params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_dataType,
        SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr))));
    // Where each picture changed, so that only that is converted again.
    constexpr int region = int(sizeof(spa_meta_region));
    params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
        SPA_POD_Id(SPA_META_VideoDamage), SPA_PARAM_META_size,
        SPA_POD_CHOICE_RANGE_Int(region * 16, region, region * 16)));
    pw_stream_update_params(self->stream, params, 2);
  }

  static void onProcess(void* data) {
    auto* self = static_cast<Impl*>(data);
    // Only the newest picture matters; older ones go straight back, and
    // what changed in them counts as changed in it.
    pw_buffer* newest = nullptr;
    std::optional<std::vector<RectPx>> damage = std::vector<RectPx>{};
    while (pw_buffer* buffer = pw_stream_dequeue_buffer(self->stream)) {
      if (newest) pw_stream_queue_buffer(self->stream, newest);
      newest = buffer;
      addDamage(buffer->buffer, damage);
    }
    if (!newest) return;
    spa_buffer* buffer = newest->buffer;
    if (buffer->n_datas > 0 && buffer->datas[0].data && buffer->datas[0].chunk &&
        buffer->datas[0].chunk->size > 0 &&
        (buffer->datas[0].chunk->flags & SPA_CHUNK_FLAG_CORRUPTED) == 0) {
      const spa_data& plane = buffer->datas[0];
      Picture picture;
      picture.width = int(self->format.size.width);
      picture.height = int(self->format.size.height);
      picture.stride =
          plane.chunk->stride > 0 ? plane.chunk->stride : int(self->format.size.width) * 4;
      picture.pixels = static_cast<const std::uint8_t*>(plane.data) + plane.chunk->offset;
      picture.rgbOrder = self->format.format == SPA_VIDEO_FORMAT_RGBx ||
                         self->format.format == SPA_VIDEO_FORMAT_RGBA;
      picture.damage = std::move(damage);
      const std::size_t needed = std::size_t(picture.stride) * std::size_t(picture.height);
      if (picture.width > 0 && picture.height > 0 &&
          plane.chunk->offset + needed <= plane.maxsize && self->onPicture) {
        try {
          self->onPicture(picture);
        } catch (...) {
          // an owner's failure must not reach PipeWire
        }
      }
    }
    pw_stream_queue_buffer(self->stream, newest);
  }

  // The damage a buffer carries joins `damage`; a buffer without any makes
  // it unknown.
  static void addDamage(spa_buffer* buffer, std::optional<std::vector<RectPx>>& damage) {
    auto* meta = static_cast<spa_meta*>(spa_buffer_find_meta(buffer, SPA_META_VideoDamage));
    if (!meta) {
      damage.reset();
      return;
    }
    bool any = false;
    spa_meta_region* region = nullptr;
    spa_meta_for_each(region, meta) {
      if (!spa_meta_region_is_valid(region)) break;
      any = true;
      if (damage) {
        damage->push_back({region->region.position.x, region->region.position.y,
                           std::int64_t(region->region.size.width),
                           std::int64_t(region->region.size.height)});
      }
    }
    if (!any) damage.reset();
  }

  static void onCoreError(void* data, uint32_t id, int, int res, const char* message) {
    auto* self = static_cast<Impl*>(data);
    if (id == PW_ID_CORE || res == -EPIPE) {
      self->end(std::string("PipeWire: ") + (message ? message : "connection lost"));
    }
  }
};

PipeWireStream::PipeWireStream(std::uint32_t node, OnPicture onPicture, OnEnded onEnded)
    : impl_(std::make_unique<Impl>()) {
  // Once per process.
  static const bool loaded = [] {
    if (!webrtc::InitPipewireStubs()) return false;
    pw_init(nullptr, nullptr);
    return true;
  }();
  if (!loaded) throw PipeWireError::unavailable("cannot load libpipewire-0.3.so.0");
  impl_->onPicture = std::move(onPicture);
  impl_->onEnded = std::move(onEnded);
  impl_->loop = pw_thread_loop_new("zul-pipewire", nullptr);
  if (!impl_->loop) throw PipeWireError::unavailable("cannot make a PipeWire loop");
  impl_->context = pw_context_new(pw_thread_loop_get_loop(impl_->loop), nullptr, 0);
  if (!impl_->context) throw PipeWireError::unavailable("cannot make a PipeWire context");
  if (pw_thread_loop_start(impl_->loop) < 0) {
    throw PipeWireError::unavailable("cannot start the PipeWire loop");
  }

  static const pw_core_events coreEvents = [] {
    pw_core_events events{};
    events.version = PW_VERSION_CORE_EVENTS;
    events.error = &Impl::onCoreError;
    return events;
  }();
  static const pw_stream_events streamEvents = [] {
    pw_stream_events events{};
    events.version = PW_VERSION_STREAM_EVENTS;
    events.state_changed = &Impl::onStateChanged;
    events.param_changed = &Impl::onParamChanged;
    events.process = &Impl::onProcess;
    return events;
  }();

  pw_thread_loop_lock(impl_->loop);
  std::string failure;
  impl_->core = pw_context_connect(impl_->context, nullptr, 0);
  if (!impl_->core) {
    failure = "no PipeWire daemon in this session";
  } else {
    pw_core_add_listener(impl_->core, &impl_->coreListener, &coreEvents, impl_.get());
    impl_->stream =
        pw_stream_new(impl_->core, "zul-screen",
                      pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY,
                                        "Capture", PW_KEY_MEDIA_ROLE, "Screen", nullptr));
    if (!impl_->stream) {
      failure = "cannot make a PipeWire stream";
    } else {
      pw_stream_add_listener(impl_->stream, &impl_->streamListener, &streamEvents, impl_.get());
      std::uint8_t buffer[1024];
      spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof buffer);
      spa_rectangle sizeDefault{1920, 1080}, sizeMin{1, 1}, sizeMax{16384, 16384};
      spa_fraction rateDefault{0, 1}, rateMin{0, 1}, rateMax{360, 1};
      // No modifiers offered: the compositor sends shared-memory buffers.
      const spa_pod* params[1];
      params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
          &builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType,
          SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
          SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
          SPA_POD_CHOICE_ENUM_Id(5, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx,
                                 SPA_VIDEO_FORMAT_BGRA, SPA_VIDEO_FORMAT_RGBx,
                                 SPA_VIDEO_FORMAT_RGBA),
          SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&sizeDefault, &sizeMin, &sizeMax),
          SPA_FORMAT_VIDEO_framerate,
          SPA_POD_CHOICE_RANGE_Fraction(&rateDefault, &rateMin, &rateMax)));
      const int result = pw_stream_connect(
          impl_->stream, PW_DIRECTION_INPUT, node,
          pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS), params, 1);
      if (result < 0) failure = spa_strerror(result);
    }
  }
  pw_thread_loop_unlock(impl_->loop);
  if (!failure.empty()) throw PipeWireError::connectFailed(node, failure);  // Impl cleans up
}

PipeWireStream::~PipeWireStream() = default;

}  // namespace zul
