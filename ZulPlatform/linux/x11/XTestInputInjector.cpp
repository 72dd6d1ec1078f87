#include "ZulPlatform/linux/x11/XTestInputInjector.h"

#include <X11/XKBlib.h>
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "ZulPlatform/linux/x11/X11CaptureConnection.h"

namespace zul {

InputInjectorError InputInjectorError::displayUnavailable(std::string display) {
  return {Case::displayUnavailable, formatErrorCase("displayUnavailable", {field(display)})};
}
InputInjectorError InputInjectorError::extensionMissing(std::string extension) {
  return {Case::extensionMissing, formatErrorCase("extensionMissing", {field(extension)})};
}

namespace {

// Xlib's handler is process-wide and by default ends the process; a window
// that vanishes while it is looked at must not.
int ignoreProtocolError(Display*, XErrorEvent*) { return 0; }

struct DisplayCloser {
  void operator()(Display* d) const { X11CaptureConnection::closeDisplay(d, false); }
};

// The keysym that stands for a Unicode character: Latin-1 keysyms are the
// code points themselves, everything else is in the Unicode keysym range.
KeySym keysymFor(char32_t cp) {
  if ((cp >= 0x20 && cp <= 0x7e) || (cp >= 0xa0 && cp <= 0xff)) return cp;
  return 0x01000000 | cp;
}

// One key stroke of a text: a keycode, pressed with Shift or not.
struct Stroke {
  KeyCode keycode;
  bool shift;
};

}  // namespace

struct XTestInputInjector::Impl {
  // Serialises use of the connection, which Xlib does not do by itself.
  std::mutex lock;
  std::unique_ptr<Display, DisplayCloser> display;
  std::string name;
  // Set by Xlib when the server goes away; the connection is dead from then on.
  std::atomic<bool> lost{false};
  std::set<KeyCode> pressedKeys;
  std::set<unsigned> pressedButtons;
  std::chrono::milliseconds settle{150};
  std::chrono::milliseconds maxPingWait{10000};
  Atom wmProtocols = None;
  Atom netWmPing = None;
  long pingSerial = 0;

  // The keyboard map as read at the start of one text.
  int minKeycode = 8;
  int maxKeycode = 255;
  int perKeycode = 0;
  std::vector<KeySym> map;

  ~Impl() {
    if (display) X11CaptureConnection::closeDisplay(display.release(), lost);
  }

  void requireLive() const {
    if (lost) throw InputInjectorError::displayUnavailable(name);
  }

  KeySym mapped(int keycode, int index) const {
    return map[static_cast<std::size_t>((keycode - minKeycode) * perKeycode + index)];
  }

  void readMap() {
    Display* d = display.get();
    XDisplayKeycodes(d, &minKeycode, &maxKeycode);
    int per = 0;
    KeySym* syms =
        XGetKeyboardMapping(d, static_cast<KeyCode>(minKeycode), maxKeycode - minKeycode + 1, &per);
    perKeycode = per;
    map.assign(syms, syms + static_cast<std::ptrdiff_t>(maxKeycode - minKeycode + 1) * per);
    XFree(syms);
  }

  // Keycodes with no symbol at all and no modifier role: free for a while.
  std::vector<KeyCode> spareKeycodes() const {
    std::set<KeyCode> modifiers;
    if (XModifierKeymap* mods = XGetModifierMapping(display.get())) {
      for (int i = 0; i < 8 * mods->max_keypermod; ++i) modifiers.insert(mods->modifiermap[i]);
      XFreeModifiermap(mods);
    }
    std::vector<KeyCode> spare;
    // From the top: the highest keycodes are the least likely to be wanted.
    for (int kc = maxKeycode; kc >= minKeycode; --kc) {
      bool empty = true;
      for (int i = 0; i < perKeycode && empty; ++i) empty = mapped(kc, i) == NoSymbol;
      if (empty && !modifiers.count(static_cast<KeyCode>(kc))) {
        spare.push_back(static_cast<KeyCode>(kc));
      }
    }
    return spare;
  }

