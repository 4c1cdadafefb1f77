// The play settings store: tables, statements and their failures, duplicate rows, one-decimal
// speeds, the refused apostrophe, trigger rows, and the script list's cache.
#include <gtest/gtest.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include <filesystem>
#include <thread>

#include "EngineFixture.h"
#include "core/Paths.h"
#include "store/DataManager.h"
#include "store/PlaySettingsManager.h"

namespace tw {
namespace {

namespace fs = std::filesystem;

PlaySettings settings(const std::string& path, bool direct = false, int64_t repeat = 1, int64_t interval = 1,
                      float speed = 1.0f) {
    PlaySettings s;
    s.filePath = path;
    s.playDirectly = direct;
    s.repeatTime = repeat;
    s.repeatInterval = interval;
    s.playSpeed = speed;
    return s;
}

// What the columns hold, read past the store.
struct RawRow {
    std::string title;
    std::string speedType;
    double speed;
    int64_t direct;
};

class DataManagerTest : public test::EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        ASSERT_TRUE(DataManager::initDb());
    }

    std::vector<RawRow> rawPlaySettings() {
        SQLite::Database db(DataManager::dataFilePath(), SQLite::OPEN_READONLY);
        SQLite::Statement q(db, "SELECT SCRIPT_TITLE, typeof(SPEED), SPEED, PLAY_DIRECTLY FROM PLAY_SETTINGS ORDER BY ROW");
        std::vector<RawRow> rows;
        while (q.executeStep())
            rows.push_back({q.getColumn(0).getString(), q.getColumn(1).getString(), q.getColumn(2).getDouble(),
                            q.getColumn(3).getInt64()});
        return rows;
    }

    std::vector<std::string> columnsOf(const std::string& table) {
        SQLite::Database db(DataManager::dataFilePath(), SQLite::OPEN_READONLY);
        SQLite::Statement q(db, "PRAGMA table_info(" + table + ")");
        std::vector<std::string> columns;
        while (q.executeStep()) columns.push_back(q.getColumn(1).getString() + " " + q.getColumn(2).getString());
        return columns;
    }

    std::vector<std::string> paths() {
        std::vector<std::string> out;
        const auto rows = DataManager::findAllPlaySettings().value();
        for (const auto& s : rows) out.push_back(s.filePath);
        return out;
    }
};

// ---- Tables

TEST_F(DataManagerTest, InitDbMakesBothTablesWithTheirColumnsAndCanRunAgain) {
    EXPECT_EQ(DataManager::dataFilePath(), Paths::libraryDir() + "/data.sqlite3");
    EXPECT_EQ(columnsOf("PLAY_SETTINGS"),
              (std::vector<std::string>{"ROW INTEGER", "SCRIPT_TITLE TEXT", "PLAY_DIRECTLY BOOLEAN", "TIME INTEGER",
                                        "INTERVAL INTEGER", "SPEED NUMERIC"}));
    EXPECT_EQ(columnsOf("ACTIVATOR_TRIGGER"),
              (std::vector<std::string>{"ROW INTEGER", "EVENT_NAME TEXT", "FOR_WHAT INTEGER", "SCRIPT_TITLE TEXT"}));
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/kept.lua")));
    EXPECT_TRUE(DataManager::initDb());
    EXPECT_EQ(paths(), std::vector<std::string>{"/kept.lua"});
    EXPECT_TRUE(logMessages().empty());
}

TEST_F(DataManagerTest, InitDbFailuresAreLogged) {
    // Not a database.
    test::writeFile(DataManager::dataFilePath(), std::string(4096, 'x'));
    EXPECT_FALSE(DataManager::initDb());
    // No folder to make the file in: the log line is lost with the folder, so look before.
    EXPECT_EQ(logMessages(), std::vector<std::string>{"error to init db"});
    fs::remove_all(Paths::libraryDir());
    EXPECT_FALSE(DataManager::initDb());
    EXPECT_FALSE(fs::exists(DataManager::dataFilePath()));
}

