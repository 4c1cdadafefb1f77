// The script library: file operations and their error codes, the store kept in step with renames
// and deletes, listing order, size texts, icons, directory preparation, extended attributes, and
// the utilities beside the library.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <plist/plist.h>
#include <set>

#include "EngineFixture.h"
#include "core/Paths.h"
#include "library/FileManager.h"
#include "library/Utils.h"
#include "platform/ExtendedAttributes.h"
#include "store/DataManager.h"

namespace tw {
namespace {

namespace fs = std::filesystem;

// What one operation reported: exactly one of its callbacks must have been called.
struct Outcome {
    int successes = 0;
    std::vector<Error> failures;
    std::string content;

    SuccessCallback ok() {
        return [this] { ++successes; };
    }
    ReadSuccessCallback okText() {
        return [this](const std::string& text) {
            ++successes;
            content = text;
        };
    }
    FailureCallback no() {
        return [this](const Error& e) { failures.push_back(e); };
    }
    bool succeeded() const { return successes == 1 && failures.empty(); }
    // The one error, when exactly one failure was reported and nothing else.
    std::optional<Error> error() const {
        if (successes != 0 || failures.size() != 1) return std::nullopt;
        return failures.front();
    }
};

Error libraryError(int64_t code, const std::string& description) {
    return Error{kTapwrightErrorDomain, code, description};
}

// Makes a folder refuse new and removed entries, even for root; false when that is not possible
// here. The flag is taken off again by the returned guard.
class ReadOnlyFolder {
public:
    explicit ReadOnlyFolder(std::string path) : path_(std::move(path)) {
        if (geteuid() != 0) {
            ok_ = ::chmod(path_.c_str(), 0555) == 0 && ::access(path_.c_str(), W_OK) != 0;
            chmod_ = true;
            return;
        }
        ok_ = setImmutable(true);
    }
    ~ReadOnlyFolder() {
        if (chmod_)
            ::chmod(path_.c_str(), 0755);
        else if (ok_)
            setImmutable(false);
    }
    bool ok() const { return ok_; }

private:
    bool setImmutable(bool on) {
        const int fd = ::open(path_.c_str(), O_RDONLY | O_DIRECTORY);
        if (fd < 0) return false;
        int flags = 0;
        bool done = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
        if (done) {
            flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
            done = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
        }
        ::close(fd);
        return done;
    }
    std::string path_;
    bool ok_ = false;
    bool chmod_ = false;
};

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
    void put(const std::string& path, const std::string& content = "") { test::writeFile(full(path), content); }
    void folder(const std::string& path) { fs::create_directories(full(path)); }

    static PlaySettings settingsFor(const std::string& path, int64_t repeat) {
        PlaySettings s;
        s.filePath = path;
        s.repeatTime = repeat;
        return s;
    }
    static std::vector<std::string> settingsPaths() {
        std::vector<std::string> out;
        const auto rows = DataManager::findAllPlaySettings().value();
        for (const auto& s : rows) out.push_back(s.filePath);
        return out;
    }
    static std::vector<std::string> triggerPaths() {
        std::vector<std::string> out;
        const auto rows = DataManager::getActivatorTriggersAll().value();
        for (const auto& t : rows) out.push_back(t.filePath.value_or(""));
        return out;
    }
    // The entry names of a folder in the order the file system lists them.
    static std::vector<std::string> readdirOrder(const std::string& fullPath) {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(fullPath)) names.push_back(e.path().filename().string());
        return names;
    }
};

// ---- Paths

TEST_F(FileManagerTest, LibraryPathsAreJoinedToTheRoot) {
    EXPECT_EQ(FileManager::rootPath(), root->str() + "/var/mobile/Library/Tapwright/Scripts");
    EXPECT_EQ(FileManager::fullPathOfFile("/a.lua"), FileManager::rootPath() + "/a.lua");
    EXPECT_EQ(FileManager::fullPathOfFile("/"), FileManager::rootPath() + "/");
    EXPECT_EQ(FileManager::appendPathComponent("/", "a.lua"), "/a.lua");
    EXPECT_EQ(FileManager::appendPathComponent("/sub", "a.lua"), "/sub/a.lua");
    EXPECT_EQ(FileManager::appendPathComponent("/sub/", "a.lua"), "/sub/a.lua");
    EXPECT_EQ(FileManager::lowerExtension("/x/Name.LUA"), "lua");
    EXPECT_EQ(FileManager::lowerExtension("/x.d/name"), "");
    EXPECT_EQ(FileManager::lowerExtension("/.e"), "");
    EXPECT_TRUE(FileManager::isScriptName("/a.E"));
    EXPECT_FALSE(FileManager::isScriptName("/a.lua.txt"));
    EXPECT_TRUE(FileManager::isImageName("/shot.Bmp"));
}

TEST_F(FileManagerTest, ExistenceAndFolderQueriesFollowTheLibraryPath) {
    put("/a.lua");
    folder("/dir");
    EXPECT_TRUE(FileManager::fileExist("/a.lua"));
    EXPECT_FALSE(FileManager::fileIsDirectory("/a.lua"));
    EXPECT_TRUE(FileManager::fileIsDirectory("/dir"));
    EXPECT_FALSE(FileManager::fileExist("/b.lua"));
    EXPECT_FALSE(FileManager::fileIsDirectory("/b.lua"));
    EXPECT_TRUE(FileManager::fileIsDirectory("/"));
}

