#include "apps/uvcam/settings_file.h"

#include "apps/uvcam/exit_code.h"

#include "host/executive/registry.h"
#include "host/executive/registry_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace uvcam {

namespace {

namespace fs = std::filesystem;

// The runtime takes an unusable registry file for a broken machine and stops. A person's slip deserves better.
void Check(const fs::path &path, const std::string &what) {
    if (fs::is_directory(path))
        throw Failure(ExitCode::Failed, what + ": is a folder");
    // The file is replaced as a whole, by a new one in its folder.
    const fs::path folder = fs::absolute(path).parent_path();
    if ((fs::exists(path) && access(path.c_str(), R_OK) != 0) || access(folder.c_str(), W_OK | X_OK) != 0)
        throw Failure(errno == EACCES ? ExitCode::Permission : ExitCode::Failed,
                      what + ": cannot be used: " + std::strerror(errno));
    host::RegistryKey registry;
    std::string reason;
    if (!host::ReadRegistryFile(path, registry, reason))
        throw Failure(ExitCode::Failed, what + ": " + reason);
}

// Empty when the environment names none.
fs::path StateFolder() {
    const auto variable = [](const char *name) {
        const char *text = std::getenv(name);
        const fs::path path = text != nullptr ? text : "";
        return path.is_absolute() ? path : fs::path();
    };
    if (const fs::path state = variable("XDG_STATE_HOME"); !state.empty())
        return state;
    const fs::path home = variable("HOME");
    return home.empty() ? home : home / ".local" / "state";
}

} // namespace

fs::path SettingsFile(const std::string &wish) {
    if (!wish.empty()) {
        Check(wish, "--settings " + wish);
        return wish;
    }
    const fs::path state = StateFolder();
    if (state.empty())
        return {};
    const fs::path folder = state / "uvcam";
    std::error_code error;
    fs::create_directories(folder, error);
    // Nobody asked for this file, so that a system without a place for it is no reason to refuse the camera.
    if (error || access(folder.c_str(), W_OK | X_OK) != 0) {
        std::fprintf(stderr, "uvcam: settings are not kept: cannot write to %s\n", folder.c_str());
        return {};
    }
    const fs::path file = folder / "settings.json";
    Check(file, file.string());
    return file;
}

} // namespace uvcam