// ---- Play settings rows

TEST_F(DataManagerTest, SettingsRoundTripAndAScriptWithoutARowFindsNothing) {
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/a.lua", true, 0, 0, 0.5f)));
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/sub/b.e", false, 12, 3, 1.9f)));
    auto a = DataManager::findPlaySettingsByScriptTitle("/a.lua");
    ASSERT_TRUE(a);
    EXPECT_EQ(*a, settings("/a.lua", true, 0, 0, 0.5f));
    auto b = DataManager::findPlaySettingsByScriptTitle("/sub/b.e");
    ASSERT_TRUE(b);
    EXPECT_EQ(*b, settings("/sub/b.e", false, 12, 3, 1.9f));
    // Fields that are not stored keep their defaults.
    EXPECT_TRUE(b->showPlayingFinishedAlert);
    EXPECT_EQ(b->playType, 0);
    EXPECT_TRUE(b->scriptContent.empty());

    EXPECT_FALSE(DataManager::findPlaySettingsByScriptTitle("/none.lua"));
    EXPECT_FALSE(DataManager::findPlaySettingsByScriptTitle("/A.lua"));  // titles compare exactly
    EXPECT_EQ(DataManager::countPlaySettings(), 2);
    EXPECT_EQ(rawPlaySettings()[0].direct, 1);
    EXPECT_EQ(rawPlaySettings()[1].direct, 0);
}

TEST_F(DataManagerTest, SpeedsAreStoredWithOneDecimalAsPrintfRoundsTheFloat) {
    const std::vector<std::pair<float, double>> cases = {
        {1.25f, 1.2}, {0.35f, 0.3}, {2.75f, 2.8}, {0.45f, 0.4}, {1.0f, 1.0}, {0.96f, 1.0}};
    for (const auto& [speed, stored] : cases)
        ASSERT_TRUE(DataManager::insertPlaySettings(settings("/s" + std::to_string(speed) + ".lua", false, 1, 1, speed)));
    const auto raw = rawPlaySettings();
    const auto found = DataManager::findAllPlaySettings().value();
    ASSERT_EQ(raw.size(), cases.size());
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].first);
        // NUMERIC affinity keeps "1.0" as the integer 1; it still reads back as 1.0.
        EXPECT_EQ(raw[i].speedType, cases[i].second == 1.0 ? "integer" : "real");
        EXPECT_DOUBLE_EQ(raw[i].speed, cases[i].second);
        EXPECT_FLOAT_EQ(found[i].playSpeed, static_cast<float>(cases[i].second));
    }
    ASSERT_TRUE(DataManager::updatePlaySettings(settings(found[0].filePath, false, 1, 1, 1.15f)));
    EXPECT_DOUBLE_EQ(rawPlaySettings()[0].speed, 1.1);  // 1.15f is a little below 1.15
}

TEST_F(DataManagerTest, CountsAndIntervalsAreReadBackAs32BitIntegers) {
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/big.lua", false, 4294967301LL, -1, 1.0f)));
    auto s = DataManager::findPlaySettingsByScriptTitle("/big.lua");
    ASSERT_TRUE(s);
    EXPECT_EQ(s->repeatTime, 5);  // the low 32 bits
    EXPECT_EQ(s->repeatInterval, -1);  // sign-extended
}