// ---- Creating

TEST_F(FileManagerTest, NewDirMakesOneFolderAndRefusesWhatExists) {
    Outcome made;
    FileManager::newDir("/scripts", made.ok(), made.no());
    EXPECT_TRUE(made.succeeded());
    EXPECT_TRUE(fs::is_directory(full("/scripts")));

    for (const char* taken : {"/scripts", "/file.lua"}) {
        put("/file.lua");
        Outcome again;
        FileManager::newDir(taken, again.ok(), again.no());
        EXPECT_EQ(again.error(), libraryError(3002, "File already exists.")) << taken;
    }

    // No missing parents are made; the system's error comes through.
    Outcome deep;
    FileManager::newDir("/a/b", deep.ok(), deep.no());
    EXPECT_EQ(deep.error(), Error::posix(ENOENT));
    EXPECT_FALSE(fs::exists(full("/a")));

    // Without callbacks nothing breaks.
    FileManager::newDir("/quiet", nullptr, nullptr);
    FileManager::newDir("/quiet", nullptr, nullptr);
    EXPECT_TRUE(fs::is_directory(full("/quiet")));
}

TEST_F(FileManagerTest, NewFileMakesAnEmptyFileOrFailsWith3002Or3000) {
    Outcome made;
    FileManager::newFile("/new.lua", made.ok(), made.no());
    EXPECT_TRUE(made.succeeded());
    EXPECT_EQ(fs::file_size(full("/new.lua")), 0u);

    test::writeFile(full("/new.lua"), "keep me");
    Outcome again;
    FileManager::newFile("/new.lua", again.ok(), again.no());
    EXPECT_EQ(again.error(), libraryError(3002, "File already exists."));
    EXPECT_EQ(test::readFile(full("/new.lua")), "keep me");

    Outcome noFolder;
    FileManager::newFile("/missing/new.lua", noFolder.ok(), noFolder.no());
    EXPECT_EQ(noFolder.error(), libraryError(3000, "Unknown reason."));
}

// ---- Reading and writing

TEST_F(FileManagerTest, ReadFileGivesTheUtf8TextOrTheReason) {
    put("/t.lua", "touchDown(1, 100, 200) -- \xE2\x82\xAC\n");
    Outcome read;
    FileManager::readFile("/t.lua", read.okText(), read.no());
    ASSERT_TRUE(read.succeeded());
    EXPECT_EQ(read.content, "touchDown(1, 100, 200) -- \xE2\x82\xAC\n");

    Outcome noPath;
    FileManager::readFile("", noPath.okText(), noPath.no());
    EXPECT_EQ(noPath.error(), libraryError(3004, "Invalid file path."));

    Outcome missing;
    FileManager::readFile("/none.lua", missing.okText(), missing.no());
    EXPECT_EQ(missing.error(), Error::posix(ENOENT));

    put("/bin.lua", std::string("a\xFF\xFE", 3));
    Outcome binary;
    FileManager::readFile("/bin.lua", binary.okText(), binary.no());
    EXPECT_EQ(binary.error(), Error::posix(EILSEQ));

    folder("/dir");
    Outcome dir;
    FileManager::readFile("/dir", dir.okText(), dir.no());
    EXPECT_EQ(dir.error(), Error::posix(EISDIR));

    put("/empty.lua");
    Outcome empty;
    FileManager::readFile("/empty.lua", empty.okText(), empty.no());
    EXPECT_TRUE(empty.succeeded());
    EXPECT_EQ(empty.content, "");
}

TEST_F(FileManagerTest, WriteFileReplacesTheWholeFileAtomicallyAndKeepsItsMode) {
    put("/w.lua", std::string(10000, 'o'));
    ::chmod(full("/w.lua").c_str(), 0600);
    Outcome written;
    FileManager::writeFile("/w.lua", "short", written.ok(), written.no());
    ASSERT_TRUE(written.succeeded());
    EXPECT_EQ(test::readFile(full("/w.lua")), "short");
    EXPECT_EQ(fs::status(full("/w.lua")).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);

    Outcome created;
    FileManager::writeFile("/fresh.lua", "", created.ok(), created.no());
    EXPECT_TRUE(created.succeeded());
    EXPECT_TRUE(fs::is_regular_file(full("/fresh.lua")));

    // Only the two files: no temporary is left behind.
    std::set<std::string> names;
    for (const auto& n : readdirOrder(FileManager::rootPath())) names.insert(n);
    EXPECT_EQ(names, (std::set<std::string>{"w.lua", "fresh.lua"}));

    Outcome noPath;
    FileManager::writeFile("", "x", noPath.ok(), noPath.no());
    EXPECT_EQ(noPath.error(), libraryError(3004, "Invalid file path."));

    Outcome noFolder;
    FileManager::writeFile("/missing/w.lua", "x", noFolder.ok(), noFolder.no());
    EXPECT_EQ(noFolder.error(), Error::posix(ENOENT));

    folder("/dir");
    Outcome overFolder;
    FileManager::writeFile("/dir", "x", overFolder.ok(), overFolder.no());
    EXPECT_EQ(overFolder.error(), Error::posix(EISDIR));
    EXPECT_TRUE(fs::is_directory(full("/dir")));
}

