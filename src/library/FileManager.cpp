#include "library/FileManager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <unordered_map>

#include "core/AtomicFile.h"
#include "core/LogToFile.h"
#include "core/Plist.h"
#include "core/Helper.h"
#include "core/Paths.h"
#include "library/Utils.h"
#include "platform/ExtendedAttributes.h"
#include "platform/FileSystem.h"
#include "store/DataManager.h"

namespace fs = std::filesystem;

namespace tw {

namespace {

// The system's registry of MIME types by extension.
constexpr const char* kSystemMimeTypesPath = "/etc/mime.types";
constexpr const char* kMimeTypesPlistName = "mimetypes.plist";
constexpr const char* kDialogValuePrefix = "DIALOG.";

// ---- Callbacks

void succeed(const SuccessCallback& onSuccess) {
    if (onSuccess) onSuccess();
}

void fail(const FailureCallback& onFailure, const Error& error) {
    if (onFailure) onFailure(error);
}

Error libraryError(int64_t code, const char* description) {
    return Utils::customErrorWithDomain(kTapwrightErrorDomain, code, description);
}

void setError(std::optional<Error>* slot, Error error) {
    if (slot) *slot = std::move(error);
}

void clearError(std::optional<Error>* slot) {
    if (slot) slot->reset();
}

// ---- Paths

// The folder holding a full path; a trailing "/" does not count as a component.
std::string parentOf(std::string full) {
    while (full.size() > 1 && full.back() == '/') full.pop_back();
    const auto slash = full.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : full.substr(0, slash);
}

std::string lastComponent(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The extension of the last component, as written; a leading dot (".profile") is no extension.
std::string extensionOf(const std::string& path) {
    const std::string name = lastComponent(path);
    const auto dot = name.find_last_of('.');
    if (dot == std::string::npos || dot == 0) return "";
    return name.substr(dot + 1);
}

std::string toLower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

// Whether something is at the full path, following a final symbolic link.
bool existsAt(const std::string& full) {
    struct stat st {};
    return ::stat(full.c_str(), &st) == 0;
}

bool directoryAt(const std::string& full) {
    struct stat st {};
    return ::stat(full.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// ---- Listing

struct Entry {
    std::string name;
    bool isDirectory;
};

// The entries of a folder in the file system's order; false with the error when it cannot be read.
bool listFolder(const std::string& full, std::vector<Entry>* entries, Error* error) {
    std::error_code ec;
    fs::directory_iterator it(full, ec);
    if (ec) {
        *error = Error::fromErrorCode(ec);
        return false;
    }
    for (; it != fs::directory_iterator(); it.increment(ec)) {
        std::error_code typeError;
        entries->push_back({it->path().filename().string(), it->is_directory(typeError)});
    }
    if (ec) {
        *error = Error::fromErrorCode(ec);
        entries->clear();
        return false;
    }
    return true;
}

// The entries of a library folder, or nullopt with the error (when asked for) in `error`.
std::optional<std::vector<Entry>> listLibrary(const std::string& folder, std::optional<Error>* error) {
    clearError(error);
    std::vector<Entry> entries;
    Error failure;
    if (!listFolder(FileManager::fullPathOfFile(folder), &entries, &failure)) {
        setError(error, failure);
        return std::nullopt;
    }
    return entries;
}

// The entries that pass `keep`, as library paths of `folder`.
std::vector<std::string> pathsOf(const std::string& folder, const std::vector<Entry>& entries,
                                 const std::function<bool(const Entry&)>& keep) {
    std::vector<std::string> out;
    for (const auto& e : entries)
        if (keep(e)) out.push_back(FileManager::appendPathComponent(folder, e.name));
    return out;
}

std::vector<std::string> libraryEntries(const std::string& folder, const std::function<bool(const Entry&)>& keep,
                                        std::optional<Error>* error) {
    auto entries = listLibrary(folder, error);
    return entries ? pathsOf(folder, *entries, keep) : std::vector<std::string>{};
}

FileManager::TimersReader& timersReader() {
    static FileManager::TimersReader reader;
    return reader;
}

std::mutex& timersReaderMutex() {
    static std::mutex m;
    return m;
}

// ---- Moving

// Renames, or copies and removes across file systems. An existing destination is not replaced.
std::error_code moveItem(const std::string& from, const std::string& to) {
    std::error_code ec;
    if (fs::symlink_status(from, ec).type() == fs::file_type::not_found)
        return std::make_error_code(std::errc::no_such_file_or_directory);
    if (fs::symlink_status(to, ec).type() != fs::file_type::not_found)
        return std::make_error_code(std::errc::file_exists);
    if (::rename(from.c_str(), to.c_str()) == 0) return {};
    if (errno != EXDEV) return std::error_code(errno, std::generic_category());

    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
    if (ec) {
        std::error_code ignored;
        fs::remove_all(to, ignored);
        return ec;
    }
    fs::remove_all(from, ec);
    return ec;
}

// ---- MIME types

using MimeTable = std::unordered_map<std::string, std::string>;

// "type ext1 ext2 ..." per line, "#" starts a comment; the first type named for an extension wins.
MimeTable loadMimeTable(const std::string& path) {
    MimeTable table;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (auto hash = line.find('#'); hash != std::string::npos) line.erase(hash);
        std::istringstream words(line);
        std::string type, ext;
        if (!(words >> type)) continue;
        while (words >> ext) table.emplace(toLower(ext), type);
    }
    return table;
}

const MimeTable& mimeTable() {
    static const MimeTable table = loadMimeTable(kSystemMimeTypesPath);
    return table;
}

// ---- Property lists

plist_t dictItem(plist_t dict, const std::string& key) {
    if (!isPlistDict(dict)) return nullptr;
    plist_t item = plist_dict_get_item(dict, key.c_str());
    return item && plist_get_node_type(item) == PLIST_DICT ? item : nullptr;
}

std::string formatSize(double value, const char* unit) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%4.1f%s", value, unit);
    return buffer;
}

}  // namespace

// ===== Listings

FileManager::FileManager() = default;

void FileManager::setTimersReader(TimersReader reader) {
    std::lock_guard lock(timersReaderMutex());
    timersReader() = std::move(reader);
}

void FileManager::loadStoreState() {
    playSettingsManager.reloadData();
    TimersReader reader;
    {
        std::lock_guard lock(timersReaderMutex());
        reader = timersReader();
    }
    timers = reader ? reader() : std::vector<std::string>{};
    auto triggers = DataManager::getActivatorTriggersAll();
    activatorTriggersInDB = triggers ? std::move(*triggers) : std::vector<ActivatorTrigger>{};
}

std::vector<std::string> FileManager::loadFiles(const std::string& folder, std::optional<Error>* error) {
    loadStoreState();
    auto entries = listLibrary(folder, error);
    if (!entries) return {};
    auto paths = pathsOf(folder, *entries, [](const Entry& e) { return e.isDirectory; });
    auto others = pathsOf(folder, *entries, [](const Entry& e) { return !e.isDirectory; });
    paths.insert(paths.end(), others.begin(), others.end());
    return paths;
}

std::vector<std::string> FileManager::loadScripts(const std::string& folder, std::optional<Error>* error) {
    loadStoreState();
    return libraryEntries(folder, [](const Entry& e) { return !e.isDirectory && isScriptName(e.name); }, error);
}

std::vector<std::string> FileManager::loadImages(const std::string& folder, std::optional<Error>* error) {
    loadStoreState();
    return libraryEntries(folder, [](const Entry& e) { return !e.isDirectory && isImageName(e.name); }, error);
}

bool FileManager::isScriptAssignedActivatorTrigger(const std::string& path) const {
    return std::any_of(activatorTriggersInDB.begin(), activatorTriggersInDB.end(),
                       [&](const ActivatorTrigger& t) { return t.filePath == path; });
}

bool FileManager::ifPlayDirectly(const std::string& path) const { return playSettingsManager.ifPlayDirectly(path); }

bool FileManager::isTimerSet(const std::string& path) const {
    return std::find(timers.begin(), timers.end(), path) != timers.end();
}

// ===== File information

std::string FileManager::rootPath() { return Paths::scriptsDir(); }

std::string FileManager::fullPathOfFile(const std::string& path) {
    // Joined as path components are: exactly one "/" between the root and the path.
    return path.empty() || path.front() == '/' ? rootPath() + path : rootPath() + "/" + path;
}

bool FileManager::isInsideLibrary(const std::string& path) { return isInsideFolder(rootPath(), fullPathOfFile(path)); }

bool FileManager::isInsideFolder(const std::string& folderFullPath, const std::string& fullPath) {
    std::error_code ec;
    const fs::path root = fs::weakly_canonical(folderFullPath, ec);
    if (ec) return false;
    const fs::path resolved = fs::weakly_canonical(fullPath, ec);
    if (ec) return false;
    // Component by component: "/Scripts-old" does not lie inside "/Scripts".
    return std::mismatch(root.begin(), root.end(), resolved.begin(), resolved.end()).first == root.end();
}

bool FileManager::fileExist(const std::string& path) { return existsAt(fullPathOfFile(path)); }

bool FileManager::fileIsDirectory(const std::string& path) { return directoryAt(fullPathOfFile(path)); }

std::optional<FileAttributes> FileManager::fileAttributes(const std::string& path) {
    const std::string full = fullPathOfFile(path);
    struct stat st {};
    if (::lstat(full.c_str(), &st) != 0) {
        LogToFile("Failed to get the attributes of file: %s", full.c_str());
        return std::nullopt;
    }
    FileAttributes a;
    if (S_ISREG(st.st_mode))
        a.type = FileAttributes::Type::Regular;
    else if (S_ISDIR(st.st_mode))
        a.type = FileAttributes::Type::Directory;
    else if (S_ISLNK(st.st_mode))
        a.type = FileAttributes::Type::SymbolicLink;
    else
        a.type = FileAttributes::Type::Other;
    a.size = static_cast<uint64_t>(st.st_size);
    a.posixPermissions = st.st_mode & 07777;
    a.modificationDate = std::chrono::system_clock::time_point(std::chrono::duration_cast<std::chrono::system_clock::duration>(
        std::chrono::seconds(st.st_mtim.tv_sec) + std::chrono::nanoseconds(st.st_mtim.tv_nsec)));
    a.creationDate = a.type == FileAttributes::Type::SymbolicLink
                         ? a.modificationDate
                         : fileCreationDate(full).value_or(a.modificationDate);
    return a;
}

std::optional<std::string> FileManager::fileMIMEType(const std::string& fileName) {
    const std::string ext = lowerExtension(fileName);
    if (ext.empty()) return std::nullopt;
    const auto& table = mimeTable();
    auto it = table.find(ext);
    if (it == table.end()) return std::nullopt;
    return it->second;
}

std::string FileManager::fileCreateTime(const FileAttributes& attributes) {
    return localDateTimeText(std::chrono::system_clock::to_time_t(attributes.creationDate));
}

std::string FileManager::fileSize(const FileAttributes& attributes) {
    // Past terabytes the list goes on with PB and EB, which covers every 64-bit size.
    static constexpr const char* kUnits[] = {"B", "KB", "MB", "GB", "TB", "PB", "EB"};
    double value = static_cast<double>(attributes.size);
    size_t unit = 0;
    while (value > 1024.0 && unit + 1 < std::size(kUnits)) {
        value *= 1.0 / 1024.0;
        ++unit;
    }
    return formatSize(value, kUnits[unit]);
}

std::string FileManager::fileIcon(const std::string& path) {
    if (fileIsDirectory(path)) return "website/icons/folder@2x.png";

    const std::string ext = lowerExtension(path);
    std::optional<std::string> icon;
    // mimetypes.plist: MIME type -> {"Icons": {extension: icon name}, "DefaultIcon": icon name}.
    if (auto mime = fileMIMEType(lastComponent(path))) {
        PlistHandle types = readPlistFile(Paths::resolve(kWebsiteIconsPath) + "/" + kMimeTypesPlistName);
        if (plist_t entry = dictItem(types.get(), *mime)) {
            icon = plistDictString(dictItem(entry, "Icons"), ext);
            if (!icon) icon = plistDictString(entry, "DefaultIcon");
        }
    }
    if (!icon) {
        const std::string exact = extensionOf(path);
        icon = exact == "lua" ? "text" : exact == "e" ? "compressed" : "empty";
    }
    return "website/icons/" + *icon + "@2x.png";
}

// ===== File operations

void FileManager::newDir(const std::string& path, SuccessCallback onSuccess, FailureCallback onFailure) {
    const std::string full = fullPathOfFile(path);
    if (existsAt(full)) return fail(onFailure, libraryError(kErrorFileAlreadyExists, "File already exists."));
    if (::mkdir(full.c_str(), 0777) != 0) return fail(onFailure, Error::posix(errno));
    succeed(onSuccess);
}

void FileManager::newFile(const std::string& path, SuccessCallback onSuccess, FailureCallback onFailure) {
    const std::string full = fullPathOfFile(path);
    if (existsAt(full)) return fail(onFailure, libraryError(kErrorFileAlreadyExists, "File already exists."));
    const int fd = ::open(full.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) {
        // Made by someone else since the check above.
        if (errno == EEXIST) return fail(onFailure, libraryError(kErrorFileAlreadyExists, "File already exists."));
        return fail(onFailure, libraryError(kErrorUnknownReason, "Unknown reason."));
    }
    ::close(fd);
    succeed(onSuccess);
}

void FileManager::readFile(const std::string& path, ReadSuccessCallback onSuccess, FailureCallback onFailure) {
    if (path.empty()) return fail(onFailure, libraryError(kErrorInvalidFilePath, "Invalid file path."));
    int err = 0;
    const auto content = readWholeFile(fullPathOfFile(path), &err);
    if (!content) return fail(onFailure, Error::posix(err));
    if (!isValidUtf8(*content)) return fail(onFailure, Error::posix(EILSEQ));
    if (onSuccess) onSuccess(*content);
}

void FileManager::writeFile(const std::string& path, const std::string& content, SuccessCallback onSuccess,
                            FailureCallback onFailure) {
    if (path.empty()) return fail(onFailure, libraryError(kErrorInvalidFilePath, "Invalid file path."));
    int err = 0;
    if (!writeFileAtomically(fullPathOfFile(path), content, nullptr, &err)) return fail(onFailure, Error::posix(err));
    succeed(onSuccess);
}

void FileManager::deleteFile(const std::string& path, SuccessCallback onSuccess, FailureCallback onFailure) {
    const std::string full = fullPathOfFile(path);
    if (!existsAt(full)) return fail(onFailure, libraryError(kErrorFileDoesNotExist, "File does not exist."));
    // Removing an entry needs write and search access to the folder that holds it.
    if (::access(parentOf(full).c_str(), W_OK | X_OK) != 0)
        return fail(onFailure, libraryError(kErrorFileNotDeletable, "File is not deletable."));
    std::error_code ec;
    fs::remove_all(full, ec);
    if (ec) return fail(onFailure, Error::fromErrorCode(ec));
    DataManager::deletePlaySettingsByScriptTitle(path);
    succeed(onSuccess);
}

void FileManager::renameFile(const std::string& oldPath, const std::string& newPath, SuccessCallback onSuccess,
                             FailureCallback onFailure) {
    if (auto ec = moveItem(fullPathOfFile(oldPath), fullPathOfFile(newPath)))
        return fail(onFailure, Error::fromErrorCode(ec));
    DataManager::updateScriptTitleOfPlaySettingsFrom(oldPath, newPath);
    DataManager::updateScriptTitleOfActivatorTriggerFrom(oldPath, newPath);
    succeed(onSuccess);
}

void FileManager::moveFile(const std::string& fromFullPath, const std::string& toFullPath, SuccessCallback onSuccess,
                           FailureCallback onFailure) {
    if (auto ec = moveItem(fromFullPath, toFullPath)) return fail(onFailure, Error::fromErrorCode(ec));
    succeed(onSuccess);
}

namespace {

void deleteEach(const std::string& folder, const std::function<bool(const Entry&)>& which) {
    if (folder.empty()) return;
    for (const auto& path : libraryEntries(folder, which, nullptr)) FileManager::deleteFile(path, nullptr, nullptr);
}

}  // namespace

void FileManager::deleteAllScripts(const std::string& folder) {
    deleteEach(folder, [](const Entry& e) { return !e.isDirectory && isScriptName(e.name); });
}

void FileManager::deleteAllFilesExceptScripts(const std::string& folder) {
    deleteEach(folder, [](const Entry& e) { return !e.isDirectory && !isScriptName(e.name); });
}

void FileManager::deleteAllFolders(const std::string& folder) {
    deleteEach(folder, [](const Entry& e) { return e.isDirectory; });
}

std::vector<std::string> FileManager::getAllScriptFilePathesOnly() {
    return libraryEntries("/", [](const Entry& e) { return !e.isDirectory && isScriptName(e.name); }, nullptr);
}

bool FileManager::prepareDirectories() {
    std::error_code ec;
    const std::string scripts = Paths::scriptsDir();
    if (!existsAt(scripts) && !fs::create_directories(scripts, ec) && ec) {
        LogToFile("Failed to create Scripts directory. Info:%s", ec.message().c_str());
        return false;
    }
    const std::string library = Paths::libraryDir();
    if (existsAt(library)) return true;
    if (!fs::create_directories(library, ec) && ec) {
        LogToFile("Failed to create Library directory. Info:%s", ec.message().c_str());
        return false;
    }
    return true;
}

// ===== Extended attributes

bool FileManager::setExtendedAttributeForFile(const std::string& fullPath, const std::string& key,
                                              const std::string& value, std::optional<Error>* error) {
    clearError(error);
    if (int err = setExtendedAttribute(fullPath, key, value)) {
        setError(error, Error::posix(err));
        return false;
    }
    return true;
}

std::optional<std::string> FileManager::getExtendedAttributeForFile(const std::string& fullPath,
                                                                    const std::string& key,
                                                                    std::optional<Error>* error) {
    clearError(error);
    std::string value;
    if (int err = getExtendedAttribute(fullPath, key, &value)) {
        setError(error, Error::posix(err));
        return std::nullopt;
    }
    if (value.empty()) return std::nullopt;
    return value;
}

bool FileManager::removeExtendedAttributeForFile(const std::string& fullPath, const std::string& key,
                                                 std::optional<Error>* error) {
    clearError(error);
    size_t size = 0;
    if (int err = extendedAttributeSize(fullPath, key, &size)) {
        setError(error, Error::posix(err));
        return false;
    }
    if (size == 0) return true;
    if (int err = removeExtendedAttribute(fullPath, key)) {
        setError(error, Error::posix(err));
        return false;
    }
    return true;
}

bool FileManager::removeRememberedDialogValuesForFile(const std::string& fullPath, std::optional<Error>* error) {
    clearError(error);
    std::vector<std::string> names;
    if (int err = listExtendedAttributes(fullPath, &names)) {
        setError(error, Error::posix(err));
        return false;
    }
    bool ok = true;
    for (const auto& name : names) {
        if (name.rfind(kDialogValuePrefix, 0) != 0) continue;
        std::optional<Error> failure;
        if (!removeExtendedAttributeForFile(fullPath, name, &failure)) {
            // Go on with the others; the first failure is the one reported.
            if (ok && failure) setError(error, *failure);
            ok = false;
        }
    }
    return ok;
}

// ===== Names

std::string FileManager::lowerExtension(const std::string& path) { return toLower(extensionOf(path)); }

bool FileManager::isScriptName(const std::string& path) {
    const std::string ext = lowerExtension(path);
    return ext == "lua" || ext == "e";
}

bool FileManager::isImageName(const std::string& path) { return lowerExtension(path) == "bmp"; }

std::string FileManager::appendPathComponent(const std::string& folder, const std::string& name) {
    if (folder.empty()) return name;
    return folder.back() == '/' ? folder + name : folder + "/" + name;
}

}  // namespace tw
