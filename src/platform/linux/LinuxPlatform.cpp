#include "platform/linux/LinuxPlatform.h"

#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

namespace tw::linuxp {

std::string defaultDeviceRoot() {
    std::string base;
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg)
        base = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home)
        base = std::string(home) + "/.local/share";
    else
        base = "/tmp";
    return base + "/tapwright/devices/default";
}

std::string resourcesDir() {
    if (const char* env = std::getenv("TAPWRIGHT_RESOURCES"); env && *env) return env;
    return TW_SOURCE_RESOURCES;
}

std::string profilePath(const std::string& nameOrPath) {
    std::error_code ec;
    if (nameOrPath.find('/') != std::string::npos || fs::is_regular_file(nameOrPath, ec)) return nameOrPath;
    return resourcesDir() + "/devices/" + nameOrPath + ".json";
}

std::string selfExecutable() {
    std::error_code ec;
    auto path = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string("tapwright") : path.string();
}

}  // namespace tw::linuxp