TEST_F(DataManagerTest, DuplicateRowsAreKeptReadInRowOrderAndUpdatedTogether) {
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/dup.lua", false, 2, 1, 1.0f)));
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/other.lua", false, 9, 9, 0.5f)));
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/dup.lua", true, 7, 4, 1.5f)));
    EXPECT_EQ(DataManager::countPlaySettings(), 3);
    EXPECT_EQ(paths(), (std::vector<std::string>{"/dup.lua", "/other.lua", "/dup.lua"}));
    // The older row wins.
    EXPECT_EQ(DataManager::findPlaySettingsByScriptTitle("/dup.lua")->repeatTime, 2);

    ASSERT_TRUE(DataManager::updatePlaySettings(settings("/dup.lua", true, 3, 0, 2.0f)));
    const auto all = DataManager::findAllPlaySettings().value();
    EXPECT_EQ(all[0], settings("/dup.lua", true, 3, 0, 2.0f));
    EXPECT_EQ(all[1], settings("/other.lua", false, 9, 9, 0.5f));
    EXPECT_EQ(all[2], settings("/dup.lua", true, 3, 0, 2.0f));

    ASSERT_TRUE(DataManager::updateScriptTitleOfPlaySettingsFrom("/dup.lua", "/moved.lua"));
    EXPECT_EQ(paths(), (std::vector<std::string>{"/moved.lua", "/other.lua", "/moved.lua"}));
    ASSERT_TRUE(DataManager::deletePlaySettingsByScriptTitle("/moved.lua"));
    EXPECT_EQ(paths(), std::vector<std::string>{"/other.lua"});
    // Statements that match nothing still succeed.
    EXPECT_TRUE(DataManager::updatePlaySettings(settings("/none.lua")));
    EXPECT_TRUE(DataManager::deletePlaySettingsByScriptTitle("/none.lua"));
    EXPECT_EQ(DataManager::countPlaySettings(), 1);
}

// ---- The apostrophe rule

TEST_F(DataManagerTest, TextsWithAnApostropheFailWithoutTouchingAnyRow) {
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/a.lua", false, 2)));
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/b.lua", false, 3)));
    ASSERT_TRUE(DataManager::addActivatorTrigger({"ev.a", 3, "/a.lua"}));

    // Each of these would, formatted, match or change other rows.
    EXPECT_FALSE(DataManager::insertPlaySettings(settings("/it's.lua")));
    EXPECT_FALSE(DataManager::updatePlaySettings(settings("/x' OR '1'='1", true, 99)));
    EXPECT_FALSE(DataManager::updateScriptTitleOfPlaySettingsFrom("/a.lua", "/x' WHERE '1'='1"));
    EXPECT_FALSE(DataManager::updateScriptTitleOfPlaySettingsFrom("/a' OR '1'='1", "/c.lua"));
    EXPECT_FALSE(DataManager::addActivatorTrigger({"it's", 1, std::nullopt}));
    EXPECT_FALSE(DataManager::addActivatorTrigger({"ev", 3, "/it's.lua"}));
    EXPECT_FALSE(DataManager::removeActivatorTrigger("x' OR '1'='1"));
    EXPECT_FALSE(DataManager::updateScriptTitleOfActivatorTriggerFrom("/a.lua", "/it's.lua"));
    EXPECT_EQ(logMessages(), std::vector<std::string>(8, "error to update data"));

    // The two deletes by title fail silently.
    EXPECT_FALSE(DataManager::deletePlaySettingsByScriptTitle("/x' OR '1'='1"));
    EXPECT_FALSE(DataManager::removeActivatorTriggerByScriptTitle("/x' OR '1'='1"));
    EXPECT_EQ(logMessages().size(), 8u);

    // Reads find nothing, even where the formatted text would have matched every row.
    EXPECT_FALSE(DataManager::findPlaySettingsByScriptTitle("/x' OR '1'='1"));
    EXPECT_FALSE(DataManager::getActivatorTriggerByEventName("x' OR '1'='1"));
    EXPECT_FALSE(DataManager::getActivatorTriggerByScriptTitle("/x' OR '1'='1"));

    const auto all = DataManager::findAllPlaySettings().value();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0], settings("/a.lua", false, 2));
    EXPECT_EQ(all[1], settings("/b.lua", false, 3));
    EXPECT_EQ(DataManager::getActivatorTriggersAll().value(),
              (std::vector<ActivatorTrigger>{{"ev.a", 3, "/a.lua"}}));
}

TEST_F(DataManagerTest, TextsWithANulByteAreRefusedRatherThanCutShort) {
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/a.lua")));
    EXPECT_FALSE(DataManager::deletePlaySettingsByScriptTitle(std::string("/a.lua\0x", 8)));
    EXPECT_FALSE(DataManager::findPlaySettingsByScriptTitle(std::string("/a.lua\0x", 8)));
    EXPECT_EQ(DataManager::countPlaySettings(), 1);
}