// ---- Deleting

TEST_F(FileManagerTest, DeleteRemovesTheFileAndItsSettingsButLeavesItsTriggerRows) {
    put("/gone.lua", "x");
    put("/kept.lua", "x");
    ASSERT_TRUE(DataManager::insertPlaySettings(settingsFor("/gone.lua", 1)));
    ASSERT_TRUE(DataManager::insertPlaySettings(settingsFor("/kept.lua", 2)));
    ASSERT_TRUE(DataManager::insertPlaySettings(settingsFor("/gone.lua", 3)));
    ASSERT_TRUE(DataManager::addActivatorTrigger({"shake", 3, "/gone.lua"}));

    Outcome deleted;
    FileManager::deleteFile("/gone.lua", deleted.ok(), deleted.no());
    ASSERT_TRUE(deleted.succeeded());
    EXPECT_FALSE(fs::exists(full("/gone.lua")));
    EXPECT_EQ(settingsPaths(), std::vector<std::string>{"/kept.lua"});
    EXPECT_EQ(triggerPaths(), std::vector<std::string>{"/gone.lua"});

    Outcome again;
    FileManager::deleteFile("/gone.lua", again.ok(), again.no());
    EXPECT_EQ(again.error(), libraryError(3001, "File does not exist."));
}

TEST_F(FileManagerTest, DeleteTakesFoldersWithTheirContents) {
    put("/dir/sub/a.lua", "x");
    put("/dir/b.bmp", "x");
    Outcome deleted;
    FileManager::deleteFile("/dir", deleted.ok(), deleted.no());
    EXPECT_TRUE(deleted.succeeded());
    EXPECT_FALSE(fs::exists(full("/dir")));
}

TEST_F(FileManagerTest, AFileInAFolderThatRefusesChangesIsNotDeletable) {
    put("/locked/a.lua", "x");
    ASSERT_TRUE(DataManager::insertPlaySettings(settingsFor("/locked/a.lua", 1)));
    ReadOnlyFolder locked(full("/locked"));
    if (!locked.ok()) GTEST_SKIP() << "cannot make a folder read-only here";
    Outcome refused;
    FileManager::deleteFile("/locked/a.lua", refused.ok(), refused.no());
    EXPECT_EQ(refused.error(), libraryError(3003, "File is not deletable."));
    EXPECT_TRUE(fs::exists(full("/locked/a.lua")));
    EXPECT_EQ(settingsPaths(), std::vector<std::string>{"/locked/a.lua"});
}

// ---- Renaming and moving

TEST_F(FileManagerTest, ARenamedScriptTakesItsSettingsAndTriggerRowsAlong) {
    put("/old.lua", "print(1)");
    ASSERT_TRUE(DataManager::insertPlaySettings(settingsFor("/old.lua", 4)));
    ASSERT_TRUE(DataManager::insertPlaySettings(settingsFor("/other.lua", 5)));
    ASSERT_TRUE(DataManager::insertPlaySettings(settingsFor("/old.lua", 6)));
    ASSERT_TRUE(DataManager::addActivatorTrigger({"shake", 3, "/old.lua"}));
    ASSERT_TRUE(DataManager::addActivatorTrigger({"tap", 3, "/other.lua"}));
    ASSERT_TRUE(DataManager::addActivatorTrigger({"hold", 3, "/old.lua"}));
    folder("/sub");

    Outcome renamed;
    FileManager::renameFile("/old.lua", "/sub/new.lua", renamed.ok(), renamed.no());
    ASSERT_TRUE(renamed.succeeded());
    EXPECT_FALSE(fs::exists(full("/old.lua")));
    EXPECT_EQ(test::readFile(full("/sub/new.lua")), "print(1)");
    EXPECT_EQ(settingsPaths(), (std::vector<std::string>{"/sub/new.lua", "/other.lua", "/sub/new.lua"}));
    EXPECT_EQ(DataManager::findPlaySettingsByScriptTitle("/sub/new.lua")->repeatTime, 4);
    EXPECT_EQ(triggerPaths(), (std::vector<std::string>{"/sub/new.lua", "/other.lua", "/sub/new.lua"}));
}

TEST_F(FileManagerTest, AFailedRenameChangesNeitherFilesNorRows) {
    put("/a.lua", "a");
    put("/b.lua", "b");
    ASSERT_TRUE(DataManager::insertPlaySettings(settingsFor("/a.lua", 1)));
    ASSERT_TRUE(DataManager::addActivatorTrigger({"shake", 3, "/a.lua"}));

    Outcome onto;
    FileManager::renameFile("/a.lua", "/b.lua", onto.ok(), onto.no());
    EXPECT_EQ(onto.error(), Error::posix(EEXIST));
    EXPECT_EQ(test::readFile(full("/a.lua")), "a");
    EXPECT_EQ(test::readFile(full("/b.lua")), "b");

    Outcome missing;
    FileManager::renameFile("/none.lua", "/c.lua", missing.ok(), missing.no());
    EXPECT_EQ(missing.error(), Error::posix(ENOENT));

    Outcome noFolder;
    FileManager::renameFile("/a.lua", "/nowhere/a.lua", noFolder.ok(), noFolder.no());
    EXPECT_EQ(noFolder.error(), Error::posix(ENOENT));

    EXPECT_EQ(settingsPaths(), std::vector<std::string>{"/a.lua"});
    EXPECT_EQ(triggerPaths(), std::vector<std::string>{"/a.lua"});
}

