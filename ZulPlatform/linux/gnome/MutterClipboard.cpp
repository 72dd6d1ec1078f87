#include "ZulPlatform/linux/gnome/MutterClipboard.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <optional>

#include "ZulCore/Support/TaskQueue.h"
#include "ZulPlatform/linux/gnome/MutterDesktop.h"

namespace zul {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto ownerAnswerLimit = std::chrono::seconds(5);

bool isText(const std::string& mime) {
  return mime == "text/plain;charset=utf-8" || mime == "text/plain" || mime == "UTF8_STRING" ||
         mime == "STRING" || mime == "TEXT";
}

std::vector<std::string> typesOf(const std::vector<std::string>& mimeTypes) {
  std::vector<std::string> types;
  if (std::any_of(mimeTypes.begin(), mimeTypes.end(), isText)) {
    types.emplace_back(clipboardTextType);
  }
  if (std::find(mimeTypes.begin(), mimeTypes.end(), clipboardImageType) != mimeTypes.end()) {
    types.emplace_back(clipboardImageType);
  }
  return types;
}

// Everything a pipe gives until its end, at most `limit` bytes and five seconds.
Bytes readAll(int fd, std::size_t limit) {
  Bytes out;
  const auto deadline = Clock::now() + ownerAnswerLimit;
  std::uint8_t buffer[65536];
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd p{fd, POLLIN, 0};
    if (left <= 0 || ::poll(&p, 1, int(left)) <= 0) {
      throw ClipboardError::unavailable("the clipboard's owner did not answer");
    }
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw ClipboardError::unavailable("the clipboard's content could not be read");
    if (n == 0) return out;
    if (out.size() + std::size_t(n) > limit) throw ClipboardError::tooLarge(limit);
    out.insert(out.end(), buffer, buffer + n);
  }
}

bool writeAll(int fd, const Bytes& data) {
  std::size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += std::size_t(n);
  }
  return true;
}

struct Fd {
  int fd;
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

}  // namespace

struct MutterClipboard::Impl : std::enable_shared_from_this<Impl> {
  explicit Impl(std::shared_ptr<MutterDesktop> desktop) : desktop(std::move(desktop)) {}

  std::shared_ptr<MutterDesktop> desktop;
  Clipboard* owner = nullptr;
  std::mutex mutex;  // guards the fields below
  bool running = false;
  std::shared_ptr<MutterSession> session;
  std::optional<std::pair<std::string, std::shared_ptr<const Bytes>>> owned;
  TaskQueue transfers{16};  // writes to pasting clients, one at a time

  // The clipboard of the session input uses now; none is opened for it:
  // capture opens one as the phone starts to watch, and input moving there
  // attaches the clipboard.
  void attach() {
    std::shared_ptr<MutterSession> current = desktop->openInputSession();
    if (!current) return;
    std::optional<std::string> offered;
    {
      std::lock_guard lock(mutex);
      if (!running || current == session) return;
      session = current;
      if (owned) offered = owned->first;
    }
    std::weak_ptr<Impl> weak = weak_from_this();
    current->onSelectionOwnerChanged = [weak](const std::vector<std::string>& mimeTypes,
                                              bool ours) {
      auto self = weak.lock();
      if (!self) return;
      if (!ours) {
        std::lock_guard lock(self->mutex);
        self->owned.reset();
      }
      if (self->owner) self->owner->onChanged(typesOf(mimeTypes));
    };
    current->onSelectionTransfer = [weak, current](const std::string& mime, std::uint32_t serial) {
      auto self = weak.lock();
      if (!self) return;
      // Off the bus thread: the client may read slowly.
      self->transfers.post(
          [self, current, mime, serial] { self->transfer(*current, mime, serial); });
    };
    try {
      current->enableClipboard();
      if (offered) current->setSelection(mimeTypesFor(*offered));
    } catch (const std::exception&) {
      // a session that closed meanwhile: the next one is attached when input moves
    }
  }

  static std::vector<std::string> mimeTypesFor(const std::string& type) {
    if (type == clipboardImageType) return {std::string(clipboardImageType)};
    return {std::string(clipboardTextType), "text/plain", "UTF8_STRING", "STRING", "TEXT"};
  }

  void transfer(MutterSession& from, const std::string& mime, std::uint32_t serial) {
    std::shared_ptr<const Bytes> data;
    {
      std::lock_guard lock(mutex);
      if (owned &&
          (owned->first == clipboardImageType ? mime == clipboardImageType : isText(mime))) {
        data = owned->second;
      }
    }
    bool ok = false;
    try {
      if (data) {
        Fd fd{from.selectionWrite(serial)};
        ok = writeAll(fd.fd, *data);
      }
      from.selectionWriteDone(serial, ok);
    } catch (const std::exception&) {
      // the client or the session went away
    }
  }

  void detach() {
    std::shared_ptr<MutterSession> previous;
    {
      std::lock_guard lock(mutex);
      previous = std::exchange(session, nullptr);
      owned.reset();
    }
    if (!previous) return;
    previous->onSelectionOwnerChanged = nullptr;
    previous->onSelectionTransfer = nullptr;
    try {
      if (previous->open()) previous->disableClipboard();
    } catch (const std::exception&) {
    }
  }

  std::shared_ptr<MutterSession> current() {
    std::lock_guard lock(mutex);
    if (!running) throw ClipboardError::unavailable("the clipboard is not watched");
    if (!session || !session->open()) {
      throw ClipboardError::unavailable("mutter's remote-desktop session is gone");
    }
    return session;
  }
};

MutterClipboard::MutterClipboard(std::shared_ptr<MutterDesktop> desktop)
    : impl_(std::make_shared<Impl>(std::move(desktop))) {
  impl_->owner = this;
}

MutterClipboard::~MutterClipboard() {
  stop();
  impl_->transfers.shutdown();
}

void MutterClipboard::start() {
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->running) return;
    impl_->running = true;
  }
  std::weak_ptr<Impl> weak = impl_;
  impl_->desktop->onInputSessionChanged = [weak] {
    if (auto self = weak.lock()) self->attach();
  };
  impl_->attach();
}

void MutterClipboard::stop() {
  {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->running) return;
    impl_->running = false;
  }
  impl_->desktop->onInputSessionChanged = nullptr;
  impl_->transfers.waitUntilIdle();
  impl_->detach();
}

Bytes MutterClipboard::read(const std::string& type) {
  const std::size_t limit = clipboardLimit(type);
  if (limit == 0) throw ClipboardError::unsupportedType(type);
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->owned && impl_->owned->first == type) return *impl_->owned->second;
  }
  auto session = impl_->current();
  try {
    Fd fd{session->selectionRead(type)};
    return readAll(fd.fd, limit);
  } catch (const MutterError&) {
    throw ClipboardError::empty(type);
  }
}

void MutterClipboard::write(const std::string& type, Bytes content) {
  const std::size_t limit = clipboardLimit(type);
  if (limit == 0) throw ClipboardError::unsupportedType(type);
  if (content.size() > limit) throw ClipboardError::tooLarge(limit);
  auto session = impl_->current();
  {
    std::lock_guard lock(impl_->mutex);
    impl_->owned.emplace(type, std::make_shared<const Bytes>(std::move(content)));
  }
  try {
    session->setSelection(Impl::mimeTypesFor(type));
  } catch (const MutterError& error) {
    std::lock_guard lock(impl_->mutex);
    impl_->owned.reset();
    throw ClipboardError::unavailable(error.what());
  }
}

}  // namespace zul