  // The window that receives key events, if it answers _NET_WM_PING.
  Window pingTarget() {
    Display* d = display.get();
    Window root = DefaultRootWindow(d);
    Window focus = None;
    int revert = 0;
    XGetInputFocus(d, &focus, &revert);
    if (focus == None || focus == PointerRoot) {
      // Focus follows the pointer: the top-level window under it.
      Window rootReturn, child = None;
      int rx, ry, wx, wy;
      unsigned mask;
      XQueryPointer(d, root, &rootReturn, &child, &rx, &ry, &wx, &wy, &mask);
      focus = child;
    }
    for (int depth = 0; focus != None && focus != root && depth < 16; ++depth) {
      Atom* protocols = nullptr;
      int count = 0;
      if (XGetWMProtocols(d, focus, &protocols, &count)) {
        bool ping = false;
        for (int i = 0; i < count; ++i) ping = ping || protocols[i] == netWmPing;
        XFree(protocols);
        if (ping) return focus;
      }
      Window rootReturn, parent = None;
      Window* children = nullptr;
      unsigned n = 0;
      if (!XQueryTree(d, focus, &rootReturn, &parent, &children, &n)) return None;
      if (children) XFree(children);
      focus = parent;
    }
    return None;
  }

  // Returns once the focused client has read every event sent so far: it
  // answers a _NET_WM_PING in the order of its events, so by then it has
  // translated the keys with the temporary symbols. A client that does not
  // answer pings gets `fallback` instead.
  void waitForFocusedClient(std::chrono::milliseconds fallback) {
    Display* d = display.get();
    Window target = pingTarget();
    if (target == None) {
      std::this_thread::sleep_for(fallback);
      return;
    }
    Window root = DefaultRootWindow(d);
    // Clients send the answer to the root window for its structure watchers.
    XSelectInput(d, root, SubstructureNotifyMask);
    const long stamp = ++pingSerial;
    XEvent ping{};
    ping.xclient.type = ClientMessage;
    ping.xclient.window = target;
    ping.xclient.message_type = wmProtocols;
    ping.xclient.format = 32;
    ping.xclient.data.l[0] = static_cast<long>(netWmPing);
    ping.xclient.data.l[1] = stamp;
    ping.xclient.data.l[2] = static_cast<long>(target);
    XSendEvent(d, target, False, NoEventMask, &ping);
    XFlush(d);

    auto deadline = std::chrono::steady_clock::now() + std::max(fallback, maxPingWait);
    bool answered = false;
    while (!answered) {
      while (!answered && XPending(d) > 0) {
        XEvent event;
        XNextEvent(d, &event);
        answered = event.type == ClientMessage && event.xclient.message_type == wmProtocols &&
                   static_cast<Atom>(event.xclient.data.l[0]) == netWmPing &&
                   event.xclient.data.l[1] == stamp;
      }
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (answered || left.count() <= 0) break;
      pollfd fd{ConnectionNumber(d), POLLIN, 0};
      poll(&fd, 1, static_cast<int>(std::min<long long>(left.count(), 50)));
    }
    XSelectInput(d, root, NoEventMask);
    XSync(d, True);  // drops whatever else the watch brought in
  }

  std::optional<Stroke> find(KeySym sym) const {
    for (int kc = minKeycode; kc <= maxKeycode; ++kc) {
      if (perKeycode > 0 && mapped(kc, 0) == sym) return Stroke{static_cast<KeyCode>(kc), false};
    }
    for (int kc = minKeycode; kc <= maxKeycode; ++kc) {
      if (perKeycode > 1 && mapped(kc, 1) == sym) return Stroke{static_cast<KeyCode>(kc), true};
    }
    return std::nullopt;
  }

  void setRow(KeyCode keycode, KeySym plain, KeySym shifted) {
    std::vector<KeySym> row(static_cast<std::size_t>(perKeycode), NoSymbol);
    row[0] = plain;
    if (perKeycode > 1) row[1] = shifted;
    XChangeKeyboardMapping(display.get(), keycode, perKeycode, row.data(), 1);
  }

  void restore(KeyCode keycode) {
    std::vector<KeySym> row(static_cast<std::size_t>(perKeycode));
    for (int i = 0; i < perKeycode; ++i) row[static_cast<std::size_t>(i)] = mapped(keycode, i);
    XChangeKeyboardMapping(display.get(), keycode, perKeycode, row.data(), 1);
  }

  void key(KeyCode keycode, bool pressed) {
    XTestFakeKeyEvent(display.get(), keycode, pressed ? True : False, CurrentTime);
    if (pressed) {
      pressedKeys.insert(keycode);
    } else {
      pressedKeys.erase(keycode);
    }
  }