TEST_F(FileManagerTest, MoveFileTakesFullPathsCrossesFileSystemsAndLeavesTheStoreAlone) {
    ASSERT_TRUE(DataManager::insertPlaySettings(settingsFor("/up.lua", 1)));
    // An upload's temporary copy, on another file system where there is one.
    const test::TempDir uploads("tw-upload");
    const std::string source = fs::is_directory("/dev/shm") ? "/dev/shm/tw-upload-" + std::to_string(::getpid())
                                                            : uploads.str() + "/upload.tmp";
    struct Cleanup {
        std::string path;
        ~Cleanup() { std::filesystem::remove(path); }
    } cleanup{source};
    test::writeFile(source, "uploaded");

    Outcome moved;
    FileManager::moveFile(source, full("/up2.lua"), moved.ok(), moved.no());
    ASSERT_TRUE(moved.succeeded());
    EXPECT_FALSE(fs::exists(source));
    EXPECT_EQ(test::readFile(full("/up2.lua")), "uploaded");
    EXPECT_EQ(settingsPaths(), std::vector<std::string>{"/up.lua"});

    test::writeFile(source, "again");
    Outcome taken;
    FileManager::moveFile(source, full("/up2.lua"), taken.ok(), taken.no());
    EXPECT_EQ(taken.error(), Error::posix(EEXIST));
    EXPECT_EQ(test::readFile(full("/up2.lua")), "uploaded");
}

// ---- Bulk deletes

TEST_F(FileManagerTest, BulkDeletesPickScriptsOtherFilesOrFoldersOfOneFolder) {
    for (const char* f : {"/a.lua", "/B.LUA", "/c.e", "/d.bmp", "/e.txt", "/sub/deep.lua"}) put(f, "x");
    folder("/folder.lua");
    ASSERT_TRUE(DataManager::insertPlaySettings(settingsFor("/a.lua", 1)));
    ASSERT_TRUE(DataManager::insertPlaySettings(settingsFor("/d.bmp", 1)));

    FileManager::deleteAllScripts("");  // no folder: nothing happens
    EXPECT_TRUE(fs::exists(full("/a.lua")));

    FileManager::deleteAllScripts("/");
    std::set<std::string> left;
    for (const auto& n : readdirOrder(FileManager::rootPath())) left.insert(n);
    EXPECT_EQ(left, (std::set<std::string>{"d.bmp", "e.txt", "sub", "folder.lua"}));
    EXPECT_TRUE(fs::exists(full("/sub/deep.lua")));
    EXPECT_EQ(settingsPaths(), std::vector<std::string>{"/d.bmp"});

    put("/z.lua", "x");
    FileManager::deleteAllFilesExceptScripts("/");
    left.clear();
    for (const auto& n : readdirOrder(FileManager::rootPath())) left.insert(n);
    EXPECT_EQ(left, (std::set<std::string>{"z.lua", "sub", "folder.lua"}));
    EXPECT_TRUE(settingsPaths().empty());

    FileManager::deleteAllFolders("/");
    EXPECT_EQ(readdirOrder(FileManager::rootPath()), std::vector<std::string>{"z.lua"});
}

TEST_F(FileManagerTest, TheRootScriptListSkipsFoldersAndSubFolderScripts) {
    for (const char* f : {"/a.lua", "/b.E", "/c.bmp", "/sub/d.lua"}) put(f, "x");
    folder("/dir.lua");
    std::vector<std::string> expected;
    for (const auto& n : readdirOrder(FileManager::rootPath()))
        if (n == "a.lua" || n == "b.E") expected.push_back("/" + n);
    EXPECT_EQ(FileManager::getAllScriptFilePathesOnly(), expected);
}

// ---- Listings

TEST_F(FileManagerTest, LoadFilesListsFoldersFirstEachGroupInListingOrder) {
    for (const char* f : {"/m.lua", "/z.bmp", "/a.txt", "/k.e"}) put(f, "x");
    for (const char* d : {"/y", "/b", "/q.lua"}) folder(d);
    put("/b/inner.lua");

    std::vector<std::string> folders, files;
    for (const auto& n : readdirOrder(FileManager::rootPath()))
        (fs::is_directory(full("/" + n)) ? folders : files).push_back("/" + n);
    std::vector<std::string> expected = folders;
    expected.insert(expected.end(), files.begin(), files.end());

    FileManager manager;
    std::optional<Error> error = Error{"stale", 1, "stale"};
    EXPECT_EQ(manager.loadFiles("/", &error), expected);
    EXPECT_FALSE(error);
    EXPECT_EQ(manager.loadFiles("/b", &error), std::vector<std::string>{"/b/inner.lua"});
    EXPECT_EQ(manager.loadFiles("/b/", &error), std::vector<std::string>{"/b/inner.lua"});
}

