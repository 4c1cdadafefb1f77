// The script library: file operations and their errors, the store kept in step with renames and
// deletes, listings, file information and icons, folder preparation and extended attributes.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>

#include <set>

#include "EngineFixture.h"
#include "core/Paths.h"
#include "library/FileManager.h"
#include "platform/ExtendedAttributes.h"
#include "store/DataManager.h"

namespace tw {
namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;
using Operation = std::function<void(SuccessCallback, FailureCallback)>;

Error libraryError(int64_t code, const char* text) { return Error{kTapwrightErrorDomain, code, text}; }

// Runs a file operation: nullopt when it succeeded, else its error. Exactly one callback fires.
std::optional<Error> outcome(const Operation& operation) {
    int calls = 0;
    std::optional<Error> error;
    operation([&] { ++calls; }, [&](const Error& e) { ++calls, error = e; });
    EXPECT_EQ(calls, 1);
    return error;
}

class FileManagerTest : public test::EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        ASSERT_TRUE(DataManager::initDb());
    }
    void TearDown() override {
        FileManager::setTimersReader(nullptr);
        EngineFixture::TearDown();
    }
    std::string full(const std::string& path) const { return FileManager::fullPathOfFile(path); }
    void put(const std::string& path, const std::string& content = "x") { test::writeFile(full(path), content); }
    void addSettings(const std::string& path, bool direct = false) {
        PlaySettings s;
        s.filePath = path;
        s.playDirectly = direct;
        ASSERT_TRUE(DataManager::insertPlaySettings(s));
    }
    // The paths of the store's rows: "settings <path>" each, then "trigger <path>" each.
    static Texts storePaths() {
        Texts out;
        const auto settings = DataManager::findAllPlaySettings().value();
        const auto triggers = DataManager::getActivatorTriggersAll().value();
        for (const auto& s : settings) out.push_back("settings " + s.filePath);
        for (const auto& t : triggers) out.push_back("trigger " + t.filePath.value_or("?"));
        return out;
    }
    // Library paths of the root's entries that pass `keep`, in the file system's listing order.
    Texts listed(const std::function<bool(const fs::directory_entry&)>& keep = nullptr) const {
        Texts out;
        for (const auto& e : fs::directory_iterator(FileManager::rootPath()))
            if (!keep || keep(e)) out.push_back("/" + e.path().filename().string());
        return out;
    }
};

