#include <filesystem>
#include <fstream>
#include <system_error>

#include "ZulAgent/orchestration/RealAgent.h"
#include "ZulPlatform/linux/UserFolders.h"

namespace zul {

std::shared_ptr<RealAgentControl> RealAgentControl::rememberingPause(PrintLine print) {
  auto control = std::make_shared<RealAgentControl>();
  if (const auto config = userFolder("XDG_CONFIG_HOME", ".config")) {
    control->pauseFile_ = (*config / "zul-agent" / "paused").string();
  }
  std::error_code ignored;
  control->paused_ =
      !control->pauseFile_.empty() && std::filesystem::exists(control->pauseFile_, ignored);
  control->print_ = std::move(print);
  return control;
}

void RealAgentControl::setPaused(bool paused) {
  if (paused_.exchange(paused) == paused || pauseFile_.empty()) return;
  const std::filesystem::path file(pauseFile_);
  std::error_code error;
  if (paused) {
    std::filesystem::create_directories(file.parent_path(), error);
    if (!error && !std::ofstream(file)) error = std::make_error_code(std::errc::permission_denied);
  } else {
    std::filesystem::remove(file, error);
  }
  if (error && print_) {
    print_("the pause is not kept for the next start: " + pauseFile_ + ": " + error.message());
  }
}

}  // namespace zul