TEST_F(FileManagerTest, LoadScriptsAndImagesPickFilesByLowerCaseExtension) {
    for (const char* f : {"/a.lua", "/B.LUA", "/c.e", "/d.BMP", "/e.txt", "/f.lua.bak", "/noext"}) put(f, "x");
    folder("/folder.lua");
    folder("/pictures.bmp");

    std::vector<std::string> scripts, images;
    for (const auto& n : readdirOrder(FileManager::rootPath())) {
        if (n == "a.lua" || n == "B.LUA" || n == "c.e") scripts.push_back("/" + n);
        if (n == "d.BMP") images.push_back("/" + n);
    }
    FileManager manager;
    EXPECT_EQ(manager.loadScripts("/"), scripts);
    EXPECT_EQ(manager.loadImages("/"), images);
}

TEST_F(FileManagerTest, AListingThatFailsGivesNothingAndTheReason) {
    put("/file.lua");
    FileManager manager;
    std::optional<Error> error;
    EXPECT_TRUE(manager.loadFiles("/missing", &error).empty());
    EXPECT_EQ(error, Error::posix(ENOENT));
    EXPECT_TRUE(manager.loadScripts("/file.lua", &error).empty());
    EXPECT_EQ(error, Error::posix(ENOTDIR));
    EXPECT_TRUE(manager.loadImages("/missing").empty());
}

TEST_F(FileManagerTest, EachListingReloadsSettingsTriggersAndSchedules) {
    put("/a.lua");
    put("/b.lua");
    FileManager manager;
    std::vector<std::string> scheduled;
    FileManager::setTimersReader([&] { return scheduled; });

    PlaySettings direct = settingsFor("/a.lua", 1);
    direct.playDirectly = true;
    ASSERT_TRUE(DataManager::insertPlaySettings(direct));
    ASSERT_TRUE(DataManager::addActivatorTrigger({"shake", 3, "/b.lua"}));
    scheduled = {"/b.lua"};
    // Nothing is seen before the next listing.
    EXPECT_FALSE(manager.ifPlayDirectly("/a.lua"));
    EXPECT_FALSE(manager.isScriptAssignedActivatorTrigger("/b.lua"));
    EXPECT_FALSE(manager.isTimerSet("/b.lua"));

    manager.loadScripts("/");
    EXPECT_TRUE(manager.ifPlayDirectly("/a.lua"));
    EXPECT_FALSE(manager.ifPlayDirectly("/b.lua"));
    EXPECT_TRUE(manager.isScriptAssignedActivatorTrigger("/b.lua"));
    EXPECT_FALSE(manager.isScriptAssignedActivatorTrigger("/a.lua"));
    EXPECT_TRUE(manager.isTimerSet("/b.lua"));
    EXPECT_FALSE(manager.isTimerSet("/B.lua"));

    ASSERT_TRUE(DataManager::removeActivatorTrigger("shake"));
    scheduled.clear();
    manager.loadImages("/");
    EXPECT_FALSE(manager.isScriptAssignedActivatorTrigger("/b.lua"));
    EXPECT_FALSE(manager.isTimerSet("/b.lua"));
}

// ---- File information

TEST_F(FileManagerTest, SizeTextsUseFourWideOneDecimalNumbersAndBinaryUnits) {
    const std::vector<std::pair<uint64_t, std::string>> cases = {
        {0, " 0.0B"},         {5, " 5.0B"},          {1023, "1023.0B"},          {1024, "1024.0B"},
        {1025, " 1.0KB"},     {1536, " 1.5KB"},      {10240, "10.0KB"},          {1048576, "1024.0KB"},
        {1048577, " 1.0MB"},  {5368709120, " 5.0GB"}, {1099511627777, " 1.0TB"}, {UINT64_MAX, "16.0EB"}};
    for (const auto& [bytes, text] : cases) {
        FileAttributes a;
        a.size = bytes;
        EXPECT_EQ(FileManager::fileSize(a), text) << bytes;
    }
}

TEST_F(FileManagerTest, AttributesOfFilesAndTheirCreationTimeText) {
    put("/a.lua", std::string(1536, 'x'));
    folder("/dir");
    auto file = FileManager::fileAttributes("/a.lua");
    ASSERT_TRUE(file);
    EXPECT_EQ(file->type, FileAttributes::Type::Regular);
    EXPECT_EQ(FileManager::fileSize(*file), " 1.5KB");
    const auto age = std::chrono::system_clock::now() - file->creationDate;
    EXPECT_LT(std::chrono::abs(age), std::chrono::minutes(1));
    EXPECT_EQ(FileManager::fileAttributes("/dir")->type, FileAttributes::Type::Directory);

    EXPECT_FALSE(FileManager::fileAttributes("/none.lua"));
    EXPECT_EQ(logMessages(),
              std::vector<std::string>{"Failed to get the attributes of file: " + full("/none.lua")});

    // The text is local time.
    const char* oldTz = std::getenv("TZ");
    const std::string saved = oldTz ? oldTz : "";
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    FileAttributes fixed;
    fixed.creationDate = std::chrono::system_clock::from_time_t(1614834367);  // 2021-03-04 05:06:07 UTC
    EXPECT_EQ(FileManager::fileCreateTime(fixed), "2021-03-04 05:06:07");
    ::setenv("TZ", "Asia/Tokyo", 1);
    ::tzset();
    EXPECT_EQ(FileManager::fileCreateTime(fixed), "2021-03-04 14:06:07");
    if (oldTz)
        ::setenv("TZ", saved.c_str(), 1);
    else
        ::unsetenv("TZ");
    ::tzset();
}