TEST_F(FileManagerTest, FailedOperationsReportTheLibraryCodeOrTheSystemErrorAndChangeNothing) {
    put("/a.lua", "a");
    put("/b.lua", "b");
    put("/bad.lua", "a\xFF\xFE");
    fs::create_directory(full("/dir"));
    addSettings("/a.lua");
    ASSERT_TRUE(DataManager::addActivatorTrigger({"shake", 3, "/a.lua"}));
    const std::string upload = root->str() + "/upload";
    test::writeFile(upload, "new");
    const auto read = [](const char* path) {
        return [path](auto ok, auto no) { FileManager::readFile(path, [ok](const std::string&) { ok(); }, no); };
    };
    const Error exists = libraryError(3002, "File already exists."), noPath = libraryError(3004, "Invalid file path.");
    struct Case {
        const char* name;
        Operation operation;
        Error error;
    } cases[] = {
        {"newDir over a folder", [](auto ok, auto no) { FileManager::newDir("/dir", ok, no); }, exists},
        {"newDir over a file", [](auto ok, auto no) { FileManager::newDir("/a.lua", ok, no); }, exists},
        {"newDir without its parent", [](auto ok, auto no) { FileManager::newDir("/no/d", ok, no); }, Error::posix(ENOENT)},
        {"newFile over a file", [](auto ok, auto no) { FileManager::newFile("/a.lua", ok, no); }, exists},
        {"newFile without its folder", [](auto ok, auto no) { FileManager::newFile("/no/f", ok, no); }, libraryError(3000, "Unknown reason.")},
        {"readFile of no path", read(""), noPath},
        {"readFile of a missing file", read("/none.lua"), Error::posix(ENOENT)},
        {"readFile of a folder", read("/dir"), Error::posix(EISDIR)},
        {"readFile of bytes that are not UTF-8", read("/bad.lua"), Error::posix(EILSEQ)},
        {"writeFile of no path", [](auto ok, auto no) { FileManager::writeFile("", "x", ok, no); }, noPath},
        {"writeFile without its folder", [](auto ok, auto no) { FileManager::writeFile("/no/w", "x", ok, no); }, Error::posix(ENOENT)},
        {"writeFile over a folder", [](auto ok, auto no) { FileManager::writeFile("/dir", "x", ok, no); }, Error::posix(EISDIR)},
        {"deleteFile of a missing file", [](auto ok, auto no) { FileManager::deleteFile("/none", ok, no); }, libraryError(3001, "File does not exist.")},
        {"renameFile onto a file", [](auto ok, auto no) { FileManager::renameFile("/a.lua", "/b.lua", ok, no); }, Error::posix(EEXIST)},
        {"renameFile of a missing file", [](auto ok, auto no) { FileManager::renameFile("/none", "/c", ok, no); }, Error::posix(ENOENT)},
        {"renameFile into a missing folder", [](auto ok, auto no) { FileManager::renameFile("/a.lua", "/no/a", ok, no); }, Error::posix(ENOENT)},
        {"moveFile onto a file", [&](auto ok, auto no) { FileManager::moveFile(upload, full("/b.lua"), ok, no); }, Error::posix(EEXIST)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(outcome(c.operation), c.error);
    }
    EXPECT_EQ(test::readFile(full("/a.lua")) + test::readFile(full("/b.lua")), "ab");
    EXPECT_EQ(storePaths(), (Texts{"settings /a.lua", "trigger /a.lua"}));
}

TEST_F(FileManagerTest, CreatedAndWrittenFilesReadBackAsText) {
    EXPECT_EQ(outcome([](auto ok, auto no) { FileManager::newDir("/sub", ok, no); }), std::nullopt);
    EXPECT_EQ(outcome([](auto ok, auto no) { FileManager::newFile("/sub/n.lua", ok, no); }), std::nullopt);
    EXPECT_EQ(outcome([](auto ok, auto no) { FileManager::writeFile("/w.lua", "h\xC3\xA9", ok, no); }), std::nullopt);
    std::string text = "unread";
    FileManager::readFile("/w.lua", [&](const std::string& t) { text = t; }, nullptr);
    EXPECT_EQ(text + test::readFile(full("/sub/n.lua")), "h\xC3\xA9");
    EXPECT_TRUE(FileManager::fileIsDirectory("/sub") && FileManager::fileExist("/w.lua"));
    EXPECT_FALSE(FileManager::fileIsDirectory("/w.lua") || FileManager::fileExist("/none"));
}

TEST_F(FileManagerTest, AFileInAnUnchangeableFolderIsNotDeletable) {
    put("/locked/a.lua");
    const int fd = ::open(full("/locked").c_str(), O_RDONLY | O_DIRECTORY);
    int flags = 0;  // the immutable flag stops root too
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0 || (flags |= FS_IMMUTABLE_FL, ::ioctl(fd, FS_IOC_SETFLAGS, &flags)) != 0)
        GTEST_SKIP() << "cannot make a folder immutable here";
    const auto error = outcome([](auto ok, auto no) { FileManager::deleteFile("/locked/a.lua", ok, no); });
    flags &= ~FS_IMMUTABLE_FL;
    ::ioctl(fd, FS_IOC_SETFLAGS, &flags);
    ::close(fd);
    EXPECT_EQ(error, libraryError(3003, "File is not deletable."));
}

