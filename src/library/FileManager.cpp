#include "library/FileManager.h"

#include <filesystem>

#include "core/Paths.h"

namespace tw {

std::string FileManager::rootPath() { return Paths::scriptsDir(); }

std::string FileManager::fullPathOfFile(const std::string& path) { return rootPath() + path; }

bool FileManager::prepareDirectories() {
    std::error_code ec;
    bool ok = true;
    for (const auto& dir : {Paths::scriptsDir(), Paths::libraryDir()}) {
        std::filesystem::create_directories(dir, ec);
        if (!std::filesystem::is_directory(dir, ec)) ok = false;
    }
    return ok;
}

}  // namespace tw
