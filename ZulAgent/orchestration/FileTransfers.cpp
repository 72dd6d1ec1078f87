#include "ZulAgent/orchestration/FileTransfers.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <thread>
#include <utility>

#include "ZulCore/Support/Error.h"
#include "ZulCore/Support/Sha256.h"

namespace zul {
namespace {

// The channel may hold this much before the next piece of a download waits.
constexpr std::uint64_t roomBytes = 1024 * 1024;
// A paced download's window: where it starts, its bounds, and how long a
// confirmation may wait behind earlier bytes before the window shrinks.
constexpr double firstWindow = 256 * 1024;
constexpr double leastWindow = 2 * double(FileTransfers::pieceBytes);
constexpr double mostWindow = 16 * 1024 * 1024;
constexpr auto queuedLimit = std::chrono::milliseconds(100);

void putBigEndian(Bytes& out, std::uint64_t value, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) out.push_back(std::uint8_t(value >> (8 * i)));
}

std::uint64_t bigEndian(const Bytes& in, std::size_t at, int bytes) {
  std::uint64_t value = 0;
  for (int i = 0; i < bytes; ++i) value = (value << 8) | in[at + std::size_t(i)];
  return value;
}

std::string baseName(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string sizeText(std::int64_t bytes) {
  const double mib = double(bytes) / (1024.0 * 1024.0);
  char text[32];
  std::snprintf(text, sizeof text, mib >= 1 ? "%.1f MiB" : "%.0f KiB", mib >= 1 ? mib : mib * 1024);
  return text;
}

// `hash` takes a file's first `size` bytes.
void hashInto(Sha256& hash, int fd, std::int64_t size) {
  std::vector<std::uint8_t> buffer(1 << 16);
  std::int64_t at = 0;
  while (at < size) {
    const ssize_t n = ::pread(fd, buffer.data(),
                              std::min<std::size_t>(buffer.size(), std::size_t(size - at)), at);
    if (n <= 0) break;
    hash.update(buffer.data(), std::size_t(n));
    at += n;
  }
}

}  // namespace

FileTransfers::FileTransfers(Hooks hooks) : hooks_(std::move(hooks)) {}

FileTransfers::~FileTransfers() { shutdown(); }

void FileTransfers::shutdown() {
  ++generation_;
  confirmations_.notify_all();
  downloads_.shutdown();
  std::lock_guard lock(mutex_);
  for (auto& [transfer, upload] : uploads_) {
    if (upload.fd >= 0) ::close(upload.fd);
    upload.fd = -1;
  }
}

void FileTransfers::sessionStarted(const std::string& deviceName) {
  std::lock_guard lock(mutex_);
  device_ = deviceName;
}

void FileTransfers::sessionEnded() {
  ++generation_;  // a download in progress stops at its next piece
  confirmations_.notify_all();
  std::lock_guard lock(mutex_);
  for (auto& [transfer, upload] : uploads_) {
    if (upload.fd >= 0) ::close(upload.fd);
    upload.fd = -1;
  }
}

void FileTransfers::forgetUploads() {
  sessionEnded();
  std::map<std::uint32_t, Upload> uploads;
  {
    std::lock_guard lock(mutex_);
    uploads.swap(uploads_);
  }
  for (auto& [transfer, upload] : uploads) {
    hooks_.home->removePart(upload.folder, upload.name, tagOf(transfer));
  }
}

void FileTransfers::sendJson(nlohmann::json message) {
  const std::string text = message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  Bytes out;
  out.reserve(text.size() + 1);
  out.push_back(jsonKind);
  out.insert(out.end(), text.begin(), text.end());
  hooks_.send(out);
}

void FileTransfers::fail(std::uint32_t transfer, const std::exception& error) {
  try {
    sendJson({{"type", "files.error"},
              {"transfer", transfer},
              {"reason", errorReason(error)},
              {"message", error.what()}});
  } catch (const std::exception&) {
    // the phone is gone
  }
  hooks_.print(std::string("[files] transfer ") + std::to_string(transfer) + ": " + error.what());
}

void FileTransfers::handle(const PhoneRequest& request) {
  std::uint32_t transfer = 0;
  try {
    if (auto* r = std::get_if<FilesListRequest>(&request)) {
      list(*r);
    } else if (auto* r = std::get_if<FilesDownloadRequest>(&request)) {
      transfer = r->transfer;
      download(*r);
    } else if (auto* r = std::get_if<FilesUploadRequest>(&request)) {
      transfer = r->transfer;
      upload(*r);
    } else if (auto* r = std::get_if<FilesDoneRequest>(&request)) {
      transfer = r->transfer;
      done(*r);
    } else if (auto* r = std::get_if<FilesReceivedRequest>(&request)) {
      confirmed(*r);
    } else if (auto* r = std::get_if<FilesCancelRequest>(&request)) {
      transfer = r->transfer;
      cancel(*r);
    }
  } catch (const std::exception& error) {
    fail(transfer, error);
  }
}

void FileTransfers::list(const FilesListRequest& request) {
  const auto entries = hooks_.home->list(request.path, request.hidden);
  nlohmann::json page = nlohmann::json::array();
  const std::size_t from =
      std::size_t(std::min<std::int64_t>(request.offset, std::int64_t(entries.size())));
  const std::size_t to = std::min(entries.size(), from + std::size_t(request.limit));
  for (std::size_t i = from; i < to; ++i) {
    const auto& entry = entries[i];
    page.push_back({{"name", entry.name},
                    {"folder", entry.folder},
                    {"size", entry.size},
                    {"modified", entry.modified}});
  }
  sendJson({{"type", "files.listing"},
            {"path", request.path},
            {"offset", from},
            {"total", entries.size()},
            {"entries", std::move(page)},
            {"uploadFolder", HomeFolder::defaultUploadFolder(hooks_.home->root())}});
}

void FileTransfers::download(const FilesDownloadRequest& request) {
  {
    std::lock_guard lock(mutex_);
    cancelled_.erase(request.transfer);
  }
  if (!downloads_.post([this, request] { runDownload(request); })) {
    throw FileAccessError::failed("too many downloads waiting", EBUSY);
  }
}

void FileTransfers::runDownload(FilesDownloadRequest request) {
  const std::uint64_t generation = generation_;
  try {
    std::int64_t size = 0;
    const int fd = hooks_.home->openForReading(request.path, size);
    struct Closer {
      int fd;
      ~Closer() { ::close(fd); }
    } closer{fd};
    const std::int64_t start = std::min(request.offset, size);
    struct Unpaced {
      FileTransfers* self;
      std::uint32_t transfer;
      ~Unpaced() {
        std::lock_guard lock(self->mutex_);
        self->paces_.erase(transfer);
      }
    } unpaced{this, request.transfer};
    if (request.confirms) {
      std::lock_guard lock(mutex_);
      paces_[request.transfer] = Pace{.confirmed = start, .window = firstWindow};
    }
    nlohmann::json started = {{"type", "files.started"},
                              {"transfer", request.transfer},
                              {"name", baseName(request.path)},
                              {"size", size},
                              {"offset", start}};
    if (request.confirms) started["confirm"] = true;  // the phone then confirms
    sendJson(std::move(started));
    Sha256 hash;
    // A resumed download's hash still covers the whole file.
    std::vector<std::uint8_t> buffer(pieceBytes);
    for (std::int64_t at = 0; at < start;) {
      const ssize_t n = ::pread(fd, buffer.data(),
                                std::min<std::size_t>(buffer.size(), std::size_t(start - at)), at);
      if (n <= 0) throw FileAccessError::failed(request.path, errno ? errno : EIO);
      hash.update(buffer.data(), std::size_t(n));
      at += n;
    }
    Bytes piece;
    for (std::int64_t at = start; at < size;) {
      // Waits while the phone's channel is backed up; stops when the phone
      // went away, cancelled or another session began.
      while (hooks_.bufferedBytes() > roomBytes) {
        if (generation_ != generation) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
      if (!roomFor(request.transfer, at, generation)) return;
      {
        std::lock_guard lock(mutex_);
        if (cancelled_.erase(request.transfer)) return;
      }
      if (generation_ != generation) return;
      const ssize_t n = ::pread(fd, buffer.data(),
                                std::min<std::size_t>(buffer.size(), std::size_t(size - at)), at);
      if (n <= 0) throw FileAccessError::failed(request.path, n < 0 ? errno : EIO);
      hash.update(buffer.data(), std::size_t(n));
      piece.clear();
      piece.push_back(pieceKind);
      putBigEndian(piece, request.transfer, 4);
      putBigEndian(piece, std::uint64_t(at), 8);
      piece.insert(piece.end(), buffer.begin(), buffer.begin() + n);
      {
        std::lock_guard lock(mutex_);
        if (auto it = paces_.find(request.transfer); it != paces_.end()) {
          it->second.sentAt.emplace_back(at + n, std::chrono::steady_clock::now());
        }
      }
      hooks_.send(piece);
      lastPiece_ = std::chrono::steady_clock::now();
      at += n;
    }
    const std::string sha256 = hash.hexDigest();
    sendJson({{"type", "files.finished"},
              {"transfer", request.transfer},
              {"size", size},
              {"sha256", sha256}});
    std::string device;
    {
      std::lock_guard lock(mutex_);
      device = device_;
    }
    hooks_.event("sent to " + device + ": " + request.path + " (" + sizeText(size) + ")");
    if (hooks_.finished) hooks_.finished("toPhone", request.path, size);
  } catch (const std::exception& error) {
    if (generation_ == generation) fail(request.transfer, error);
  }
}

bool FileTransfers::moving() const {
  return std::chrono::steady_clock::now() - lastPiece_.load() < std::chrono::milliseconds(500);
}

bool FileTransfers::roomFor(std::uint32_t transfer, std::int64_t at, std::uint64_t generation) {
  std::unique_lock lock(mutex_);
  while (true) {
    if (generation_ != generation) return false;
    if (cancelled_.count(transfer)) return true;  // the caller sees it
    auto it = paces_.find(transfer);
    if (it == paces_.end() || double(at - it->second.confirmed) < it->second.window) return true;
    // Woken by a confirmation, a cancel or the session's end; the timeout
    // only bounds a wake-up that slipped by.
    confirmations_.wait_for(lock, std::chrono::milliseconds(100));
  }
}

void FileTransfers::confirmed(const FilesReceivedRequest& request) {
  {
    std::lock_guard lock(mutex_);
    auto it = paces_.find(request.transfer);
    if (it == paces_.end() || request.offset <= it->second.confirmed) return;
    Pace& pace = it->second;
    const auto now = std::chrono::steady_clock::now();
    std::optional<std::chrono::steady_clock::time_point> sent;
    while (!pace.sentAt.empty() && pace.sentAt.front().first <= request.offset) {
      sent = pace.sentAt.front().second;
      pace.sentAt.pop_front();
    }
    if (sent) {
      const auto took = now - *sent;
      pace.quickest = std::min(pace.quickest, took);
      const double behind = std::chrono::duration<double>(took - pace.quickest).count();
      const double gain =
          std::max(-1.0, 1.0 - behind / std::chrono::duration<double>(queuedLimit).count());
      pace.window = std::clamp(pace.window + gain * double(request.offset - pace.confirmed),
                               leastWindow, mostWindow);
    }
    pace.confirmed = request.offset;
  }
  confirmations_.notify_all();
}

void FileTransfers::upload(const FilesUploadRequest& request) {
  HomeFolder::checkName(request.name);
  const std::string folder = request.folder.empty()
                                 ? HomeFolder::defaultUploadFolder(hooks_.home->root())
                                 : request.folder;
  std::int64_t held = 0;
  const int fd =
      hooks_.home->openPart(folder, request.name, tagOf(request.transfer), request.size, held);
  if (held > request.size) {
    ::close(fd);
    hooks_.home->removePart(folder, request.name, tagOf(request.transfer));
    throw PhoneRequestError::invalidFilesRequest();
  }
  // The hash goes along with the pieces; a resumed upload's starts with what the part holds.
  auto hash = std::make_shared<Sha256>();
  hashInto(*hash, fd, held);
  {
    std::lock_guard lock(mutex_);
    Upload& upload = uploads_[request.transfer];
    if (upload.fd >= 0) ::close(upload.fd);
    upload = {folder, request.name, request.size, held, fd, std::move(hash)};
  }
  // The phone sends from what the part already holds.
  sendJson({{"type", "files.accepted"},
            {"transfer", request.transfer},
            {"folder", folder},
            {"offset", held}});
}

void FileTransfers::received(const Bytes& message) {
  if (message.size() < headerBytes || message[0] != pieceKind) {
    hooks_.print("[files] a binary message that is not a piece of a file: dropped");
    return;
  }
  const auto transfer = std::uint32_t(bigEndian(message, 1, 4));
  const auto offset = std::int64_t(bigEndian(message, 5, 8));
  const std::size_t length = message.size() - headerBytes;
  std::optional<std::int64_t> confirm;
  try {
    std::lock_guard lock(mutex_);
    auto it = uploads_.find(transfer);
    if (it == uploads_.end() || it->second.fd < 0) return;  // cancelled or never started
    Upload& upload = it->second;
    if (offset != upload.written || upload.written + std::int64_t(length) > upload.size) {
      throw PhoneRequestError::invalidFilesRequest();
    }
    for (std::size_t done = 0; done < length;) {
      const ssize_t n = ::pwrite(upload.fd, message.data() + headerBytes + done, length - done,
                                 upload.written + std::int64_t(done));
      if (n <= 0) throw FileAccessError::failed(upload.name, errno);
      done += std::size_t(n);
    }
    upload.hash->update(message.data() + headerBytes, length);
    upload.written += std::int64_t(length);
    lastPiece_ = std::chrono::steady_clock::now();
    // Every piece is confirmed: the phone paces its sending by these (and
    // resumes from the last one).
    confirm = upload.written;
  } catch (const std::exception& error) {
    fail(transfer, error);
    return;
  }
  if (confirm) {
    try {
      sendJson({{"type", "files.progress"}, {"transfer", transfer}, {"offset", *confirm}});
    } catch (const std::exception&) {
    }
  }
}

void FileTransfers::done(const FilesDoneRequest& request) {
  Upload upload;
  {
    std::lock_guard lock(mutex_);
    auto it = uploads_.find(request.transfer);
    if (it == uploads_.end() || it->second.fd < 0 || it->second.written != it->second.size) {
      throw PhoneRequestError::invalidFilesRequest();
    }
    upload = it->second;
    uploads_.erase(it);
  }
  const std::string tag = tagOf(request.transfer);
  const std::string sha256 = upload.hash->hexDigest();
  ::fsync(upload.fd);
  ::close(upload.fd);
  if (sha256 != request.sha256) {
    hooks_.home->removePart(upload.folder, upload.name, tag);
    throw FileAccessError::failed(upload.name + ": its SHA-256 does not match", EIO);
  }
  const std::string kept = hooks_.home->finishPart(upload.folder, upload.name, tag);
  sendJson({{"type", "files.finished"},
            {"transfer", request.transfer},
            {"name", kept},
            {"folder", upload.folder},
            {"size", upload.size},
            {"sha256", sha256}});
  std::string device;
  {
    std::lock_guard lock(mutex_);
    device = device_;
  }
  hooks_.event("received from " + device + ": " + upload.folder + "/" + kept + " (" +
               sizeText(upload.size) + ")");
  if (hooks_.finished) hooks_.finished("toComputer", upload.folder + "/" + kept, upload.size);
}

void FileTransfers::cancel(const FilesCancelRequest& request) {
  std::optional<Upload> upload;
  {
    std::lock_guard lock(mutex_);
    cancelled_.insert(request.transfer);
    if (auto it = uploads_.find(request.transfer); it != uploads_.end()) {
      upload = it->second;
      uploads_.erase(it);
    }
  }
  confirmations_.notify_all();
  if (upload) {
    if (upload->fd >= 0) ::close(upload->fd);
    hooks_.home->removePart(upload->folder, upload->name, tagOf(request.transfer));
  }
}

}  // namespace zul
