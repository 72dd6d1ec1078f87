#include "ZulCore/Scene/AccessibilitySceneSource.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <deque>
#include <string_view>

namespace zul {

AccessibilitySceneError AccessibilitySceneError::axFailure(std::int32_t code) {
  return {Case::axFailure, formatErrorCase("axFailure", {field(code)}), code};
}
AccessibilitySceneError AccessibilitySceneError::permissionRequired() {
  return {Case::permissionRequired, formatErrorCase("permissionRequired")};
}
AccessibilitySceneError AccessibilitySceneError::staleElement() {
  return {Case::staleElement, formatErrorCase("staleElement")};
}
AccessibilitySceneError AccessibilitySceneError::notInvokable() {
  return {Case::notInvokable, formatErrorCase("notInvokable")};
}

namespace {

// Default actions by kind: pressing first, then confirming, then picking.
// Toolkits name them differently (GTK "click", Qt "Press"); a GTK button's
// "press" only pushes it down, so "click" comes first.
constexpr std::array<std::string_view, 4> pressActions = {"click", "press", "jump", "activate"};
constexpr std::array<std::string_view, 2> confirmActions = {"confirm", "default"};
constexpr std::array<std::string_view, 3> pickActions = {"toggle", "select", "pick"};

bool sameName(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

std::string hexDigest(std::string_view key) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(key.data(), key.size(), digest, &length, EVP_sha256(), nullptr);
  static constexpr char hex[] = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < length; ++i) {
    out.push_back(hex[digest[i] >> 4]);
    out.push_back(hex[digest[i] & 0xf]);
  }
  return out;
}

std::string firstNonEmpty(std::initializer_list<const std::string*> candidates) {
  for (const auto* s : candidates) {
    if (!s->empty()) return *s;
  }
  return {};
}

bool intersects(const DesktopRect& a, const DesktopRect& b) {
  return a.minX() < b.maxX() && b.minX() < a.maxX() && a.minY() < b.maxY() && b.minY() < a.maxY();
}

bool isLeafRole(std::string_view role) {
  for (std::string_view leaf : {"button", "checkbox", "radio", "textfield", "combobox", "link",
                                "menuitem", "slider", "text"}) {
    if (role == leaf) return true;
  }
  return false;
}

std::vector<std::string> actionsFor(bool editable, bool invokable) {
  std::vector<std::string> actions;
  if (editable) actions = {"focus", "type"};
  if (invokable) actions.push_back("invoke");
  return actions;
}

}  // namespace

AccessibilitySceneSource::AccessibilitySceneSource(std::shared_ptr<AccessibilityBackend> backend,
                                                   Clock clock)
    : backend_(std::move(backend)), clock_(std::move(clock)) {
  if (!clock_) clock_ = [] { return std::chrono::steady_clock::now(); };
}

std::optional<std::string> AccessibilitySceneSource::chooseAction(
    const std::vector<std::string>& actions) {
  auto find = [&](const auto& preferred) -> std::optional<std::string> {
    for (auto wanted : preferred) {
      for (const auto& a : actions) {
        if (sameName(a, wanted)) return a;
      }
    }
    return std::nullopt;
  };
  if (auto a = find(pressActions)) return a;
  if (auto a = find(confirmActions)) return a;
  return find(pickActions);
}

