#include "ZulPlatform/linux/gnome/MutterInputInjector.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <set>
#include <utility>

namespace zul {
namespace {

// evdev button codes (linux/input-event-codes.h).
constexpr int btnLeft = 0x110;
constexpr int btnRight = 0x111;
constexpr int btnMiddle = 0x112;

int evdevButton(PointerButton button) {
  switch (button) {
    case PointerButton::right:
      return btnRight;
    case PointerButton::middle:
      return btnMiddle;
    case PointerButton::left:
      break;
  }
  return btnLeft;
}

// The keysym of a character typed as its own key: ASCII by its own value,
// the control characters by their keys' names.
std::uint32_t keysymOf(char32_t c) {
  switch (c) {
    case U'\n':
    case U'\r':
      return keysym::returnKey;
    case U'\t':
      return keysym::tab;
    case U'\b':
      return keysym::backSpace;
    default:
      return std::uint32_t(c);
  }
}

}  // namespace

struct MutterInputInjector::Impl {
  std::shared_ptr<MutterDesktop> desktop;
  // Serialises the calls, so events reach mutter in the order they were
  // asked for; guards the sets below. Held across the bus calls on purpose:
  // the injector's contract is one call's events at a time.
  std::mutex mutex;
  std::set<int> buttons;
  std::set<std::uint32_t> keys;

  // Sends a key and remembers it while it is down.
  template <typename Session>
  void key(Session& session, std::uint32_t keysym, bool pressed) {
    session->keyboardKeysym(keysym, pressed);
    if (pressed) {
      keys.insert(keysym);
    } else {
      keys.erase(keysym);
    }
  }
};

MutterInputInjector::MutterInputInjector(std::shared_ptr<MutterDesktop> desktop)
    : impl_(std::make_unique<Impl>()) {
  impl_->desktop = std::move(desktop);
}

MutterInputInjector::~MutterInputInjector() = default;

void MutterInputInjector::movePointer(DesktopPoint point) {
  std::lock_guard lock(impl_->mutex);
  auto session = impl_->desktop->inputSession();
  // Desktop coordinates to the recorded stream's pixels.
  const auto& display = session->monitor().display;
  const double width = std::max<double>(1, double(display.width));
  const double height = std::max<double>(1, double(display.height));
  const double x = std::clamp(point.x - double(display.originX), 0.0, width - 1);
  const double y = std::clamp(point.y - double(display.originY), 0.0, height - 1);
  session->pointerMotion(x * session->streamWidth() / width, y * session->streamHeight() / height);
}

void MutterInputInjector::setButton(PointerButton button, bool pressed) {
  std::lock_guard lock(impl_->mutex);
  const int code = evdevButton(button);
  impl_->desktop->inputSession()->pointerButton(code, pressed);
  if (pressed) {
    impl_->buttons.insert(code);
  } else {
    impl_->buttons.erase(code);
  }
}

void MutterInputInjector::scroll(int dx, int dy) {
  std::lock_guard lock(impl_->mutex);
  auto session = impl_->desktop->inputSession();
  if (dy != 0) session->pointerAxisDiscrete(0, dy);
  if (dx != 0) session->pointerAxisDiscrete(1, dx);
}

void MutterInputInjector::setKey(std::uint32_t keysym, bool pressed) {
  std::lock_guard lock(impl_->mutex);
  auto session = impl_->desktop->inputSession();
  impl_->key(session, keysym, pressed);
}

void MutterInputInjector::typeText(std::u32string_view text) {
  std::lock_guard lock(impl_->mutex);
  if (text.empty()) return;
  auto session = impl_->desktop->inputSession();
  auto hold = [&](std::uint32_t keysym, bool pressed) { impl_->key(session, keysym, pressed); };
  auto tap = [&](std::uint32_t keysym) {
    hold(keysym, true);
    hold(keysym, false);
  };
  for (char32_t c : text) {
    if (typedDirectly(c)) {
      tap(keysymOf(c));
      continue;
    }
    // Mutter drops keysyms its keyboard map lacks, and a Wayland client
    // cannot change that map: the toolkit's own Unicode entry (GTK, IBus)
    // takes Ctrl+Shift+U, the hexadecimal code point and a space instead.
    hold(keysym::controlL, true);
    hold(keysym::shiftL, true);
    tap('u');
    hold(keysym::shiftL, false);
    hold(keysym::controlL, false);
    char digits[16];
    const int count = std::snprintf(digits, sizeof digits, "%x", unsigned(c));
    for (int i = 0; i < count; ++i) tap(std::uint32_t(digits[i]));
    tap(keysym::space);
  }
}

bool MutterInputInjector::typedDirectly(char32_t c) {
  return (c >= 0x20 && c <= 0x7e) || c == U'\n' || c == U'\r' || c == U'\t' || c == U'\b';
}

void MutterInputInjector::releaseAll() {
  std::lock_guard lock(impl_->mutex);
  if (impl_->keys.empty() && impl_->buttons.empty()) return;
  auto keys = std::exchange(impl_->keys, {});
  auto buttons = std::exchange(impl_->buttons, {});
  try {
    auto session = impl_->desktop->inputSession();
    for (std::uint32_t keysym : keys) session->keyboardKeysym(keysym, false);
    for (int button : buttons) session->pointerButton(button, false);
  } catch (const std::exception&) {
    // A session that is gone holds nothing down any more.
  }
}

}  // namespace zul
