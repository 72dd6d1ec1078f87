#include "ZulAgent/orchestration/ShellSessions.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "ZulCore/Support/Error.h"
#include "ZulCore/Trust/Base64Url.h"

namespace zul {
namespace {

using Clock = std::chrono::steady_clock;
// While this much waits on the control channel, terminals are not read.
constexpr std::uint64_t backedUpBytes = 1024 * 1024;
// Output goes when this much is in, or when the first of it waited this long;
// at once after a pause, and right after the phone's input until this much
// of the answer went (an echo, a prompt).
constexpr std::size_t coalesceBytes = 64 * 1024;
constexpr auto coalesceTime = std::chrono::milliseconds(4);
constexpr std::size_t answerBytes = 4 * 1024;
// A message's raw output: as text or base64url, with its envelope, it stays
// inside the 256 KiB a browser's data channel takes (the control channel's
// own limit is larger). Fewer, larger messages cost less on both sides.
constexpr std::size_t outputBytes = 180 * 1024;
// Output the phone has not drawn yet: beyond this the terminal is not read
// (a browser's terminal drops what it cannot draw in time). Enough for the
// acknowledgements' round trip at tens of MB/s.
constexpr std::uint64_t unackedBytes = 4 * 1024 * 1024;

// How much of `bytes` is whole UTF-8 characters: all of it, or all but an
// unfinished character at its end; nothing when a byte is not UTF-8 there.
std::optional<std::size_t> wholeUtf8(std::string_view bytes) {
  std::size_t at = 0;
  while (at < bytes.size()) {
    const auto lead = static_cast<unsigned char>(bytes[at]);
    if (lead < 0x80) {
      ++at;
      continue;
    }
    const std::size_t length = lead >= 0xC2 && lead <= 0xDF   ? 2
                               : lead >= 0xE0 && lead <= 0xEF ? 3
                               : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                              : 0;
    if (length == 0) return std::nullopt;
    // The second byte's range rules out overlong forms, surrogates and
    // code points beyond U+10FFFF.
    const unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    for (std::size_t k = 1; k < length; ++k) {
      if (at + k == bytes.size()) return at;  // unfinished at the end
      const auto next = static_cast<unsigned char>(bytes[at + k]);
      if (k == 1 ? next < low || next > high : (next & 0xC0) != 0x80) return std::nullopt;
    }
    at += length;
  }
  return at;
}

// The length of `text` as a JSON string's content.
std::size_t escapedSize(std::string_view text) {
  std::size_t size = text.size();
  for (const char c : text) {
    if (c == '"' || c == '\\' || c == '\n' || c == '\r' || c == '\t' || c == '\b' || c == '\f') {
      size += 1;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      size += 5;  // \u00XX
    }
  }
  return size;
}

}  // namespace

// Output as JSON text where it is UTF-8 that does not grow beyond its
// base64url form (most of what terminals write; "bytes" says how much it
// was), else as base64url. Text ends on a whole character: returns how much
// of `bytes` went.
std::size_t ShellSessions::sendOutput(const std::string& id, std::string_view bytes) {
  const auto whole = wholeUtf8(bytes);
  const std::size_t textual = whole ? *whole : 0;
  nlohmann::json message = {{"type", "shell.output"}, {"shell", id}};
  if (textual > 0 && escapedSize(bytes.substr(0, textual)) <= (textual * 4 + 2) / 3) {
    bytes = bytes.substr(0, textual);
    message["text"] = std::string(bytes);
    message["bytes"] = bytes.size();
  } else {
    message["data"] = Base64Url::encode(toBytes(bytes));
  }
  send(std::move(message));
  return bytes.size();
}

ShellSessions::ShellSessions(Hooks hooks) : hooks_(std::move(hooks)) {
  wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  reader_ = std::thread([this] { loop(); });
}

ShellSessions::~ShellSessions() { shutdown(); }

void ShellSessions::shutdown() {
  if (stopping_.exchange(true)) return;
  const std::uint64_t one = 1;
  [[maybe_unused]] auto written = ::write(wakeFd_, &one, sizeof one);
  if (reader_.joinable()) reader_.join();
  std::map<std::string, std::shared_ptr<Shell>> shells;
  {
    std::lock_guard lock(mutex_);
    shells.swap(shells_);
  }
  // Stopping: hung up here, so that none outlives the agent.
  for (auto& [id, shell] : shells) {
    shell->process->hangUp();
    if (hooks_.recorded) hooks_.recorded("closed", id, shell->process->exitStatus().value_or(-1));
  }
  hangUps_.shutdown();
  ::close(wakeFd_);
}

void ShellSessions::send(nlohmann::json message) {
  const auto sessionId = hooks_.activeSessionId();
  if (!sessionId) return;
  nlohmann::json envelope =
      MessageRouter::makeEnvelope(message["type"].get<std::string>(), *sessionId);
  envelope.update(message);
  hooks_.sendControl(envelope.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

void ShellSessions::sessionStarted(const std::string& deviceId) {
  std::map<std::string, std::shared_ptr<Shell>> others;
  nlohmann::json kept = nlohmann::json::array();
  {
    std::lock_guard lock(mutex_);
    if (owner_ != deviceId) {
      others.swap(shells_);
      owner_ = deviceId;
    }
    attached_ = true;
    detachedAt_.reset();
    for (const auto& [id, shell] : shells_) {
      shell->live = false;
      kept.push_back({{"shell", id}, {"path", shell->path}});
    }
  }
  hangUpLater(std::move(others));
  if (!kept.empty()) {
    try {
      send({{"type", "shell.sessions"}, {"shells", std::move(kept)}});
    } catch (const std::exception&) {
    }
  }
}

void ShellSessions::sessionEnded() {
  std::lock_guard lock(mutex_);
  if (!attached_) return;
  attached_ = false;
  detachedAt_ = Clock::now();
}

void ShellSessions::endAll() {
  std::map<std::string, std::shared_ptr<Shell>> shells;
  {
    std::lock_guard lock(mutex_);
    shells.swap(shells_);
    detachedAt_.reset();
  }
  hangUpLater(std::move(shells));
}

void ShellSessions::hangUpLater(std::map<std::string, std::shared_ptr<Shell>> shells) {
  if (shells.empty()) return;
  hangUps_.post([this, shells = std::move(shells)] {
    for (auto& [id, shell] : shells) {
      shell->process->hangUp();
      if (hooks_.recorded) {
        hooks_.recorded("closed", id, shell->process->exitStatus().value_or(-1));
      }
    }
  });
}

void ShellSessions::open(const ShellOpenRequest& request) {
  {
    std::lock_guard lock(mutex_);
    if (shells_.size() >= maxShells) {
      throw ShellError::startFailed("at most " + std::to_string(maxShells) + " shells");
    }
  }
  const std::string path = request.shell.empty() ? ShellProcess::loginShell() : request.shell;
  auto shell = std::make_shared<Shell>();
  shell->path = path;
  shell->process = std::make_unique<ShellProcess>(path, request.columns, request.rows);
  {
    std::lock_guard lock(mutex_);
    shell->id = "s" + std::to_string(nextId_++);
    shells_[shell->id] = shell;
  }
  send({{"type", "shell.opened"},
        {"shell", shell->id},
        {"path", path},
        {"columns", request.columns},
        {"rows", request.rows}});
  if (hooks_.recorded) hooks_.recorded("opened", shell->id, 0);
  const std::uint64_t one = 1;
  [[maybe_unused]] auto written = ::write(wakeFd_, &one, sizeof one);
}

void ShellSessions::handle(const PhoneRequest& request) {
  std::string id;
  try {
    if (auto* open = std::get_if<ShellOpenRequest>(&request)) {
      this->open(*open);
      return;
    }
    std::visit(
        [&](const auto& r) {
          if constexpr (requires { r.shell; }) id = r.shell;
        },
        request);
    std::shared_ptr<Shell> shell;
    {
      std::lock_guard lock(mutex_);
      if (auto it = shells_.find(id); it != shells_.end()) shell = it->second;
    }
    if (!shell) throw PhoneRequestError::invalidShellRequest();
    if (auto* input = std::get_if<ShellInputRequest>(&request)) {
      // Counted first: the reader may see the echo before write() returns.
      ++shell->inputs;
      shell->process->write(input->data);
    } else if (auto* resize = std::get_if<ShellResizeRequest>(&request)) {
      shell->process->resize(resize->columns, resize->rows);
    } else if (std::get_if<ShellCloseRequest>(&request)) {
      {
        std::lock_guard lock(mutex_);
        shells_.erase(id);
      }
      hangUpLater({{id, shell}});
      send({{"type", "shell.closed"}, {"shell", id}, {"status", nullptr}});
    } else if (auto* ack = std::get_if<ShellAckRequest>(&request)) {
      if (ack->bytes > shell->acked) shell->acked = ack->bytes;
      const std::uint64_t one = 1;
      [[maybe_unused]] auto written = ::write(wakeFd_, &one, sizeof one);
    } else if (std::get_if<ShellAttachRequest>(&request)) {
      // Sent by the reader, so that nothing read meanwhile goes before it.
      shell->replayWanted = true;
      const std::uint64_t one = 1;
      [[maybe_unused]] auto written = ::write(wakeFd_, &one, sizeof one);
    }
  } catch (const std::exception& error) {
    try {
      send({{"type", "shell.error"},
            {"shell", id},
            {"reason", errorReason(error)},
            {"message", error.what()}});
    } catch (const std::exception&) {
    }
    hooks_.print(std::string("[shell] ") + error.what());
  }
}

bool ShellSessions::replay(Shell& shell) {
  bool attached;
  {
    std::lock_guard lock(mutex_);
    attached = attached_;
    std::string_view kept = shell.replay;
    kept.remove_prefix(kept.size() - std::min(kept.size(), replayBytes));
    // Not from inside a character the cut went through.
    while (!kept.empty() && (static_cast<unsigned char>(kept.front()) & 0xC0) == 0x80) {
      kept.remove_prefix(1);
    }
    // What waited to be sent is at the replay's end.
    shell.pending = kept;
  }
  shell.pendingSince = Clock::now();
  // The phone counts what it draws from here on.
  shell.acked = 0;
  shell.sent = 0;
  shell.live = true;
  return attached;
}

bool ShellSessions::flush(Shell& shell, bool attached) {
  if (shell.pending.empty()) return true;
  std::string out = std::move(shell.pending);
  shell.pending.clear();
  shell.lastSent = Clock::now();
  if (!attached || !shell.live) return true;  // kept in the replay for when the phone is back
  std::size_t at = 0;
  try {
    while (at < out.size()) {
      const auto piece = std::string_view(out).substr(at, outputBytes);
      // An unfinished character at the end waits for the rest of it.
      if (at > 0 && piece.size() < 4 && wholeUtf8(piece) == std::size_t(0)) break;
      const std::size_t went = sendOutput(shell.id, piece);
      at += went;
      shell.sent += went;
      shell.sinceInput += went;
    }
  } catch (const std::exception&) {
    return true;  // the phone is gone: the replay has it
  }
  if (at < out.size()) {
    shell.pending = out.substr(at);
    shell.pendingSince = shell.lastSent;
  }
  return hooks_.bufferedControlBytes() <= backedUpBytes;
}

void ShellSessions::loop() {
  // Asked of the channel after each send only: the answer costs a trip to
  // the network thread.
  bool backedUp = false;
  while (!stopping_) {
    std::vector<std::shared_ptr<Shell>> shells;
    bool attached;
    {
      std::lock_guard lock(mutex_);
      for (auto& [id, shell] : shells_) shells.push_back(shell);
      attached = attached_;
      if (detachedAt_ && Clock::now() - *detachedAt_ > keptFor) {
        // The phone did not come back in time.
        std::map<std::string, std::shared_ptr<Shell>> expired;
        expired.swap(shells_);
        detachedAt_.reset();
        shells.clear();
        hangUps_.post([this, expired = std::move(expired)] {
          for (auto& [id, shell] : expired) {
            shell->process->hangUp();
            if (hooks_.recorded) hooks_.recorded("closed", id, -1);
          }
        });
      }
    }
    if (backedUp) backedUp = attached && hooks_.bufferedControlBytes() > backedUpBytes;
    std::vector<pollfd> fds{{wakeFd_, POLLIN, 0}};
    bool waiting = false;
    for (auto& shell : shells) {
      const bool unacked = attached && shell->live && shell->sent - shell->acked >= unackedBytes;
      fds.push_back({shell->process->fd(), short(backedUp || unacked ? 0 : POLLIN), 0});
      waiting = waiting || !shell->pending.empty();
    }
    const int timeout = waiting ? int(coalesceTime.count()) : backedUp ? 5 : 500;
    if (::poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) break;
    if (fds[0].revents & POLLIN) {
      std::uint64_t count = 0;
      [[maybe_unused]] auto read = ::read(wakeFd_, &count, sizeof count);
    }
    for (std::size_t i = 0; i < shells.size(); ++i) {
      Shell& shell = *shells[i];
      if (shell.replayWanted.exchange(false)) {
        // The phone came back while this loop waited.
        attached = replay(shell);
        backedUp = !flush(shell, attached) || backedUp;
      }
      if (fds[i + 1].revents & (POLLIN | POLLHUP | POLLERR)) {
        const std::size_t had = shell.pending.size();
        if (shell.process->read(shell.pending, 64 * 1024)) {
          if (had == 0 && !shell.pending.empty()) shell.pendingSince = Clock::now();
          const auto got = std::string_view(shell.pending).substr(had);
          std::lock_guard lock(mutex_);
          shell.replay.append(got);
          // Trimmed now and then, not at every read.
          if (shell.replay.size() > 2 * replayBytes) {
            shell.replay.erase(0, shell.replay.size() - replayBytes);
          }
        } else {
          // The shell ended: what it wrote last, then its status.
          flush(shell, attached);
          shell.process->hangUp();
          const int status = shell.process->exitStatus().value_or(-1);
          {
            std::lock_guard lock(mutex_);
            shells_.erase(shell.id);
          }
          try {
            send({{"type", "shell.closed"}, {"shell", shell.id}, {"status", status}});
          } catch (const std::exception&) {
          }
          if (hooks_.recorded) hooks_.recorded("closed", shell.id, status);
          continue;
        }
      }
      if (const auto inputs = shell.inputs.load(); inputs != shell.inputsSeen) {
        shell.inputsSeen = inputs;
        shell.sinceInput = 0;
      }
      // The answer to a keystroke and output after a pause go at once; a
      // stream of output in fewer, larger messages.
      const auto now = Clock::now();
      if (shell.pending.size() >= coalesceBytes ||
          (!shell.pending.empty() &&
           (now - shell.pendingSince >= coalesceTime || now - shell.lastSent >= 4 * coalesceTime ||
            shell.sinceInput + shell.pending.size() <= answerBytes))) {
        backedUp = !flush(shell, attached) || backedUp;
      }
    }
  }
}

}  // namespace zul
