#pragma once

#include <cstddef>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace zul {

// What every phone did, kept on the computer: one JSON object a line
// ("time", "event" and the event's fields), appended with one write(2) each
// so a crash never leaves half a record, readable by the user alone (0600),
// and rotated by size (the last few files kept). Never a secret, never the
// content of a clipboard, a file or a shell. Several processes may write
// (the agent, the trusted-devices tool).
class AuditLog {
 public:
  // $XDG_STATE_HOME/zul-agent/audit.jsonl, ~/.local/state when unset.
  static std::filesystem::path defaultPath();

  explicit AuditLog(std::filesystem::path path, std::size_t rotateBytes = 4 << 20, int keep = 3);

  // Best effort: a record that cannot be written is lost, not an error.
  void record(const std::string& event, nlohmann::json fields = nlohmann::json::object()) const;

  // The records of the log and its rotated files, oldest first; of one
  // device, from a time (ISO 8601) on, and of the events whose names start
  // with `eventPrefix` when given (the other lines are not even parsed).
  // Lines that are not records are skipped.
  std::vector<nlohmann::json> read(const std::optional<std::string>& device = std::nullopt,
                                   const std::optional<std::string>& since = std::nullopt,
                                   const std::optional<std::string>& eventPrefix = std::nullopt) const;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
  std::size_t rotateBytes_;
  int keep_;
};

}  // namespace zul
