// Where the settings of cameras are kept between runs.
#pragma once

#include <filesystem>
#include <string>

namespace uvcam {

// The file that a person has asked for; without such a wish uvcam/settings.json below XDG_STATE_HOME or
// ~/.local/state, or an empty path where there is no such place. Throws Failure for a file that cannot be used.
std::filesystem::path SettingsFile(const std::string &wish);

} // namespace uvcam
