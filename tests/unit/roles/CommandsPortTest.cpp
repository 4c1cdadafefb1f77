// The home screen's commands port, message by message: what each id stores or schedules for a
// well-formed payload, and that a payload of the wrong shape or an id that is not ours changes
// nothing and gets no reply.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "EngineFixture.h"
#include "core/Settings.h"
#include "play/PivotManager.h"
#include "roles/CommandsPort.h"
#include "schedule/KeyedArchive.h"
#include "schedule/TimerManager.h"

namespace tw {
namespace {

Bytes int32Bytes(int32_t value, size_t size = 4) {
    Bytes out(std::max<size_t>(size, 4));
    putLE(out, 0, value);
    out.resize(size);
    return out;
}
Bytes textBytes(const std::string& text) { return Bytes(text.begin(), text.end()); }
Bytes timerArchive(const std::string& path) {
    return textBytes(archiveTimer(Timer(path, Timer::Clock::now() + std::chrono::hours(1), false, 0)));
}

// What the messages can change: every setting of the port (absent ones as "-") and the archived
// schedules ("timers").
using State = std::map<std::string, std::string>;

struct Message {
    const char* name;
    int32_t msgid;
    Payload data;
    State changes;  // what differs from the state before; empty: nothing changes
};

class CommandsPortTest : public test::EngineFixture, public ::testing::WithParamInterface<Message> {
protected:
    State state() const {
        State out;
        for (const auto& setting : kSettingMessages) {
            const auto value = defaults->objectForKey(setting.key);
            out[setting.key] = !value                                ? "-"
                               : std::holds_alternative<bool>(*value) ? (std::get<bool>(*value) ? "YES" : "NO")
                               : std::holds_alternative<int64_t>(*value)
                                   ? std::to_string(std::get<int64_t>(*value))
                                   : "?";
        }
        std::string timers;
        for (const auto& path : TimerManager::archivedScriptPaths()) timers += "[" + path + "]";
        out["timers"] = timers;
        return out;
    }
};

TEST_P(CommandsPortTest, MessageChangesWhatItCarriesAndNothingElse) {
    // Schedules for /a.lua and for an empty path (which an empty id-15 payload must not reach).
    ASSERT_TRUE(TimerManager::writeArchive({Timer("/a.lua", std::nullopt, false, 0), Timer("", std::nullopt, false, 0)}));
    State expected = state();
    for (const auto& [key, value] : GetParam().changes) expected[key] = value;

    EXPECT_EQ(commandsPortCallBack(GetParam().msgid, GetParam().data), std::nullopt);
    EXPECT_EQ(state(), expected);
}

void PrintTo(const Message& c, std::ostream* os) { *os << c.name; }

using namespace settings;

INSTANTIATE_TEST_SUITE_P(
    Ids, CommandsPortTest,
    ::testing::Values(
        Message{"VibrateWhenRecordingOn", 7, int32Bytes(1), {{kVibrateWhenRecordingStartStop, "YES"}}},
        Message{"VibrateWhenRecordingOff", 7, int32Bytes(0), {{kVibrateWhenRecordingStartStop, "NO"}}},
        Message{"AnyNonZeroIsOn", 7, int32Bytes(-256), {{kVibrateWhenRecordingStartStop, "YES"}}},
        Message{"TwoBytesAreDropped", 7, int32Bytes(1, 2), {}},
        Message{"FiveBytesAreDropped", 7, int32Bytes(1, 5), {}},
        Message{"NoDataIsDropped", 7, std::nullopt, {}},
        Message{"VibrateWhenPlaying", 8, int32Bytes(1), {{kVibrateWhenPlayingStartStop, "YES"}}},
        Message{"ShowRecordingFinishedAlert", 9, int32Bytes(1), {{kShowRecordingFinishedAlert, "YES"}}},
        Message{"ShowPlayingFinishedAlert", 10, int32Bytes(1), {{kShowPlayingFinishedAlert, "YES"}}},
        Message{"ShowErrorsByAlert", 11, int32Bytes(1), {{kShowErrorsByAlert, "YES"}}},
        Message{"LogErrors", 12, int32Bytes(1), {{kLogErrors, "YES"}}},
        Message{"LogErrorsShortIsDropped", 12, int32Bytes(1, 3), {}},
        Message{"LanguageIsStoredAsTheInteger", 13, int32Bytes(2), {{kLanguage, "2"}}},
        Message{"LanguageThreeBytesAreDropped", 13, int32Bytes(2, 3), {}},
        Message{"AddTimerReplacesAndAppends", 14, timerArchive("/a.lua"), {{"timers", "[][/a.lua]"}}},
        Message{"AddTimerOfANewScript", 14, timerArchive("/b.lua"), {{"timers", "[/a.lua][][/b.lua]"}}},
        Message{"AddTimerGarbageIsDropped", 14, textBytes("bplist00 not an archive"), {}},
        Message{"AddTimerListIsDropped", 14, textBytes(archiveTimers({})), {}},
        Message{"AddTimerEmptyIsDropped", 14, Bytes{}, {}},
        Message{"AddTimerNoDataIsDropped", 14, std::nullopt, {}},
        Message{"RemoveTimer", 15, textBytes(std::string("/a.lua", 7)), {{"timers", "[]"}}},
        Message{"RemoveTimerReadsToTheTerminator", 15, textBytes(std::string("/a.lua\0junk", 11)), {{"timers", "[]"}}},
        Message{"RemoveTimerWithoutTerminator", 15, textBytes("/a.lua"), {{"timers", "[]"}}},
        Message{"RemoveTimerEmptyIsIgnored", 15, Bytes{}, {}},
        Message{"RemoveTimerNotUtf8IsDropped", 15, textBytes("/a\xff.lua"), {}},
        Message{"InjectorIdIsIgnored", 6, int32Bytes(1), {}},
        Message{"UnusedIdIsIgnored", 16, int32Bytes(1), {}},
        Message{"IdAboveTheRangeIsIgnored", 26, int32Bytes(1), {}},
        Message{"NegativeIdIsIgnored", -7, int32Bytes(1), {}}),
    [](const auto& info) { return std::string(info.param.name); });

class RandomMessagesTest : public test::EngineFixture {};

TEST_F(RandomMessagesTest, RandomBytesUnderEveryIdNeverGetAReplyAndLeaveTheArchiveReadable) {
    std::mt19937 random(7);
    for (int i = 0; i < 600; ++i) {
        int32_t id = static_cast<int32_t>(random() % 30) - 2;
        if (id >= 17 && id <= 25) id += 9;  // the servers' ids answer; their own test covers them
        Bytes payload(random() % 3 == 0 ? 4 : random() % 200);
        for (auto& byte : payload) byte = static_cast<uint8_t>(random());
        ASSERT_EQ(commandsPortCallBack(id, payload), std::nullopt) << id;
    }
    EXPECT_TRUE(TimerManager::archivedScriptPaths().empty());
    EXPECT_TRUE(TimerManager::writeArchive({Timer("/a.lua", std::nullopt, false, 0)}));
}

class LanguageMessageTest : public test::EngineFixture {};

TEST_F(LanguageMessageTest, TheLanguageItSetsIsTheLanguageOfTheNextAlert) {
    const std::vector<std::pair<int32_t, std::string>> languages{
        {2, "録画が終了しました！"}, {3, "录制完成！"}, {4, "錄製完成！"}, {1, "Recording Finished!"}};
    for (const auto& [language, text] : languages) {
        commandsPortCallBack(kMsgLanguage, int32Bytes(language));
        PivotManager::sharedInstance().stopRecording();
        ASSERT_FALSE(ui->alerts().empty());
        EXPECT_EQ(ui->alerts().back().message, text) << language;
    }
}

}  // namespace
}  // namespace tw
