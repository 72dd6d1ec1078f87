#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "ZulCore/Clipboard/Clipboard.h"
#include "ZulCore/Support/TaskQueue.h"
#include "ZulTransport/PhoneRequests.h"

namespace zul {

// The desktop's clipboard shared with the phone in session, for a phone
// granted `clipboard` alone: the phone hears of each change (its types, never
// its content), asks for the content when its person wants it, and sets the
// clipboard from its own. Nothing of the clipboard is read while no such
// phone is in session. Content travels in pieces on the "control" channel,
// each sent once the channel has room, so a large picture never piles up.
class ClipboardSharing {
 public:
  struct Hooks {
    // The desktop's clipboard; nothing where the desktop has none.
    std::shared_ptr<Clipboard> clipboard;
    // A message to the phone in session; throws when it cannot be sent.
    std::function<void(const std::string& text)> sendControl;
    std::function<std::optional<std::string>()> activeSessionId;
    // Bytes waiting on the "control" channel.
    std::function<std::uint64_t()> bufferedControlBytes;
    std::function<void(std::string_view)> print;
    // Content that crossed: "toPhone" or "toComputer", its type and size.
    std::function<void(const std::string& direction, const std::string& type, std::size_t size)>
        crossed;
  };

  // Raw bytes of one piece the agent sends: with base64url and the envelope
  // it stays inside the 256 KiB message a browser's data channel takes.
  static constexpr std::size_t pieceBytes = 160 * 1024;

  explicit ClipboardSharing(Hooks hooks);
  // sessionEnded()
  ~ClipboardSharing();
  ClipboardSharing(const ClipboardSharing&) = delete;
  ClipboardSharing& operator=(const ClipboardSharing&) = delete;

  // A phone came into session; `allowed`: it holds `clipboard`. Both are
  // carried out on a thread of this object's: they are called on the
  // library's signalling thread, and stopping the clipboard waits for a
  // send that needs that thread.
  void sessionStarted(bool allowed);
  // Its session ended: the clipboard is no longer watched, and content it
  // was sending is dropped.
  void sessionEnded();
  // Waits for the starts and ends asked for so far; then ends the watch.
  void shutdown();

  // On the clipboard's request queue. Throw ClipboardError or
  // PhoneRequestError, which the phone is answered with.
  void get(const ClipboardGetRequest& request);
  void set(const ClipboardSetRequest& request);

 private:
  void startWatching(bool allowed);
  void stopWatching();
  void changed(const std::vector<std::string>& types);
  void send(nlohmann::json message);

  Hooks hooks_;
  std::mutex mutex_;  // guards the fields below
  bool watching_ = false;
  struct Incoming {
    std::string type;
    std::int64_t total = 0;
    Bytes data;
  };
  std::optional<Incoming> incoming_;
  TaskQueue lifecycle_{16};  // last: its thread ends before the fields above go
};

}  // namespace zul