  void type(const std::vector<Stroke>& strokes, KeyCode shiftKeycode) {
    int sinceSync = 0;
    for (const auto& s : strokes) {
      bool shift = s.shift && shiftKeycode != 0;
      if (shift) key(shiftKeycode, true);
      key(s.keycode, true);
      key(s.keycode, false);
      if (shift) key(shiftKeycode, false);
      // Keeps the request queue short for long texts.
      if (++sinceSync == 64) {
        XSync(display.get(), False);
        sinceSync = 0;
      }
    }
    XSync(display.get(), False);
  }

  void typeText(std::u32string_view text) {
    readMap();
    if (perKeycode <= 0) return;
    const std::vector<KeyCode> spare = spareKeycodes();
    const KeyCode shiftKeycode = XKeysymToKeycode(display.get(), XK_Shift_L);
    // With a second layout group active the map's own keys would not give
    // the symbols listed for them: keys are lent for everything then.
    XkbStateRec state{};
    XkbGetState(display.get(), XkbUseCoreKbd, &state);
    const bool ownKeysUsable = state.group == 0;
    // Caps Lock would turn every lower-case letter into a capital: it is
    // released while typing and locked again afterwards (the events carry the
    // state they were made with).
    const bool capsLocked = (state.locked_mods & LockMask) != 0;
    if (capsLocked) XkbLockModifiers(display.get(), XkbUseCoreKbd, LockMask, 0);

    std::vector<Stroke> pending;
    // Each spare keycode lends two symbols: one plain, one with Shift.
    const bool twoLevels = perKeycode > 1 && shiftKeycode != 0;
    const std::size_t slots = spare.size() * (twoLevels ? 2 : 1);
    std::map<KeySym, Stroke> borrowed;  // symbols lent in this batch
    std::vector<std::pair<KeySym, KeySym>> rows(spare.size());
    std::size_t strokesSinceRestore = 0;

    // Sends the batch, then gives clients time to translate it with the
    // temporary symbols before the keycodes are given back. A client reads
    // its events at its own pace, so the wait grows with the batch.
    auto flush = [&] {
      strokesSinceRestore += pending.size();
      type(pending, shiftKeycode);
      pending.clear();
      if (borrowed.empty()) return;
      // Without a ping answer: a busy client may still be working through
      // every stroke sent since the last restore, about 4 ms each on a loaded
      // machine.
      auto backlog = std::chrono::milliseconds(4 * strokesSinceRestore);
      waitForFocusedClient(settle + std::min(backlog, std::chrono::milliseconds(8000)));
      strokesSinceRestore = 0;
      std::size_t used = twoLevels ? (borrowed.size() + 1) / 2 : borrowed.size();
      for (std::size_t k = 0; k < used; ++k) restore(spare[k]);
      XSync(display.get(), False);
      borrowed.clear();
    };

    for (std::size_t i = 0; i < text.size(); ++i) {
      char32_t cp = text[i];
      KeySym sym;
      if (cp == U'\n' || cp == U'\r') {
        if (cp == U'\r' && i + 1 < text.size() && text[i + 1] == U'\n') continue;
        sym = XK_Return;
      } else if (cp == U'\t') {
        sym = XK_Tab;
      } else if (cp < 0x20 || (cp >= 0x7f && cp < 0xa0)) {
        continue;  // other control characters have no key
      } else {
        sym = keysymFor(cp);
      }

      if (auto stroke = ownKeysUsable ? find(sym) : std::nullopt) {
        pending.push_back(*stroke);
        continue;
      }
      if (slots == 0) continue;  // nowhere to put it
      auto it = borrowed.find(sym);
      if (it == borrowed.end()) {
        if (borrowed.size() == slots) flush();
        std::size_t slot = borrowed.size();
        std::size_t index = twoLevels ? slot / 2 : slot;
        bool shifted = twoLevels && slot % 2 == 1;
        auto& row = rows[index];
        row = shifted ? std::pair{row.first, sym} : std::pair{sym, sym};
        setRow(spare[index], row.first, row.second);
        // The new symbol must be in place before its stroke is sent.
        XSync(display.get(), False);
        it = borrowed.emplace(sym, Stroke{spare[index], shifted}).first;
      }
      pending.push_back(it->second);
    }
    flush();
    if (capsLocked) {
      XkbLockModifiers(display.get(), XkbUseCoreKbd, LockMask, LockMask);
      XSync(display.get(), False);
    }
  }
};

XTestInputInjector::XTestInputInjector(const std::string& displayName)
    : impl_(std::make_unique<Impl>()) {
  static std::once_flag handlerInstalled;
  std::call_once(handlerInstalled, [] { XSetErrorHandler(ignoreProtocolError); });
  impl_->display.reset(X11CaptureConnection::openDisplay(displayName));
  if (!impl_->display) throw InputInjectorError::displayUnavailable(displayName);
  impl_->name = DisplayString(impl_->display.get());
  // A server that goes away fails the next request instead of ending the process.
  X11CaptureConnection::reportServerLoss(impl_->display.get(), &impl_->lost);
  impl_->wmProtocols = XInternAtom(impl_->display.get(), "WM_PROTOCOLS", False);
  impl_->netWmPing = XInternAtom(impl_->display.get(), "_NET_WM_PING", False);
  int eventBase = 0, errorBase = 0, major = 0, minor = 0;
  if (!XTestQueryExtension(impl_->display.get(), &eventBase, &errorBase, &major, &minor)) {
    throw InputInjectorError::extensionMissing("XTEST");
  }
}

XTestInputInjector::~XTestInputInjector() {
  try {
    releaseAll();
  } catch (...) {
  }
}

void XTestInputInjector::movePointer(DesktopPoint point) {
  std::lock_guard guard(impl_->lock);
  impl_->requireLive();
  Display* d = impl_->display.get();
  auto clampInt = [](double v) {
    return static_cast<int>(std::clamp(std::floor(v), -32768.0, 32767.0));
  };
  XTestFakeMotionEvent(d, DefaultScreen(d), clampInt(point.x), clampInt(point.y), CurrentTime);
  XSync(d, False);
}

void XTestInputInjector::setButton(PointerButton button, bool pressed) {
  std::lock_guard guard(impl_->lock);
  impl_->requireLive();
  auto number = static_cast<unsigned>(button);
  XTestFakeButtonEvent(impl_->display.get(), number, pressed ? True : False, CurrentTime);
  if (pressed) {
    impl_->pressedButtons.insert(number);
  } else {
    impl_->pressedButtons.erase(number);
  }
  XSync(impl_->display.get(), False);
}

void XTestInputInjector::scroll(int dx, int dy) {
  std::lock_guard guard(impl_->lock);
  impl_->requireLive();
  Display* d = impl_->display.get();
  auto click = [d](unsigned button, int count) {
    for (int i = 0; i < count; ++i) {
      XTestFakeButtonEvent(d, button, True, CurrentTime);
      XTestFakeButtonEvent(d, button, False, CurrentTime);
    }
  };
  click(dy > 0 ? 5 : 4, std::abs(dy));
  click(dx > 0 ? 7 : 6, std::abs(dx));
  XSync(d, False);
}

void XTestInputInjector::setKey(std::uint32_t keysym, bool pressed) {
  std::lock_guard guard(impl_->lock);
  impl_->requireLive();
  KeyCode keycode = XKeysymToKeycode(impl_->display.get(), keysym);
  if (keycode == 0) return;
  impl_->key(keycode, pressed);
  XSync(impl_->display.get(), False);
}

void XTestInputInjector::typeText(std::u32string_view text) {
  std::lock_guard guard(impl_->lock);
  impl_->requireLive();
  impl_->typeText(text);
}

void XTestInputInjector::releaseAll() {
  std::lock_guard guard(impl_->lock);
  // A server that went away holds nothing down any more.
  if (impl_->lost) return;
  Display* d = impl_->display.get();
  for (KeyCode kc : std::set<KeyCode>(impl_->pressedKeys)) impl_->key(kc, false);
  for (unsigned b : impl_->pressedButtons) XTestFakeButtonEvent(d, b, False, CurrentTime);
  impl_->pressedButtons.clear();
  XSync(d, False);
}

void XTestInputInjector::setMappingSettleTime(std::chrono::milliseconds settle) {
  std::lock_guard guard(impl_->lock);
  impl_->settle = settle;
}

}  // namespace zul
