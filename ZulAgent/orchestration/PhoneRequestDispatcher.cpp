#include "ZulAgent/orchestration/PhoneRequestDispatcher.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace zul {
namespace {

template <class... Ts>
struct Overloaded : Ts... {
  using Ts::operator()...;
};

// Video pixels and wheel steps: two decimals say enough.
std::string shown(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", value);
  std::string out = text;
  while (out.back() == '0') out.pop_back();
  if (out.back() == '.') out.pop_back();
  return out == "-0" ? "0" : out;
}

const char* phaseName(PointerPhase phase) {
  switch (phase) {
    case PointerPhase::move:
      return "move";
    case PointerPhase::down:
      return "down";
    case PointerPhase::up:
      return "up";
  }
  return "?";
}

// How a failed request of this type starts its line.
std::string failurePrefix(const std::string& type) {
  if (type == "input.invoke") return "[input.invoke] ";
  if (type.starts_with("input.")) return "[input] ";
  if (type == "control.monitor.select") return "monitor switch rejected: ";
  if (type.starts_with("control.clipboard.")) return "[clipboard] ";
  return "[" + type + "] ";
}

}  // namespace

PhoneRequestDispatcher::PhoneRequestDispatcher(Targets targets)
    : targets_(std::move(targets)), keyboard_(targets_.injector) {}

PhoneRequestDispatcher::~PhoneRequestDispatcher() { shutdown(); }

void PhoneRequestDispatcher::failed(const std::string& prefix, const RoutedMessage& message,
                                    const std::exception& error) const {
  targets_.print(prefix + error.what());
  if (targets_.refuse) targets_.refuse(message, error);
}

void PhoneRequestDispatcher::dispatch(const RoutedMessage& message,
                                      const PermissionGate& permissions) {
  const PhoneRequestRule* rule = PhoneRequests::ruleFor(message.type);
  if (!rule || !rule->allowsChannel(message.channel)) {
    targets_.print("[" + message.channel + "] " + message.type + " (not handled yet)");
    return;
  }
  std::optional<PhoneRequest> request;
  try {
    if (rule->permission) permissions.demand(*rule->permission);
    if (rule->alsoNeeds) permissions.demand(*rule->alsoNeeds);
    request = PhoneRequests::decode(message);
  } catch (const std::exception& error) {
    failed(failurePrefix(message.type), message, error);
    return;
  }
  if (!request) return;  // nothing it could do without
  queue(rule->queue, message,
        [this, message, request = std::move(*request)] { carryOut(message, request); });
}

void PhoneRequestDispatcher::queue(RequestQueue which, const RoutedMessage& message,
                                   std::function<void()> work) {
  if (static_cast<std::size_t>(which) >= queues_.size()) {
    // The scene publisher and the display switcher queue their own work.
    try {
      work();
    } catch (const std::exception& error) {
      failed(failurePrefix(message.type), message, error);
    }
    return;
  }
  TaskQueue* queue = &queues_[static_cast<std::size_t>(which)];
  if (!queue->post(std::move(work))) {
    targets_.print("[input] dropped " + message.type + ": too many requests waiting");
  }
}

void PhoneRequestDispatcher::carryOut(const RoutedMessage& message, const PhoneRequest& request) {
  std::visit(Overloaded{
                 [&](const PointerRequest&) { pointerRequest(message, request); },
                 [&](const ScrollRequest&) { pointerRequest(message, request); },
                 [&](const TextRequest& text) { typeText(text.text); },
                 [&](const KeyRequest& key) { pressKeys(message, key.combo); },
                 [&](const InvokeRequest& invokeRequest) { invoke(message, invokeRequest); },
                 [&](const SceneSnapshotRequest&) {
                   if (targets_.publishScene) targets_.publishScene();
                 },
                 [&](const MonitorListRequest&) {
                   if (targets_.sendMonitorList) targets_.sendMonitorList();
                 },
                 [&](const MonitorSelectRequest& select) {
                   if (targets_.selectMonitor) targets_.selectMonitor(select.index);
                 },
                 [&](const ForgetDeviceRequest&) {
                   if (targets_.forgetDevice) targets_.forgetDevice();
                 },
                 [&](const ClipboardGetRequest& get) {
                   clipboard(message, [&] { targets_.clipboardGet(get); });
                 },
                 [&](const ClipboardSetRequest& set) {
                   clipboard(message, [&] { targets_.clipboardSet(set); });
                 },
                 [&](const auto& request) {
                   // The files and shell families answer their own failures.
                   using Family = std::decay_t<decltype(request)>;
                   constexpr bool shell = std::is_same_v<Family, ShellOpenRequest> ||
                                          std::is_same_v<Family, ShellInputRequest> ||
                                          std::is_same_v<Family, ShellResizeRequest> ||
                                          std::is_same_v<Family, ShellCloseRequest> ||
                                          std::is_same_v<Family, ShellAttachRequest> ||
                                          std::is_same_v<Family, ShellAckRequest>;
                   const auto& target = shell ? targets_.shells : targets_.files;
                   if (target) {
                     target(PhoneRequest(request));
                   } else {
                     failed(failurePrefix(message.type), message,
                            PhoneRequestError::invalidShellRequest());
                   }
                 },
             },
             request);
}

