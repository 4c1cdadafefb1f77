#pragma once
// File facts the engine needs that portable C++ does not give.
#include <chrono>
#include <optional>
#include <string>

namespace tw {

// The file's creation (birth) time, where the file system reports one.
std::optional<std::chrono::system_clock::time_point> fileCreationDate(const std::string& path);

}  // namespace tw
