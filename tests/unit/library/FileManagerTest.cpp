// The script library: file operations and their errors, the store kept in step, listings, icons, attributes.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>

#include <gmock/gmock.h>

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
    std::string full(const std::string& path) const { return FileManager::fullPathOfFile(path); }
    void put(const std::string& path, const std::string& content = "x") { test::writeFile(full(path), content); }
    // Settings rows for each path, then a trigger row for `trigger`.
    void addRows(std::initializer_list<const char*> settings, const char* trigger, bool direct = false) {
        ASSERT_TRUE(DataManager::initDb());
        PlaySettings s;
        for (const char* path : settings) ASSERT_TRUE(DataManager::insertPlaySettings((s.filePath = path, s.playDirectly = direct, s)));
        ASSERT_TRUE(DataManager::addActivatorTrigger({"shake", 3, trigger}));
    }
    // The paths of the store's rows: "settings <path>" each, then "trigger <path>" each.
    static Texts storePaths() {
        Texts out;
        for (const auto& s : DataManager::findAllPlaySettings().value_or(std::vector<PlaySettings>{}))  // by value: it lives on
            out.push_back("settings " + s.filePath);
        for (const auto& t : DataManager::getActivatorTriggersAll().value_or(std::vector<ActivatorTrigger>{}))
            out.push_back("trigger " + t.filePath.value_or("?"));
        return out;
    }
    // Library paths of the root's entries (whose names are in `names`, when given), in listing order.
    Texts listed(const std::set<std::string>& names = {}) const {
        Texts out;
        for (const auto& e : fs::directory_iterator(FileManager::rootPath()))
            if (names.empty() || names.count(e.path().filename().string())) out.push_back("/" + e.path().filename().string());
        return out;
    }
};

TEST_F(FileManagerTest, OperationsSucceedOrReportTheLibraryCodeOrTheSystemErrorAndRenamesTakeTheRowsAlong) {
    put("/a.lua", "a"), put("/b.lua", "b"), put("/bad.lua", "a\xFF\xFE"), put("/locked/a.lua");
    addRows({"/a.lua", "/other.lua", "/a.lua"}, "/a.lua");
    const std::string upload = "/dev/shm/tw-upload-" + std::to_string(::getpid());  // another file system
    test::writeFile(upload, "up");
    const int fd = ::open(full("/locked").c_str(), O_RDONLY | O_DIRECTORY);
    int flags = 0;  // the immutable flag stops root too; without it the delete simply succeeds
    const bool locked = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags |= FS_IMMUTABLE_FL, ::ioctl(fd, FS_IOC_SETFLAGS, &flags)) == 0;
    const auto read = [](const char* path, const char* text = "") -> Operation {  // succeeds only with the text it expects
        return [=](auto ok, auto no) { FileManager::readFile(path, [=](const std::string& t) { t == text ? ok() : void(); }, no); };
    };
    const Error exists = libraryError(3002, "File already exists."), noPath = libraryError(3004, "Invalid file path.");
    const std::tuple<const char*, Operation, std::optional<Error>> cases[] = {
        {"newDir over a file", [](auto ok, auto no) { FileManager::newDir("/a.lua", ok, no); }, exists},
        {"newDir without its parent", [](auto ok, auto no) { FileManager::newDir("/no/d", ok, no); }, Error::posix(ENOENT)},
        {"newDir", [](auto ok, auto no) { FileManager::newDir("/sub", ok, no); }, std::nullopt},
        {"newFile without its folder", [](auto ok, auto no) { FileManager::newFile("/no/f", ok, no); }, libraryError(3000, "Unknown reason.")},
        {"newFile", [](auto ok, auto no) { FileManager::newFile("/sub/n.lua", ok, no); }, std::nullopt},
        {"readFile of no path", read(""), noPath},
        {"readFile of a missing file", read("/none.lua"), Error::posix(ENOENT)},
        {"readFile of bytes that are not UTF-8", read("/bad.lua"), Error::posix(EILSEQ)},
        {"writeFile of no path", [](auto ok, auto no) { FileManager::writeFile("", "x", ok, no); }, noPath},
        {"writeFile without its folder", [](auto ok, auto no) { FileManager::writeFile("/no/w", "x", ok, no); }, Error::posix(ENOENT)},
        {"writeFile", [](auto ok, auto no) { FileManager::writeFile("/w.lua", "h\xC3\xA9", ok, no); }, std::nullopt},
        {"readFile of what was written", read("/w.lua", "h\xC3\xA9"), std::nullopt},
        {"deleteFile of a missing file", [](auto ok, auto no) { FileManager::deleteFile("/none", ok, no); }, libraryError(3001, "File does not exist.")},
        {"deleteFile in an unchangeable folder", [](auto ok, auto no) { FileManager::deleteFile("/locked/a.lua", ok, no); },
         locked ? std::optional(libraryError(3003, "File is not deletable.")) : std::nullopt},
        {"renameFile onto a file", [](auto ok, auto no) { FileManager::renameFile("/a.lua", "/b.lua", ok, no); }, Error::posix(EEXIST)},
        {"renameFile into a missing folder", [](auto ok, auto no) { FileManager::renameFile("/a.lua", "/no/a", ok, no); }, Error::posix(ENOENT)},
        {"moveFile onto a file", [&](auto ok, auto no) { FileManager::moveFile(upload, full("/b.lua"), ok, no); }, Error::posix(EEXIST)},
        {"renameFile", [](auto ok, auto no) { FileManager::renameFile("/a.lua", "/sub/a.lua", ok, no); }, std::nullopt},
        {"moveFile across file systems", [&](auto ok, auto no) { FileManager::moveFile(upload, full("/up.bak"), ok, no); }, std::nullopt},
    };
    for (const auto& [name, operation, expected] : cases) EXPECT_EQ(outcome(operation), expected) << name;
    flags &= ~FS_IMMUTABLE_FL, ::ioctl(fd, FS_IOC_SETFLAGS, &flags), ::close(fd);
    const auto content = [&](const char* path) { return test::readFile(full(path)); };
    EXPECT_EQ(content("/sub/n.lua") + content("/sub/a.lua") + content("/b.lua") + content("/up.bak"), "abup");
    EXPECT_FALSE(fs::exists(upload) || FileManager::fileExist("/none") || FileManager::fileIsDirectory("/w.lua"));
    EXPECT_EQ(storePaths(), (Texts{"settings /sub/a.lua", "settings /other.lua", "settings /sub/a.lua", "trigger /sub/a.lua"}));
}