std::optional<AccessibilityScene> AccessibilitySceneSource::scan(std::int64_t sequence,
                                                                 const VideoMapping& video,
                                                                 double budgetSeconds) {
  const auto started = clock_();
  const auto budget = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(std::max(budgetSeconds, 0.0)));
  try {
    if (!backend_->isAvailable()) return std::nullopt;
    auto window = backend_->focusedWindow();
    if (!window || !window->element) return std::nullopt;

    AccessibilityScene scene;
    scene.sequence = sequence;
    SceneWindow& active = scene.activeWindow;
    std::string app = window->applicationName.empty() ? "Linux app" : window->applicationName;
    active.id =
        "axwin:" + hexDigest(app + '\0' + std::to_string(window->processId) + '\0' + window->title);
    active.appId = window->applicationName.empty() ? "linux.app" : window->applicationName;
    active.title = window->title;
    active.rect = video.toVideo(window->rect.value_or(DesktopRect{}));
    active.process = app;
    active.processId = window->processId;
    active.className = "linux.app";
    scene.windows.push_back(active);

    struct Entry {
      AccessibleElementRef element;
      int depth;
      std::optional<std::string> controlKind;
    };
    const std::optional<DesktopRect> windowRect = window->rect;
    std::deque<Entry> queue;
    queue.push_back({window->element, 0, std::nullopt});
    for (auto& control : backend_->windowControls(window->element)) {
      if (control.element) queue.push_back({control.element, 1, control.kind});
    }

    std::map<std::string, Remembered> remembered;
    std::vector<std::pair<SceneElement, std::size_t>> collected;
    std::map<std::string, std::size_t> positions;  // id -> index in `collected`
    while (!queue.empty() && collected.size() < scene::maxElements && clock_() - started < budget) {
      Entry entry = std::move(queue.front());
      queue.pop_front();
      AccessibleElementInfo info = backend_->describe(entry.element);
      // Hidden branches are skipped whole; the window itself always counts.
      // An element that is not showing but lies outside the window was
      // scrolled away: it is kept, since it can still be invoked. One that is
      // not showing inside the window is covered (another tab's page).
      if (entry.depth > 0 && !info.showing &&
          (!info.visible || !info.rect || !windowRect || intersects(*info.rect, *windowRect))) {
        continue;
      }

      std::string role = entry.controlKind ? "windowControl" : scene::mapRole(info.role);
      std::string label = entry.controlKind
                              ? scene::windowControlLabel(*entry.controlKind)
                              : firstNonEmpty({&info.name, &info.description, &info.value,
                                               &info.help, &info.identifier});
      label = scene::truncateCharacters(label, scene::maxTextCharacters);
      bool actionable = info.actions && chooseAction(*info.actions).has_value();
      bool editable = role == "textfield" || role == "combobox";
      bool sized = info.rect && info.rect->width > 0 && info.rect->height > 0;
      bool interesting = role != "unknown" || !label.empty() || actionable;

      // Wrappers that repeat their child's role and place add nothing.
      // Identified by the rectangle the phone receives.
      const DesktopRect videoRect = sized ? video.toVideo(*info.rect) : DesktopRect{};
      std::string id = sized ? scene::elementIdentifier(role, label, videoRect) : std::string();
      bool kept = sized && interesting;
      auto seen = kept ? positions.find(id) : positions.end();
      if (seen != positions.end()) {
        // The deeper of two alike elements is the one that acts.
        if (actionable || editable) {
          remembered[id].element = entry.element;
          remembered[id].editable = editable;
          collected[seen->second].first.actions = actionsFor(editable, true);
        }
      } else if (kept) {
        SceneElement element;
        element.role = role;
        element.text = label;
        element.rect = videoRect;
        element.id = id;
        element.enabled = info.enabled;
        element.focused = info.focused;
        element.windowControl = entry.controlKind;
        element.actions = actionsFor(editable, actionable || entry.controlKind);
        element.importance = scene::importance(role, info.rect->width, info.rect->height);
        remembered[element.id] = {entry.element, sequence, started + elementLifetime, editable};
        positions[id] = collected.size();
        collected.emplace_back(std::move(element), collected.size());
      }
      // Controls are leaves: a button's label or a field's text is already
      // its label, and a combo box's or menu item's popup is not on screen.
      if (entry.depth < maxDepth && !entry.controlKind && !isLeafRole(role)) {
        for (auto& child : backend_->children(entry.element)) {
          if (child) queue.push_back({std::move(child), entry.depth + 1, std::nullopt});
        }
      }
    }

    std::stable_sort(collected.begin(), collected.end(), [](const auto& a, const auto& b) {
      return a.first.importance > b.first.importance;
    });
    scene.elements.reserve(collected.size());
    for (auto& [element, order] : collected) scene.elements.push_back(std::move(element));

    std::lock_guard guard(lock_);
    remembered_ = std::move(remembered);
    return scene;
  } catch (...) {
    // Scans never fail: a backend that breaks down yields no scene.
    return std::nullopt;
  }
}

void AccessibilitySceneSource::invoke(const std::string& elementId, std::int64_t sceneSequence) {
  if (!backend_->isAvailable()) throw AccessibilitySceneError::permissionRequired();
  Remembered record;
  {
    std::lock_guard guard(lock_);
    auto it = remembered_.find(elementId);
    if (it == remembered_.end()) throw AccessibilitySceneError::staleElement();
    record = it->second;
  }
  if (!(record.expiresAt > clock_())) throw AccessibilitySceneError::staleElement();
  // Compared without overflow: anything 3 or more scenes away is stale.
  std::int64_t a = record.sequence;
  std::int64_t b = sceneSequence;
  std::uint64_t distance = a > b ? static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b)
                                 : static_cast<std::uint64_t>(b) - static_cast<std::uint64_t>(a);
  if (distance > static_cast<std::uint64_t>(sceneTolerance)) {
    throw AccessibilitySceneError::staleElement();
  }

  if (record.editable && backend_->focus(record.element)) return;

  std::string action;
  if (auto actions = backend_->describe(record.element).actions) {
    auto chosen = chooseAction(*actions);
    if (!chosen) throw AccessibilitySceneError::notInvokable();
    action = *chosen;
  }
  // An empty name asks the backend for the element's first action: the list
  // could not be read, so pressing is tried.
  std::int32_t code = backend_->performAction(record.element, action);
  if (code != 0) throw AccessibilitySceneError::axFailure(code);
}

}  // namespace zul
