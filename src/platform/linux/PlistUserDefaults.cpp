#include "platform/linux/PlistUserDefaults.h"

#include <fcntl.h>
#include <plist/plist.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <system_error>

// Storage layout and concurrency
//
// Each domain is one binary property list with a dictionary at its root. Nothing is cached:
// every read opens and parses the file, so a value written by one process is seen by the next
// read in any other.
//
// A write is a read-modify-write of the whole dictionary:
//   - within a process, one mutex serialises all reads and writes of every domain;
//   - across processes, the writer holds an exclusive flock on "<file>.lock" (a companion file
//     that is never removed) from before the read until after the rename, so two processes
//     setting different keys never lose either; readers take no lock, they rely on the rename;
//   - the new contents go to a uniquely named temporary file in the same folder, which is
//     fsynced and renamed over the domain file, so a reader sees either the old or the new
//     dictionary, never a partial one.
//
// A file that exists but does not parse as a dictionary plist reads as empty and is left alone
// until the next write, which first copies it to "<file>.corrupt" (or "<file>.corrupt.N" when
// that is taken) so that nothing is lost.
//
// Values of types the engine does not model (dates, data, arrays, nested dictionaries) read as
// absent but survive rewrites untouched.
//
// Failures to write (permissions, full disk) throw std::runtime_error; reads never throw.

namespace tw::linuxp {

namespace {

std::mutex& domainMutex() {
    static std::mutex m;
    return m;
}

struct PlistDeleter {
    void operator()(void* p) const {
        if (p) plist_free(p);
    }
};
using PlistHandle = std::unique_ptr<void, PlistDeleter>;

[[noreturn]] void fail(const std::string& what, const std::string& path, int err) {
    throw std::runtime_error("user defaults: " + what + " " + path + ": " + std::strerror(err));
}

class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    // Closes now, reporting the error (close can report a deferred write error).
    int close() {
        const int rc = ::close(fd_);
        fd_ = -1;
        return rc;
    }

private:
    int fd_;
};

enum class FileState { Missing, Empty, Valid, Corrupt, Unreadable };

struct LoadedDomain {
    FileState state = FileState::Missing;
    PlistHandle dict;    // set only when Valid
    std::string bytes;   // the raw contents, kept so a corrupt file can be set aside
    int error = 0;       // errno when Unreadable
    mode_t mode = 0644;  // permissions of the existing file
};

LoadedDomain loadDomain(const std::string& file) {
    LoadedDomain out;
    Fd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        out.state = errno == ENOENT ? FileState::Missing : FileState::Unreadable;
        out.error = errno;
        return out;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) == 0) out.mode = st.st_mode & 07777;
    char buffer[65536];
    while (true) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            out.state = FileState::Unreadable;
            out.error = errno;
            return out;
        }
        out.bytes.append(buffer, static_cast<size_t>(n));
    }
    if (out.bytes.empty()) {
        out.state = FileState::Empty;
        return out;
    }
    plist_t root = nullptr;
    if (out.bytes.size() <= std::numeric_limits<uint32_t>::max())
        plist_from_memory(out.bytes.data(), static_cast<uint32_t>(out.bytes.size()), &root);
    PlistHandle handle(root);
    if (!root || plist_get_node_type(root) != PLIST_DICT) {
        out.state = FileState::Corrupt;
        return out;
    }
    out.state = FileState::Valid;
    out.dict = std::move(handle);
    return out;
}

std::optional<DefaultsValue> toValue(plist_t node) {
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            uint8_t b = 0;
            plist_get_bool_val(node, &b);
            return DefaultsValue{b != 0};
        }
        case PLIST_UINT: {
            // Binary plists hold signed 64-bit integers; this library exposes them unsigned.
            uint64_t u = 0;
            plist_get_uint_val(node, &u);
            return DefaultsValue{static_cast<int64_t>(u)};
        }
        case PLIST_REAL: {
            double d = 0;
            plist_get_real_val(node, &d);
            return DefaultsValue{d};
        }
        case PLIST_STRING: {
            uint64_t length = 0;
            const char* p = plist_get_string_ptr(node, &length);
            return DefaultsValue{std::string(p ? p : "", p ? length : 0)};
        }
        default:
            return std::nullopt;
    }
}

plist_t toNode(const DefaultsValue& value) {
    if (const auto* b = std::get_if<bool>(&value)) return plist_new_bool(*b ? 1 : 0);
    if (const auto* i = std::get_if<int64_t>(&value)) return plist_new_uint(static_cast<uint64_t>(*i));
    if (const auto* d = std::get_if<double>(&value)) return plist_new_real(*d);
    return plist_new_string(std::get<std::string>(value).c_str());
}

void writeAll(int fd, const char* data, size_t size, const std::string& path) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail("cannot write", path, errno);
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
}

