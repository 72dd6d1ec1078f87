#include "ZulAgent/orchestration/ClipboardSharing.h"

#include <thread>
#include <utility>

#include "ZulCore/Trust/Base64Url.h"

namespace zul {
namespace {

// The channel may hold this much before the next piece waits.
constexpr std::uint64_t roomBytes = 4 * 1024 * 1024;
constexpr auto drainLimit = std::chrono::seconds(30);

}  // namespace

ClipboardSharing::ClipboardSharing(Hooks hooks) : hooks_(std::move(hooks)) {
  if (hooks_.clipboard) {
    hooks_.clipboard->onChanged = [this](const std::vector<std::string>& types) { changed(types); };
  }
}

ClipboardSharing::~ClipboardSharing() { shutdown(); }

void ClipboardSharing::shutdown() {
  lifecycle_.shutdown();
  stopWatching();
  if (hooks_.clipboard) hooks_.clipboard->onChanged = nullptr;
}

void ClipboardSharing::sessionStarted(bool allowed) {
  lifecycle_.post([this, allowed] { startWatching(allowed); });
}

void ClipboardSharing::sessionEnded() {
  {
    std::lock_guard lock(mutex_);
    incoming_.reset();
  }
  lifecycle_.post([this] { stopWatching(); });
}

void ClipboardSharing::startWatching(bool allowed) {
  stopWatching();
  if (!allowed || !hooks_.clipboard) return;
  // Watching before the start: the backend may report what the clipboard
  // holds from its own thread before start() returns.
  {
    std::lock_guard lock(mutex_);
    watching_ = true;
  }
  try {
    hooks_.clipboard->start();
  } catch (const std::exception& error) {
    {
      std::lock_guard lock(mutex_);
      watching_ = false;
    }
    hooks_.print(std::string("[clipboard] not shared: ") + error.what());
  }
}

void ClipboardSharing::stopWatching() {
  bool watched;
  {
    std::lock_guard lock(mutex_);
    watched = std::exchange(watching_, false);
    incoming_.reset();
  }
  if (watched) hooks_.clipboard->stop();
}

void ClipboardSharing::changed(const std::vector<std::string>& types) {
  {
    std::lock_guard lock(mutex_);
    if (!watching_) return;
  }
  try {
    send({{"type", "control.clipboard.changed"}, {"mimeTypes", types}});
  } catch (const std::exception& error) {
    hooks_.print(std::string("[clipboard] change not sent: ") + error.what());
  }
}

void ClipboardSharing::send(nlohmann::json message) {
  const auto sessionId = hooks_.activeSessionId();
  if (!sessionId) throw ClipboardError::unavailable("no phone in session");
  nlohmann::json envelope =
      MessageRouter::makeEnvelope(message["type"].get<std::string>(), *sessionId);
  envelope.update(message);
  hooks_.sendControl(envelope.dump());
}

void ClipboardSharing::get(const ClipboardGetRequest& request) {
  {
    std::lock_guard lock(mutex_);
    if (!watching_) throw ClipboardError::unavailable("the clipboard is not shared");
  }
  const Bytes content = hooks_.clipboard->read(request.type);
  const std::int64_t total = std::int64_t(content.size());
  std::size_t offset = 0;
  do {
    // The channel drains before the next piece goes.
    const auto deadline = std::chrono::steady_clock::now() + drainLimit;
    while (hooks_.bufferedControlBytes() > roomBytes) {
      if (std::chrono::steady_clock::now() > deadline) {
        throw ClipboardError::unavailable("the phone does not take the content");
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const std::size_t size = std::min(pieceBytes, content.size() - offset);
    send({{"type", "control.clipboard.content"},
          {"mimeType", request.type},
          {"offset", std::int64_t(offset)},
          {"total", total},
          {"data", Base64Url::encode(Bytes(content.begin() + std::ptrdiff_t(offset),
                                           content.begin() + std::ptrdiff_t(offset + size)))}});
    offset += size;
  } while (offset < content.size());
  hooks_.print("[clipboard] sent " + std::to_string(total) + " bytes of " + request.type);
  if (hooks_.crossed) hooks_.crossed("toPhone", request.type, content.size());
}

void ClipboardSharing::set(const ClipboardSetRequest& request) {
  const std::size_t limit = clipboardLimit(request.type);
  if (limit == 0) throw ClipboardError::unsupportedType(request.type);
  if (std::uint64_t(request.total) > limit) throw ClipboardError::tooLarge(limit);
  Bytes complete;
  {
    std::lock_guard lock(mutex_);
    if (!watching_) throw ClipboardError::unavailable("the clipboard is not shared");
    if (request.offset == 0) incoming_ = Incoming{request.type, request.total, {}};
    // Pieces come in order, of one content.
    if (!incoming_ || incoming_->type != request.type || incoming_->total != request.total ||
        std::int64_t(incoming_->data.size()) != request.offset) {
      incoming_.reset();
      throw PhoneRequestError::invalidClipboardPiece();
    }
    incoming_->data.insert(incoming_->data.end(), request.data.begin(), request.data.end());
    if (std::int64_t(incoming_->data.size()) < incoming_->total) return;
    complete = std::move(incoming_->data);
    incoming_.reset();
  }
  hooks_.clipboard->write(request.type, std::move(complete));
  hooks_.print("[clipboard] set " + std::to_string(request.total) + " bytes of " + request.type);
  if (hooks_.crossed) hooks_.crossed("toComputer", request.type, std::size_t(request.total));
  send({{"type", "control.clipboard.done"}, {"mimeType", request.type}, {"total", request.total}});
}

}  // namespace zul
