#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "ZulCore/Support/Bytes.h"
#include "ZulCore/Support/Sha256.h"
#include "ZulCore/Support/TaskQueue.h"
#include "ZulPlatform/linux/files/HomeFolder.h"
#include "ZulTransport/PhoneRequests.h"

namespace zul {

// The home folder shared with the phone in session that holds `files`:
// listing, downloads and uploads on the binary "files" channel. Every
// message the agent sends there is binary: a JSON message is the byte 1 and
// the JSON text; a piece of a file is the byte 2, the transfer's number (4
// bytes) and the offset (8 bytes), big-endian, then the data. The phone's
// pieces of an upload have the same form; its requests are "files." JSON.
// Files stream through: nothing holds more than a piece of one in memory,
// and a download waits while the channel is backed up. An upload is written
// to a hidden part file, checked against the SHA-256 the phone sends, and
// only then given its name (never over another file); one cut by a lost
// connection resumes from what the part holds. A phone that confirms what it
// received ("files.received") has its download paced by those confirmations,
// so a slow link's queue never holds seconds of it.
class FileTransfers {
 public:
  struct Hooks {
    std::shared_ptr<HomeFolder> home;
    // A binary message to the phone in session on "files"; throws when it
    // cannot be sent.
    std::function<void(const Bytes&)> send;
    std::function<std::uint64_t()> bufferedBytes;
    std::function<void(std::string_view)> print;
    // One line per finished transfer.
    std::function<void(std::string_view)> event;
    // A finished transfer: "toPhone" or "toComputer", the path and size.
    std::function<void(const std::string& direction, const std::string& path, std::int64_t size)>
        finished;
  };

  static constexpr std::uint8_t jsonKind = 1;
  static constexpr std::uint8_t pieceKind = 2;
  static constexpr std::size_t headerBytes = 13;
  // A piece's data. The channel takes 64 KiB a message; a message of 56 SCTP
  // packets' data (1160 bytes each: 1191 less 28 of headers, in whole words)
  // fills every packet it goes out in, where 64 KiB would leave each 57th
  // one mostly empty.
  static constexpr std::size_t pieceBytes = 56 * 1160 - headerBytes;

  explicit FileTransfers(Hooks hooks);
  // shutdown()
  ~FileTransfers();

  // The phone in session and its name (for the terminal's lines).
  void sessionStarted(const std::string& deviceName);
  // Downloads stop; uploads stay to be resumed by the next session.
  void sessionEnded();
  // The phone lost its trust: its uploads' parts are removed.
  void forgetUploads();
  void shutdown();

  // One "files." request, on the files queue; a failure is answered with
  // "files.error" (its transfer, a reason and words).
  void handle(const PhoneRequest& request);

  // Each request alone; they throw FileAccessError or PhoneRequestError.
  void list(const FilesListRequest& request);
  void download(const FilesDownloadRequest& request);
  void upload(const FilesUploadRequest& request);
  void done(const FilesDoneRequest& request);
  void cancel(const FilesCancelRequest& request);
  void confirmed(const FilesReceivedRequest& request);
  // A binary message of the session on "files" (a piece of an upload).
  void received(const Bytes& message);

  // Whether a piece went either way in the last half second.
  bool moving() const;

 private:
  struct Upload {
    std::string folder, name;
    std::int64_t size = 0;
    std::int64_t written = 0;
    int fd = -1;
    std::shared_ptr<Sha256> hash;  // of what is written so far
  };
  // A download's bytes on their way that the phone has not confirmed yet:
  // the window grows while confirmations come back as quickly as the
  // quickest one did and shrinks once they queue up behind earlier bytes.
  struct Pace {
    std::int64_t confirmed = 0;
    double window = 0;
    std::chrono::steady_clock::duration quickest = std::chrono::hours(1);
    std::deque<std::pair<std::int64_t, std::chrono::steady_clock::time_point>> sentAt;
  };
  // Waits until the download's window has room at `at`; false when it
  // stopped meanwhile.
  bool roomFor(std::uint32_t transfer, std::int64_t at, std::uint64_t generation);
  void sendJson(nlohmann::json message);
  void fail(std::uint32_t transfer, const std::exception& error);
  void runDownload(FilesDownloadRequest request);
  static std::string tagOf(std::uint32_t transfer) { return "t" + std::to_string(transfer); }

  Hooks hooks_;
  std::mutex mutex_;  // guards the fields below
  std::string device_;
  std::map<std::uint32_t, Upload> uploads_;
  std::set<std::uint32_t> cancelled_;
  std::map<std::uint32_t, Pace> paces_;  // the downloads the phone confirms
  std::condition_variable confirmations_;
  std::atomic<std::uint64_t> generation_{0};  // a new session stops older downloads
  std::atomic<std::chrono::steady_clock::time_point> lastPiece_{};  // the last piece either way
  TaskQueue downloads_{64};                   // one at a time, beside the requests' queue
};

}  // namespace zul
