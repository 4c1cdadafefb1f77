#pragma once
// The script library folder: script paths ("/name.lua", relative to the library root) and the
// folders the system needs, listings for the on-device list and the web site, file operations
// with uniform errors, and small per-file values kept in extended attributes.
//
// File operations take a success and a failure callback; either may be empty, and exactly one is
// called, synchronously, before the operation returns. The library's own errors have the domain
// kTapwrightErrorDomain and the codes 3000 to 3004 (library/Error.h); failures of the file system
// are passed on as POSIX errors.
//
// Paths are library paths unless a name says otherwise; an empty path is a missing one. Class
// operations touch nothing but the file system and the database, so any thread may call them.
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "library/Error.h"
#include "store/ActivatorTrigger.h"
#include "store/PlaySettingsManager.h"

namespace tw {

// Where the web site's icons and their "mimetypes.plist" live.
inline constexpr const char* kWebsiteIconsPath = "/Applications/Tapwright.app/website/icons";

// What fileAttributes reports of a file (a final symbolic link is not followed).
struct FileAttributes {
    enum class Type { Regular, Directory, SymbolicLink, Other };
    Type type = Type::Regular;
    uint64_t size = 0;
    // The birth time where the file system records one, else the last modification.
    std::chrono::system_clock::time_point creationDate;
    std::chrono::system_clock::time_point modificationDate;
    uint32_t posixPermissions = 0;
};

using SuccessCallback = std::function<void()>;
using FailureCallback = std::function<void(const Error&)>;
using ReadSuccessCallback = std::function<void(const std::string& content)>;

class FileManager {
public:
    // Loads the play settings cache.
    FileManager();

    // ---- Listings of one library folder (not its sub-folders). Each first reloads the play
    // settings cache, the archived schedules and the trigger bindings into the fields below. On
    // failure the result is empty and `error` (when given) holds the reason; on success it is
    // cleared. Entries are library paths, in the file system's listing order.

    // Sub-folders first, then every other entry.
    std::vector<std::string> loadFiles(const std::string& folder, std::optional<Error>* error = nullptr);
    // Files (not folders) with the extension "lua" or "e", compared in lower case.
    std::vector<std::string> loadScripts(const std::string& folder, std::optional<Error>* error = nullptr);
    // Files with the extension "bmp", compared in lower case.
    std::vector<std::string> loadImages(const std::string& folder, std::optional<Error>* error = nullptr);

    // ---- Marks of the on-device list, from what the last listing loaded.
    bool isScriptAssignedActivatorTrigger(const std::string& path) const;
    bool ifPlayDirectly(const std::string& path) const;
    bool isTimerSet(const std::string& path) const;

    PlaySettingsManager playSettingsManager;
    std::vector<std::string> timers;  // the script path of each archived schedule, in archive order
    std::vector<ActivatorTrigger> activatorTriggersInDB;

    // The schedules' archive belongs to the timer service; it tells the listings which script
    // paths have one. Until a reader is set no script has a schedule.
    using TimersReader = std::function<std::vector<std::string>()>;
    static void setTimersReader(TimersReader reader);

    // ---- File information.

    // The library root on this device, without a trailing "/".
    static std::string rootPath();
    // The full path of a library path: the library root joined with it ("a.lua" and "/a.lua" are
    // the same file).
    static std::string fullPathOfFile(const std::string& path);
    // True when the library path stays inside the library root once ".." and symbolic links are
    // resolved (what does not exist yet is taken as written). Commands and routes refuse the rest.
    static bool isInsideLibrary(const std::string& path);
    // The same test for a full disk path and any folder (the WebDAV server's root, for one).
    static bool isInsideFolder(const std::string& folderFullPath, const std::string& fullPath);
    static bool fileExist(const std::string& path);
    static bool fileIsDirectory(const std::string& path);
    // Logs "Failed to get the attributes of file: <full path>" when there are none.
    static std::optional<FileAttributes> fileAttributes(const std::string& path);
    // The MIME type the system's type registry gives the name's extension; nullopt when unknown.
    static std::optional<std::string> fileMIMEType(const std::string& fileName);
    // "yyyy-MM-dd HH:mm:ss", local time.
    static std::string fileCreateTime(const FileAttributes& attributes);
    // The size as "%4.1f" and a unit: " 0.0B", "1024.0B", " 1.5KB".
    static std::string fileSize(const FileAttributes& attributes);
    // The icon's site-relative path, "website/icons/<name>@2x.png".
    static std::string fileIcon(const std::string& path);

