#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>
#include <memory>
#include <string>

#include "ZulCore/Support/Error.h"

#include "ZulCore/Media/CapturedFrame.h"

namespace zul {

class PipeWireError : public Error {
 public:
  enum class Case { unavailable, connectFailed };
  static PipeWireError unavailable(std::string reason);
  static PipeWireError connectFailed(std::uint32_t node, std::string reason);
  Case kind() const { return kind_; }

 private:
  PipeWireError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

// Receives the pictures of one PipeWire video node (a screen cast) in shared
// memory, as 32-bit pixels: no GPU is needed. Runs PipeWire's loop on a
// thread of its own; the callbacks are called there.
class PipeWireStream {
 public:
  struct Picture {
    const std::uint8_t* pixels = nullptr;
    int width = 0;
    int height = 0;
    int stride = 0;
    bool rgbOrder = false;  // RGBx/RGBA bytes; else BGRx/BGRA
    // What changed since the previous picture handed out, where the
    // compositor says (mutter's damage metadata); unknown: all of it.
    std::optional<std::vector<RectPx>> damage;
  };
  // The picture is valid only during the call.
  using OnPicture = std::function<void(const Picture&)>;
  // The stream ended (node gone, error); called at most once.
  using OnEnded = std::function<void(const std::string& reason)>;

  // Connects to the PipeWire daemon of this session and to `node`. Throws
  // PipeWireError.
  PipeWireStream(std::uint32_t node, OnPicture onPicture, OnEnded onEnded);
  ~PipeWireStream();
  PipeWireStream(const PipeWireStream&) = delete;
  PipeWireStream& operator=(const PipeWireStream&) = delete;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zul
