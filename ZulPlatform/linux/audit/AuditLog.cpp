#include "ZulPlatform/linux/audit/AuditLog.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "ZulCore/Trust/Iso8601.h"
#include "ZulPlatform/linux/UserFolders.h"

namespace zul {

std::filesystem::path AuditLog::defaultPath() {
  return userFolder("XDG_STATE_HOME", ".local/state").value_or("/tmp") / "zul-agent" /
         "audit.jsonl";
}

AuditLog::AuditLog(std::filesystem::path path, std::size_t rotateBytes, int keep)
    : path_(std::move(path)), rotateBytes_(rotateBytes), keep_(keep) {}

void AuditLog::record(const std::string& event, nlohmann::json fields) const {
  nlohmann::json line = {{"time", formatIso8601(std::chrono::time_point_cast<std::chrono::seconds>(
                                      std::chrono::system_clock::now()))},
                         {"event", event}};
  line.update(fields);
  const std::string text =
      line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  std::error_code ignored;
  std::filesystem::create_directories(path_.parent_path(), ignored);
  ::chmod(path_.parent_path().c_str(), 0700);
  const int fd =
      ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return;
  // One writer at a time across processes, so rotation never splits a line.
  ::flock(fd, LOCK_EX);
  struct stat info {};
  if (::fstat(fd, &info) == 0 && std::size_t(info.st_size) + text.size() > rotateBytes_ &&
      info.st_size > 0) {
    for (int n = keep_ - 1; n >= 1; --n) {
      std::filesystem::rename(path_.string() + "." + std::to_string(n),
                              path_.string() + "." + std::to_string(n + 1), ignored);
    }
    std::filesystem::rename(path_, path_.string() + ".1", ignored);
    ::flock(fd, LOCK_UN);
    ::close(fd);
    record(event, std::move(fields));
    return;
  }
  [[maybe_unused]] auto written = ::write(fd, text.data(), text.size());
  ::flock(fd, LOCK_UN);
  ::close(fd);
}

std::vector<nlohmann::json> AuditLog::read(const std::optional<std::string>& device,
                                           const std::optional<std::string>& since,
                                           const std::optional<std::string>& eventPrefix) const {
  // record() writes "event" compactly, so its text can be looked for before
  // a line is parsed; the parsed value still decides.
  const std::string eventText = eventPrefix ? "\"event\":\"" + *eventPrefix : "";
  std::vector<nlohmann::json> records;
  for (int n = keep_; n >= 0; --n) {
    std::ifstream in(n == 0 ? path_.string() : path_.string() + "." + std::to_string(n));
    for (std::string text; std::getline(in, text);) {
      if (eventPrefix && text.find(eventText) == std::string::npos) continue;
      auto line = nlohmann::json::parse(text, nullptr, false);
      if (!line.is_object() || !line.contains("event") || !line["time"].is_string()) continue;
      if (device && line.value("device", std::string()) != *device) continue;
      if (eventPrefix && !line["event"].is_string()) continue;
      if (eventPrefix && !line["event"].get<std::string>().starts_with(*eventPrefix)) continue;
      // ISO 8601 in UTC with whole seconds: text order is time order.
      if (since && line["time"].get<std::string>() < *since) continue;
      records.push_back(std::move(line));
    }
  }
  return records;
}

}  // namespace zul