TEST_F(FileManagerTest, MimeTypesComeFromTheSystemRegistryByExtension) {
    EXPECT_EQ(FileManager::fileMIMEType("shot.bmp"), "image/bmp");
    EXPECT_EQ(FileManager::fileMIMEType("SHOT.BMP"), "image/bmp");
    EXPECT_EQ(FileManager::fileMIMEType("notes.txt"), "text/plain");
    EXPECT_EQ(FileManager::fileMIMEType("a.zip"), "application/zip");
    EXPECT_FALSE(FileManager::fileMIMEType("script.lua"));
    EXPECT_FALSE(FileManager::fileMIMEType("noextension"));
}

TEST_F(FileManagerTest, ShippedIconsCoverEveryNameTheTableUses) {
    folder("/dir");
    EXPECT_EQ(FileManager::fileIcon("/dir"), "website/icons/folder@2x.png");
    EXPECT_EQ(FileManager::fileIcon("/shot.bmp"), "website/icons/image@2x.png");
    EXPECT_EQ(FileManager::fileIcon("/a.lua"), "website/icons/text@2x.png");
    EXPECT_EQ(FileManager::fileIcon("/a.e"), "website/icons/compressed@2x.png");
    EXPECT_EQ(FileManager::fileIcon("/notes.txt"), "website/icons/text@2x.png");
    EXPECT_EQ(FileManager::fileIcon("/song.mp3"), "website/icons/audio@2x.png");
    EXPECT_EQ(FileManager::fileIcon("/unknown.zzz"), "website/icons/empty@2x.png");

    // Every icon the table names, and the fallbacks, are shipped.
    const std::string icons = Paths::resolve(kWebsiteIconsPath);
    std::string xml = test::readFile(icons + "/mimetypes.plist");
    plist_t table = nullptr;
    plist_from_memory(xml.data(), static_cast<uint32_t>(xml.size()), &table);
    ASSERT_TRUE(table);
    ASSERT_EQ(plist_get_node_type(table), PLIST_DICT);
    std::set<std::string> names = {"folder", "text", "compressed", "empty"};
    auto addString = [&](plist_t node) {
        if (!node || plist_get_node_type(node) != PLIST_STRING) return;
        char* s = nullptr;
        plist_get_string_val(node, &s);
        names.insert(s);
        std::free(s);
    };
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(table, &it);
    for (;;) {
        char* key = nullptr;
        plist_t entry = nullptr;
        plist_dict_next_item(table, it, &key, &entry);
        if (!key) break;
        std::free(key);
        addString(plist_dict_get_item(entry, "DefaultIcon"));
        plist_t byExtension = plist_dict_get_item(entry, "Icons");
        ASSERT_TRUE(byExtension && plist_get_node_type(byExtension) == PLIST_DICT);
        plist_dict_iter inner = nullptr;
        plist_dict_new_iter(byExtension, &inner);
        for (;;) {
            char* ext = nullptr;
            plist_t name = nullptr;
            plist_dict_next_item(byExtension, inner, &ext, &name);
            if (!ext) break;
            std::free(ext);
            addString(name);
        }
        std::free(inner);
    }
    std::free(it);
    plist_free(table);
    for (const auto& name : names) {
        const std::string png = icons + "/" + name + "@2x.png";
        ASSERT_TRUE(fs::is_regular_file(png)) << png;
        EXPECT_EQ(test::readFile(png).substr(0, 8), "\x89PNG\r\n\x1a\n") << png;
    }
}

TEST_F(FileManagerTest, IconChoiceTriesTheExtensionThenTheDefaultThenTheScriptFallbacks) {
    const std::string table =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
        "<key>image/bmp</key><dict><key>Icons</key><dict><key>bmp</key><string>bitmap</string></dict>"
        "<key>DefaultIcon</key><string>picture</string></dict>"
        "<key>text/plain</key><dict><key>Icons</key><dict/><key>DefaultIcon</key><string>plain</string></dict>"
        "<key>application/zip</key><dict><key>Icons</key><dict/></dict>"
        "</dict></plist>";
    test::writeFile(Paths::resolve(kWebsiteIconsPath) + "/mimetypes.plist", table);
    EXPECT_EQ(FileManager::fileIcon("/a.BMP"), "website/icons/bitmap@2x.png");  // extension looked up in lower case
    EXPECT_EQ(FileManager::fileIcon("/a.txt"), "website/icons/plain@2x.png");
    EXPECT_EQ(FileManager::fileIcon("/a.zip"), "website/icons/empty@2x.png");
    EXPECT_EQ(FileManager::fileIcon("/a.lua"), "website/icons/text@2x.png");
    EXPECT_EQ(FileManager::fileIcon("/a.e"), "website/icons/compressed@2x.png");
    // The script fallbacks compare the extension exactly.
    EXPECT_EQ(FileManager::fileIcon("/a.LUA"), "website/icons/empty@2x.png");
    EXPECT_EQ(FileManager::fileIcon("/a.E"), "website/icons/empty@2x.png");

    // Without a readable table only the fallbacks are left.
    test::writeFile(Paths::resolve(kWebsiteIconsPath) + "/mimetypes.plist", "not a plist");
    EXPECT_EQ(FileManager::fileIcon("/a.bmp"), "website/icons/empty@2x.png");
    EXPECT_EQ(FileManager::fileIcon("/a.lua"), "website/icons/text@2x.png");
}