TEST_F(FileManagerTest, ARenamedScriptTakesItsRowsAlongAndAMovedUploadLeavesTheStoreAlone) {
    put("/old.lua", "print(1)");
    fs::create_directory(full("/sub"));
    for (const char* path : {"/old.lua", "/other.lua", "/old.lua"}) addSettings(path);
    ASSERT_TRUE(DataManager::addActivatorTrigger({"shake", 3, "/old.lua"}));
    EXPECT_EQ(outcome([](auto ok, auto no) { FileManager::renameFile("/old.lua", "/sub/new.lua", ok, no); }), std::nullopt);
    EXPECT_EQ(test::readFile(full("/sub/new.lua")), "print(1)");
    const Texts rows = {"settings /sub/new.lua", "settings /other.lua", "settings /sub/new.lua", "trigger /sub/new.lua"};
    EXPECT_EQ(storePaths(), rows);
    const std::string upload = "/dev/shm/tw-upload-" + std::to_string(::getpid());  // another file system
    test::writeFile(upload, "up");
    EXPECT_EQ(outcome([&](auto ok, auto no) { FileManager::moveFile(upload, full("/sub/new.lua.bak"), ok, no); }), std::nullopt);
    EXPECT_FALSE(fs::exists(upload));
    EXPECT_EQ(test::readFile(full("/sub/new.lua.bak")), "up");
    EXPECT_EQ(storePaths(), rows);
}

TEST_F(FileManagerTest, DeletesTakeFoldersWholeAndSettingsRowsButLeaveTriggerRows) {
    for (const char* f : {"/a.lua", "/B.LUA", "/c.e", "/d.bmp", "/sub/deep.lua"}) put(f);
    fs::create_directory(full("/folder.lua"));
    for (const char* path : {"/a.lua", "/d.bmp", "/a.lua"}) addSettings(path);
    ASSERT_TRUE(DataManager::addActivatorTrigger({"shake", 3, "/a.lua"}));
    const Texts scripts = listed([](const auto& e) { return e.is_regular_file() && e.path().extension() != ".bmp"; });
    ASSERT_EQ(scripts.size(), 3u);
    EXPECT_EQ(FileManager::getAllScriptFilePathesOnly(), scripts);
    FileManager::deleteAllScripts("");  // no folder: nothing happens
    FileManager::deleteAllFilesExceptScripts("");
    EXPECT_EQ(listed().size(), 6u);
    FileManager::deleteAllScripts("/");
    EXPECT_EQ(storePaths(), (Texts{"settings /d.bmp", "trigger /a.lua"}));
    put("/z.lua");
    FileManager::deleteAllFilesExceptScripts("/");
    FileManager::deleteAllFolders("/");
    EXPECT_EQ(listed(), Texts{"/z.lua"});
    EXPECT_EQ(storePaths(), Texts{"trigger /a.lua"});
}

TEST_F(FileManagerTest, ListingsPutFoldersFirstPickFilesByLowerCaseExtensionAndReloadTheMarks) {
    for (const char* f : {"/m.lua", "/Z.BMP", "/a.txt", "/k.E", "/f.lua.bak", "/b/inner.lua"}) put(f);
    for (const char* d : {"/y", "/q.lua", "/p.bmp"}) fs::create_directory(full(d));
    Texts all = listed([](const auto& e) { return e.is_directory(); });
    for (const auto& f : listed([](const auto& e) { return !e.is_directory(); })) all.push_back(f);
    const auto named = [&](std::set<std::string> names) {
        return listed([&](const auto& e) { return names.count(e.path().filename().string()) > 0; });
    };
    Texts scheduled = {"/m.lua"};
    FileManager::setTimersReader([&] { return scheduled; });
    addSettings("/k.E", true);
    ASSERT_TRUE(DataManager::addActivatorTrigger({"shake", 3, "/m.lua"}));
    FileManager manager;
    EXPECT_FALSE(manager.isScriptAssignedActivatorTrigger("/m.lua") || manager.isTimerSet("/m.lua"));
    std::optional<Error> error = Error{"stale", 1, "stale"};
    EXPECT_EQ(manager.loadFiles("/", &error), all);
    EXPECT_FALSE(error);
    EXPECT_TRUE(manager.isScriptAssignedActivatorTrigger("/m.lua") && manager.isTimerSet("/m.lua") &&
                manager.ifPlayDirectly("/k.E"));
    EXPECT_FALSE(manager.isScriptAssignedActivatorTrigger("/k.E") || manager.isTimerSet("/M.lua") ||
                 manager.ifPlayDirectly("/m.lua"));
    EXPECT_EQ(manager.loadFiles("/b/"), Texts{"/b/inner.lua"});
    ASSERT_TRUE(DataManager::removeActivatorTrigger("shake"));
    scheduled.clear();
    EXPECT_EQ(manager.loadScripts("/"), named({"m.lua", "k.E"}));
    EXPECT_FALSE(manager.isScriptAssignedActivatorTrigger("/m.lua") || manager.isTimerSet("/m.lua"));
    EXPECT_EQ(manager.loadImages("/"), named({"Z.BMP"}));
    EXPECT_TRUE(manager.loadFiles("/none", &error).empty());
    EXPECT_EQ(error, Error::posix(ENOENT));
    EXPECT_TRUE(manager.loadScripts("/m.lua", &error).empty());
    EXPECT_EQ(error, Error::posix(ENOTDIR));
}

