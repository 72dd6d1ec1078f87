#include "ZulPlatform/linux/UserFolders.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace zul {

std::optional<std::filesystem::path> userFolder(const char* variable,
                                                const std::filesystem::path& underHome) {
  // Relative values are invalid by the XDG rules and are ignored.
  if (const char* set = std::getenv(variable); set && set[0] == '/') return set;
  const char* home = std::getenv("HOME");
  if (!home || home[0] != '/') {
    const passwd* entry = ::getpwuid(::geteuid());
    home = entry && entry->pw_dir && entry->pw_dir[0] == '/' ? entry->pw_dir : nullptr;
  }
  if (!home) return std::nullopt;
  return std::filesystem::path(home) / underHome;
}

}  // namespace zul
