#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "ZulCore/Support/TaskQueue.h"
#include "ZulPlatform/linux/shell/ShellProcess.h"
#include "ZulTransport/PhoneRequests.h"

namespace zul {

// Terminals for the phone in session that holds `shell` and `control`: at
// most four login shells on pseudo-terminals, their output coalesced (a few
// milliseconds or 64 KiB; the answer to a keystroke at once) into
// "shell.output" messages, as text where it is UTF-8. While the phone's
// control channel is backed up the terminals are not read, so a shell that
// writes without end holds up itself, not the agent's memory. A phone whose
// connection drops finds its shells again within 60 s, with their last
// 256 KiB of output replayed; when its session ends for good (replaced,
// revoked, the permission withdrawn, the agent stopping) they are hung up.
class ShellSessions {
 public:
  struct Hooks {
    // A message to the phone in session; throws when it cannot be sent.
    std::function<void(const std::string& text)> sendControl;
    std::function<std::optional<std::string>()> activeSessionId;
    std::function<std::uint64_t()> bufferedControlBytes;
    std::function<void(std::string_view)> print;
    // A shell opened or closed (for the record kept on the computer).
    std::function<void(const std::string& event, const std::string& shell, int status)> recorded;
  };

  static constexpr std::size_t maxShells = 4;
  static constexpr std::size_t replayBytes = 256 * 1024;
  static constexpr auto keptFor = std::chrono::seconds(60);

  explicit ShellSessions(Hooks hooks);
  // shutdown()
  ~ShellSessions();
  ShellSessions(const ShellSessions&) = delete;
  ShellSessions& operator=(const ShellSessions&) = delete;

  // A phone came into session; a phone other than the shells' own ends them.
  void sessionStarted(const std::string& deviceId);
  // Its connection ended: the shells are kept for a while.
  void sessionEnded();
  // The session ended for good: every shell is hung up.
  void endAll();
  // One "shell." request, on the shell queue; failures are answered with
  // "shell.error".
  void handle(const PhoneRequest& request);
  void shutdown();

 private:
  struct Shell {
    std::string id, path;
    std::unique_ptr<ShellProcess> process;
    std::string replay;   // the last output, for a phone that comes back
    std::string pending;  // read and not sent yet
    std::chrono::steady_clock::time_point pendingSince;
    std::chrono::steady_clock::time_point lastSent;  // output after a pause goes at once
    // The phone's keystrokes, counted as they come; the reader sends what
    // follows one (an echo) at once, until a few KiB of it went.
    std::atomic<std::uint64_t> inputs{0};
    std::uint64_t inputsSeen = 0;
    std::size_t sinceInput = 0;
    // Output sent since the shell opened or was attached, and what the phone
    // has drawn of it: the terminal is not read while too much is unacknowledged.
    std::atomic<std::uint64_t> sent{0};
    std::atomic<std::uint64_t> acked{0};
    // Its output goes to the phone: opened by it, or attached again. A kept
    // shell's output waits in the replay until the phone asks for it.
    std::atomic<bool> live{true};
    std::atomic<bool> replayWanted{false};
  };
  void open(const ShellOpenRequest& request);
  void loop();
  // Sends what was read; false when the phone's channel is backed up.
  bool flush(Shell& shell, bool attached);
  // The recent output of a shell attached again, in place of what waits;
  // whether the phone is attached now.
  bool replay(Shell& shell);
  void send(nlohmann::json message);
  std::size_t sendOutput(const std::string& id, std::string_view bytes);
  void hangUpLater(std::map<std::string, std::shared_ptr<Shell>> shells);

  Hooks hooks_;
  std::mutex mutex_;  // guards the fields below
  std::map<std::string, std::shared_ptr<Shell>> shells_;
  std::string owner_;  // the device whose shells they are
  bool attached_ = false;
  std::optional<std::chrono::steady_clock::time_point> detachedAt_;
  std::uint64_t nextId_ = 1;
  std::atomic<bool> stopping_{false};
  int wakeFd_ = -1;
  TaskQueue hangUps_{16};  // hanging up takes up to 2 s: never on a caller's thread
  std::thread reader_;
};

}  // namespace zul
