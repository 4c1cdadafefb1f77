// User defaults: the typed read conversions, the binary plist domain files (persistence, sharing
// between instances and processes, damaged files, atomic replacement) and file creation dates.
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "platform/FileSystem.h"
#include "platform/UserDefaults.h"
#include "platform/linux/PlistUserDefaults.h"

namespace fs = std::filesystem;
using tw::DefaultsValue;
using tw::linuxp::PlistUserDefaults;
using tw::test::TempDir;

namespace {

// Holds values in memory, so the conversion tests depend on nothing but UserDefaults itself.
class MemoryDefaults : public tw::UserDefaults {
public:
    std::optional<DefaultsValue> objectForKey(const std::string& key) override {
        auto it = values.find(key);
        if (it == values.end()) return std::nullopt;
        return it->second;
    }
    bool setObject(const std::string& key, const DefaultsValue& value) override {
        values[key] = value;
        return true;
    }
    bool removeObjectForKey(const std::string& key) override {
        values.erase(key);
        return true;
    }

    std::map<std::string, DefaultsValue> values;
};

std::string prefsFile(const TempDir& dir, const std::string& domain = "me.tapwright.test") {
    return (dir.path() / "var/mobile/Library/Preferences" / (domain + ".plist")).string();
}

std::set<std::string> folderEntries(const fs::path& folder) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.insert(entry.path().filename().string());
    return names;
}

// Parses a plist file with the library directly, independently of PlistUserDefaults.
plist_t readPlistFile(const std::string& path) {
    const std::string bytes = tw::test::readFile(path);
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    return root;
}

void writePlistFile(const std::string& path, plist_t root) {
    char* data = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &data, &length);
    tw::test::writeFile(path, std::string(data, length));
    plist_to_bin_free(data);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Typed reads

TEST(UserDefaultsConversions, BoolFromEachStoredType) {
    MemoryDefaults d;
    d.setBool("t", true);
    d.setBool("f", false);
    d.setInteger("i0", 0);
    d.setInteger("i-3", -3);
    d.setDouble("d0", 0.0);
    d.setDouble("dHalf", 0.5);
    EXPECT_TRUE(d.boolForKey("t"));
    EXPECT_FALSE(d.boolForKey("f"));
    EXPECT_FALSE(d.boolForKey("i0"));
    EXPECT_TRUE(d.boolForKey("i-3"));
    EXPECT_FALSE(d.boolForKey("d0"));
    EXPECT_TRUE(d.boolForKey("dHalf"));
    EXPECT_FALSE(d.boolForKey("missing"));
}

TEST(UserDefaultsConversions, BoolFromText) {
    MemoryDefaults d;
    const std::vector<std::pair<std::string, bool>> cases = {
        {"YES", true},  {"yes", true}, {"true", true},  {"TRUE", true},  {"1", true},
        {"-2", true},   {"0.5", true}, {" 7 apples", true},
        {"NO", false},  {"no", false}, {"false", false}, {"0", false},   {"0.0", false},
        {"", false},    {"Yes", false}, {"nan", false}, {"inf", false}, {"maybe", false},
    };
    for (const auto& [text, expected] : cases) {
        d.setString("k", text);
        EXPECT_EQ(d.boolForKey("k"), expected) << "text \"" << text << "\"";
    }
}

