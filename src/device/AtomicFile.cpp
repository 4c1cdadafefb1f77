#include "device/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace tw::device {

namespace {

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

bool writeFileAtomically(const std::string& path, const std::string& bytes, std::string* error) {
    const std::filesystem::path target(path);
    std::error_code ec;
    if (target.has_parent_path()) std::filesystem::create_directories(target.parent_path(), ec);

    std::string temp = path + ".XXXXXX";
    const int fd = ::mkstemp(temp.data());
    if (fd < 0) {
        if (error) *error = "cannot create a file beside " + path + ": " + std::strerror(errno);
        return false;
    }
    bool ok = ::fchmod(fd, 0644) == 0 && writeAll(fd, bytes.data(), bytes.size());
    int code = ok ? 0 : errno;
    if (::close(fd) != 0 && ok) {
        ok = false;
        code = errno;
    }
    if (ok && ::rename(temp.c_str(), path.c_str()) != 0) {
        ok = false;
        code = errno;
    }
    if (!ok) {
        ::unlink(temp.c_str());
        if (error) *error = "cannot write " + path + ": " + std::strerror(code);
    }
    return ok;
}

std::optional<std::string> readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) return std::nullopt;
    return bytes;
}

}  // namespace tw::device
