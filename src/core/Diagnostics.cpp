#include "core/Diagnostics.h"

#include <cstdarg>
#include <cstdio>

namespace tw {

void diagnostic(const char* format, ...) {
    char buffer[4096];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    std::fprintf(stderr, "tapwright: %s\n", buffer);
    std::fflush(stderr);
}

}  // namespace tw
