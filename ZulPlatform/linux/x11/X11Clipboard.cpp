#include "ZulPlatform/linux/x11/X11Clipboard.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/Xfixes.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include "ZulPlatform/linux/x11/X11CaptureConnection.h"

namespace zul {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto ownerAnswerLimit = std::chrono::seconds(5);

}  // namespace

struct X11Clipboard::Impl : std::enable_shared_from_this<Impl> {
  std::string name;
  Display* display = nullptr;
  Window window = None;
  int fixesEventBase = 0;
  std::atomic<bool> lost{false};
  int wakeFd = -1;
  std::thread thread;
  std::atomic<bool> stopping{false};
  Clipboard* owner = nullptr;  // for onChanged

  struct Atoms {
    Atom clipboard, targets, incr, utf8, textPlain, png, text, multiple, timestamp, targetsProperty,
        dataProperty;
  } atom{};

  std::mutex mutex;  // guards `tasks`
  std::deque<std::function<void()>> tasks;

  // On the thread only.
  std::map<Atom, Bytes> owned;  // what we serve, by target
  struct Outgoing {             // one INCR transfer to a requestor
    Window requestor;
    Atom property, type;
    std::shared_ptr<const Bytes> data;
    std::size_t offset = 0;
  };
  std::vector<Outgoing> outgoing;
  struct Incoming {  // the read in progress
    Atom target;
    std::size_t limit;
    std::promise<Bytes> result;
    Clock::time_point deadline;
    bool incremental = false;
    Bytes data;
  };
  std::optional<Incoming> incoming;
  std::size_t chunkBytes = 64 * 1024;

  // Runs `work` on the thread; false when the clipboard is not running.
  bool post(std::function<void()> work) {
    {
      std::lock_guard lock(mutex);
      if (!display || stopping) return false;
      tasks.push_back(std::move(work));
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] auto written = ::write(wakeFd, &one, sizeof one);
    return true;
  }

