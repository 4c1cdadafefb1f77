// The play controller: how a chosen script gets played (sheet, direct play, encrypted scripts and
// their passwords), the play settings sheet with play now and play later, the play-later tip,
// leaving ready-to-play, and the pop-ups it tracks.
#include "EngineFixture.h"
#include "core/Global.h"
#include "library/Encrypt.h"
#include "library/FileManager.h"
#include "play/PivotManager.h"
#include "store/DataManager.h"

namespace tw {
namespace {

enum class Then { Sheet, Plays, Prompt, Nothing };

struct ForwardCase {
    const char* name;
    const char* path;
    bool direct;
    const char* storedPassword;  // nullptr: none
    Then then;
    const char* passwordAfter;   // nullptr: none
};
void PrintTo(const ForwardCase& c, std::ostream* os) { *os << c.name; }

class PivotManagerTest : public test::EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        ASSERT_TRUE(DataManager::initDb());
        addScript("a.lua", "log('played a')");
        addScript("A.LUA", "log('played A')");
        addScript("a.txt", "log('played txt')");
        addScript("s.lua", "log('played s')");
        ASSERT_EQ(Encrypt::encryptScript(FileManager::fullPathOfFile("/s.lua"), "pw"), CryptError::none);
    }
    PivotManager& pivot = PivotManager::sharedInstance();
    bool played(const std::string& what) {
        // (a decryption logs a line of its own first)
        return runUntil([&] { return playsEnded > 0; }) && !logMessages().empty() && logMessages().back() == "played " + what;
    }
    std::optional<std::string> storedPassword(const std::string& path) { return defaults->stringForKey(Encrypt::passwordKeyOf(path)); }
};

class ForwardToPlay : public PivotManagerTest, public ::testing::WithParamInterface<ForwardCase> {};