// ---- Folder preparation

TEST_F(FileManagerTest, PrepareDirectoriesMakesBothFoldersWithTheirParents) {
    fs::remove_all(root->path() / "var");
    EXPECT_TRUE(FileManager::prepareDirectories());
    EXPECT_TRUE(fs::is_directory(Paths::scriptsDir()));
    EXPECT_TRUE(fs::is_directory(Paths::libraryDir()));
    EXPECT_TRUE(FileManager::prepareDirectories());
}

TEST_F(FileManagerTest, PrepareDirectoriesLogsWhyAFolderCouldNotBeMade) {
    fs::remove_all(Paths::scriptsDir());
    // A link to nowhere takes the folder's name.
    fs::create_symlink(root->path() / "nowhere" / "Scripts", Paths::scriptsDir());
    EXPECT_FALSE(FileManager::prepareDirectories());
    const auto lines = logMessages();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("Failed to create Scripts directory. Info:", 0), 0u) << lines[0];
    EXPECT_GT(lines[0].size(), std::string("Failed to create Scripts directory. Info:").size());

    fs::remove(Paths::scriptsDir());
    fs::remove_all(Paths::libraryDir());
    fs::create_symlink(root->path() / "nowhere" / "Library", Paths::libraryDir());
    EXPECT_FALSE(FileManager::prepareDirectories());
    EXPECT_TRUE(fs::is_directory(Paths::scriptsDir()));
}

// ---- Extended attributes

class ExtendedAttributesTest : public FileManagerTest {
protected:
    void SetUp() override {
        FileManagerTest::SetUp();
        path = full("/x.lua");
        test::writeFile(path, "x");
        if (::setxattr(path.c_str(), "user.probe", "1", 1, 0) != 0)
            GTEST_SKIP() << "no user attributes on this file system";
        ::removexattr(path.c_str(), "user.probe");
    }
    std::vector<std::string> names() {
        std::vector<std::string> out;
        EXPECT_EQ(listExtendedAttributes(path, &out), 0);
        std::sort(out.begin(), out.end());
        return out;
    }
    std::string path;
};

TEST_F(ExtendedAttributesTest, ValuesRoundTripUnderTheNamesTheEngineGave) {
    std::optional<Error> error;
    ASSERT_TRUE(FileManager::setExtendedAttributeForFile(path, "DIALOG.name", "J\xC3\xBCrgen", &error));
    EXPECT_FALSE(error);
    EXPECT_EQ(FileManager::getExtendedAttributeForFile(path, "DIALOG.name", &error), "J\xC3\xBCrgen");
    // Stored in the user namespace, without a terminator.
    char raw[32];
    EXPECT_EQ(::getxattr(path.c_str(), "user.DIALOG.name", raw, sizeof raw), 7);
    ASSERT_TRUE(FileManager::setExtendedAttributeForFile(path, "DIALOG.name", "Al"));
    EXPECT_EQ(FileManager::getExtendedAttributeForFile(path, "DIALOG.name"), "Al");
    EXPECT_EQ(names(), std::vector<std::string>{"DIALOG.name"});
}