TEST_F(FileManagerTest, FileInformationSizeTextsAndCreationTimeInLocalTime) {
    put("/a.lua", std::string(1536, 'x'));
    const auto file = FileManager::fileAttributes("/a.lua");
    ASSERT_TRUE(file);
    EXPECT_EQ(FileManager::fileSize(*file), " 1.5KB");
    EXPECT_LT(std::chrono::abs(std::chrono::system_clock::now() - file->creationDate), std::chrono::minutes(1));
    EXPECT_EQ(FileManager::fileAttributes("/")->type, FileAttributes::Type::Directory);
    EXPECT_FALSE(FileManager::fileAttributes("/none.lua"));
    EXPECT_EQ(logMessages(), Texts{"Failed to get the attributes of file: " + full("/none.lua")});
    const std::pair<uint64_t, const char*> sizes[] = {{0, " 0.0B"}, {1024, "1024.0B"}, {1025, " 1.0KB"},
                                                      {1048576, "1024.0KB"}, {5368709120, " 5.0GB"}, {UINT64_MAX, "16.0EB"}};
    for (const auto& [bytes, text] : sizes) {
        FileAttributes a;
        a.size = bytes;
        EXPECT_EQ(FileManager::fileSize(a), text) << bytes;
    }

    const std::string oldTz = std::getenv("TZ") ? std::getenv("TZ") : "";
    ::setenv("TZ", "Asia/Tokyo", 1);
    ::tzset();
    FileAttributes a;
    a.creationDate = std::chrono::system_clock::from_time_t(1614834367);
    const auto created = FileManager::fileCreateTime(a);
    oldTz.empty() ? ::unsetenv("TZ") : ::setenv("TZ", oldTz.c_str(), 1);
    ::tzset();
    EXPECT_EQ(created, "2021-03-04 14:06:07");  // 05:06:07 UTC
}

TEST_F(FileManagerTest, IconsComeFromTheTableByExtensionThenDefaultThenScriptFallbacks) {
    fs::create_directory(full("/dir"));
    for (const char* path : {"/dir", "/a.bmp", "/a.lua", "/a.e", "/a.txt", "/a.mp3", "/a.zzz"}) {
        const std::string icon = Paths::resolve(kAppPath) + "/" + FileManager::fileIcon(path);
        EXPECT_EQ(test::readFile(icon).substr(0, 4), "\x89PNG") << path << " shows " << icon;  // shipped
    }
    test::writeFile(Paths::resolve(kWebsiteIconsPath) + "/mimetypes.plist",
                    "<plist version=\"1.0\"><dict>"
                    "<key>image/bmp</key><dict><key>Icons</key><dict><key>bmp</key><string>bitmap</string></dict>"
                    "<key>DefaultIcon</key><string>picture</string></dict>"
                    "<key>text/plain</key><dict><key>Icons</key><dict/><key>DefaultIcon</key><string>plain</string></dict>"
                    "<key>application/zip</key><dict><key>Icons</key><dict/></dict></dict></plist>");
    const std::pair<const char*, const char*> cases[] = {
        {"/dir", "folder"}, {"/a.BMP", "bitmap"}, {"/a.txt", "plain"}, {"/a.zip", "empty"},
        {"/a.lua", "text"}, {"/a.e", "compressed"}, {"/a.LUA", "empty"}, {"/a.E", "empty"}};
    for (const auto& [path, icon] : cases)
        EXPECT_EQ(FileManager::fileIcon(path), "website/icons/" + std::string(icon) + "@2x.png") << path;
}

