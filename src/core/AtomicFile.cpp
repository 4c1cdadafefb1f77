#include "core/AtomicFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

namespace tw {

namespace {

std::string folderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

AtomicFileWriter::AtomicFileWriter(std::string path, std::optional<unsigned> mode) : path_(std::move(path)) {
    const size_t slash = path_.rfind('/');
    const std::string name = slash == std::string::npos ? path_ : path_.substr(slash + 1);
    if (name.empty()) {
        fail("no file name in", EISDIR);
        return;
    }
    const std::string folder = folderOf(path_);
    temp_ = folder + (folder == "/" ? "." : "/.") + name + std::string(kAtomicTempMarker) + "XXXXXX";
    fd_ = ::mkostemp(temp_.data(), O_CLOEXEC);
    if (fd_ < 0) {
        fail("cannot create a file beside", errno);
        return;
    }
    created_ = true;
    struct stat old {};
    if (!mode) mode = ::stat(path_.c_str(), &old) == 0 && S_ISREG(old.st_mode) ? (old.st_mode & 07777) : 0644;
    if (::fchmod(fd_, static_cast<mode_t>(*mode)) != 0) fail("cannot set the permissions of", errno);
}

AtomicFileWriter::~AtomicFileWriter() {
    if (fd_ >= 0) ::close(fd_);
    if (created_ && !committed_) ::unlink(temp_.c_str());
}

void AtomicFileWriter::fail(const char* what, int err) {
    if (!error_.empty()) return;
    error_ = std::string(what) + " " + path_ + ": " + std::strerror(err);
    errorCode_ = err;
}

bool AtomicFileWriter::write(std::string_view bytes) {
    if (!ok()) return false;
    if (!writeAll(fd_, bytes.data(), bytes.size())) {
        fail("cannot write", errno);
        return false;
    }
    written_ += bytes.size();
    return true;
}

bool AtomicFileWriter::extendTo(uint64_t size) {
    if (!ok()) return false;
    if (size <= written_) return true;
    if (::ftruncate(fd_, static_cast<off_t>(size)) != 0 || ::lseek(fd_, 0, SEEK_END) < 0) {
        fail("cannot write", errno);
        return false;
    }
    written_ = size;
    return true;
}

bool AtomicFileWriter::keepOldTail() {
    if (!ok()) return false;
    const int source = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (source < 0) return errno == ENOENT || (fail("cannot read", errno), false);
    std::vector<char> chunk(64 * 1024);
    bool good = true;
    for (uint64_t at = written_;;) {
        const ssize_t got = ::pread(source, chunk.data(), chunk.size(), static_cast<off_t>(at));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            fail("cannot read", errno);
            good = false;
        }
        if (got <= 0) break;
        if (!write(chunk.data(), static_cast<size_t>(got))) {
            good = false;
            break;
        }
        at += static_cast<uint64_t>(got);
    }
    ::close(source);
    return good;
}

bool AtomicFileWriter::commit() {
    if (!ok()) return false;
    if (::fsync(fd_) != 0) fail("cannot write", errno);
    if (::close(fd_) != 0) fail("cannot write", errno);
    fd_ = -1;
    if (!error_.empty()) return false;
    if (::rename(temp_.c_str(), path_.c_str()) != 0) {
        fail("cannot replace", errno);
        return false;
    }
    committed_ = true;
    // The rename itself is done; flushing the folder makes it survive a power cut.
    const int folder = ::open(folderOf(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        ::fsync(folder);
        ::close(folder);
    }
    return true;
}

bool isAtomicTempName(std::string_view name) {
    constexpr size_t kRandom = 6;
    if (name.size() < 1 + 1 + kAtomicTempMarker.size() + kRandom || name.front() != '.') return false;
    const std::string_view tail = name.substr(name.size() - kRandom);
    for (char c : tail)
        if (!std::isalnum(static_cast<unsigned char>(c))) return false;
    return name.substr(name.size() - kRandom - kAtomicTempMarker.size(), kAtomicTempMarker.size()) ==
           kAtomicTempMarker;
}

size_t removeLeftoverTemporaryFiles(const std::string& folder, std::chrono::seconds minimumAge) {
    namespace fs = std::filesystem;
    size_t removed = 0;
    std::error_code ec;
    const auto now = fs::file_time_type::clock::now();
    for (auto it = fs::recursive_directory_iterator(folder, fs::directory_options::skip_permission_denied, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        std::error_code entryError;
        if (!it->is_regular_file(entryError) || !isAtomicTempName(it->path().filename().string())) continue;
        const auto changed = it->last_write_time(entryError);
        if (entryError || now - changed < minimumAge) continue;
        if (fs::remove(it->path(), entryError)) ++removed;
    }
    return removed;
}

bool writeFileAtomically(const std::string& path, std::string_view bytes, std::string* error, int* errorCode) {
    AtomicFileWriter file(path);
    if (file.write(bytes) && file.commit()) return true;
    if (error) *error = file.error();
    if (errorCode) *errorCode = file.errorCode();
    return false;
}

FileLock::FileLock(const std::string& path) {
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    while (fd_ >= 0 && ::flock(fd_, LOCK_EX) != 0) {
        if (errno == EINTR) continue;
        errorCode_ = errno;
        ::close(fd_);
        fd_ = -1;
    }
    if (fd_ < 0 && errorCode_ == 0) errorCode_ = errno;
}

FileLock::~FileLock() {
    if (fd_ >= 0) ::close(fd_);  // closing releases the lock
}

std::optional<std::string> readWholeFile(const std::string& path, int* errorCode) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errorCode) *errorCode = errno;
        return std::nullopt;
    }
    struct stat st {};
    if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        if (errorCode) *errorCode = EISDIR;
        ::close(fd);
        return std::nullopt;
    }
    std::string bytes;
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            if (errorCode) *errorCode = errno;
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        bytes.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return bytes;
}

}  // namespace tw