TEST(UserDefaultsConversions, IntegerFromEachStoredType) {
    MemoryDefaults d;
    d.setBool("t", true);
    d.setBool("f", false);
    d.setInteger("big", std::numeric_limits<int64_t>::min());
    d.setDouble("pos", 3.99);
    d.setDouble("neg", -3.99);
    d.setDouble("huge", 1e300);
    d.setDouble("nan", std::nan(""));
    EXPECT_EQ(d.integerForKey("t"), 1);
    EXPECT_EQ(d.integerForKey("f"), 0);
    EXPECT_EQ(d.integerForKey("big"), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(d.integerForKey("pos"), 3);
    EXPECT_EQ(d.integerForKey("neg"), -3);
    EXPECT_EQ(d.integerForKey("huge"), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(d.integerForKey("nan"), 0);
    EXPECT_EQ(d.integerForKey("missing"), 0);
}

TEST(UserDefaultsConversions, IntegerFromText) {
    MemoryDefaults d;
    const std::vector<std::pair<std::string, int64_t>> cases = {
        {"42", 42},       {"  -17", -17},  {"+5", 5},       {"12abc", 12}, {"3.9", 3},
        {"abc", 0},       {"", 0},         {"-", 0},        {"YES", 0},
        {"9223372036854775807", std::numeric_limits<int64_t>::max()},
        {"-9223372036854775808", std::numeric_limits<int64_t>::min()},
        {"99999999999999999999", std::numeric_limits<int64_t>::max()},
        {"-99999999999999999999", std::numeric_limits<int64_t>::min()},
    };
    for (const auto& [text, expected] : cases) {
        d.setString("k", text);
        EXPECT_EQ(d.integerForKey("k"), expected) << "text \"" << text << "\"";
    }
}

TEST(UserDefaultsConversions, DoubleFromEachStoredTypeAndText) {
    MemoryDefaults d;
    d.setBool("t", true);
    d.setInteger("i", -12);
    d.setDouble("d", 2.25);
    EXPECT_EQ(d.doubleForKey("t"), 1.0);
    EXPECT_EQ(d.doubleForKey("i"), -12.0);
    EXPECT_EQ(d.doubleForKey("d"), 2.25);
    EXPECT_EQ(d.doubleForKey("missing"), 0.0);

    const std::vector<std::pair<std::string, double>> cases = {
        {"2.5", 2.5}, {" -0.125", -0.125}, {"1e3", 1000.0}, {"4.5kg", 4.5}, {".5", 0.5},
        {"7e", 7.0},  {"abc", 0.0},        {"", 0.0},       {"nan", 0.0},   {"0x10", 0.0},
    };
    for (const auto& [text, expected] : cases) {
        d.setString("k", text);
        EXPECT_EQ(d.doubleForKey("k"), expected) << "text \"" << text << "\"";
    }
}

TEST(UserDefaultsConversions, StringFromEachStoredType) {
    MemoryDefaults d;
    d.setString("s", "hello");
    d.setString("empty", "");
    d.setInteger("i", -9000000000);
    d.setDouble("whole", 3.0);
    d.setDouble("frac", 0.1);
    d.setDouble("cf", 1242.13);
    d.setDouble("tiny", 1e-7);
    d.setBool("t", true);
    d.setBool("f", false);
    EXPECT_EQ(d.stringForKey("s"), "hello");
    EXPECT_EQ(d.stringForKey("empty"), "");
    EXPECT_EQ(d.stringForKey("i"), "-9000000000");
    EXPECT_EQ(d.stringForKey("whole"), "3");
    EXPECT_EQ(d.stringForKey("frac"), "0.1");
    EXPECT_EQ(d.stringForKey("cf"), "1242.13");
    EXPECT_EQ(d.stringForKey("tiny"), "1e-07");
    EXPECT_EQ(d.stringForKey("t"), "1");
    EXPECT_EQ(d.stringForKey("f"), "0");
    EXPECT_EQ(d.stringForKey("missing"), std::nullopt);
}

// ---------------------------------------------------------------------------------------------
// Plist domain files

TEST(PlistUserDefaults, TypedValuesArePersistedAndReadByAFreshInstance) {
    TempDir dir;
    const std::string file = prefsFile(dir);
    {
        PlistUserDefaults d(file);
        d.setBool("flag", true);
        d.setBool("off", false);
        d.setInteger("count", 2);
        d.setInteger("negative", -123456789012);
        d.setInteger("min", std::numeric_limits<int64_t>::min());
        d.setInteger("max", std::numeric_limits<int64_t>::max());
        d.setDouble("ratio", 0.75);
        d.setString("name", "Tapwright \xE2\x9C\x93");  // a non-ASCII text survives too
        d.setString("blank", "");
    }
    PlistUserDefaults d(file);
    EXPECT_EQ(d.objectForKey("flag"), DefaultsValue{true});
    EXPECT_EQ(d.objectForKey("off"), DefaultsValue{false});
    EXPECT_EQ(d.objectForKey("count"), DefaultsValue{int64_t{2}});
    EXPECT_EQ(d.objectForKey("negative"), DefaultsValue{int64_t{-123456789012}});
    EXPECT_EQ(d.objectForKey("min"), DefaultsValue{std::numeric_limits<int64_t>::min()});
    EXPECT_EQ(d.objectForKey("max"), DefaultsValue{std::numeric_limits<int64_t>::max()});
    EXPECT_EQ(d.objectForKey("ratio"), DefaultsValue{0.75});
    EXPECT_EQ(d.objectForKey("name"), DefaultsValue{std::string("Tapwright \xE2\x9C\x93")});
    EXPECT_EQ(d.objectForKey("blank"), DefaultsValue{std::string()});
    EXPECT_EQ(d.objectForKey("absent"), std::nullopt);
}

TEST(PlistUserDefaults, IntegersBooleansAndRealsKeepTheirKinds) {
    TempDir dir;
    PlistUserDefaults d(prefsFile(dir));
    d.setInteger("two", 2);
    d.setInteger("one", 1);
    d.setBool("yes", true);
    d.setDouble("wholeReal", 2.0);
    PlistUserDefaults again(d.file());
    ASSERT_TRUE(std::holds_alternative<int64_t>(*again.objectForKey("two")));
    EXPECT_EQ(std::get<int64_t>(*again.objectForKey("two")), 2);
    ASSERT_TRUE(std::holds_alternative<int64_t>(*again.objectForKey("one")));
    ASSERT_TRUE(std::holds_alternative<bool>(*again.objectForKey("yes")));
    ASSERT_TRUE(std::holds_alternative<double>(*again.objectForKey("wholeReal")));
    EXPECT_EQ(again.integerForKey("two"), 2);
    EXPECT_EQ(again.stringForKey("wholeReal"), "2");
}

TEST(PlistUserDefaults, FileIsABinaryPlistWithADictionaryOfNativeTypes) {
    TempDir dir;
    PlistUserDefaults d(prefsFile(dir));
    d.setInteger("n", 7);
    d.setBool("b", true);
    d.setDouble("r", 1.5);
    d.setString("s", "x");
    const std::string bytes = tw::test::readFile(d.file());
    ASSERT_GE(bytes.size(), 8u);
    EXPECT_EQ(bytes.substr(0, 8), "bplist00");

    plist_t root = readPlistFile(d.file());
    ASSERT_NE(root, nullptr);
    ASSERT_EQ(plist_get_node_type(root), PLIST_DICT);
    EXPECT_EQ(plist_dict_get_size(root), 4u);
    EXPECT_EQ(plist_get_node_type(plist_dict_get_item(root, "n")), PLIST_UINT);
    EXPECT_EQ(plist_get_node_type(plist_dict_get_item(root, "b")), PLIST_BOOLEAN);
    EXPECT_EQ(plist_get_node_type(plist_dict_get_item(root, "r")), PLIST_REAL);
    EXPECT_EQ(plist_get_node_type(plist_dict_get_item(root, "s")), PLIST_STRING);
    plist_free(root);
}

TEST(PlistUserDefaults, ASecondInstanceSeesWritesAndRemovalsImmediately) {
    TempDir dir;
    PlistUserDefaults writer(prefsFile(dir));
    PlistUserDefaults reader(prefsFile(dir));
    EXPECT_EQ(reader.objectForKey("k"), std::nullopt);
    writer.setString("k", "first");
    EXPECT_EQ(reader.stringForKey("k"), "first");
    writer.setString("k", "second");
    EXPECT_EQ(reader.stringForKey("k"), "second");
    reader.setInteger("other", 5);
    EXPECT_EQ(writer.integerForKey("other"), 5);
    writer.removeObjectForKey("k");
    EXPECT_EQ(reader.objectForKey("k"), std::nullopt);
    EXPECT_EQ(reader.integerForKey("other"), 5);
}

TEST(PlistUserDefaults, RemovalDeletesOnlyThatKey) {
    TempDir dir;
    PlistUserDefaults d(prefsFile(dir));
    d.setInteger("a", 1);
    d.setInteger("b", 2);
    d.removeObjectForKey("a");
    d.removeObjectForKey("never-set");
    PlistUserDefaults again(d.file());
    EXPECT_EQ(again.objectForKey("a"), std::nullopt);
    EXPECT_EQ(again.integerForKey("b"), 2);
}

TEST(PlistUserDefaults, ReadingOrRemovingOnAMissingFileCreatesNothing) {
    TempDir dir;
    PlistUserDefaults d(prefsFile(dir));
    EXPECT_EQ(d.objectForKey("k"), std::nullopt);
    EXPECT_FALSE(d.boolForKey("k"));
    d.removeObjectForKey("k");
    EXPECT_TRUE(fs::is_empty(dir.path())) << "no folder, lock or domain file should appear";
}

TEST(PlistUserDefaults, RemovingAnAbsentKeyLeavesTheFileUntouched) {
    TempDir dir;
    PlistUserDefaults d(prefsFile(dir));
    d.setInteger("a", 1);
    const auto before = fs::last_write_time(d.file());
    const auto inode = [&] {
        struct stat st {};
        ::stat(d.file().c_str(), &st);
        return st.st_ino;
    };
    const auto inodeBefore = inode();
    d.removeObjectForKey("b");
    EXPECT_EQ(inode(), inodeBefore) << "the file was rewritten";
    EXPECT_EQ(fs::last_write_time(d.file()), before);
}

TEST(PlistUserDefaults, EmptyFileReadsAsEmptyAndAcceptsWrites) {
    TempDir dir;
    const std::string file = prefsFile(dir);
    tw::test::writeFile(file, "");
    PlistUserDefaults d(file);
    EXPECT_EQ(d.objectForKey("k"), std::nullopt);
    d.setInteger("k", 3);
    EXPECT_EQ(PlistUserDefaults(file).integerForKey("k"), 3);
    EXPECT_FALSE(fs::exists(file + ".corrupt")) << "an empty file holds nothing worth keeping";
}

TEST(PlistUserDefaults, CorruptFileReadsEmptyStaysUntilAWriteThenIsKeptAside) {
    TempDir dir;
    const std::string file = prefsFile(dir);
    const std::string garbage = "bplist00 this is not really a property list \x01\x02\x03";
    tw::test::writeFile(file, garbage);
    PlistUserDefaults d(file);

    EXPECT_EQ(d.objectForKey("k"), std::nullopt);
    d.removeObjectForKey("k");
    EXPECT_EQ(tw::test::readFile(file), garbage) << "reads and no-op removals must not touch it";
    EXPECT_FALSE(fs::exists(file + ".corrupt"));

    d.setString("k", "fresh");
    EXPECT_EQ(tw::test::readFile(file + ".corrupt"), garbage);
    EXPECT_EQ(PlistUserDefaults(file).stringForKey("k"), "fresh");
    EXPECT_EQ(tw::test::readFile(file).substr(0, 8), "bplist00");
}

TEST(PlistUserDefaults, SecondCorruptionDoesNotOverwriteTheFirstCopy) {
    TempDir dir;
    const std::string file = prefsFile(dir);
    tw::test::writeFile(file, "first damage");
    PlistUserDefaults d(file);
    d.setInteger("k", 1);
    tw::test::writeFile(file, "second damage");
    d.setInteger("k", 2);
    EXPECT_EQ(tw::test::readFile(file + ".corrupt"), "first damage");
    EXPECT_EQ(tw::test::readFile(file + ".corrupt.1"), "second damage");
    EXPECT_EQ(d.integerForKey("k"), 2);
}

TEST(PlistUserDefaults, PlistWhoseRootIsNotADictionaryCountsAsCorrupt) {
    TempDir dir;
    const std::string file = prefsFile(dir);
    plist_t array = plist_new_array();
    plist_array_append_item(array, plist_new_string("k"));
    writePlistFile(file, array);
    plist_free(array);
    const std::string original = tw::test::readFile(file);

    PlistUserDefaults d(file);
    EXPECT_EQ(d.objectForKey("k"), std::nullopt);
    d.setBool("k", true);
    EXPECT_EQ(tw::test::readFile(file + ".corrupt"), original);
    EXPECT_TRUE(d.boolForKey("k"));
}

TEST(PlistUserDefaults, XmlPlistWrittenByHandIsReadAndRewrittenAsBinary) {
    TempDir dir;
    const std::string file = prefsFile(dir);
    tw::test::writeFile(file,
                        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                        "<plist version=\"1.0\"><dict><key>speed</key><integer>4</integer>"
                        "<key>on</key><true/></dict></plist>\n");
    PlistUserDefaults d(file);
    EXPECT_EQ(d.objectForKey("speed"), DefaultsValue{int64_t{4}});
    EXPECT_EQ(d.objectForKey("on"), DefaultsValue{true});
    d.setInteger("speed", 5);
    EXPECT_EQ(tw::test::readFile(file).substr(0, 8), "bplist00");
    EXPECT_TRUE(d.boolForKey("on"));
    EXPECT_FALSE(fs::exists(file + ".corrupt"));
}

TEST(PlistUserDefaults, UnmodelledValueTypesReadAsAbsentButSurviveRewrites) {
    TempDir dir;
    const std::string file = prefsFile(dir);
    plist_t root = plist_new_dict();
    plist_t list = plist_new_array();
    plist_array_append_item(list, plist_new_uint(1));
    plist_array_append_item(list, plist_new_string("two"));
    plist_dict_set_item(root, "list", list);
    plist_dict_set_item(root, "blob", plist_new_data("\x00\x01\x02", 3));
    plist_dict_set_item(root, "when", plist_new_date(1000, 0));
    writePlistFile(file, root);

    PlistUserDefaults d(file);
    EXPECT_EQ(d.objectForKey("list"), std::nullopt);
    EXPECT_EQ(d.objectForKey("blob"), std::nullopt);
    EXPECT_EQ(d.objectForKey("when"), std::nullopt);
    d.setInteger("added", 1);
    d.removeObjectForKey("added");

    plist_t after = readPlistFile(file);
    ASSERT_NE(after, nullptr);
    EXPECT_EQ(plist_dict_get_size(after), 3u);
    for (const char* key : {"list", "blob", "when"}) {
        plist_t a = plist_dict_get_item(root, key);
        plist_t b = plist_dict_get_item(after, key);
        ASSERT_NE(b, nullptr) << key;
        EXPECT_EQ(plist_get_node_type(a), plist_get_node_type(b)) << key;
    }
    plist_t afterList = plist_dict_get_item(after, "list");
    ASSERT_EQ(plist_array_get_size(afterList), 2u);
    EXPECT_EQ(plist_string_val_compare(plist_array_get_item(afterList, 1), "two"), 0);
    uint64_t blobLength = 0;
    const char* blob = plist_get_data_ptr(plist_dict_get_item(after, "blob"), &blobLength);
    EXPECT_EQ(std::string(blob, blobLength), std::string("\x00\x01\x02", 3));
    plist_free(after);
    plist_free(root);
}

TEST(PlistUserDefaults, WritesCreateTheFoldersAndLeaveNoTemporaryFiles) {
    TempDir dir;
    PlistUserDefaults d(prefsFile(dir));
    for (int i = 0; i < 20; ++i) d.setInteger("k" + std::to_string(i % 4), i);
    d.removeObjectForKey("k0");
    const auto names = folderEntries(fs::path(d.file()).parent_path());
    EXPECT_EQ(names, (std::set<std::string>{"me.tapwright.test.plist", "me.tapwright.test.plist.lock"}));
}

TEST(PlistUserDefaults, KeepsThePermissionsOfAnExistingFile) {
    TempDir dir;
    PlistUserDefaults d(prefsFile(dir));
    d.setInteger("k", 1);
    fs::permissions(d.file(), fs::perms::owner_read | fs::perms::owner_write);
    d.setInteger("k", 2);
    EXPECT_EQ(fs::status(d.file()).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
}

TEST(PlistUserDefaults, AWriteThatCannotBeStoredThrowsAndKeepsTheOldValue) {
    TempDir dir;
    PlistUserDefaults d(prefsFile(dir));
    d.setInteger("k", 1);
    // A folder where the lock file belongs cannot be opened for writing, even by root.
    fs::create_directory(d.file() + ".lock.tmp");
    fs::remove(d.file() + ".lock");
    fs::rename(d.file() + ".lock.tmp", d.file() + ".lock");
    EXPECT_THROW(d.setInteger("k", 2), std::runtime_error);
    EXPECT_EQ(d.integerForKey("k"), 1);

    // Nor can a domain whose folder is a file.
    tw::test::writeFile(dir.path() / "blocked", "");
    PlistUserDefaults blocked((dir.path() / "blocked" / "domain.plist").string());
    EXPECT_THROW(blocked.setBool("k", true), std::runtime_error);
    EXPECT_EQ(blocked.objectForKey("k"), std::nullopt);
}

TEST(PlistUserDefaults, ConcurrentThreadsSettingDistinctKeysLoseNothing) {
    TempDir dir;
    const std::string file = prefsFile(dir);
    constexpr int kThreads = 8, kKeys = 25;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            PlistUserDefaults d(file);  // one instance per thread, as separate components would
            for (int k = 0; k < kKeys; ++k) d.setInteger("t" + std::to_string(t) + "k" + std::to_string(k), t * 1000 + k);
        });
    }
    for (auto& th : threads) th.join();
    PlistUserDefaults d(file);
    for (int t = 0; t < kThreads; ++t)
        for (int k = 0; k < kKeys; ++k)
            EXPECT_EQ(d.objectForKey("t" + std::to_string(t) + "k" + std::to_string(k)),
                      DefaultsValue{int64_t{t * 1000 + k}});
    EXPECT_EQ(folderEntries(fs::path(file).parent_path()).size(), 2u);
}