TEST_F(ExtendedAttributesTest, EmptyMissingAndUnnameableAttributes) {
    std::optional<Error> error;
    ASSERT_TRUE(FileManager::setExtendedAttributeForFile(path, "empty", "", &error));
    EXPECT_FALSE(FileManager::getExtendedAttributeForFile(path, "empty", &error));
    EXPECT_FALSE(error);  // size 0 is nothing, not a failure

    EXPECT_FALSE(FileManager::getExtendedAttributeForFile(path, "absent", &error));
    EXPECT_EQ(error, Error::posix(ENODATA));

    const std::string gone = full("/gone.lua");
    EXPECT_FALSE(FileManager::setExtendedAttributeForFile(gone, "k", "v", &error));
    EXPECT_EQ(error, Error::posix(ENOENT));
    EXPECT_FALSE(FileManager::getExtendedAttributeForFile(gone, "k", &error));
    EXPECT_EQ(error, Error::posix(ENOENT));

    // A NUL would name another attribute.
    EXPECT_FALSE(FileManager::setExtendedAttributeForFile(path, std::string("a\0b", 3), "v", &error));
    EXPECT_EQ(error, Error::posix(EINVAL));
    EXPECT_EQ(names(), std::vector<std::string>{"empty"});

    // More than the file system keeps for one file.
    EXPECT_FALSE(FileManager::setExtendedAttributeForFile(path, "huge", std::string(1 << 20, 'x'), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, kPosixErrorDomain);
    EXPECT_NE(error->code, 0);
}

TEST_F(ExtendedAttributesTest, RemovingAskesTheSizeFirstAndLeavesEmptyOnesInPlace) {
    ASSERT_TRUE(FileManager::setExtendedAttributeForFile(path, "full", "v"));
    ASSERT_TRUE(FileManager::setExtendedAttributeForFile(path, "empty", ""));
    std::optional<Error> error;
    EXPECT_TRUE(FileManager::removeExtendedAttributeForFile(path, "full", &error));
    EXPECT_FALSE(error);
    EXPECT_TRUE(FileManager::removeExtendedAttributeForFile(path, "empty", &error));
    EXPECT_EQ(names(), std::vector<std::string>{"empty"});
    EXPECT_FALSE(FileManager::removeExtendedAttributeForFile(path, "full", &error));
    EXPECT_EQ(error, Error::posix(ENODATA));
    EXPECT_FALSE(FileManager::removeExtendedAttributeForFile(full("/gone.lua"), "full", &error));
    EXPECT_EQ(error, Error::posix(ENOENT));
}

TEST_F(ExtendedAttributesTest, ForgettingDialogValuesRemovesOnlyDialogNames) {
    for (const char* name : {"DIALOG.user", "DIALOG.count", "DIALOGUE", "dialog.lower", "other"})
        ASSERT_TRUE(FileManager::setExtendedAttributeForFile(path, name, "v"));
    ASSERT_TRUE(FileManager::setExtendedAttributeForFile(path, "DIALOG.blank", ""));
    std::optional<Error> error;
    EXPECT_TRUE(FileManager::removeRememberedDialogValuesForFile(path, &error));
    EXPECT_FALSE(error);
    // The empty one stays, as removing an attribute of size 0 leaves it.
    EXPECT_EQ(names(), (std::vector<std::string>{"DIALOG.blank", "DIALOGUE", "dialog.lower", "other"}));

    const std::string bare = full("/bare.lua");
    test::writeFile(bare, "");
    EXPECT_TRUE(FileManager::removeRememberedDialogValuesForFile(bare, &error));
    EXPECT_FALSE(FileManager::removeRememberedDialogValuesForFile(full("/gone.lua"), &error));
    EXPECT_EQ(error, Error::posix(ENOENT));
}

TEST_F(ExtendedAttributesTest, AttributesOfOtherNamespacesAreNotListed) {
    ASSERT_TRUE(FileManager::setExtendedAttributeForFile(path, "DIALOG.a", "v"));
    if (::setxattr(path.c_str(), "trusted.tw", "1", 1, 0) != 0) GTEST_SKIP() << "no trusted attributes here";
    EXPECT_EQ(names(), std::vector<std::string>{"DIALOG.a"});
    EXPECT_TRUE(FileManager::removeRememberedDialogValuesForFile(path));
    char raw[4];
    EXPECT_EQ(::getxattr(path.c_str(), "trusted.tw", raw, sizeof raw), 1);
}

// ---- Utilities

TEST_F(FileManagerTest, Sha1HashesAsManyUtf8BytesAsTheTextHasUtf16Units) {
    EXPECT_EQ(Utils::sha1("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(Utils::sha1(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(Utils::sha1("Tapwright"), "9c389e8b2bea83aa5931cdaf9a69b802790eb868");
    EXPECT_EQ(Utils::sha1("\xC3\xA9"), "8bf7b464aaa2c2b536aa1d76a1297c19155f5603");          // "é": 1 of 2 bytes
    EXPECT_EQ(Utils::sha1("a\xC3\xA9"), "3745a21049a214470263f1f2641bbaa8c5f556dc");         // "aé": 2 of 3
    EXPECT_EQ(Utils::sha1("h\xC3\xA9llo"), "7497a450d58341cf6fad70bcd95b210578eb777f");      // 5 of 6
    EXPECT_EQ(Utils::sha1("\xF0\x9F\x98\x80"), "a7a0a1687c49ddb64ba33c762c8b12cd2fd99ca7");  // emoji: 2 units
}

TEST_F(FileManagerTest, ScreenSizeIsInPixelsOrderedByOrientation) {
    linuxp::DeviceProfile profile;  // 375 x 667 points at scale 2
    Platform::current().device = std::make_shared<linuxp::ProfileDeviceInfo>(profile, "com.apple.springboard");
    EXPECT_EQ(Utils::getScreenSize(), "750x1334");
    for (int landscape : {3, 4}) {
        profile.orientation = landscape;
        Platform::current().device = std::make_shared<linuxp::ProfileDeviceInfo>(profile, "com.apple.springboard");
        EXPECT_EQ(Utils::getScreenSize(), "1334x750");
    }
    profile.orientation = 2;
    profile.screenWidth = 414;
    profile.screenHeight = 736;
    profile.scale = 3;
    Platform::current().device = std::make_shared<linuxp::ProfileDeviceInfo>(profile, "com.apple.springboard");
    EXPECT_EQ(Utils::getScreenSize(), "1242x2208");
}

// A device that is not a virtual one: its apps come from the installation list.
TEST_F(FileManagerTest, VersionErrorsAndAlerts) {
    EXPECT_FALSE(Utils::getCurrentVersion());
    test::writeFile(Paths::resolve(kAppPath) + "/Info.plist",
                    "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>CFBundleVersion</key>"
                    "<string>1.4.2</string></dict></plist>");
    EXPECT_EQ(Utils::getCurrentVersion(), "1.4.2");

    EXPECT_EQ(Utils::customErrorWithDomain("d", 7, "text"), (Error{"d", 7, "text"}));

    Utils::alert("Saved.");
    const auto alerts = ui->alerts();
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].message, "Saved.");
    EXPECT_EQ(alerts[0].buttons, std::vector<std::string>{"OK"});
}

}  // namespace
}  // namespace tw