TEST_F(FileManagerTest, ListingsPutFoldersFirstPickFilesByLowerCaseExtensionAndDeletesTakeSettingsRowsButNotTriggers) {
    for (const char* f : {"/m.lua", "/Z.BMP", "/a.txt", "/k.E", "/f.lua.bak", "/b/inner.lua"}) put(f);
    for (const char* d : {"/y", "/q.lua", "/p.bmp"}) fs::create_directory(full(d));
    Texts all = listed({"b", "y", "q.lua", "p.bmp"});
    for (const auto& f : listed({"m.lua", "Z.BMP", "a.txt", "k.E", "f.lua.bak"})) all.push_back(f);
    FileManager::setTimersReader([] { return Texts{"/m.lua"}; });
    addRows({"/k.E", "/Z.BMP"}, "/m.lua", true);
    FileManager manager;
    std::optional<Error> error = Error{"stale", 1, "stale"};  // cleared by a listing that works
    EXPECT_EQ(manager.loadFiles("/", &error), all);
    EXPECT_FALSE(error);
    EXPECT_TRUE(manager.isScriptAssignedActivatorTrigger("/m.lua") && manager.isTimerSet("/m.lua") && manager.ifPlayDirectly("/k.E"));
    EXPECT_FALSE(manager.isScriptAssignedActivatorTrigger("/k.E") || manager.isTimerSet("/M.lua") || manager.ifPlayDirectly("/m.lua"));
    EXPECT_EQ(manager.loadFiles("/b/"), Texts{"/b/inner.lua"});
    FileManager::setTimersReader(nullptr);
    EXPECT_EQ(manager.loadScripts("/"), listed({"m.lua", "k.E"}));
    EXPECT_FALSE(manager.isTimerSet("/m.lua"));
    EXPECT_EQ(manager.loadImages("/"), listed({"Z.BMP"}));
    EXPECT_TRUE(manager.loadFiles("/none", &error).empty() && error == Error::posix(ENOENT));

    EXPECT_EQ(FileManager::getAllScriptFilePathesOnly(), listed({"m.lua", "k.E"}));
    FileManager::deleteAllScripts("");  // no folder: nothing happens
    FileManager::deleteAllFilesExceptScripts("/"), FileManager::deleteAllFolders("/");
    EXPECT_EQ(listed().size(), 2u);
    EXPECT_EQ(storePaths(), (Texts{"settings /k.E", "trigger /m.lua"}));
    FileManager::deleteAllScripts("/");
    EXPECT_TRUE(listed().empty());
    EXPECT_EQ(storePaths(), Texts{"trigger /m.lua"});
}