// ---- Files that do not open or hold no tables

TEST_F(DataManagerTest, AMissingOrUnreadableFileCountsMinusOneAndIsNotCreatedByReads) {
    fs::remove(DataManager::dataFilePath());
    EXPECT_EQ(DataManager::countPlaySettings(), -1);
    EXPECT_FALSE(DataManager::findAllPlaySettings());
    EXPECT_FALSE(DataManager::getActivatorTriggersAll());
    EXPECT_FALSE(DataManager::findPlaySettingsByScriptTitle("/a.lua"));
    EXPECT_FALSE(DataManager::getActivatorTriggerForControlPanel());
    EXPECT_FALSE(fs::exists(DataManager::dataFilePath()));

    test::writeFile(DataManager::dataFilePath(), std::string(4096, 'x'));
    EXPECT_EQ(DataManager::countPlaySettings(), -1);
    // The file opens; its query fails: an empty list rather than nothing.
    ASSERT_TRUE(DataManager::findAllPlaySettings());
    EXPECT_TRUE(DataManager::findAllPlaySettings()->empty());
    EXPECT_TRUE(logMessages().empty());
}

TEST_F(DataManagerTest, UpdatesOnAFileThatDoesNotOpenFailWithoutALogLine) {
    fs::remove_all(Paths::libraryDir());
    fs::create_directories(Paths::libraryDir() + "/data.sqlite3/inner");  // a folder where the file should be
    EXPECT_FALSE(DataManager::insertPlaySettings(settings("/a.lua")));
    EXPECT_FALSE(DataManager::updatePlaySettings(settings("/a.lua")));
    EXPECT_FALSE(DataManager::addActivatorTrigger({"ev", 1, std::nullopt}));
    EXPECT_FALSE(DataManager::removeActivatorTrigger("ev"));
    EXPECT_FALSE(DataManager::deletePlaySettingsByScriptTitle("/a.lua"));
    EXPECT_EQ(DataManager::countPlaySettings(), -1);
    EXPECT_TRUE(logMessages().empty());
}

TEST_F(DataManagerTest, StatementsOnAFileWithoutTablesFailAndTheLoggingOnesSaySo) {
    fs::remove(DataManager::dataFilePath());
    EXPECT_FALSE(DataManager::insertPlaySettings(settings("/a.lua")));
    EXPECT_FALSE(DataManager::updateScriptTitleOfActivatorTriggerFrom("/a.lua", "/b.lua"));
    EXPECT_FALSE(DataManager::deletePlaySettingsByScriptTitle("/a.lua"));
    EXPECT_FALSE(DataManager::removeActivatorTriggerByScriptTitle("/a.lua"));
    EXPECT_EQ(logMessages(), std::vector<std::string>(2, "error to update data"));
    EXPECT_EQ(DataManager::countPlaySettings(), -1);
}

// ---- Trigger rows

