#pragma once

#include <array>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "ZulCore/Clipboard/Clipboard.h"
#include "ZulCore/Input/InputInjector.h"
#include "ZulCore/Input/KeyboardExecutor.h"
#include "ZulCore/Input/PointerInputExecutor.h"
#include "ZulCore/Scene/AccessibilitySceneSource.h"
#include "ZulCore/Support/TaskQueue.h"
#include "ZulTransport/PhoneRequests.h"

namespace zul {

using PrintLine = std::function<void(std::string_view)>;

// Carries out what the phone in session asks. Each message is looked up in
// the request table (PhoneRequests): the permission its type demands is
// checked once, here, before its payload is read; then it is decoded and its
// work queued on the queue the table names, so that the data channel's
// thread never waits for the desktop. Pointer requests, typing and keys, and
// element actions each have a bounded queue of their own; scene and display
// requests go to the scene publisher and the display switcher, which queue
// them on their own threads.
class PhoneRequestDispatcher {
 public:
  struct Targets {
    std::shared_ptr<InputInjector> injector;
    // The accessibility scene, made on first use; nothing where there is none.
    std::function<std::shared_ptr<AccessibilitySceneSource>()> sceneSource;
    std::function<void()> publishScene;
    std::function<void()> sendMonitorList;
    std::function<void(std::int64_t index)> selectMonitor;
    // The phone in session forgets this computer.
    std::function<void()> forgetDevice;
    // The clipboard's content to the phone, and the phone's to the
    // clipboard; on the clipboard's queue, may block; throw to refuse.
    std::function<void(const ClipboardGetRequest&)> clipboardGet;
    std::function<void(const ClipboardSetRequest&)> clipboardSet;
    // A "shell." request; answers its own failures.
    std::function<void(const PhoneRequest&)> shells;
    // A "files." request; answers its own failures.
    std::function<void(const PhoneRequest&)> files;
    PrintLine print;
    // Tells the phone that its request failed ("control.error").
    std::function<void(const RoutedMessage&, const std::exception&)> refuse;
  };

  explicit PhoneRequestDispatcher(Targets targets);
  // shutdown()
  ~PhoneRequestDispatcher();
  PhoneRequestDispatcher(const PhoneRequestDispatcher&) = delete;
  PhoneRequestDispatcher& operator=(const PhoneRequestDispatcher&) = delete;

  // Never throws: failures are printed, answered to the phone and dropped.
  void dispatch(const RoutedMessage& message, const PermissionGate& permissions);

  // The pointer targets the display capture resolved; until then pointer
  // requests are dropped. A display switch lets go of the held button.
  void setPointerExecutor(std::shared_ptr<PointerInputExecutor> executor);
  // Nothing the agent pressed stays down: every end of a session and the
  // agent's stop call it.
  void releaseAll();

  // Waits until every request queued so far has been carried out.
  void waitUntilIdle();
  // Finishes the requests in progress and drops the others.
  void shutdown();

 private:
  void carryOut(const RoutedMessage& message, const PhoneRequest& request);
  void queue(RequestQueue which, const RoutedMessage& message, std::function<void()> work);
  std::shared_ptr<PointerInputExecutor> pointer() const;
  void pointerRequest(const RoutedMessage& message, const PhoneRequest& request);
  void typeText(const std::string& text);
  void pressKeys(const RoutedMessage& message, const std::string& combo);
  void invoke(const RoutedMessage& message, const InvokeRequest& request);
  void clipboard(const RoutedMessage& message, const std::function<void()>& work);
  void failed(const std::string& prefix, const RoutedMessage& message,
              const std::exception& error) const;

  Targets targets_;
  KeyboardExecutor keyboard_;
  mutable std::mutex pointerMutex_;
  std::shared_ptr<PointerInputExecutor> pointer_;
  // Last: their threads end before the fields above go.
  // Indexed by RequestQueue: pointer, keyboard, element, clipboard, files, shell.
  std::array<TaskQueue, kDispatcherQueues> queues_{TaskQueue{512}, TaskQueue{64}, TaskQueue{16},
                                                   TaskQueue{32},  TaskQueue{64}, TaskQueue{256}};
};

}  // namespace zul
