#pragma once
// Whole-file reads and atomic file replacement: every file the engine rewrites goes through here.
//
// A replacement writes a temporary file in the target's own folder, named ".<name>.tw-XXXXXX", then
// flushes it to disk, renames it over the target and flushes the folder, so a reader (another role
// process, a crash) sees either the old content or the new, never a part. A temporary file that is
// never committed is removed. Appends (the error log, a recording) are not replacements and do not
// come here.
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tw {

// Marks the temporary files of replacements in progress: ".<name>" + kAtomicTempMarker + 6 chars.
inline constexpr std::string_view kAtomicTempMarker = ".tw-";

class AtomicFileWriter {
public:
    // Starts replacing `path`. The new file gets the permissions `mode`, or by default those of
    // the file it replaces (0644 for a new one). Check ok(); error() says why not.
    explicit AtomicFileWriter(std::string path, std::optional<unsigned> mode = std::nullopt);
    ~AtomicFileWriter();
    AtomicFileWriter(const AtomicFileWriter&) = delete;
    AtomicFileWriter& operator=(const AtomicFileWriter&) = delete;

    bool ok() const { return fd_ >= 0 && error_.empty(); }
    // "cannot write <path>: <reason>", empty while all is well; errorCode() is the errno of it.
    const std::string& error() const { return error_; }
    int errorCode() const { return errorCode_; }

    bool write(std::string_view bytes);
    bool write(const void* data, size_t size) { return write(std::string_view(static_cast<const char*>(data), size)); }
    // Grows the new content to `size` bytes; the bytes added read as zeros.
    bool extendTo(uint64_t size);
    // Appends whatever the current file holds beyond the bytes written so far, so that a shorter
    // content written over a longer file leaves the old file's tail (the screenshot's behaviour).
    bool keepOldTail();
    // Flushes the new content, renames it over the target and flushes the folder. False (the
    // target untouched) when any step fails.
    bool commit();

private:
    void fail(const char* what, int err);

    std::string path_;
    std::string temp_;
    int fd_ = -1;
    uint64_t written_ = 0;
    bool created_ = false;
    bool committed_ = false;
    std::string error_;
    int errorCode_ = 0;
};

// True when `fileName` is one of an AtomicFileWriter's temporary files: "." + name +
// kAtomicTempMarker + six letters or digits.
bool isAtomicTempName(std::string_view fileName);

// Removes, below `folder`, the temporary files that replacements interrupted by a crash left
// behind (isAtomicTempName, last changed longer than `minimumAge` ago, so a replacement in progress
// in another process is left alone), and nothing else. Returns how many it removed.
size_t removeLeftoverTemporaryFiles(const std::string& folder, std::chrono::seconds minimumAge);

// Replaces the file at `path` with `bytes` through an AtomicFileWriter. The folder must exist.
// False, with the reason in `error` and its errno in `errorCode` when given, when it cannot.
bool writeFileAtomically(const std::string& path, std::string_view bytes, std::string* error = nullptr,
                         int* errorCode = nullptr);

// An exclusive lock between processes on the lock file `path` (made when missing, never removed),
// held from construction until the object goes away. Writers that read, change and replace a
// shared file take it around the whole of that.
class FileLock {
public:
    explicit FileLock(const std::string& path);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    // False, with errorCode() set, when the lock file could not be opened or locked.
    bool locked() const { return fd_ >= 0; }
    int errorCode() const { return errorCode_; }

private:
    int fd_ = -1;
    int errorCode_ = 0;
};

// The whole content of the file at `path`; nullopt, with the errno in `errorCode` when given, when
// it cannot be opened or read.
std::optional<std::string> readWholeFile(const std::string& path, int* errorCode = nullptr);

}  // namespace tw
