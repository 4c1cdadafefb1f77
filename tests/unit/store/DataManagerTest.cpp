// The play settings store: duplicates, one-decimal speeds, refused apostrophes, failures, triggers.
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "EngineFixture.h"
#include "core/Paths.h"
#include "store/DataManager.h"

namespace tw {
namespace {

namespace fs = std::filesystem;
using All = std::vector<PlaySettings>;

PlaySettings settings(const std::string& path, bool direct = false, int64_t repeat = 1, int64_t interval = 1,
                      float speed = 1) {
    PlaySettings s;
    s.filePath = path, s.playDirectly = direct, s.repeatTime = repeat, s.repeatInterval = interval, s.playSpeed = speed;
    return s;
}

class DataManagerTest : public test::EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        ASSERT_TRUE(DataManager::initDb());
    }
};

TEST_F(DataManagerTest, DuplicatesAreAppendedWithSpeedsToOneDecimalAndTheFirstRowWins) {
    for (float speed : {0.5f, 1.25f, 0.35f, 2.75f, 0.96f})
        ASSERT_TRUE(DataManager::insertPlaySettings(settings("/a", speed < 1, 12, 3, speed)));
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/b", false, 9)));
    EXPECT_EQ(DataManager::findAllPlaySettings(),
              (All{settings("/a", true, 12, 3, 0.5f), settings("/a", false, 12, 3, 1.2f),
                   settings("/a", true, 12, 3, 0.3f), settings("/a", false, 12, 3, 2.8f),
                   settings("/a", true, 12, 3, 1), settings("/b", false, 9)}));
    EXPECT_EQ(DataManager::findPlaySettingsByScriptTitle("/a"), settings("/a", true, 12, 3, 0.5f));
    // Changes reach every copy; counts and intervals come back as 32-bit integers.
    ASSERT_TRUE(DataManager::updatePlaySettings(settings("/a", false, 4294967301LL, -1, 1.15f)));
    ASSERT_TRUE(DataManager::updateScriptTitleOfPlaySettingsFrom("/a", "/c"));
    ASSERT_TRUE(DataManager::deletePlaySettingsByScriptTitle("/b"));
    EXPECT_EQ(DataManager::findAllPlaySettings(), All(5, settings("/c", false, 5, -1, 1.1f)));
}

TEST_F(DataManagerTest, TextsWithAnApostropheOrNulFailWithoutTouchingAnyRowAndUpdatesLogIt) {
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/a", false, 2)));
    ASSERT_TRUE(DataManager::addActivatorTrigger({"ev", 3, "/a"}));
    const std::string all = "/x' OR '1'='1", nul("/a\0x", 4);
    EXPECT_FALSE(DataManager::insertPlaySettings(settings("/it's")) || DataManager::updatePlaySettings(settings(all)) ||
                 DataManager::updateScriptTitleOfPlaySettingsFrom("/a", "/x' WHERE '1'='1") ||
                 DataManager::addActivatorTrigger({"ev", 3, "/it's"}) || DataManager::removeActivatorTrigger(all) ||
                 DataManager::updateScriptTitleOfActivatorTriggerFrom(all, "/b"));
    EXPECT_FALSE(DataManager::deletePlaySettingsByScriptTitle(all));
    EXPECT_FALSE(DataManager::deletePlaySettingsByScriptTitle(nul));
    EXPECT_FALSE(DataManager::removeActivatorTriggerByScriptTitle(all));
    EXPECT_EQ(logMessages(), std::vector<std::string>(6, "error to update data"));  // not the deletes by title
    EXPECT_FALSE(DataManager::findPlaySettingsByScriptTitle(all) || DataManager::findPlaySettingsByScriptTitle(nul) ||
                 DataManager::getActivatorTriggerByEventName(all) ||
                 DataManager::getActivatorTriggerByScriptTitle(all));
    EXPECT_EQ(DataManager::findAllPlaySettings(), All{settings("/a", false, 2)});
    EXPECT_EQ(DataManager::getActivatorTriggersAll(), (std::vector<ActivatorTrigger>{{"ev", 3, "/a"}}));
}

TEST_F(DataManagerTest, AFileThatDoesNotOpenFailsQuietlyAndCountsMinusOne) {
    test::writeFile(Paths::libraryDir() + "/data.sqlite3", std::string(4096, 'x'));
    EXPECT_FALSE(DataManager::initDb());
    fs::remove(DataManager::dataFilePath());
    EXPECT_EQ(DataManager::countPlaySettings(), -1);
    EXPECT_FALSE(DataManager::findAllPlaySettings() || DataManager::getActivatorTriggersAll());
    EXPECT_FALSE(fs::exists(DataManager::dataFilePath()));  // reads create nothing
    // An update makes the file but finds no table: only the logging statements say so.
    EXPECT_FALSE(DataManager::insertPlaySettings(settings("/a")));
    EXPECT_FALSE(DataManager::deletePlaySettingsByScriptTitle("/a"));
    EXPECT_EQ(DataManager::countPlaySettings(), -1);
    EXPECT_EQ(DataManager::findAllPlaySettings(), All{});  // opens, query fails
    fs::remove(DataManager::dataFilePath());
    fs::create_directories(DataManager::dataFilePath() + "/inner");  // a folder where the file should be
    EXPECT_FALSE(DataManager::insertPlaySettings(settings("/a")));
    EXPECT_EQ(logMessages(), (std::vector<std::string>{"error to init db", "error to update data"}));
}

TEST_F(DataManagerTest, TriggersAreFoundByWhatTheyDoAndOneWithoutAScriptHoldsThePrintedNoText) {
    const ActivatorTrigger hold{"hold", 1, "(null)"}, press{"press", 2, "(null)"}, shake{"shake", 3, "/a"};
    for (const ActivatorTrigger& t : {ActivatorTrigger{"hold", 1, std::nullopt}, shake, {"press", 2, std::nullopt}})
        ASSERT_TRUE(DataManager::addActivatorTrigger(t));
    EXPECT_EQ(DataManager::getActivatorTriggerForControlPanel(), hold);
    EXPECT_EQ(DataManager::getActivatorTriggerForStartStopPlaying(), press);
    ASSERT_TRUE(DataManager::updateScriptTitleOfActivatorTriggerFrom("/a", "/c"));
    ASSERT_TRUE(DataManager::removeActivatorTrigger("hold"));
    EXPECT_EQ(DataManager::getActivatorTriggersAll(), (std::vector<ActivatorTrigger>{{"shake", 3, "/c"}, press}));
}

TEST_F(DataManagerTest, ConcurrentWritersEachWithTheirOwnConnectionLoseNothing) {
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w)
        writers.emplace_back([w] {
            for (int i = 0; i < 8; ++i) DataManager::insertPlaySettings(settings("/" + std::to_string(w * 100 + i)));
        });
    for (auto& t : writers) t.join();
    EXPECT_EQ(DataManager::countPlaySettings(), 32);
    EXPECT_TRUE(logMessages().empty());
}

}  // namespace
}  // namespace tw