TEST_F(FileManagerTest, PrepareDirectoriesMakesBothFoldersOrLogsWhy) {
    fs::remove_all(root->path() / "var");
    EXPECT_TRUE(FileManager::prepareDirectories());
    EXPECT_TRUE(fs::is_directory(Paths::scriptsDir()) && fs::is_directory(Paths::libraryDir()));
    fs::remove(Paths::scriptsDir());
    fs::create_symlink(root->path() / "nowhere" / "Scripts", Paths::scriptsDir());  // a link to nowhere
    EXPECT_FALSE(FileManager::prepareDirectories());
    const auto lines = logMessages();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("Failed to create Scripts directory. Info:", 0), 0u) << lines[0];
    fs::remove(Paths::scriptsDir());
    fs::remove_all(Paths::libraryDir());
    fs::create_symlink(root->path() / "nowhere" / "Library", Paths::libraryDir());
    EXPECT_FALSE(FileManager::prepareDirectories());
    EXPECT_TRUE(fs::is_directory(Paths::scriptsDir()));
}

TEST_F(FileManagerTest, ExtendedAttributesRoundTripAndForgettingDialogValuesKeepsOtherNames) {
    const std::string path = full("/x.lua"), gone = full("/gone.lua");
    put("/x.lua");
    if (::setxattr(path.c_str(), "trusted.tw", "1", 1, 0) != 0) GTEST_SKIP() << "no attributes here";
    std::optional<Error> error;
    for (const char* name : {"DIALOG.user", "DIALOG.count", "DIALOGUE", "dialog.lower", "other"})
        ASSERT_TRUE(FileManager::setExtendedAttributeForFile(path, name, "J\xC3\xBCrgen", &error));
    ASSERT_TRUE(FileManager::setExtendedAttributeForFile(path, "DIALOG.blank", ""));
    EXPECT_EQ(::getxattr(path.c_str(), "user.other", nullptr, 0), 7);  // user namespace, no terminator
    EXPECT_EQ(FileManager::getExtendedAttributeForFile(path, "other", &error), "J\xC3\xBCrgen");
    EXPECT_FALSE(FileManager::getExtendedAttributeForFile(path, "DIALOG.blank", &error) || error);  // empty: nothing
    EXPECT_TRUE(FileManager::removeRememberedDialogValuesForFile(path, &error));
    Texts names;
    ASSERT_EQ(listExtendedAttributes(path, &names), 0);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (Texts{"DIALOG.blank", "DIALOGUE", "dialog.lower", "other"}));  // size 0 stays; trusted unlisted
    EXPECT_EQ(::getxattr(path.c_str(), "trusted.tw", nullptr, 0), 1);
    EXPECT_TRUE(FileManager::removeExtendedAttributeForFile(path, "other", &error));
    struct Case {
        const char* name;
        std::function<bool()> call;
        Error error;
    } failures[] = {
        {"removing a missing one", [&] { return FileManager::removeExtendedAttributeForFile(path, "other", &error); }, Error::posix(ENODATA)},
        {"reading a missing one", [&] { return !!FileManager::getExtendedAttributeForFile(path, "other", &error); }, Error::posix(ENODATA)},
        {"removing from a missing file", [&] { return FileManager::removeExtendedAttributeForFile(gone, "k", &error); }, Error::posix(ENOENT)},
        {"setting on a missing file", [&] { return FileManager::setExtendedAttributeForFile(gone, "k", "v", &error); }, Error::posix(ENOENT)},
        {"forgetting on a missing file", [&] { return FileManager::removeRememberedDialogValuesForFile(gone, &error); }, Error::posix(ENOENT)},
        {"a name with a NUL", [&] { return FileManager::setExtendedAttributeForFile(path, std::string("a\0b", 3), "v", &error); }, Error::posix(EINVAL)},
    };
    for (const auto& c : failures) {
        SCOPED_TRACE(c.name);
        EXPECT_FALSE(c.call());
        EXPECT_EQ(error, c.error);
    }
}

}  // namespace
}  // namespace tw