TEST(PlistUserDefaults, ConcurrentProcessesSettingDistinctKeysLoseNothing) {
    TempDir dir;
    const std::string file = prefsFile(dir);
    constexpr int kProcesses = 3, kKeys = 40;
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            int status = 0;
            try {
                PlistUserDefaults d(file);
                for (int k = 0; k < kKeys; ++k) d.setInteger("p" + std::to_string(p) + "k" + std::to_string(k), k);
            } catch (...) {
                status = 1;
            }
            ::_exit(status);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        int status = -1;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    PlistUserDefaults d(file);
    for (int p = 0; p < kProcesses; ++p)
        for (int k = 0; k < kKeys; ++k)
            EXPECT_EQ(d.objectForKey("p" + std::to_string(p) + "k" + std::to_string(k)), DefaultsValue{int64_t{k}})
                << "process " << p << " key " << k;
}

// ---------------------------------------------------------------------------------------------
// File creation dates

TEST(FileCreationDate, FreshFileIsWithinAMinuteOfNow) {
    TempDir dir;
    const fs::path file = dir.path() / "fresh.txt";
    tw::test::writeFile(file, "x");
    const auto created = tw::fileCreationDate(file.string());
    if (!created) GTEST_SKIP() << "this file system reports no birth time";
    const auto now = std::chrono::system_clock::now();
    EXPECT_LT(std::chrono::abs(now - *created), std::chrono::minutes(1));
}

TEST(FileCreationDate, IsUnaffectedByLaterWrites) {
    TempDir dir;
    const fs::path file = dir.path() / "old.txt";
    tw::test::writeFile(file, "x");
    const auto created = tw::fileCreationDate(file.string());
    if (!created) GTEST_SKIP() << "this file system reports no birth time";
    fs::last_write_time(file, fs::file_time_type::clock::now() - std::chrono::hours(48));
    EXPECT_EQ(tw::fileCreationDate(file.string()), created);
}

TEST(FileCreationDate, MissingFileHasNone) {
    TempDir dir;
    EXPECT_EQ(tw::fileCreationDate((dir.path() / "nope").string()), std::nullopt);
    EXPECT_EQ(tw::fileCreationDate(""), std::nullopt);
}