void PhoneRequestDispatcher::setPointerExecutor(std::shared_ptr<PointerInputExecutor> executor) {
  std::shared_ptr<PointerInputExecutor> previous;
  {
    std::lock_guard lock(pointerMutex_);
    previous = std::exchange(pointer_, std::move(executor));
  }
  // A display switch leaves no button pressed on the display left behind.
  if (previous) previous->releaseHeldButton();
}

std::shared_ptr<PointerInputExecutor> PhoneRequestDispatcher::pointer() const {
  std::lock_guard lock(pointerMutex_);
  return pointer_;
}

void PhoneRequestDispatcher::releaseAll() {
  if (auto executor = pointer()) executor->releaseHeldButton();
  // Keys and buttons still down through the injector the executors share.
  keyboard_.releaseAll();
}

void PhoneRequestDispatcher::pointerRequest(const RoutedMessage& message,
                                            const PhoneRequest& request) {
  auto executor = pointer();
  if (!executor) {
    targets_.print("[input] dropped: capture hasn't resolved a display yet");
    return;
  }
  try {
    if (auto* pointer = std::get_if<PointerRequest>(&request)) {
      executor->handle(pointer->action);
      targets_.print(std::string("[input.cursor] ok: ") + phaseName(pointer->action.phase) +
                     " x=" + shown(pointer->action.x) + " y=" + shown(pointer->action.y));
    } else if (auto* scroll = std::get_if<ScrollRequest>(&request)) {
      executor->scroll(scroll->action);
      targets_.print("[input.scroll] ok: dx=" + shown(scroll->action.dx) +
                     " dy=" + shown(scroll->action.dy));
    }
  } catch (const std::exception& error) {
    failed("[input] ", message, error);
  }
}

// Typed in pieces, so that pointer requests get the desktop in between.
void PhoneRequestDispatcher::typeText(const std::string& text) {
  constexpr std::size_t piece = 256;
  try {
    std::size_t from = 0;
    while (from < text.size()) {
      std::size_t to = std::min(text.size(), from + piece);
      // Not inside a UTF-8 sequence.
      while (to < text.size() && (static_cast<unsigned char>(text[to]) & 0xC0) == 0x80) ++to;
      keyboard_.sendText(std::string_view(text).substr(from, to - from));
      from = to;
    }
    targets_.print("[input.text] ok");
  } catch (const std::exception& error) {
    targets_.print(std::string("[input] ") + error.what());
  }
}

void PhoneRequestDispatcher::pressKeys(const RoutedMessage& message, const std::string& combo) {
  try {
    keyboard_.sendHotkey(combo);
    targets_.print("[input.key] ok: " + combo);
  } catch (const std::exception& error) {
    failed("[input] ", message, error);
  }
}

void PhoneRequestDispatcher::invoke(const RoutedMessage& message, const InvokeRequest& request) {
  try {
    auto source = targets_.sceneSource ? targets_.sceneSource() : nullptr;
    if (!source) throw AccessibilitySceneError::permissionRequired();
    source->invoke(request.elementId, request.sceneSequence);
    targets_.print("[input.invoke] ok: " + request.elementId);
  } catch (const std::exception& error) {
    failed("[input.invoke] ", message, error);
  }
}

void PhoneRequestDispatcher::clipboard(const RoutedMessage& message,
                                       const std::function<void()>& work) {
  try {
    if (!targets_.clipboardGet) throw ClipboardError::unavailable("no clipboard here");
    work();
  } catch (const std::exception& error) {
    failed("[clipboard] ", message, error);
  }
}

void PhoneRequestDispatcher::waitUntilIdle() {
  for (auto& queue : queues_) queue.waitUntilIdle();
}

void PhoneRequestDispatcher::shutdown() {
  for (auto& queue : queues_) queue.shutdown();
}

}  // namespace zul
