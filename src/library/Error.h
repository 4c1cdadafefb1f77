#pragma once
// The error value that file operations hand to their failure callbacks: a domain, a code in that
// domain and a user-visible description.
#include <cstdint>
#include <cstring>
#include <string>
#include <system_error>

namespace tw {

// The library's own errors (codes 3000 to 3004).
inline constexpr const char* kTapwrightErrorDomain = "me.tapwright.tapwright.ios";
// Errors of the operating system, coded by errno.
inline constexpr const char* kPosixErrorDomain = "NSPOSIXErrorDomain";

inline constexpr int64_t kErrorUnknownReason = 3000;
inline constexpr int64_t kErrorFileDoesNotExist = 3001;
inline constexpr int64_t kErrorFileAlreadyExists = 3002;
inline constexpr int64_t kErrorFileNotDeletable = 3003;
inline constexpr int64_t kErrorInvalidFilePath = 3004;

struct Error {
    std::string domain;
    int64_t code = 0;
    std::string description;

    bool operator==(const Error&) const = default;

    // An errno value as a POSIX error, described by the system's message for it.
    static Error posix(int errnum) { return Error{kPosixErrorDomain, errnum, std::strerror(errnum)}; }
    // A failure reported by the standard library's file system calls, passed on unchanged.
    static Error fromErrorCode(const std::error_code& ec) {
        if (ec.category() == std::generic_category() || ec.category() == std::system_category())
            return posix(ec.value());
        return Error{ec.category().name(), ec.value(), ec.message()};
    }
};

}  // namespace tw
