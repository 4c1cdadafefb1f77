#include "platform/linux/PlistUserDefaults.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <system_error>

#include "core/AtomicFile.h"
#include "core/Plist.h"

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
// Failures to write (permissions, full disk) make setObject/removeObjectForKey answer false, with
// the reason in lastError(); reads never fail loudly.

namespace tw::linuxp {

namespace {

std::mutex& domainMutex() {
    static std::mutex m;
    return m;
}

[[noreturn]] void fail(const std::string& what, const std::string& path, int err) {
    throw std::runtime_error("user defaults: " + what + " " + path + ": " + std::strerror(err));
}

enum class FileState { Missing, Empty, Valid, Corrupt, Unreadable };

struct LoadedDomain {
    FileState state = FileState::Missing;
    PlistHandle dict;   // set only when Valid
    std::string bytes;  // the raw contents, kept so a corrupt file can be set aside
    int error = 0;      // errno when Unreadable
};

LoadedDomain loadDomain(const std::string& file) {
    LoadedDomain out;
    auto bytes = readWholeFile(file, &out.error);
    if (!bytes) {
        out.state = out.error == ENOENT ? FileState::Missing : FileState::Unreadable;
        return out;
    }
    out.bytes = std::move(*bytes);
    if (out.bytes.empty()) {
        out.state = FileState::Empty;
        return out;
    }
    PlistHandle root = parsePlist(out.bytes);
    if (!isPlistDict(root.get())) {
        out.state = FileState::Corrupt;
        return out;
    }
    out.state = FileState::Valid;
    out.dict = std::move(root);
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

// Copies the damaged contents next to the file under the first free "<file>.corrupt[.N]" name.
// Runs under the domain's cross-process lock, so no other writer takes the name meanwhile.
void setCorruptFileAside(const std::string& file, const LoadedDomain& loaded) {
    for (int attempt = 0; attempt < 10000; ++attempt) {
        const std::string aside = file + ".corrupt" + (attempt ? "." + std::to_string(attempt) : "");
        struct stat st {};
        if (::lstat(aside.c_str(), &st) == 0) continue;
        std::string error;
        if (!writeFileAtomically(aside, loaded.bytes, &error))
            throw std::runtime_error("user defaults: cannot keep the damaged file: " + error);
        return;
    }
    fail("cannot keep the damaged file beside", file, EEXIST);
}

void replaceFile(const std::string& file, plist_t dict) {
    const auto encoded = plistToBinary(dict);
    if (!encoded) throw std::runtime_error("user defaults: cannot encode " + file);
    std::string error;
    if (!writeFileAtomically(file, *encoded, &error)) throw std::runtime_error("user defaults: " + error);
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
    FileLock lock(lockPath);
    if (!lock.locked()) fail("cannot lock", lockPath, lock.errorCode());

    LoadedDomain loaded = loadDomain(file);
    if (loaded.state == FileState::Unreadable) fail("cannot read", file, loaded.error);
    PlistHandle dict = loaded.state == FileState::Valid ? std::move(loaded.dict) : PlistHandle(plist_new_dict());
    if (!change(dict.get())) return;

    if (loaded.state == FileState::Corrupt) setCorruptFileAside(file, loaded);
    replaceFile(file, dict.get());
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

bool PlistUserDefaults::update(const std::function<bool(plist_t)>& change) {
    try {
        updateDomain(file_, change);
        return true;
    } catch (const std::exception& e) {
        std::lock_guard lock(errorMutex_);
        lastError_ = e.what();
        return false;
    }
}

std::string PlistUserDefaults::lastError() const {
    std::lock_guard lock(errorMutex_);
    return lastError_;
}

bool PlistUserDefaults::setObject(const std::string& key, const DefaultsValue& value) {
    return update([&](plist_t dict) {
        plist_dict_set_item(dict, key.c_str(), toNode(value));
        return true;
    });
}

bool PlistUserDefaults::removeObjectForKey(const std::string& key) {
    {
        // Removing what is not there changes nothing: no folder, lock or domain file appears.
        std::lock_guard guard(domainMutex());
        const LoadedDomain loaded = loadDomain(file_);
        if (loaded.state != FileState::Valid || !plist_dict_get_item(loaded.dict.get(), key.c_str())) return true;
    }
    return update([&](plist_t dict) {
        if (!plist_dict_get_item(dict, key.c_str())) return false;
        plist_dict_remove_item(dict, key.c_str());
        return true;
    });
}

}  // namespace tw::linuxp