TEST_F(DataManagerTest, TriggerRowsAreReadFirstInRowOrderAndChangedByNameOrTitle) {
    ASSERT_TRUE(DataManager::addActivatorTrigger({"volume.down.hold", 1, std::nullopt}));
    ASSERT_TRUE(DataManager::addActivatorTrigger({"shake", 3, "/a.lua"}));
    ASSERT_TRUE(DataManager::addActivatorTrigger({"volume.down.press", 2, std::nullopt}));
    ASSERT_TRUE(DataManager::addActivatorTrigger({"shake", 3, "/b.lua"}));
    ASSERT_TRUE(DataManager::addActivatorTrigger({"double.tap", 3, "/a.lua"}));

    const auto all = DataManager::getActivatorTriggersAll().value();
    ASSERT_EQ(all.size(), 5u);
    // No script: the printed form of "no text" is what the row holds.
    EXPECT_EQ(all[0], (ActivatorTrigger{"volume.down.hold", 1, "(null)"}));
    EXPECT_EQ(all[3], (ActivatorTrigger{"shake", 3, "/b.lua"}));

    EXPECT_EQ(DataManager::getActivatorTriggerByEventName("shake")->filePath, "/a.lua");
    EXPECT_EQ(DataManager::getActivatorTriggerByScriptTitle("/a.lua")->eventName, "shake");
    EXPECT_EQ(DataManager::getActivatorTriggerForControlPanel()->eventName, "volume.down.hold");
    EXPECT_EQ(DataManager::getActivatorTriggerForStartStopPlaying()->eventName, "volume.down.press");
    EXPECT_FALSE(DataManager::getActivatorTriggerByEventName("none"));

    ASSERT_TRUE(DataManager::updateScriptTitleOfActivatorTriggerFrom("/a.lua", "/c.lua"));
    EXPECT_FALSE(DataManager::getActivatorTriggerByScriptTitle("/a.lua"));
    EXPECT_EQ(DataManager::getActivatorTriggerByScriptTitle("/c.lua")->eventName, "shake");

    ASSERT_TRUE(DataManager::removeActivatorTrigger("shake"));  // both rows of the event
    ASSERT_TRUE(DataManager::removeActivatorTriggerByScriptTitle("/c.lua"));
    std::vector<std::string> left;
    const auto rows = DataManager::getActivatorTriggersAll().value();
    for (const auto& t : rows) left.push_back(t.eventName);
    EXPECT_EQ(left, (std::vector<std::string>{"volume.down.hold", "volume.down.press"}));
}

TEST_F(DataManagerTest, ConcurrentWritersEachWithTheirOwnConnectionLoseNothing) {
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w)
        writers.emplace_back([w] {
            for (int i = 0; i < 25; ++i)
                DataManager::insertPlaySettings(settings("/w" + std::to_string(w) + "-" + std::to_string(i) + ".lua"));
        });
    for (auto& t : writers) t.join();
    EXPECT_EQ(DataManager::countPlaySettings(), 100);
    EXPECT_TRUE(logMessages().empty());
}

// ---- The script list's cache

TEST_F(DataManagerTest, TheCacheIsAsFreshAsItsLastReloadButLookupsByTitleAskTheDatabase) {
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/a.lua", false)));
    PlaySettingsManager cache;
    ASSERT_EQ(cache.playSettingsArray.size(), 1u);
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/b.lua", true)));

    EXPECT_FALSE(cache.hasPlaySettings("/b.lua"));
    EXPECT_FALSE(cache.ifPlayDirectly("/b.lua"));
    ASSERT_TRUE(cache.findPlaySettingsByScriptTitle("/b.lua"));
    EXPECT_TRUE(cache.findPlaySettingsByScriptTitle("/b.lua")->playDirectly);

    cache.reloadData();
    EXPECT_TRUE(cache.hasPlaySettings("/b.lua"));
    EXPECT_TRUE(cache.ifPlayDirectly("/b.lua"));
    EXPECT_FALSE(cache.hasPlaySettings("/B.lua"));
    EXPECT_FALSE(cache.hasPlaySettings("b.lua"));

    fs::remove(DataManager::dataFilePath());
    cache.reloadData();
    EXPECT_TRUE(cache.playSettingsArray.empty());
}

TEST_F(DataManagerTest, AnyDuplicateRowWithTheFlagMakesTheScriptPlayDirectly) {
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/a.lua", false)));
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/a.lua", true)));
    ASSERT_TRUE(DataManager::insertPlaySettings(settings("/b.lua", false)));
    PlaySettingsManager cache;
    EXPECT_TRUE(cache.ifPlayDirectly("/a.lua"));
    EXPECT_FALSE(cache.ifPlayDirectly("/b.lua"));
    EXPECT_FALSE(cache.findPlaySettingsByScriptTitle("/a.lua")->playDirectly);  // the database's first row
}

}  // namespace
}  // namespace tw
