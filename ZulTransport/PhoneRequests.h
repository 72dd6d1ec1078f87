#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "ZulCore/Input/PointerInputExecutor.h"
#include "ZulCore/Support/Bytes.h"
#include "ZulCore/Support/Error.h"
#include "ZulCore/Trust/DevicePermission.h"
#include "ZulTransport/MessageRouter.h"

namespace zul {

class PhoneRequestError : public Error {
 public:
  enum class Case {
    invalidSemanticInvocation,
    invalidClipboardPiece,
    invalidFilesRequest,
    invalidShellRequest
  };
  // An element action without a string "elementId" or a numeric "sceneSeq".
  static PhoneRequestError invalidSemanticInvocation();
  // A piece of clipboard content without its type, its data in base64url,
  // or a place ("offset", "total") that can hold it.
  static PhoneRequestError invalidClipboardPiece();
  // A files request without its transfer number, path or name, or with a
  // size or offset below 0.
  static PhoneRequestError invalidFilesRequest();
  // A shell request without its shell's id, or input that is not base64url.
  static PhoneRequestError invalidShellRequest();
  Case kind() const { return kind_; }

 private:
  PhoneRequestError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

// What a phone can ask of the computer, decoded once from its message.
struct PointerRequest {
  PointerAction action;
  friend bool operator==(const PointerRequest&, const PointerRequest&) = default;
};
struct ScrollRequest {
  ScrollAction action;
  friend bool operator==(const ScrollRequest&, const ScrollRequest&) = default;
};
struct TextRequest {
  std::string text;
  friend bool operator==(const TextRequest&, const TextRequest&) = default;
};
struct KeyRequest {
  std::string combo;
  friend bool operator==(const KeyRequest&, const KeyRequest&) = default;
};
struct InvokeRequest {
  std::string elementId;
  std::int64_t sceneSequence = 0;
  friend bool operator==(const InvokeRequest&, const InvokeRequest&) = default;
};
struct SceneSnapshotRequest {
  friend bool operator==(const SceneSnapshotRequest&, const SceneSnapshotRequest&) = default;
};
struct MonitorListRequest {
  friend bool operator==(const MonitorListRequest&, const MonitorListRequest&) = default;
};
struct MonitorSelectRequest {
  std::int64_t index = 0;
  friend bool operator==(const MonitorSelectRequest&, const MonitorSelectRequest&) = default;
};
// The phone forgets this computer: the computer forgets the phone too.
struct ForgetDeviceRequest {
  friend bool operator==(const ForgetDeviceRequest&, const ForgetDeviceRequest&) = default;
};
// The clipboard's content of one type, sent back in pieces.
struct ClipboardGetRequest {
  std::string type;
  friend bool operator==(const ClipboardGetRequest&, const ClipboardGetRequest&) = default;
};
// One piece of content for the clipboard: `data` goes at `offset` of
// `total` bytes; the clipboard is set when the last piece is in.
struct ClipboardSetRequest {
  std::string type;
  std::int64_t offset = 0;
  std::int64_t total = 0;
  Bytes data;
  friend bool operator==(const ClipboardSetRequest&, const ClipboardSetRequest&) = default;
};

// Files of the home folder; paths are relative to it, transfers numbered by
// the phone.
struct FilesListRequest {
  std::string path;
  bool hidden = false;
  std::int64_t offset = 0;
  std::int64_t limit = 200;
  friend bool operator==(const FilesListRequest&, const FilesListRequest&) = default;
};
struct FilesDownloadRequest {
  std::uint32_t transfer = 0;
  std::string path;
  std::int64_t offset = 0;  // resumed from here
  bool confirms = false;    // the phone confirms what it received ("files.received")
  friend bool operator==(const FilesDownloadRequest&, const FilesDownloadRequest&) = default;
};
struct FilesUploadRequest {
  std::uint32_t transfer = 0;
  std::string folder;  // empty: the upload folder
  std::string name;
  std::int64_t size = 0;
  friend bool operator==(const FilesUploadRequest&, const FilesUploadRequest&) = default;
};
// Every byte of an upload is sent: its SHA-256, to check before it is kept.
struct FilesDoneRequest {
  std::uint32_t transfer = 0;
  std::string sha256;
  friend bool operator==(const FilesDoneRequest&, const FilesDoneRequest&) = default;
};
// A download's bytes the phone holds, up to `offset`: its pace.
struct FilesReceivedRequest {
  std::uint32_t transfer = 0;
  std::int64_t offset = 0;
  friend bool operator==(const FilesReceivedRequest&, const FilesReceivedRequest&) = default;
};
struct FilesCancelRequest {
  std::uint32_t transfer = 0;
  friend bool operator==(const FilesCancelRequest&, const FilesCancelRequest&) = default;
};

// Terminals: a shell opened at a size, its input, a new size, its end, and
// a shell kept from a dropped connection taken up again (its recent output
// replayed).
struct ShellOpenRequest {
  std::string shell;  // empty: the login shell
  int columns = 80;
  int rows = 24;
  friend bool operator==(const ShellOpenRequest&, const ShellOpenRequest&) = default;
};
struct ShellInputRequest {
  std::string shell;
  Bytes data;
  friend bool operator==(const ShellInputRequest&, const ShellInputRequest&) = default;
};
struct ShellResizeRequest {
  std::string shell;
  int columns = 80;
  int rows = 24;
  friend bool operator==(const ShellResizeRequest&, const ShellResizeRequest&) = default;
};
struct ShellCloseRequest {
  std::string shell;
  friend bool operator==(const ShellCloseRequest&, const ShellCloseRequest&) = default;
};
struct ShellAttachRequest {
  std::string shell;
  friend bool operator==(const ShellAttachRequest&, const ShellAttachRequest&) = default;
};
// The phone has drawn `bytes` of a shell's output since it opened or was
// attached: the agent keeps only so much more on its way.
struct ShellAckRequest {
  std::string shell;
  std::uint64_t bytes = 0;
  friend bool operator==(const ShellAckRequest&, const ShellAckRequest&) = default;
};

using PhoneRequest =
    std::variant<PointerRequest, ScrollRequest, TextRequest, KeyRequest, InvokeRequest,
                 SceneSnapshotRequest, MonitorListRequest, MonitorSelectRequest,
                 ForgetDeviceRequest, ClipboardGetRequest, ClipboardSetRequest, FilesListRequest,
                 FilesDownloadRequest, FilesUploadRequest, FilesDoneRequest, FilesReceivedRequest,
                 FilesCancelRequest, ShellOpenRequest, ShellInputRequest, ShellResizeRequest,
                 ShellCloseRequest, ShellAttachRequest, ShellAckRequest>;

// Where a request's work runs, in order: a queue per kind of work, so that a
// long text never holds up pointer moves, nor an accessibility scan either.
// The kinds before `scene` have a queue of the dispatcher's own; scenes and
// displays are queued by the publisher and switcher themselves, and trust
// requests are done at once.
enum class RequestQueue {
  pointer,
  keyboard,
  element,
  clipboard,
  files,
  shell,
  scene,
  display,
  trust
};
inline constexpr std::size_t kDispatcherQueues = static_cast<std::size_t>(RequestQueue::scene);

// What one message type needs before anything is done for it.
struct PhoneRequestRule {
  std::string_view type;
  // Demanded before the payload is read; nothing: any device in session.
  std::optional<DevicePermission> permission;
  // A second one some requests need as well (a shell: `shell` and `control`).
  std::optional<DevicePermission> alsoNeeds;
  // The channels it may arrive on (an empty entry ends the list).
  std::array<std::string_view, 2> channels;
  RequestQueue queue;

  bool allowsChannel(std::string_view channel) const;
};

namespace PhoneRequests {

// Every type the agent acts on, one rule each.
const std::array<PhoneRequestRule, 23>& rules();
// The rule for a type; nothing for a type the agent does not act on.
const PhoneRequestRule* ruleFor(std::string_view type);

// The request a message of a known type carries. Payloads are lenient: a
// missing or mistyped number counts as 0 and a missing button as the left
// one; a request without what it cannot do without (a phase, a text, a
// combination, a display index) is nothing, to be ignored. An element action
// without its element or scene is an error (PhoneRequestError), answered to
// the phone. Throws std::invalid_argument for a type without a rule.
std::optional<PhoneRequest> decode(const RoutedMessage& message);

}  // namespace PhoneRequests
}  // namespace zul
