#include "platform/FileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace tw {

// Linux keeps the birth time only where the file system records it (ext4, btrfs, xfs, tmpfs on
// recent kernels); statx tells whether it did through stx_mask.
std::optional<std::chrono::system_clock::time_point> fileCreationDate(const std::string& path) {
    struct statx st {};
    if (statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &st) != 0) return std::nullopt;
    if (!(st.stx_mask & STATX_BTIME)) return std::nullopt;
    const auto since = std::chrono::seconds(st.stx_btime.tv_sec) +
                       std::chrono::nanoseconds(st.stx_btime.tv_nsec);
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(since));
}

}  // namespace tw
