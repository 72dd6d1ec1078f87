#include "ZulPlatform/linux/accessibility/AtspiAccessibilityBackend.h"

#include <atspi/atspi.h>

#include <mutex>

#include "ZulCore/Scene/AccessibilityScene.h"

namespace zul {
namespace {

// libatspi keeps one connection per process: it is set up once and kept.
struct AtspiProcess {
  std::recursive_mutex lock;  // libatspi is not thread-safe
  bool connected = false;
  GMainContext* context = nullptr;

  static AtspiProcess& shared() {
    static AtspiProcess* process = [] {
      auto* p = new AtspiProcess();  // lives as long as the library's connection
      int result = atspi_init();
      p->connected = result == 0 || result == 1;
      if (p->connected) {
        p->context = g_main_context_new();
        atspi_set_main_context(p->context);
        // libatspi gives up on an application's answer after 800 ms and the
        // call then reads as "no children" or "no name": on a busy machine a
        // whole window came back empty. Wait longer for a slow application
        // (15 s for one that is still starting, as the library's default).
        atspi_set_timeout(3000, 15000);
      }
      return p;
    }();
    return *process;
  }

  // Handles pending bus events (applications and children coming and going)
  // so the library's caches are current.
  void pump() {
    if (!context) return;
    for (int i = 0; i < 10000 && g_main_context_iteration(context, FALSE); ++i) {
    }
  }
};

struct GErrorHolder {
  GError* error = nullptr;
  ~GErrorHolder() {
    if (error) g_error_free(error);
  }
  GError** out() {
    if (error) g_clear_error(&error);
    return &error;
  }
  bool failed() const { return error != nullptr; }
};

template <typename T>
struct GObjectRef {
  T* object = nullptr;
  explicit GObjectRef(T* o = nullptr) : object(o) {}
  ~GObjectRef() {
    if (object) g_object_unref(object);
  }
  GObjectRef(const GObjectRef&) = delete;
  GObjectRef& operator=(const GObjectRef&) = delete;
  T* get() const { return object; }
  explicit operator bool() const { return object != nullptr; }
};

std::string takeString(gchar* s) {
  if (!s) return {};
  std::string out(s);
  g_free(s);
  return out;
}

// An element, or the index-th child of one, fetched when first needed: a
// child list then costs one call, and the walk's time budget also bounds the
// fetching of a long list.
class AtspiElement final : public AccessibleElement {
 public:
  explicit AtspiElement(AtspiAccessible* object) : object_(object) {}
  AtspiElement(std::shared_ptr<AtspiElement> parent, gint index)
      : parent_(std::move(parent)), index_(index) {}
  ~AtspiElement() override {
    std::lock_guard guard(AtspiProcess::shared().lock);
    if (object_) g_object_unref(object_);
    parent_.reset();
  }
  // Call with the process lock held.
  AtspiAccessible* object() {
    if (!object_ && parent_) {
      if (AtspiAccessible* parent = parent_->object()) {
        GError* error = nullptr;
        object_ = atspi_accessible_get_child_at_index(parent, index_, &error);
        if (error) g_error_free(error);
      }
      parent_.reset();
    }
    return object_;
  }