TEST_P(ForwardToPlay, ShowsTheSheetPlaysAsksForThePasswordOrDoesNothing) {
    const ForwardCase& c = GetParam();
    if (c.storedPassword) defaults->setString(Encrypt::passwordKeyOf(c.path), c.storedPassword);
    c.direct ? pivot.directToPlay(c.path) : pivot.forwardToPlay(c.path);
    auto settings = Global::sharedInstance().currentPlaySettings();
    ASSERT_TRUE(settings);
    EXPECT_EQ(settings->filePath, c.path);
    EXPECT_EQ(ui->takePlaySettingsView().has_value(), c.then == Then::Sheet);
    EXPECT_EQ(pivot.isDecryptScriptAlertViewShowing, c.then == Then::Prompt);
    EXPECT_EQ(ui->takeTextPrompt().has_value(), c.then == Then::Prompt);
    if (c.then == Then::Plays) EXPECT_TRUE(played(std::string(c.path).substr(1, 1)));
    if (c.then == Then::Sheet && std::string(c.path).ends_with(".e")) EXPECT_EQ(settings->scriptContent, "log('played s')");
    EXPECT_EQ(storedPassword(c.path), c.passwordAfter ? std::optional<std::string>(c.passwordAfter) : std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(
    Scripts, ForwardToPlay,
    ::testing::Values(ForwardCase{"LuaWithoutSettingsShowsTheSheet", "/a.lua", false, nullptr, Then::Sheet, nullptr},
                      ForwardCase{"CapitalLuaPlaysDirectlyWhenAskedTo", "/A.LUA", true, nullptr, Then::Plays, nullptr},
                      ForwardCase{"OtherExtensionDoesNothing", "/a.txt", false, nullptr, Then::Nothing, nullptr},
                      ForwardCase{"RememberedPasswordDecrypts", "/s.lua.e", false, "pw", Then::Sheet, "pw"},
                      ForwardCase{"RememberedPasswordPlaysDirectly", "/s.lua.e", true, "pw", Then::Plays, "pw"},
                      ForwardCase{"WrongRememberedPasswordIsForgotten", "/s.lua.e", false, "old", Then::Prompt, nullptr},
                      ForwardCase{"NoPasswordAsksForIt", "/s.lua.e", false, nullptr, Then::Prompt, nullptr}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(PivotManagerTest, ATypedPasswordIsTrimmedCheckedAndRememberedOnlyWhenRight) {
    pivot.forwardToPlay("/s.lua.e");
    auto prompt = ui->takeTextPrompt();
    ASSERT_TRUE(prompt);
    EXPECT_EQ(prompt->first.message, "Dencrypt Password");
    prompt->second.clickedButtonAtIndex(1, "wrong");
    prompt->second.didDismiss();
    EXPECT_FALSE(pivot.isAnyPopupViewShowing());
    ASSERT_EQ(ui->alerts().size(), 1u);
    EXPECT_EQ(ui->alerts()[0].message, "Wrong password!");
    EXPECT_FALSE(storedPassword("/s.lua.e"));

    pivot.forwardToPlay("/s.lua.e");
    prompt = ui->takeTextPrompt();
    ASSERT_TRUE(prompt);
    prompt->second.clickedButtonAtIndex(1, " \tpw\n");
    EXPECT_EQ(storedPassword("/s.lua.e"), "pw");
    EXPECT_TRUE(ui->takePlaySettingsView());  // then the sheet, as the script's settings say
    EXPECT_EQ(Global::sharedInstance().currentPlaySettings()->scriptContent, "log('played s')");
}

TEST_F(PivotManagerTest, PlayLaterArmsTheScriptWithATipUntilDontShowAgainAndQuittingStopsItsPlay) {
    addScript("busy.lua", "log('busy') while true do end");
    for (int time = 0; time < 2; ++time) {
        pivot.forwardToPlay("/busy.lua");
        auto sheet = ui->takePlaySettingsView();
        ASSERT_TRUE(sheet);
        EXPECT_TRUE(pivot.isAnyPopupViewShowing());
        PlaySettingsSheet chosen = sheet->first;
        chosen.playNowOrLater = 1, chosen.repeatTime = 0;
        sheet->second.didConfirmToPlay(chosen);
        sheet->second.didDismiss();
        EXPECT_TRUE(Global::sharedInstance().isReadyToPlay());
        auto tip = ui->takeAlert();
        ASSERT_TRUE(tip) << time;
        EXPECT_TRUE(pivot.isAnyPopupViewShowing());
        tip->clickedButtonAtIndex(time);  // OK the first time, "Don't show again" the second
        tip->didDismissWithButtonIndex(time);
        EXPECT_FALSE(pivot.isAnyPopupViewShowing());
    }
    EXPECT_EQ(DataManager::findPlaySettingsByScriptTitle("/busy.lua")->repeatTime, 0);  // the sheet saved it
    pivot.forwardToPlay("/busy.lua");
    auto sheet = ui->takePlaySettingsView();
    ASSERT_TRUE(sheet);
    EXPECT_EQ(sheet->first.repeatTime, 0);  // the sheet shows the stored settings
    PlaySettingsSheet later = sheet->first;
    later.playNowOrLater = 1;
    sheet->second.didConfirmToPlay(later);
    sheet->second.didDismiss();
    EXPECT_FALSE(ui->takeAlert());  // no tip any more

    pivot.playScriptNow();
    ASSERT_TRUE(runUntil([&] { return !logMessages().empty(); }));  // the script is under way
    ui->clear(), sounds->clear();
    pivot.quitReadyToPlayStatus();
    ASSERT_TRUE(runUntil([&] { return playsEnded > 0; }));
    auto& global = Global::sharedInstance();
    EXPECT_FALSE(global.isReadyToPlay() || global.isPlaying() || global.currentPlaySettings());
    ASSERT_FALSE(ui->alerts().empty());
    EXPECT_EQ(ui->alerts()[0].message, "Quited Ready-to-Play Status!");
    EXPECT_EQ(ui->alerts()[0].buttons, std::vector<std::string>{"OK"});
}

TEST_F(PivotManagerTest, TheControlPanelListsTheScriptsWithTheirMarksAndPlaysTheOneChosen) {
    PlaySettings stored;
    stored.filePath = "/a.lua", stored.playDirectly = true;
    ASSERT_TRUE(DataManager::insertPlaySettings(stored));
    pivot.showControlPanel();
    EXPECT_TRUE(pivot.isAnyPopupViewShowing());
    auto panel = ui->takeControlPanel();
    ASSERT_TRUE(panel);
    std::vector<std::string> listed;
    for (const auto& script : panel->first) listed.push_back(script.path + (script.hasPlaySettings ? "*" : ""));
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ(listed, (std::vector<std::string>{"/A.LUA", "/a.lua*", "/s.lua", "/s.lua.e"}));
    panel->second.didSelectScript("/a.lua");
    panel->second.didDismiss();
    EXPECT_FALSE(pivot.isAnyPopupViewShowing());
    EXPECT_TRUE(played("a"));
}

}  // namespace
}  // namespace tw
