#pragma once
// Files that other processes of the device read while this one rewrites them.
#include <optional>
#include <string>

namespace tw::device {

// Writes `bytes` to a new file beside `path` and renames it over `path`, so a reader sees either
// the old or the new content, never a part. Makes the missing parent folders. False, with the
// reason in `error`, when it cannot.
bool writeFileAtomically(const std::string& path, const std::string& bytes, std::string* error = nullptr);

// The whole content of the file at `path`; null when it cannot be read.
std::optional<std::string> readWholeFile(const std::string& path);

}  // namespace tw::device