TEST_F(FileManagerTest, FileInformationSizeTextsCreationTimeInLocalTimeAndIcons) {
    put("/a.lua", std::string(1536, 'x'));
    EXPECT_EQ(FileManager::fileSize(FileManager::fileAttributes("/a.lua").value_or(FileAttributes{})), " 1.5KB");
    EXPECT_EQ(FileManager::fileAttributes("/").value_or(FileAttributes{}).type, FileAttributes::Type::Directory);
    EXPECT_FALSE(FileManager::fileAttributes("/none.lua"));
    EXPECT_EQ(logMessages(), Texts{"Failed to get the attributes of file: " + full("/none.lua")});
    FileAttributes a;
    for (const auto& [bytes, text] : std::map<uint64_t, std::string>{{0, " 0.0B"}, {1024, "1024.0B"}, {1025, " 1.0KB"}, {UINT64_MAX, "16.0EB"}})
        EXPECT_EQ(FileManager::fileSize((a.size = bytes, a)), text) << bytes;
    const std::string oldTz = std::getenv("TZ") ? std::getenv("TZ") : "";
    ::setenv("TZ", "Asia/Tokyo", 1), ::tzset();
    a.creationDate = std::chrono::system_clock::from_time_t(1614834367);
    EXPECT_EQ(FileManager::fileCreateTime(a), "2021-03-04 14:06:07");  // 05:06:07 UTC
    oldTz.empty() ? ::unsetenv("TZ") : ::setenv("TZ", oldTz.c_str(), 1), ::tzset();

    fs::create_directory(full("/dir"));
    test::writeFile(Paths::resolve(kWebsiteIconsPath) + "/mimetypes.plist", "<plist version=\"1.0\"><dict><key>image/bmp</key><dict>"
        "<key>Icons</key><dict><key>bmp</key><string>bitmap</string></dict><key>DefaultIcon</key><string>picture</string></dict>"
        "<key>text/plain</key><dict><key>Icons</key><dict/><key>DefaultIcon</key><string>plain</string></dict>"
        "<key>application/zip</key><dict><key>Icons</key><dict/></dict></dict></plist>");
    for (const auto& [path, icon] : std::map<std::string, std::string>{{"/dir", "folder"}, {"/a.BMP", "bitmap"}, {"/a.txt", "plain"},
             {"/a.zip", "empty"}, {"/a.lua", "text"}, {"/a.e", "compressed"}, {"/a.LUA", "empty"}, {"/a.E", "empty"}})
        EXPECT_EQ(FileManager::fileIcon(path), "website/icons/" + icon + "@2x.png") << path;
}

TEST_F(FileManagerTest, ExtendedAttributesRoundTripAndForgettingDialogValuesKeepsOtherNames) {
    const std::string path = full("/x.lua"), gone = full("/gone.lua");
    put("/x.lua");
    if (::setxattr(path.c_str(), "trusted.tw", "1", 1, 0) != 0) GTEST_SKIP() << "no attributes here";
    std::optional<Error> error;
    for (const char* name : {"DIALOG.user", "DIALOGUE", "dialog.lower", "other"})
        ASSERT_TRUE(FileManager::setExtendedAttributeForFile(path, name, "J\xC3\xBCrgen", &error));
    ASSERT_TRUE(FileManager::setExtendedAttributeForFile(path, "DIALOG.blank", ""));
    EXPECT_EQ(FileManager::getExtendedAttributeForFile(path, "other", &error), "J\xC3\xBCrgen");
    EXPECT_FALSE(FileManager::getExtendedAttributeForFile(path, "DIALOG.blank", &error) || error);  // empty: nothing
    EXPECT_TRUE(FileManager::removeRememberedDialogValuesForFile(path, &error) && FileManager::removeExtendedAttributeForFile(path, "other"));
    Texts names;
    ASSERT_EQ(listExtendedAttributes(path, &names), 0);
    EXPECT_THAT(names, testing::UnorderedElementsAre("DIALOG.blank", "DIALOGUE", "dialog.lower"));  // size 0 stays; trusted unlisted
    const std::tuple<const char*, std::function<bool()>, int> failures[] = {
        {"removing a missing one", [&] { return FileManager::removeExtendedAttributeForFile(path, "other", &error); }, ENODATA},
        {"reading a missing one", [&] { return !!FileManager::getExtendedAttributeForFile(path, "other", &error); }, ENODATA},
        {"forgetting on a missing file", [&] { return FileManager::removeRememberedDialogValuesForFile(gone, &error); }, ENOENT},
        {"a name with a NUL", [&] { return FileManager::setExtendedAttributeForFile(path, std::string("a\0b", 3), "v", &error); }, EINVAL},
    };
    for (const auto& [name, call, code] : failures) EXPECT_EQ(call() ? std::nullopt : error, Error::posix(code)) << name;
}

}  // namespace
}  // namespace tw
