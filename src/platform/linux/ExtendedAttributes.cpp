// Linux keeps attributes in namespaces; the engine's names live in "user.", which every file
// system with user attributes (ext4, xfs, btrfs, tmpfs since 6.6) accepts from the file's owner.
#include "platform/ExtendedAttributes.h"

#include <sys/xattr.h>

#include <cerrno>

namespace tw {

namespace {

constexpr std::string_view kUserNamespace = "user.";

// The system name for an engine name. A NUL would cut the name short and so name another
// attribute: such names are refused.
bool systemName(const std::string& name, std::string* out) {
    if (name.find('\0') != std::string::npos) return false;
    *out = std::string(kUserNamespace) + name;
    return true;
}

}  // namespace

int setExtendedAttribute(const std::string& path, const std::string& name, std::string_view value) {
    std::string sys;
    if (!systemName(name, &sys)) return EINVAL;
    return ::setxattr(path.c_str(), sys.c_str(), value.data(), value.size(), 0) == 0 ? 0 : errno;
}

int extendedAttributeSize(const std::string& path, const std::string& name, size_t* size) {
    std::string sys;
    if (!systemName(name, &sys)) return EINVAL;
    const ssize_t n = ::getxattr(path.c_str(), sys.c_str(), nullptr, 0);
    if (n < 0) return errno;
    *size = static_cast<size_t>(n);
    return 0;
}

int getExtendedAttribute(const std::string& path, const std::string& name, std::string* value) {
    std::string sys;
    if (!systemName(name, &sys)) return EINVAL;
    // The value may grow between asking its size and reading it; ask again then.
    for (;;) {
        const ssize_t size = ::getxattr(path.c_str(), sys.c_str(), nullptr, 0);
        if (size < 0) return errno;
        std::string buffer(static_cast<size_t>(size), '\0');
        if (size == 0) {
            *value = std::move(buffer);
            return 0;
        }
        const ssize_t n = ::getxattr(path.c_str(), sys.c_str(), buffer.data(), buffer.size());
        if (n >= 0) {
            buffer.resize(static_cast<size_t>(n));
            *value = std::move(buffer);
            return 0;
        }
        if (errno != ERANGE) return errno;
    }
}

int removeExtendedAttribute(const std::string& path, const std::string& name) {
    std::string sys;
    if (!systemName(name, &sys)) return EINVAL;
    return ::removexattr(path.c_str(), sys.c_str()) == 0 ? 0 : errno;
}

int listExtendedAttributes(const std::string& path, std::vector<std::string>* names) {
    for (;;) {
        const ssize_t size = ::listxattr(path.c_str(), nullptr, 0);
        if (size < 0) return errno;
        std::string buffer(static_cast<size_t>(size), '\0');
        const ssize_t n = size == 0 ? 0 : ::listxattr(path.c_str(), buffer.data(), buffer.size());
        if (n < 0) {
            if (errno == ERANGE) continue;
            return errno;
        }
        buffer.resize(static_cast<size_t>(n));
        names->clear();
        // "user.a\0security.selinux\0user.b\0": keep the user names, without their namespace.
        size_t start = 0;
        while (start < buffer.size()) {
            size_t end = buffer.find('\0', start);
            if (end == std::string::npos) end = buffer.size();
            const std::string_view entry(buffer.data() + start, end - start);
            if (entry.size() > kUserNamespace.size() && entry.substr(0, kUserNamespace.size()) == kUserNamespace)
                names->emplace_back(entry.substr(kUserNamespace.size()));
            start = end + 1;
        }
        return 0;
    }
}

}  // namespace tw
