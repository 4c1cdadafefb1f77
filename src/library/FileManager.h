#pragma once
// The script library folder: script paths ("/name.lua", relative to the library root) and the
// folders the system needs.
#include <string>

namespace tw {

class FileManager {
public:
    // The library root on this device, without a trailing "/".
    static std::string rootPath();
    // The full path of a script path: the library root followed by the path.
    static std::string fullPathOfFile(const std::string& path);
    // Creates the Scripts and Library folders when missing; returns false when one cannot be made.
    static bool prepareDirectories();
};

}  // namespace tw