 private:
  AtspiAccessible* object_ = nullptr;
  std::shared_ptr<AtspiElement> parent_;
  gint index_ = 0;
};

AccessibleElementRef wrap(AtspiAccessible* object) {
  if (!object) return nullptr;
  return std::make_shared<AtspiElement>(object);
}

AtspiAccessible* unwrap(const AccessibleElementRef& element) {
  auto* e = dynamic_cast<AtspiElement*>(element.get());
  return e ? e->object() : nullptr;
}

std::optional<DesktopRect> extentsOf(AtspiAccessible* object) {
  GObjectRef<AtspiComponent> component(atspi_accessible_get_component_iface(object));
  if (!component) return std::nullopt;
  GErrorHolder error;
  AtspiRect* rect =
      atspi_component_get_extents(component.get(), ATSPI_COORD_TYPE_SCREEN, error.out());
  if (!rect) return std::nullopt;
  DesktopRect out{static_cast<double>(rect->x), static_cast<double>(rect->y),
                  static_cast<double>(rect->width), static_cast<double>(rect->height)};
  g_boxed_free(ATSPI_TYPE_RECT, rect);
  if (error.failed()) return std::nullopt;
  return out;
}

bool hasState(AtspiAccessible* object, AtspiStateType state) {
  GObjectRef<AtspiStateSet> states(atspi_accessible_get_state_set(object));
  return states && atspi_state_set_contains(states.get(), state);
}

}  // namespace

struct AtspiAccessibilityBackend::Impl {
  AtspiProcess& process = AtspiProcess::shared();
};

AtspiAccessibilityBackend::AtspiAccessibilityBackend() : impl_(std::make_shared<Impl>()) {}
AtspiAccessibilityBackend::~AtspiAccessibilityBackend() = default;

bool AtspiAccessibilityBackend::isAvailable() {
  auto& p = impl_->process;
  std::lock_guard guard(p.lock);
  if (!p.connected) return false;
  GObjectRef<AtspiAccessible> desktop(atspi_get_desktop(0));
  if (!desktop) return false;
  GErrorHolder error;
  atspi_accessible_get_child_count(desktop.get(), error.out());
  return !error.failed();
}

std::optional<AccessibleWindow> AtspiAccessibilityBackend::focusedWindow() {
  auto& p = impl_->process;
  std::lock_guard guard(p.lock);
  if (!p.connected) return std::nullopt;
  p.pump();
  GObjectRef<AtspiAccessible> desktop(atspi_get_desktop(0));
  if (!desktop) return std::nullopt;

  GErrorHolder error;
  AtspiAccessible* active = nullptr;
  AtspiAccessible* activeApp = nullptr;
  // Without a window manager nothing may be marked active: the newest
  // application's showing window stands in.
  AtspiAccessible* fallback = nullptr;
  AtspiAccessible* fallbackApp = nullptr;

  gint apps = atspi_accessible_get_child_count(desktop.get(), error.out());
  for (gint a = 0; a < apps && !active; ++a) {
    AtspiAccessible* app = atspi_accessible_get_child_at_index(desktop.get(), a, error.out());
    if (!app) continue;
    gint windows = atspi_accessible_get_child_count(app, error.out());
    for (gint w = 0; w < windows && !active; ++w) {
      AtspiAccessible* window = atspi_accessible_get_child_at_index(app, w, error.out());
      if (!window) continue;
      GObjectRef<AtspiStateSet> states(atspi_accessible_get_state_set(window));
      bool showing = states && atspi_state_set_contains(states.get(), ATSPI_STATE_SHOWING);
      if (states && atspi_state_set_contains(states.get(), ATSPI_STATE_ACTIVE)) {
        active = window;
        activeApp = static_cast<AtspiAccessible*>(g_object_ref(app));
      } else if (showing) {
        if (fallback) g_object_unref(fallback);
        if (fallbackApp) g_object_unref(fallbackApp);
        fallback = window;
        fallbackApp = static_cast<AtspiAccessible*>(g_object_ref(app));
      } else {
        g_object_unref(window);
      }
    }
    g_object_unref(app);
  }
  if (active) {
    if (fallback) g_object_unref(fallback);
    if (fallbackApp) g_object_unref(fallbackApp);
  } else {
    active = fallback;
    activeApp = fallbackApp;
  }
  if (!active) return std::nullopt;

  GObjectRef<AtspiAccessible> app(activeApp);
  // Fresh attributes for this scan rather than what an earlier one cached.
  // Let libatspi keep roles, names, states and child lists between calls; the
  // events pumped above keep them current. Without this every attribute is a
  // round trip to the application, and a window with a thousand widgets
  // takes seconds.
  if (app) atspi_accessible_set_cache_mask(app.get(), ATSPI_CACHE_DEFAULT);
  AccessibleWindow out;
  out.title = takeString(atspi_accessible_get_name(active, error.out()));
  out.rect = extentsOf(active);
  if (app) {
    out.applicationName = takeString(atspi_accessible_get_name(app.get(), error.out()));
    out.processId = atspi_accessible_get_process_id(app.get(), error.out());
  }
  out.element = wrap(active);
  return out;
}

std::vector<AccessibleWindowControl> AtspiAccessibilityBackend::windowControls(
    const AccessibleElementRef&) {
  return {};
}

std::vector<AccessibleElementRef> AtspiAccessibilityBackend::children(
    const AccessibleElementRef& element) {
  std::lock_guard guard(impl_->process.lock);
  AtspiAccessible* object = unwrap(element);
  if (!object) return {};
  GErrorHolder error;
  gint count = atspi_accessible_get_child_count(object, error.out());
  auto parent = std::static_pointer_cast<AtspiElement>(element);
  std::vector<AccessibleElementRef> out;
  for (gint i = 0; i < count; ++i) out.push_back(std::make_shared<AtspiElement>(parent, i));
  return out;
}

AccessibleElementInfo AtspiAccessibilityBackend::describe(const AccessibleElementRef& element) {
  std::lock_guard guard(impl_->process.lock);
  AccessibleElementInfo info;
  AtspiAccessible* object = unwrap(element);
  if (!object) return info;
  GErrorHolder error;

  AtspiRole role = atspi_accessible_get_role(object, error.out());
  if (!error.failed()) info.role = takeString(atspi_role_get_name(role));
  info.name = takeString(atspi_accessible_get_name(object, error.out()));
  if (info.name.empty()) {
    info.description = takeString(atspi_accessible_get_description(object, error.out()));
  }

  if (GObjectRef<AtspiStateSet> states{atspi_accessible_get_state_set(object)}) {
    auto has = [&](AtspiStateType s) { return atspi_state_set_contains(states.get(), s); };
    info.enabled = has(ATSPI_STATE_ENABLED) || has(ATSPI_STATE_SENSITIVE);
    info.visible = has(ATSPI_STATE_VISIBLE);
    info.showing = info.visible && has(ATSPI_STATE_SHOWING);
    info.focused = has(ATSPI_STATE_FOCUSED);
  }
  GObjectRef<AtspiAction> action(atspi_accessible_get_action_iface(object));
  // A showing container without a name or actions is only walked through:
  // its place is not needed.
  bool plain = info.name.empty() && info.description.empty() && !action &&
               scene::mapRole(info.role) == "unknown";
  if (!(plain && info.showing)) info.rect = extentsOf(object);

  // Later label sources are read only when the earlier ones are empty; a
  // password's text is never read.
  if (info.name.empty() && info.description.empty() && role != ATSPI_ROLE_PASSWORD_TEXT && !plain) {
    if (GObjectRef<AtspiText> text{atspi_accessible_get_text_iface(object)}) {
      gint length = atspi_text_get_character_count(text.get(), error.out());
      if (length > 0) {
        info.value =
            takeString(atspi_text_get_text(text.get(), 0, std::min(length, 1024), error.out()));
      }
    } else if (GObjectRef<AtspiValue> value{role == ATSPI_ROLE_SLIDER ||
                                                    role == ATSPI_ROLE_SPIN_BUTTON
                                                ? atspi_accessible_get_value_iface(object)
                                                : nullptr}) {
      double current = atspi_value_get_current_value(value.get(), error.out());
      if (!error.failed()) info.value = std::to_string(current);
    }
    if (info.value.empty()) {
      info.identifier = takeString(atspi_accessible_get_accessible_id(object, error.out()));
    }
  }

  if (action) {
    gint count = atspi_action_get_n_actions(action.get(), error.out());
    if (!error.failed()) {
      std::vector<std::string> names;
      for (gint i = 0; i < count; ++i) {
        names.push_back(takeString(atspi_action_get_action_name(action.get(), i, error.out())));
      }
      info.actions = std::move(names);
    }
  } else {
    info.actions = std::vector<std::string>{};
  }
  return info;
}

bool AtspiAccessibilityBackend::focus(const AccessibleElementRef& element) {
  std::lock_guard guard(impl_->process.lock);
  AtspiAccessible* object = unwrap(element);
  if (!object) return false;
  GObjectRef<AtspiComponent> component(atspi_accessible_get_component_iface(object));
  if (!component || !hasState(object, ATSPI_STATE_FOCUSABLE)) return false;
  GErrorHolder error;
  gboolean ok = atspi_component_grab_focus(component.get(), error.out());
  return ok && !error.failed();
}

std::int32_t AtspiAccessibilityBackend::performAction(const AccessibleElementRef& element,
                                                      const std::string& name) {
  std::lock_guard guard(impl_->process.lock);
  AtspiAccessible* object = unwrap(element);
  if (!object) return -1;
  GObjectRef<AtspiAction> action(atspi_accessible_get_action_iface(object));
  if (!action) return -1;
  GErrorHolder error;
  gint index = name.empty() ? 0 : -1;
  gint count = atspi_action_get_n_actions(action.get(), error.out());
  for (gint i = 0; i < count && index < 0; ++i) {
    if (takeString(atspi_action_get_action_name(action.get(), i, error.out())) == name) index = i;
  }
  if (index < 0) return -1;
  gboolean ok = atspi_action_do_action(action.get(), index, error.out());
  if (error.failed()) return error.error->code != 0 ? error.error->code : -1;
  return ok ? 0 : -1;
}

}  // namespace zul
