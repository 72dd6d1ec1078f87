#include "ZulTransport/PhoneRequests.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "ZulCore/Trust/Base64Url.h"

namespace zul {

PhoneRequestError PhoneRequestError::invalidSemanticInvocation() {
  return {Case::invalidSemanticInvocation, formatErrorCase("invalidSemanticInvocation")};
}
PhoneRequestError PhoneRequestError::invalidClipboardPiece() {
  return {Case::invalidClipboardPiece, formatErrorCase("invalidClipboardPiece")};
}
PhoneRequestError PhoneRequestError::invalidFilesRequest() {
  return {Case::invalidFilesRequest, formatErrorCase("invalidFilesRequest")};
}
PhoneRequestError PhoneRequestError::invalidShellRequest() {
  return {Case::invalidShellRequest, formatErrorCase("invalidShellRequest")};
}

bool PhoneRequestRule::allowsChannel(std::string_view channel) const {
  for (auto allowed : channels) {
    if (!allowed.empty() && allowed == channel) return true;
  }
  return false;
}

namespace PhoneRequests {
namespace {

constexpr auto control = DevicePermission::control;
constexpr auto clipboard = DevicePermission::clipboard;
constexpr auto pointer = RequestQueue::pointer, keyboard = RequestQueue::keyboard,
               element = RequestQueue::element, scene = RequestQueue::scene,
               display = RequestQueue::display, trust = RequestQueue::trust,
               clipboardQueue = RequestQueue::clipboard;

// Types, the permission each demands, the channels each may arrive on, and
// the queue its work runs on.
constexpr auto files = DevicePermission::files;
constexpr auto filesQueue = RequestQueue::files;
constexpr auto shell = DevicePermission::shell;
constexpr auto shellQueue = RequestQueue::shell;

constexpr std::array<PhoneRequestRule, 23> table = {{
    {"input.cursor", control, std::nullopt, {"input-fast", "input"}, pointer},
    {"input.scroll", control, std::nullopt, {"input-fast", "input"}, pointer},
    {"input.text", control, std::nullopt, {"input"}, keyboard},
    {"input.key", control, std::nullopt, {"input"}, keyboard},
    {"input.invoke", control, std::nullopt, {"input"}, element},
    {"scene.request_snapshot", std::nullopt, std::nullopt, {"scene"}, scene},
    {"control.monitor.list", std::nullopt, std::nullopt, {"control"}, display},
    {"control.monitor.select", control, std::nullopt, {"control"}, display},
    {"control.device.forget", std::nullopt, std::nullopt, {"control"}, trust},
    {"control.clipboard.get", clipboard, std::nullopt, {"control"}, clipboardQueue},
    {"control.clipboard.set", clipboard, std::nullopt, {"control"}, clipboardQueue},
    {"files.list", files, std::nullopt, {"files"}, filesQueue},
    {"files.download", files, std::nullopt, {"files"}, filesQueue},
    {"files.upload", files, std::nullopt, {"files"}, filesQueue},
    {"files.done", files, std::nullopt, {"files"}, filesQueue},
    {"files.received", files, std::nullopt, {"files"}, filesQueue},
    {"files.cancel", files, std::nullopt, {"files"}, filesQueue},
    {"shell.open", shell, control, {"control"}, shellQueue},
    {"shell.input", shell, control, {"control"}, shellQueue},
    {"shell.resize", shell, control, {"control"}, shellQueue},
    {"shell.close", shell, control, {"control"}, shellQueue},
    {"shell.attach", shell, control, {"control"}, shellQueue},
    {"shell.ack", shell, control, {"control"}, shellQueue},
}};

const nlohmann::json* at(const nlohmann::json& json, const char* key) {
  auto it = json.find(key);
  return it == json.end() ? nullptr : &*it;
}

const std::string* stringAt(const nlohmann::json& json, const char* key) {
  const auto* value = at(json, key);
  return value && value->is_string() ? value->get_ptr<const std::string*>() : nullptr;
}

double numberOr(const nlohmann::json& json, const char* key, double fallback) {
  const auto* value = at(json, key);
  if (!value || !value->is_number()) return fallback;
  const double number = value->get<double>();
  return std::isfinite(number) ? number : fallback;
}

// A whole number: a fraction counts by its whole part, and a number too large
// to mean anything becomes -1, which names no display and no scene.
std::optional<std::int64_t> wholeAt(const nlohmann::json& json, const char* key) {
  const auto* value = at(json, key);
  if (!value || !value->is_number()) return std::nullopt;
  if (value->is_number_integer()) {
    if (value->is_number_unsigned() && value->get<std::uint64_t>() > INT64_MAX) return -1;
    return value->get<std::int64_t>();
  }
  const double number = value->get<double>();
  return number > -1e9 && number < 1e9 ? static_cast<std::int64_t>(number) : -1;
}

PointerButton buttonAt(const nlohmann::json& json) {
  // "right" and "middle" are themselves; anything else acts as the left button.
  const std::string* name = stringAt(json, "button");
  if (name && *name == "right") return PointerButton::right;
  if (name && *name == "middle") return PointerButton::middle;
  return PointerButton::left;
}

std::optional<PhoneRequest> pointerRequest(const nlohmann::json& json) {
  const std::string* phase = stringAt(json, "phase");
  if (!phase) return std::nullopt;
  PointerAction action;
  if (*phase == "move") {
    action.phase = PointerPhase::move;
  } else if (*phase == "down") {
    action.phase = PointerPhase::down;
  } else if (*phase == "up") {
    action.phase = PointerPhase::up;
  } else {
    return std::nullopt;
  }
  action.x = numberOr(json, "x", 0);
  action.y = numberOr(json, "y", 0);
  action.button = buttonAt(json);
  return PointerRequest{action};
}

std::optional<PhoneRequest> scrollRequest(const nlohmann::json& json) {
  ScrollAction action{numberOr(json, "dx", 0), numberOr(json, "dy", 0), std::nullopt};
  if (json.contains("x") || json.contains("y")) {
    action.at = std::pair(numberOr(json, "x", 0), numberOr(json, "y", 0));
  }
  return ScrollRequest{action};
}

// The phone's number for a transfer: a whole number that fits 32 bits.
std::optional<std::uint32_t> transferAt(const nlohmann::json& json) {
  const auto* value = at(json, "transfer");
  if (!value || !value->is_number_integer()) return std::nullopt;
  const auto number = value->get<std::int64_t>();
  if (number < 0 || number > std::int64_t(UINT32_MAX)) return std::nullopt;
  return std::uint32_t(number);
}

PhoneRequest filesRequest(std::string_view type, const nlohmann::json& json) {
  const std::string* path = stringAt(json, "path");
  const auto transfer = transferAt(json);
  const auto offset = wholeAt(json, "offset").value_or(0);
  if (offset < 0) throw PhoneRequestError::invalidFilesRequest();
  if (type == "files.list") {
    const auto* hidden = at(json, "hidden");
    const auto limit = wholeAt(json, "limit").value_or(200);
    return FilesListRequest{path ? *path : "",
                            hidden && hidden->is_boolean() && hidden->get<bool>(), offset,
                            std::clamp<std::int64_t>(limit, 1, 1000)};
  }
  if (!transfer) throw PhoneRequestError::invalidFilesRequest();
  if (type == "files.download") {
    if (!path) throw PhoneRequestError::invalidFilesRequest();
    const auto* confirm = at(json, "confirm");
    return FilesDownloadRequest{*transfer, *path, offset,
                                confirm && confirm->is_boolean() && confirm->get<bool>()};
  }
  if (type == "files.upload") {
    const std::string* folder = stringAt(json, "folder");
    const std::string* name = stringAt(json, "name");
    const auto size = wholeAt(json, "size");
    if (!name || !size || *size < 0) throw PhoneRequestError::invalidFilesRequest();
    return FilesUploadRequest{*transfer, folder ? *folder : "", *name, *size};
  }
  if (type == "files.done") {
    const std::string* sha256 = stringAt(json, "sha256");
    if (!sha256) throw PhoneRequestError::invalidFilesRequest();
    return FilesDoneRequest{*transfer, *sha256};
  }
  if (type == "files.received") return FilesReceivedRequest{*transfer, offset};
  return FilesCancelRequest{*transfer};
}

PhoneRequest shellRequest(std::string_view type, const nlohmann::json& json) {
  const int columns = int(std::clamp<std::int64_t>(wholeAt(json, "columns").value_or(80), 2, 1000));
  const int rows = int(std::clamp<std::int64_t>(wholeAt(json, "rows").value_or(24), 2, 1000));
  if (type == "shell.open") {
    const std::string* path = stringAt(json, "path");
    return ShellOpenRequest{path ? *path : "", columns, rows};
  }
  const std::string* id = stringAt(json, "shell");
  if (!id) throw PhoneRequestError::invalidShellRequest();
  if (type == "shell.input") {
    const std::string* text = stringAt(json, "data");
    auto data = text ? Base64Url::decode(*text) : std::nullopt;
    if (!data) throw PhoneRequestError::invalidShellRequest();
    return ShellInputRequest{*id, std::move(*data)};
  }
  if (type == "shell.resize") return ShellResizeRequest{*id, columns, rows};
  if (type == "shell.close") return ShellCloseRequest{*id};
  if (type == "shell.ack") {
    const auto bytes = wholeAt(json, "bytes");
    if (!bytes || *bytes < 0) throw PhoneRequestError::invalidShellRequest();
    return ShellAckRequest{*id, std::uint64_t(*bytes)};
  }
  return ShellAttachRequest{*id};
}

}  // namespace

const std::array<PhoneRequestRule, 23>& rules() { return table; }

const PhoneRequestRule* ruleFor(std::string_view type) {
  for (const auto& rule : table) {
    if (rule.type == type) return &rule;
  }
  return nullptr;
}

std::optional<PhoneRequest> decode(const RoutedMessage& message) {
  const nlohmann::json& json = message.json;
  const std::string_view type = message.type;
  if (type == "input.cursor") return pointerRequest(json);
  if (type == "input.scroll") return scrollRequest(json);
  if (type == "input.text") {
    const std::string* value = stringAt(json, "value");
    return value ? std::optional<PhoneRequest>(TextRequest{*value}) : std::nullopt;
  }
  if (type == "input.key") {
    const std::string* combo = stringAt(json, "combo");
    return combo ? std::optional<PhoneRequest>(KeyRequest{*combo}) : std::nullopt;
  }
  if (type == "input.invoke") {
    const std::string* elementId = stringAt(json, "elementId");
    const auto sequence = wholeAt(json, "sceneSeq");
    if (!elementId || !sequence) throw PhoneRequestError::invalidSemanticInvocation();
    return InvokeRequest{*elementId, *sequence};
  }
  if (type == "scene.request_snapshot") return SceneSnapshotRequest{};
  if (type == "control.monitor.list") return MonitorListRequest{};
  if (type == "control.monitor.select") {
    const auto index = wholeAt(json, "index");
    return index ? std::optional<PhoneRequest>(MonitorSelectRequest{*index}) : std::nullopt;
  }
  if (type == "control.device.forget") return ForgetDeviceRequest{};
  if (type == "control.clipboard.get") {
    const std::string* kind = stringAt(json, "mimeType");
    return kind ? std::optional<PhoneRequest>(ClipboardGetRequest{*kind}) : std::nullopt;
  }
  if (type == "control.clipboard.set") {
    const std::string* kind = stringAt(json, "mimeType");
    const std::string* text = stringAt(json, "data");
    const auto offset = wholeAt(json, "offset").value_or(0);
    const auto total = wholeAt(json, "total");
    auto data = text ? Base64Url::decode(*text) : std::nullopt;
    if (!kind || !data || !total || offset < 0 || *total < 0 ||
        offset + std::int64_t(data->size()) > *total) {
      throw PhoneRequestError::invalidClipboardPiece();
    }
    return ClipboardSetRequest{*kind, offset, *total, std::move(*data)};
  }
  if (type.starts_with("files.")) return filesRequest(type, json);
  if (type.starts_with("shell.")) return shellRequest(type, json);
  throw std::invalid_argument("no request rule for " + message.type);
}

}  // namespace PhoneRequests
}  // namespace zul