  void loop() {
    const int xfd = ConnectionNumber(display);
    while (!stopping) {
      std::deque<std::function<void()>> work;
      {
        std::lock_guard lock(mutex);
        work.swap(tasks);
      }
      for (auto& task : work) task();
      while (!lost && XPending(display) > 0) {
        XEvent event;
        XNextEvent(display, &event);
        handle(event);
      }
      if (lost) {
        failRead(ClipboardError::unavailable("the X server of " + name + " went away"));
        // Nothing runs here any more: waiting callers are let go.
        std::lock_guard lock(mutex);
        stopping = true;
        tasks.clear();
        break;
      }
      if (incoming && Clock::now() >= incoming->deadline) {
        failRead(ClipboardError::unavailable("the clipboard's owner did not answer"));
      }
      pollfd fds[2] = {{xfd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
      if (::poll(fds, 2, 200) > 0 && (fds[1].revents & POLLIN)) {
        std::uint64_t count = 0;
        [[maybe_unused]] auto read = ::read(wakeFd, &count, sizeof count);
      }
    }
  }

  std::vector<std::string> typesOf(const std::vector<Atom>& targets) const {
    std::vector<std::string> types;
    const bool text = std::any_of(targets.begin(), targets.end(), [&](Atom a) {
      return a == atom.utf8 || a == atom.textPlain || a == XA_STRING || a == atom.text;
    });
    if (text) types.emplace_back(clipboardTextType);
    if (std::find(targets.begin(), targets.end(), atom.png) != targets.end()) {
      types.emplace_back(clipboardImageType);
    }
    return types;
  }

  void tellOwner(const std::vector<std::string>& types) {
    if (owner) owner->onChanged(types);
  }

  void handle(XEvent& event) {
    if (event.type == fixesEventBase + XFixesSelectionNotify) {
      const auto& notice = reinterpret_cast<XFixesSelectionNotifyEvent&>(event);
      if (notice.owner == window) {
        std::vector<Atom> targets;
        for (const auto& [target, data] : owned) targets.push_back(target);
        tellOwner(typesOf(targets));
      } else if (notice.owner == None) {
        tellOwner({});
      } else {
        // The new owner's targets, answered by a SelectionNotify.
        XConvertSelection(display, atom.clipboard, atom.targets, atom.targetsProperty, window,
                          CurrentTime);
      }
      return;
    }
    switch (event.type) {
      case SelectionNotify:
        selectionNotify(event.xselection);
        break;
      case SelectionRequest:
        selectionRequest(event.xselectionrequest);
        break;
      case SelectionClear:
        if (event.xselectionclear.selection == atom.clipboard) owned.clear();
        break;
      case PropertyNotify:
        propertyNotify(event.xproperty);
        break;
      default:
        break;
    }
  }

  // A property of our window: the whole of it, deleted once read.
  std::optional<std::pair<Atom, Bytes>> takeProperty(Atom property) {
    Atom type = None;
    int format = 0;
    unsigned long items = 0, after = 0;
    unsigned char* data = nullptr;
    if (XGetWindowProperty(display, window, property, 0, 0x7fffffff, True, AnyPropertyType, &type,
                           &format, &items, &after, &data) != Success) {
      return std::nullopt;
    }
    const std::size_t unit = format == 32 ? sizeof(long) : std::size_t(format / 8);
    Bytes bytes(data, data + (data ? items * unit : 0));
    if (data) XFree(data);
    return std::pair(type, std::move(bytes));
  }

  void selectionNotify(const XSelectionEvent& notice) {
    if (notice.property == atom.targetsProperty || notice.target == atom.targets) {
      std::vector<Atom> targets;
      if (notice.property != None) {
        if (auto taken = takeProperty(atom.targetsProperty); taken && taken->first == XA_ATOM) {
          const auto* atoms = reinterpret_cast<const long*>(taken->second.data());
          for (std::size_t i = 0; i < taken->second.size() / sizeof(long); ++i) {
            targets.push_back(Atom(atoms[i]));
          }
        }
      }
      tellOwner(typesOf(targets));
      return;
    }
    if (!incoming || notice.target != incoming->target) return;
    if (notice.property == None) {
      failRead(ClipboardError::empty(incoming->target == atom.png
                                         ? std::string(clipboardImageType)
                                         : std::string(clipboardTextType)));
      return;
    }
    auto taken = takeProperty(atom.dataProperty);
    if (!taken) {
      failRead(ClipboardError::unavailable("the clipboard's content could not be read"));
    } else if (taken->first == atom.incr) {
      // Large content comes in pieces, each announced by a new value.
      incoming->incremental = true;
    } else {
      append(taken->second, true);
    }
  }

  void propertyNotify(const XPropertyEvent& notice) {
    if (notice.window == window) {
      if (incoming && incoming->incremental && notice.atom == atom.dataProperty &&
          notice.state == PropertyNewValue) {
        if (auto taken = takeProperty(atom.dataProperty)) {
          append(taken->second, taken->second.empty());
        }
      }
      return;
    }
    if (notice.state != PropertyDelete) return;
    // A requestor took the last piece of an INCR transfer: the next one.
    for (auto it = outgoing.begin(); it != outgoing.end(); ++it) {
      if (it->requestor != notice.window || it->property != notice.atom) continue;
      const std::size_t size = std::min(chunkBytes, it->data->size() - it->offset);
      XChangeProperty(display, it->requestor, it->property, it->type, 8, PropModeReplace,
                      it->data->data() + it->offset, int(size));
      it->offset += size;
      if (size == 0) {
        XSelectInput(display, it->requestor, NoEventMask);
        outgoing.erase(it);
      }
      XFlush(display);
      return;
    }
  }

  void append(const Bytes& piece, bool last) {
    incoming->data.insert(incoming->data.end(), piece.begin(), piece.end());
    if (incoming->data.size() > incoming->limit) {
      failRead(ClipboardError::tooLarge(incoming->limit));
      return;
    }
    if (!last) return;
    incoming->result.set_value(std::move(incoming->data));
    incoming.reset();
  }

  void failRead(const ClipboardError& error) {
    if (!incoming) return;
    incoming->result.set_exception(std::make_exception_ptr(error));
    incoming.reset();
  }

  void selectionRequest(const XSelectionRequestEvent& request) {
    XSelectionEvent reply{};
    reply.type = SelectionNotify;
    reply.display = request.display;
    reply.requestor = request.requestor;
    reply.selection = request.selection;
    reply.target = request.target;
    reply.time = request.time;
    reply.property = None;
    // Old clients name no property: the target then is the property.
    const Atom property = request.property != None ? request.property : request.target;
    auto served = owned.find(request.target);
    if (request.selection != atom.clipboard || owned.empty()) {
      // not ours to answer
    } else if (request.target == atom.targets) {
      std::vector<long> targets = {long(atom.targets), long(atom.timestamp)};
      for (const auto& [target, data] : owned) targets.push_back(long(target));
      XChangeProperty(display, request.requestor, property, XA_ATOM, 32, PropModeReplace,
                      reinterpret_cast<unsigned char*>(targets.data()), int(targets.size()));
      reply.property = property;
    } else if (served != owned.end()) {
      const Bytes& data = served->second;
      if (data.size() <= chunkBytes) {
        XChangeProperty(display, request.requestor, property, request.target, 8, PropModeReplace,
                        data.data(), int(data.size()));
      } else {
        // INCR: the size first; each piece once the requestor deleted the last.
        XSelectInput(display, request.requestor, PropertyChangeMask);
        const long size = long(data.size());
        XChangeProperty(display, request.requestor, property, atom.incr, 32, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(&size), 1);
        outgoing.push_back(
            {request.requestor, property, request.target, std::make_shared<const Bytes>(data), 0});
      }
      reply.property = property;
    }
    XSendEvent(display, request.requestor, False, NoEventMask, reinterpret_cast<XEvent*>(&reply));
    XFlush(display);
  }
};

X11Clipboard::X11Clipboard(std::string display) : impl_(std::make_shared<Impl>()) {
  impl_->name = std::move(display);
  impl_->owner = this;
}

X11Clipboard::~X11Clipboard() { stop(); }

void X11Clipboard::start() {
  Impl& impl = *impl_;
  if (impl.thread.joinable()) return;
  Display* display = X11CaptureConnection::openDisplay(impl.name);
  if (!display) throw ClipboardError::unavailable("cannot open the X display " + impl.name);
  X11CaptureConnection::reportServerLoss(display, &impl.lost);
  int errorBase = 0;
  if (!XFixesQueryExtension(display, &impl.fixesEventBase, &errorBase)) {
    X11CaptureConnection::closeDisplay(display, false);
    throw ClipboardError::unavailable("the X server has no XFixes");
  }
  impl.name = DisplayString(display);
  auto intern = [&](const char* name) { return XInternAtom(display, name, False); };
  impl.atom = {intern("CLIPBOARD"),
               intern("TARGETS"),
               intern("INCR"),
               intern("UTF8_STRING"),
               intern("text/plain;charset=utf-8"),
               intern("image/png"),
               intern("TEXT"),
               intern("MULTIPLE"),
               intern("TIMESTAMP"),
               intern("ZUL_TARGETS"),
               intern("ZUL_CLIPBOARD")};
  impl.window = XCreateSimpleWindow(display, DefaultRootWindow(display), 0, 0, 1, 1, 0, 0, 0);
  XSelectInput(display, impl.window, PropertyChangeMask);
  XFixesSelectSelectionInput(display, impl.window, impl.atom.clipboard,
                             XFixesSetSelectionOwnerNotifyMask);
  // Pieces of INCR stay well below the largest request the server takes.
  impl.chunkBytes =
      std::min<std::size_t>(std::size_t(XMaxRequestSize(display)) * 4 / 2, 256 * 1024);
  // What is on the clipboard already.
  XConvertSelection(display, impl.atom.clipboard, impl.atom.targets, impl.atom.targetsProperty,
                    impl.window, CurrentTime);
  XFlush(display);
  impl.wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  impl.stopping = false;
  {
    std::lock_guard lock(impl.mutex);
    impl.display = display;
  }
  impl.thread = std::thread([self = impl_] { self->loop(); });
}

void X11Clipboard::stop() {
  Impl& impl = *impl_;
  if (!impl.thread.joinable()) return;
  {
    std::lock_guard lock(impl.mutex);
    impl.stopping = true;
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] auto written = ::write(impl.wakeFd, &one, sizeof one);
  impl.thread.join();
  impl.failRead(ClipboardError::unavailable("the clipboard was closed"));
  impl.owned.clear();
  impl.outgoing.clear();
  std::lock_guard lock(impl.mutex);
  impl.tasks.clear();
  if (!impl.lost) XDestroyWindow(impl.display, impl.window);
  X11CaptureConnection::closeDisplay(impl.display, impl.lost);
  impl.display = nullptr;
  ::close(impl.wakeFd);
  impl.wakeFd = -1;
}

Bytes X11Clipboard::read(const std::string& type) {
  const std::size_t limit = clipboardLimit(type);
  if (limit == 0) throw ClipboardError::unsupportedType(type);
  auto done = std::make_shared<std::promise<Bytes>>();
  auto result = done->get_future();
  auto impl = impl_;
  const bool posted = impl->post([impl, type, limit, done] {
    if (impl->incoming) {
      done->set_exception(std::make_exception_ptr(
          ClipboardError::unavailable("another read of the clipboard is in progress")));
      return;
    }
    const Atom target = type == clipboardImageType ? impl->atom.png : impl->atom.utf8;
    // Our own content is answered here, not through the server.
    if (auto own = impl->owned.find(target); own != impl->owned.end()) {
      done->set_value(own->second);
      return;
    }
    impl->incoming.emplace();
    impl->incoming->target = target;
    impl->incoming->limit = limit;
    impl->incoming->deadline = Clock::now() + ownerAnswerLimit;
    impl->incoming->result = std::move(*done);
    XConvertSelection(impl->display, impl->atom.clipboard, target, impl->atom.dataProperty,
                      impl->window, CurrentTime);
    XFlush(impl->display);
  });
  if (!posted) throw ClipboardError::unavailable("the clipboard is not watched");
  try {
    return result.get();
  } catch (const std::future_error&) {
    throw ClipboardError::unavailable("the clipboard was closed");
  }
}

void X11Clipboard::write(const std::string& type, Bytes content) {
  const std::size_t limit = clipboardLimit(type);
  if (limit == 0) throw ClipboardError::unsupportedType(type);
  if (content.size() > limit) throw ClipboardError::tooLarge(limit);
  auto done = std::make_shared<std::promise<void>>();
  auto result = done->get_future();
  auto impl = impl_;
  const bool posted = impl->post([impl, type, data = std::move(content), done]() mutable {
    impl->owned.clear();
    impl->outgoing.clear();
    if (type == clipboardImageType) {
      impl->owned[impl->atom.png] = std::move(data);
    } else {
      for (Atom target : {impl->atom.utf8, impl->atom.textPlain, impl->atom.text}) {
        impl->owned[target] = data;
      }
    }
    XSetSelectionOwner(impl->display, impl->atom.clipboard, impl->window, CurrentTime);
    XSync(impl->display, False);
    if (XGetSelectionOwner(impl->display, impl->atom.clipboard) != impl->window) {
      impl->owned.clear();
      done->set_exception(std::make_exception_ptr(
          ClipboardError::unavailable("the X server did not give us the clipboard")));
      return;
    }
    done->set_value();
  });
  if (!posted) throw ClipboardError::unavailable("the clipboard is not watched");
  try {
    result.get();
  } catch (const std::future_error&) {
    throw ClipboardError::unavailable("the clipboard was closed");
  }
}

}  // namespace zul
