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
// Output goes when this much is in, or when the first of it waited this long
// (at once after a pause).
constexpr std::size_t coalesceBytes = 8 * 1024;
constexpr auto coalesceTime = std::chrono::milliseconds(4);
// A message's raw output: base64url and the envelope stay well inside the
// 256 KiB a browser's data channel takes.
constexpr std::size_t outputBytes = 48 * 1024;
// Output the phone has not drawn yet: beyond this the terminal is not read
// (a browser's terminal drops what it cannot draw in time).
constexpr std::uint64_t unackedBytes = 2 * 1024 * 1024;

}  // namespace

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
    for (const auto& [id, shell] : shells_) kept.push_back({{"shell", id}, {"path", shell->path}});
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
      std::string replay;
      {
        std::lock_guard lock(mutex_);
        replay = shell->replay;
      }
      // The phone counts what it draws from here on.
      shell->acked = 0;
      shell->sent = replay.size();
      for (std::size_t at = 0; at < replay.size(); at += outputBytes) {
        send({{"type", "shell.output"},
              {"shell", id},
              {"replay", true},
              {"data",
               Base64Url::encode(toBytes(std::string_view(replay).substr(at, outputBytes)))}});
      }
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

void ShellSessions::flush(Shell& shell, bool attached) {
  if (shell.pending.empty()) return;
  std::string out = std::move(shell.pending);
  shell.pending.clear();
  if (!attached) return;  // kept in the replay for when the phone is back
  for (std::size_t at = 0; at < out.size(); at += outputBytes) {
    try {
      const auto piece = std::string_view(out).substr(at, outputBytes);
      send({{"type", "shell.output"},
            {"shell", shell.id},
            {"data", Base64Url::encode(toBytes(piece))}});
      shell.sent += piece.size();
    } catch (const std::exception&) {
      return;  // the phone is gone: the replay has it
    }
  }
}

void ShellSessions::loop() {
  std::vector<std::uint8_t> buffer(64 * 1024);
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
    const bool backedUp = attached && hooks_.bufferedControlBytes() > backedUpBytes;
    std::vector<pollfd> fds{{wakeFd_, POLLIN, 0}};
    bool waiting = false;
    for (auto& shell : shells) {
      const bool unacked = attached && shell->sent - shell->acked >= unackedBytes;
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
      if (fds[i + 1].revents & (POLLIN | POLLHUP | POLLERR)) {
        const auto got = shell.process->read(buffer.size());
        if (got && !got->empty()) {
          if (shell.pending.empty()) shell.pendingSince = Clock::now();
          shell.pending.append(got->begin(), got->end());
          std::lock_guard lock(mutex_);
          shell.replay.append(got->begin(), got->end());
          if (shell.replay.size() > replayBytes) {
            shell.replay.erase(0, shell.replay.size() - replayBytes);
          }
        } else if (!got) {
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
      // An echo after a pause goes at once; a stream of output in fewer, larger messages.
      const auto now = Clock::now();
      if (shell.pending.size() >= coalesceBytes ||
          (!shell.pending.empty() && (now - shell.pendingSince >= coalesceTime ||
                                      now - shell.lastSent >= 4 * coalesceTime))) {
        shell.lastSent = now;
        flush(shell, attached);
      }
    }
  }
}

}  // namespace zul
