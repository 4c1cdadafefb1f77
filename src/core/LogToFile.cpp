#include "core/LogToFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "core/Paths.h"

namespace tw {

bool isValidUtf8(std::string_view s) {
    size_t i = 0;
    const size_t n = s.size();
    while (i < n) {
        const auto c = static_cast<unsigned char>(s[i]);
        size_t len;
        uint32_t cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            len = 2;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            len = 3;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            len = 4;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + len > n) return false;
        for (size_t k = 1; k < len; ++k) {
            const auto cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not text.
        if ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) ||
            (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF)
            return false;
        i += len;
    }
    return true;
}

std::string formatLogLine(std::string_view message) {
    std::string_view kept = message.substr(0, std::min(message.size(), kLogMessageLimit));
    // A message cut short at a NUL is what a C buffer would hold.
    if (auto nul = kept.find('\0'); nul != std::string_view::npos) kept = kept.substr(0, nul);
    const std::string text = isValidUtf8(kept) ? std::string(kept) : std::string("(null)");

    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%m-%d %H:%M:%S", &local);
    return std::string(stamp) + " " + text + "\n";
}

void LogMessageToFile(std::string_view message) {
    const std::string line = formatLogLine(message);
    // Appended in one write, or created with it; a folder that is missing loses the line in
    // silence.
    const int fd = ::open(Paths::logFile().c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    const ssize_t written = ::write(fd, line.data(), line.size());
    if (written > 0 && static_cast<size_t>(written) < line.size()) {
        // A line cut short (a full disk) is taken back whole, so that the next one does not
        // glue itself to a stump without its newline.
        struct stat st {};
        if (::fstat(fd, &st) == 0 && st.st_size >= written) {
            const int undone = ::ftruncate(fd, st.st_size - written);
            (void)undone;  // logging never fails loudly
        }
    }
    ::close(fd);
}

void LogToFile(const char* format, ...) {
    char buffer[kLogMessageLimit + 2];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, kLogMessageLimit + 1, format, args);
    va_end(args);
    buffer[kLogMessageLimit] = '\0';
    LogMessageToFile(std::string_view(buffer));
}

}  // namespace tw