    // ---- File operations.

    // Fails with 3002 when the path exists; makes the folder, not its missing parents.
    static void newDir(const std::string& path, SuccessCallback onSuccess, FailureCallback onFailure);
    // Fails with 3002 when the path exists and 3000 when the empty file cannot be made.
    static void newFile(const std::string& path, SuccessCallback onSuccess, FailureCallback onFailure);
    // The whole file as UTF-8 text; a missing path fails with 3004, text that is not UTF-8 with
    // EILSEQ.
    static void readFile(const std::string& path, ReadSuccessCallback onSuccess, FailureCallback onFailure);
    // Replaces the file with the text, atomically; a missing path fails with 3004.
    static void writeFile(const std::string& path, const std::string& content, SuccessCallback onSuccess,
                          FailureCallback onFailure);
    // Fails with 3001 when the path does not exist and 3003 when it may not be deleted; removes
    // folders with their contents, then the play settings rows of the path. Trigger bindings stay
    // until the bindings' consistency pass.
    static void deleteFile(const std::string& path, SuccessCallback onSuccess, FailureCallback onFailure);
    // Moves the file; then its play settings rows and its trigger bindings follow it to the new
    // path. An existing destination is not replaced (EEXIST).
    static void renameFile(const std::string& oldPath, const std::string& newPath, SuccessCallback onSuccess,
                           FailureCallback onFailure);
    // Moves between two full disk paths, across file systems too; the store is not touched.
    static void moveFile(const std::string& fromFullPath, const std::string& toFullPath, SuccessCallback onSuccess,
                         FailureCallback onFailure);
    // deleteFile for each script / each file that is neither folder nor script / each sub-folder
    // directly in the folder. A missing folder argument does nothing.
    static void deleteAllScripts(const std::string& folder);
    static void deleteAllFilesExceptScripts(const std::string& folder);
    static void deleteAllFolders(const std::string& folder);
    // The scripts directly in the library root, as "/<name>", in listing order.
    // ("Pathes" is the operation's name as the rest of the system knows it; not a typo to fix.)
    static std::vector<std::string> getAllScriptFilePathesOnly();
    // Makes the library root and the private data folder (with their parents) when missing.
    // A failure is written to the error log and answers false.
    static bool prepareDirectories();

    // ---- Extended attributes of a full disk path; values are UTF-8 text. `error` (when given)
    // is cleared on entry and holds the POSIX error of a failure.

    static bool setExtendedAttributeForFile(const std::string& fullPath, const std::string& key,
                                            const std::string& value, std::optional<Error>* error = nullptr);
    // nullopt without an error for an attribute of size 0.
    static std::optional<std::string> getExtendedAttributeForFile(const std::string& fullPath, const std::string& key,
                                                                  std::optional<Error>* error = nullptr);
    // true, leaving it in place, for an attribute of size 0; false with the error when it is
    // missing or cannot be removed.
    static bool removeExtendedAttributeForFile(const std::string& fullPath, const std::string& key,
                                               std::optional<Error>* error = nullptr);
    // Removes every attribute whose name begins with "DIALOG." (the dialog function's remembered
    // answers); the others stay. True when all went well or there are none.
    static bool removeRememberedDialogValuesForFile(const std::string& fullPath,
                                                    std::optional<Error>* error = nullptr);

    // ---- Names.

    // The extension of the last path component, in lower case ("" when there is none).
    static std::string lowerExtension(const std::string& path);
    static bool isScriptName(const std::string& path);  // "lua" or "e"
    static bool isImageName(const std::string& path);   // "bmp"
    // A library folder path joined with an entry name: "/" + "a.lua" is "/a.lua".
    static std::string appendPathComponent(const std::string& folder, const std::string& name);

private:
    void loadStoreState();
};

}  // namespace tw
