// The timers' keyed archives against Python's own property-list reader and writer: the layout is
// checked from outside (classes, UID references, NS.time), not only by our reader; and archive
// files that are cut short or hold garbage read as no schedules.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "TestSupport.h"
#include "core/Paths.h"
#include "schedule/KeyedArchive.h"
#include "schedule/TimerManager.h"

namespace tw {
namespace {

using namespace std::chrono;

Timer::Clock::time_point at(double unixSeconds) {
    return Timer::Clock::time_point(duration_cast<Timer::Clock::duration>(duration<double>(unixSeconds)));
}

// Follows every UID of the archive in FILE the way a keyed unarchiver does, and prints what it
// found as JSON.
constexpr const char* kPythonReader = R"PY(
import json, plistlib, sys
a = plistlib.load(open(sys.argv[1], 'rb'))
objs = a['$objects']
def deref(u):
    assert isinstance(u, plistlib.UID), repr(u)
    return None if u.data == 0 else objs[u.data]
def cls(o):
    c = deref(o['$class'])
    return c['$classname'], c['$classes']
root = deref(a['$top']['root'])
timers = []
for ref in root['NS.objects']:
    t = deref(ref)
    d = deref(t['fireDate'])
    timers.append({'class': cls(t), 'path': deref(t['scriptFilePath']), 'dateClass': cls(d)[0],
                   'time': d['NS.time'], 'repeat': t['repeat'], 'interval': t['interval']})
print(json.dumps({'archiver': a['$archiver'], 'version': a['$version'], 'null': objs[0],
                  'rootClass': cls(root), 'timers': timers}))
)PY";

TEST(KeyedArchiveTest, PythonsPlistlibReadsOurArchiveAsAKeyedArchiveOfTimers) {
    test::TempDir dir;
    const auto file = dir.path() / "timers";
    test::writeFile(file, archiveTimers({Timer("/a.lua", at(978307200.0 + 1000.5), true, 90.0),
                                         Timer("/b.e", at(1700000000.0), false, 0.0)}));
    const auto result = test::runProcess({"python3", "-c", kPythonReader, file.string()});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto json = nlohmann::json::parse(result.out);
    EXPECT_EQ(json["archiver"], "NSKeyedArchiver");
    EXPECT_EQ(json["version"], 100000);
    EXPECT_EQ(json["null"], "$null");
    EXPECT_EQ(json["rootClass"], nlohmann::json::parse(R"(["NSArray", ["NSArray", "NSObject"]])"));
    ASSERT_EQ(json["timers"].size(), 2u);
    const auto& first = json["timers"][0];
    EXPECT_EQ(first["class"], nlohmann::json::parse(R"(["Timer", ["Timer", "NSObject"]])"));
    EXPECT_EQ(first["path"], "/a.lua");
    EXPECT_EQ(first["dateClass"], "NSDate");
    EXPECT_DOUBLE_EQ(first["time"].get<double>(), 1000.5);  // seconds since 2001-01-01 UTC
    EXPECT_EQ(first["repeat"], true);
    EXPECT_DOUBLE_EQ(first["interval"].get<double>(), 90.0);
    EXPECT_EQ(json["timers"][1]["path"], "/b.e");
    EXPECT_DOUBLE_EQ(json["timers"][1]["time"].get<double>(), 1700000000.0 - 978307200.0);
    EXPECT_EQ(json["timers"][1]["repeat"], false);
}

// An archive as the platform's archiver lays it out for a mutable list: the list of class
// NSMutableArray, a path as an NSMutableString object, a timer without an "interval" key, and
// objects in an order of its own.
constexpr const char* kPythonWriter = R"PY(
import plistlib, sys
U = plistlib.UID
objs = ['$null',
        {'NS.objects': [U(2), U(7)], '$class': U(6)},
        {'$class': U(5), 'scriptFilePath': U(3), 'fireDate': U(4), 'repeat': True, 'interval': 30.0},
        'scripts/a.lua',
        {'$class': U(8), 'NS.time': 600000000.25},
        {'$classname': 'Timer', '$classes': ['Timer', 'NSObject']},
        {'$classname': 'NSMutableArray', '$classes': ['NSMutableArray', 'NSArray', 'NSObject']},
        {'$class': U(5), 'scriptFilePath': U(9), 'fireDate': U(0), 'repeat': False},
        {'$classname': 'NSDate', '$classes': ['NSDate', 'NSObject']},
        {'$class': U(10), 'NS.string': '/b.lua'},
        {'$classname': 'NSMutableString', '$classes': ['NSMutableString', 'NSString', 'NSObject']}]
plistlib.dump({'$archiver': 'NSKeyedArchiver', '$version': 100000, '$top': {'root': U(1)}, '$objects': objs},
              open(sys.argv[1], 'wb'), fmt=plistlib.FMT_BINARY)
)PY";

TEST(KeyedArchiveTest, ReadsTheArchiveThatPythonWritesInThePlatformsLayout) {
    test::TempDir dir;
    const auto file = dir.path() / "timers";
    const auto result = test::runProcess({"python3", "-c", kPythonWriter, file.string()});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto timers = unarchiveTimers(test::readFile(file));
    EXPECT_EQ(timers, (std::vector<Timer>{Timer("scripts/a.lua", at(978307200.0 + 600000000.25), true, 30.0),
                                          Timer("/b.lua", std::nullopt, false, 0.0)}));
}

struct DamagedArchive {
    const char* name;
    std::string (*bytes)();
};

std::string goodArchive() { return archiveTimers({Timer("/a.lua", at(1700000000.0), true, 5.0)}); }

class DamagedArchiveTest : public ::testing::TestWithParam<DamagedArchive> {};

TEST_P(DamagedArchiveTest, ReadsAsNoSchedules) {
    test::TempDir root;
    Paths::setRoot(root.str());
    test::writeFile(Paths::resolve(kTimersPath), GetParam().bytes());
    EXPECT_TRUE(TimerManager::readArchive().empty());
    Paths::setRoot("");
}

// Replaces every occurrence of `from` in `bytes` by `to` (same length).
std::string patched(std::string bytes, std::string_view from, std::string_view to) {
    for (size_t at = bytes.find(from); at != std::string::npos; at = bytes.find(from, at + to.size()))
        bytes.replace(at, from.size(), to);
    return bytes;
}

INSTANTIATE_TEST_SUITE_P(
    Timers, DamagedArchiveTest,
    ::testing::Values(
        DamagedArchive{"CutInHalf", [] { const auto b = goodArchive(); return b.substr(0, b.size() / 2); }},
        DamagedArchive{"CutBeforeTheTrailer", [] { const auto b = goodArchive(); return b.substr(0, b.size() - 1); }},
        DamagedArchive{"Garbage", [] { return std::string("bplist00\xff\xfe garbage", 19); }},
        DamagedArchive{"AnotherArchiver", [] { return patched(goodArchive(), "NSKeyedArchiver", "NSKeyedArchivez"); }},
        DamagedArchive{"RootIsOneTimer", [] { return archiveTimer(Timer("/a.lua", at(0), false, 0)); }},
        DamagedArchive{"ListOfSomethingElse", [] { return patched(goodArchive(), "Timer", "Tamer"); }},
        DamagedArchive{"PlainPropertyList", [] { return std::string("<plist><array/></plist>"); }}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tw
