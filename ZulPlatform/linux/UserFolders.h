#pragma once

#include <filesystem>
#include <optional>

namespace zul {

// One of the user's base folders by the XDG rules: the variable `variable`
// (XDG_CONFIG_HOME, XDG_DATA_HOME, XDG_STATE_HOME) when it is an absolute
// path, else `underHome` in the home folder ($HOME when absolute, else the
// user's entry in the password database); nothing without a home folder.
std::optional<std::filesystem::path> userFolder(const char* variable,
                                                const std::filesystem::path& underHome);

}  // namespace zul