void syncFolder(const std::string& folder) {
    Fd dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() >= 0) ::fsync(dir.get());  // best effort: the rename itself already happened
}

// Copies the damaged contents next to the file under the first free "<file>.corrupt[.N]" name.
void setCorruptFileAside(const std::string& file, const LoadedDomain& loaded) {
    for (int attempt = 0;; ++attempt) {
        const std::string aside = file + ".corrupt" + (attempt ? "." + std::to_string(attempt) : "");
        Fd fd(::open(aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, loaded.mode));
        if (fd.get() < 0) {
            if (errno == EEXIST && attempt < 10000) continue;
            fail("cannot keep the damaged file as", aside, errno);
        }
        writeAll(fd.get(), loaded.bytes.data(), loaded.bytes.size(), aside);
        if (::fsync(fd.get()) != 0 || fd.close() != 0) fail("cannot write", aside, errno);
        return;
    }
}

void replaceFile(const std::string& file, plist_t dict, mode_t mode) {
    char* data = nullptr;
    uint32_t length = 0;
    plist_to_bin(dict, &data, &length);
    if (!data) throw std::runtime_error("user defaults: cannot encode " + file);
    std::unique_ptr<char, void (*)(char*)> encoded(data, plist_to_bin_free);

    static std::atomic<uint64_t> counter{0};
    const std::string temp =
        file + ".tmp." + std::to_string(::getpid()) + "." + std::to_string(counter.fetch_add(1));
    Fd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (fd.get() < 0) fail("cannot create", temp, errno);
    try {
        writeAll(fd.get(), data, length, temp);
        if (::fchmod(fd.get(), mode) != 0) fail("cannot set permissions of", temp, errno);
        if (::fsync(fd.get()) != 0) fail("cannot sync", temp, errno);
        if (fd.close() != 0) fail("cannot write", temp, errno);
        if (::rename(temp.c_str(), file.c_str()) != 0) fail("cannot replace", file, errno);
    } catch (...) {
        ::unlink(temp.c_str());
        throw;
    }
    syncFolder(std::filesystem::path(file).parent_path().string());
}

// Runs `change` on the current dictionary under both locks and stores the result when it
// reports a change.
void updateDomain(const std::string& file, const std::function<bool(plist_t)>& change) {
    std::lock_guard guard(domainMutex());

    const std::filesystem::path parent = std::filesystem::path(file).parent_path();
    if (!parent.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(parent, ec);
        if (ec) throw std::runtime_error("user defaults: cannot create " + parent.string() + ": " + ec.message());
    }

    const std::string lockPath = file + ".lock";
    Fd lock(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (lock.get() < 0) fail("cannot open", lockPath, errno);
    while (::flock(lock.get(), LOCK_EX) != 0) {
        if (errno != EINTR) fail("cannot lock", lockPath, errno);
    }

    LoadedDomain loaded = loadDomain(file);
    if (loaded.state == FileState::Unreadable) fail("cannot read", file, loaded.error);
    PlistHandle dict = loaded.state == FileState::Valid ? std::move(loaded.dict) : PlistHandle(plist_new_dict());
    if (!change(dict.get())) return;

    if (loaded.state == FileState::Corrupt) setCorruptFileAside(file, loaded);
    replaceFile(file, dict.get(), loaded.state == FileState::Missing ? 0644 : loaded.mode);
    // The flock goes with the descriptor when `lock` closes.
}

}  // namespace

PlistUserDefaults::PlistUserDefaults(std::string file) : file_(std::move(file)) {}

std::optional<DefaultsValue> PlistUserDefaults::objectForKey(const std::string& key) {
    std::lock_guard guard(domainMutex());
    const LoadedDomain loaded = loadDomain(file_);
    if (loaded.state != FileState::Valid) return std::nullopt;
    plist_t node = plist_dict_get_item(loaded.dict.get(), key.c_str());
    if (!node) return std::nullopt;
    return toValue(node);
}

void PlistUserDefaults::setObject(const std::string& key, const DefaultsValue& value) {
    updateDomain(file_, [&](plist_t dict) {
        plist_dict_set_item(dict, key.c_str(), toNode(value));
        return true;
    });
}

void PlistUserDefaults::removeObjectForKey(const std::string& key) {
    {
        // Removing what is not there changes nothing: no folder, lock or domain file appears.
        std::lock_guard guard(domainMutex());
        const LoadedDomain loaded = loadDomain(file_);
        if (loaded.state != FileState::Valid || !plist_dict_get_item(loaded.dict.get(), key.c_str())) return;
    }
    updateDomain(file_, [&](plist_t dict) {
        if (!plist_dict_get_item(dict, key.c_str())) return false;
        plist_dict_remove_item(dict, key.c_str());
        return true;
    });
}

}  // namespace tw::linuxp
