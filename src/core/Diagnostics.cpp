#include "core/Diagnostics.h"

#include <cstdarg>
#include <cstdio>

namespace tw {

void writeStderrLine(const char* prefix, const char* format, va_list args) {
    char buffer[4096];
    std::vsnprintf(buffer, sizeof buffer, format, args);
    std::fprintf(stderr, "%s%s\n", prefix, buffer);
    std::fflush(stderr);
}

void diagnostic(const char* format, ...) {
    va_list args;
    va_start(args, format);
    writeStderrLine("tapwright: ", format, args);
    va_end(args);
}

}  // namespace tw
