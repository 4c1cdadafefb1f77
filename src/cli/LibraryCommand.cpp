// tapwright library: lists and edits the device's script library through the file manager, so
// renames and deletes keep the play settings and trigger bindings in step as the web site does.
#include <cstdio>
#include <memory>
#include <string>

#include "cli/Commands.h"
#include "core/Diagnostics.h"
#include "core/Paths.h"
#include "library/FileManager.h"
#include "schedule/TimerManager.h"
#include "store/DataManager.h"

namespace tw::cli {

namespace {

struct LibraryOptions {
    std::string path;
    std::string newPath;
    bool longListing = false;
};

constexpr const char* kPathNote =
    "PATH is a library path: \"/name.lua\", \"/folder/name.lua\" (the leading \"/\" may be left out).\n";

// Points the engine at the device's library and makes sure its folders and tables are there.
void openLibrary(const CommonOptions& common) {
    Paths::setRoot(deviceRoot(common));
    if (!FileManager::prepareDirectories()) fail("cannot create the library folders under " + Paths::root());
    DataManager::initDb();
    FileManager::setTimersReader(TimerManager::archivedScriptPaths);
}

// The library path for what the user typed, or "" when it does not name an entry of the library:
// the root itself, and paths that leave it with ".." or through a symbolic link.
std::string libraryPath(const std::string& typed) {
    std::string path = typed.empty() || typed.front() != '/' ? "/" + typed : typed;
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    if (path.size() < 2) return "";
    size_t start = 1;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        if (path.compare(start, end - start, "..") == 0) return "";
        start = end + 1;
    }
    return FileManager::isInsideLibrary(path) ? path : "";
}

[[noreturn]] void failed(const std::string& what, const std::string& description) {
    fail(what + ": " + description);
}

// Runs one file operation and turns its callbacks into an exit status.
template <typename Operation>
int runOperation(const std::string& what, Operation operation) {
    int status = 1;
    std::optional<Error> failure;
    operation([&] { status = 0; }, [&](const Error& error) { failure = error; });
    if (failure) failed(what, failure->description);
    return status;
}

int list(const LibraryOptions& options) {
    std::string folder = "/";
    if (options.path.find_first_not_of('/') != std::string::npos) {
        folder = libraryPath(options.path);
        if (folder.empty()) failed(options.path, "Invalid file path.");
    }
    FileManager manager;
    std::optional<Error> error;
    const auto entries = manager.loadFiles(folder, &error);
    if (error) failed(folder, error->description);
    for (const auto& entry : entries) {
        const bool isFolder = FileManager::fileIsDirectory(entry);
        const std::string shown = isFolder ? entry + "/" : entry;
        if (!options.longListing) {
            std::printf("%s\n", shown.c_str());
            continue;
        }
        const auto attributes = FileManager::fileAttributes(entry);
        std::string marks;
        if (manager.ifPlayDirectly(entry)) marks += " [plays directly]";
        if (manager.isScriptAssignedActivatorTrigger(entry)) marks += " [trigger]";
        if (manager.isTimerSet(entry)) marks += " [timer]";
        std::printf("%8s  %s  %s%s\n", attributes ? FileManager::fileSize(*attributes).c_str() : "?",
                    attributes ? FileManager::fileCreateTime(*attributes).c_str() : "-------------------",
                    shown.c_str(), marks.c_str());
    }
    return 0;
}

// Checks the path, then runs the operation on its library path.
template <typename Operation>
int onPath(const std::string& typed, Operation operation) {
    const std::string path = libraryPath(typed);
    if (path.empty()) failed(typed, "Invalid file path.");
    return operation(path);
}

}  // namespace

Command addLibraryCommand(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<LibraryOptions>();
    auto* sub = app.add_subcommand("library", "List and edit the device's script library");
    sub->require_subcommand(1);
    sub->footer(std::string(kPathNote) +
                "Renaming a script carries its play settings and trigger bindings along; deleting one\n"
                "removes its play settings.\n"
                "Exit status: 0 on success, 1 when the operation failed (its reason on stderr).");

    auto addRoot = [&common](CLI::App* command) { command->add_option("--root", common.root, "Device root folder"); };

    auto* ls = sub->add_subcommand("ls", "List a library folder: sub-folders first, then files");
    ls->add_option("folder", options->path, "Library folder (default: the library root)");
    ls->add_flag("-l,--long", options->longListing, "Also show size, creation time and the script's marks");
    ls->footer("Folders end in \"/\". The long form marks scripts that play directly, have a trigger binding\n"
               "or a schedule.\nExit status: 0 when the folder was listed, 1 otherwise.");
    addRoot(ls);

    auto* touchFile = sub->add_subcommand("new", "Create an empty file");
    touchFile->add_option("path", options->path, "Library path of the new file")->required();
    touchFile->footer(std::string(kPathNote) + "Fails with \"File already exists.\" when the path is taken.");
    addRoot(touchFile);

    auto* mkdir = sub->add_subcommand("mkdir", "Create a folder (its parent must exist)");
    mkdir->add_option("path", options->path, "Library path of the new folder")->required();
    mkdir->footer(std::string(kPathNote) + "Fails with \"File already exists.\" when the path is taken.");
    addRoot(mkdir);

    auto* rm = sub->add_subcommand("rm", "Delete a file, or a folder with everything in it");
    rm->add_option("path", options->path, "Library path to delete")->required();
    rm->footer(std::string(kPathNote) +
               "Also deletes the play settings of that path. Fails with \"File does not exist.\" or\n"
               "\"File is not deletable.\".");
    addRoot(rm);

    auto* mv = sub->add_subcommand("mv", "Rename or move an entry within the library");
    mv->add_option("path", options->path, "Library path of the entry")->required();
    mv->add_option("new-path", options->newPath, "Its new library path (must not exist)")->required();
    mv->footer(std::string(kPathNote) + "The play settings and trigger bindings of PATH move to NEW-PATH.");
    addRoot(mv);

    auto* cat = sub->add_subcommand("cat", "Print a file's text (UTF-8)");
    cat->add_option("path", options->path, "Library path of the file")->required();
    cat->footer(std::string(kPathNote) + "Fails when the file is missing or is not UTF-8 text.");
    addRoot(cat);

    return {sub, [&common, options, ls, touchFile, mkdir, rm, mv, cat]() -> int {
                openLibrary(common);
                if (ls->parsed()) return list(*options);
                if (touchFile->parsed())
                    return onPath(options->path, [](const std::string& path) {
                        return runOperation(path, [&](auto ok, auto no) { FileManager::newFile(path, ok, no); });
                    });
                if (mkdir->parsed())
                    return onPath(options->path, [](const std::string& path) {
                        return runOperation(path, [&](auto ok, auto no) { FileManager::newDir(path, ok, no); });
                    });
                if (rm->parsed())
                    return onPath(options->path, [](const std::string& path) {
                        return runOperation(path, [&](auto ok, auto no) { FileManager::deleteFile(path, ok, no); });
                    });
                if (mv->parsed())
                    return onPath(options->path, [&](const std::string& from) {
                        return onPath(options->newPath, [&](const std::string& to) {
                            return runOperation(from, [&](auto ok, auto no) { FileManager::renameFile(from, to, ok, no); });
                        });
                    });
                if (cat->parsed())
                    return onPath(options->path, [](const std::string& path) {
                        std::optional<Error> failure;
                        FileManager::readFile(
                            path, [&](const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); },
                            [&](const Error& error) { failure = error; });
                        if (failure) failed(path, failure->description);
                        return 0;
                    });
                return 1;
            }};
}

}  // namespace tw::cli
