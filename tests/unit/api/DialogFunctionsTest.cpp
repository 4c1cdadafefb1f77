// The dialog function: the script's controls on the form, answers by key, "Cancel" ending the play,
// answers remembered on the script file, and malformed forms.
#include <gmock/gmock.h>

#include "EngineFixture.h"
#include "library/FileManager.h"
#include "ui/ConsoleUserInterface.h"

namespace tw {
namespace {

constexpr const char* kForm =
    "local a = dialog({ {type = DIALOG_CONTROL.LABEL, text = 'Settings'},"
    " {type = DIALOG_CONTROL.INPUT, title = 'Name', key = 'name', value = 'bob'},"
    " {type = DIALOG_CONTROL.PICKER, title = 'Speed', key = 'speed', options = {'slow', 'fast'}},"
    " {type = DIALOG_CONTROL.SWITCH, title = 'Loop', key = 'loop', value = false} }, true)\n"
    "log(a.name .. ' ' .. a.speed .. ' ' .. tostring(a.loop))\n";

using DialogFunctionsTest = test::ScriptFunctionFixture;

TEST_F(DialogFunctionsTest, AnswersComeBackByKeyRememberedOnesAreShownUntilClearedAndCancelEndsThePlay) {
    auto play = std::make_shared<PlaySettings>();
    play->filePath = addScript("form.lua", kForm);
    ui->queueDialogResponse({false, true, {{"name", std::string("ann")}, {"speed", std::string("fast")}, {"loop", true}}});
    ASSERT_TRUE(playToEnd(play));
    ui->queueDialogResponse({false, false, {{"name", std::string("x")}, {"speed", std::string("slow")}, {"loop", false}}});
    ASSERT_TRUE(playToEnd(play));
    ASSERT_EQ(run("clearDialogValues('/form.lua')"), "");
    play->repeatTime = 3;
    ASSERT_TRUE(playToEnd(play));  // cancelled: no answers are left, no error, no further run
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(logMessages(), (std::vector<std::string>{"ann fast true", "x slow false"}));
    const auto dialogs = ui->dialogs();
    ASSERT_EQ(dialogs.size(), 3u);
    EXPECT_TRUE(dialogs[0].remember);
    EXPECT_EQ(dialogs[0].scriptPath, "/form.lua");
    const auto shown = [&](size_t i) {
        std::string text;
        for (const auto& c : dialogs[i].controls) {
            text += c.text + c.title + "=" + (c.type == DialogControlType::Switch ? (c.on ? "on" : "off") : c.value);
            for (const auto& option : c.options) text += "|" + option;
            text += "; ";
        }
        return text;
    };
    EXPECT_EQ(shown(0), "Settings=; Name=bob; Speed=slow|slow|fast; Loop=off; ");  // a picker starts at its first option
    EXPECT_EQ(shown(1), "Settings=; Name=ann; Speed=fast|slow|fast; Loop=on; ");
    EXPECT_EQ(shown(2), shown(0));
}

TEST_F(DialogFunctionsTest, TheNewerFormsButtonsGiveTheirFlagAndFillTheControlTablesOnlyWhenTheyCollect) {
    auto play = std::make_shared<PlaySettings>();
    play->filePath = addScript("buttons.lua",
        "local input = {type = CONTROLLER_TYPE.INPUT, title = 'Name', key = 'name', value = 'bob'}\n"
        "local switch = {type = CONTROLLER_TYPE.SWITCH, title = 'Loop', key = 'loop', value = 0}\n"
        "for i = 1, 2 do\n"
        "  local flag = dialog({input, switch, {type = CONTROLLER_TYPE.REMEMBER, on = true},\n"
        "    {type = CONTROLLER_TYPE.BUTTON, title = 'Go', color = 0xFF0000, width = 0.5, flag = 7, collectInputs = true},\n"
        "    {type = CONTROLLER_TYPE.BUTTON, title = 'Skip', flag = 9}}, {ORIENTATION_TYPE.LANDSCAPE_LEFT})\n"
        "  log(flag .. ' ' .. input.value .. ' ' .. tostring(switch.value))\n"
        "end\n");
    ui->queueDialogResponse({false, false, {{"name", std::string("ann")}, {"loop", true}}, 0});
    ui->queueDialogResponse({false, false, {{"name", std::string("zed")}, {"loop", false}}, 1});
    ASSERT_TRUE(playToEnd(play));
    EXPECT_TRUE(errors.empty());
    // A switch given as 0/1 answers as 0/1; "Skip" leaves the tables as they were.
    EXPECT_EQ(logMessages(), (std::vector<std::string>{"7 ann 1", "9 ann 1"}));
    const auto dialogs = ui->dialogs();
    ASSERT_EQ(dialogs.size(), 2u);
    ASSERT_EQ(dialogs[0].buttons.size(), 2u);
    const auto& go = dialogs[0].buttons[0];
    EXPECT_EQ(std::tuple(go.title, go.color, go.width, go.flag, go.collectInputs), std::tuple("Go", 0xFF0000u, 0.5, 7, true));
    EXPECT_TRUE(dialogs[0].remember);
    EXPECT_EQ(dialogs[0].orientations, std::vector<int>{3});
    EXPECT_EQ(dialogs[0].controls.size(), 2u);  // the remember switch and the buttons are not controls
}

TEST_F(DialogFunctionsTest, MalformedFormsRaiseTheDialogErrors) {
    const char* invalid = "Invalid argument for dialog.";
    const std::pair<const char*, const char*> cases[] = {
        {"dialog({ 'not a table' })", invalid},
        {"dialog({ {type = 9, text = 'x'} })", invalid},
        {"dialog({ {type = 1} })", invalid},
        {"dialog({ {type = 2, title = 'T'} })", invalid},
        {"dialog({ {type = 2, title = 'T', key = ''} })", invalid},
        {"dialog({ {type = 2, title = {}, key = 'k'} })", invalid},
        {"dialog({ {type = 3, title = 'T', key = 'k', options = {}} })", invalid},
        {"dialog({ {type = 3, title = 'T', key = 'k', options = {'a', {}}} })", invalid},
        {"dialog({ {type = 3, title = 'T', key = 'k', options = {'a'}, value = 'b'} })", invalid},
        {"dialog({ {type = 2, title = 'T', key = 'k'}, {type = 4, title = 'U', key = 'k'} })", invalid},
        {"dialog({ {type = 4, title = 'T', key = 'k', value = 'yes'} })", "Invalid argument for options of switch control."},
    };
    for (const auto& [lua, message] : cases) EXPECT_THAT(run(lua), testing::EndsWith(std::string("]:1: ") + message)) << lua;
    EXPECT_TRUE(ui->dialogs().empty());
}

TEST(ConsoleDialogAnswers, AnswerByKeyWithTheControlsValuesAsDefaultsAndAreChecked) {
    DialogRequest request;
    request.controls = {{DialogControlType::Input, "", "Name", "name", "bob", {}, false},
                        {DialogControlType::Picker, "", "Speed", "speed", "slow", {"slow", "fast"}, false},
                        {DialogControlType::Switch, "", "Loop", "loop", "", {}, true}};
    const std::map<std::string, DialogAnswer> answers = {{"name", std::string("bob")}, {"speed", std::string("fast")}, {"loop", true}};
    EXPECT_EQ(dialogResponseFromJson(request, R"({"speed": "fast"})").answers, answers);
    EXPECT_TRUE(dialogResponseFromJson(request, R"({"cancel": true})").cancelled);
    EXPECT_TRUE(dialogResponseFromJson(request, R"({"remember": true})").remember);
    for (const char* bad : {R"({"speed": "warp"})", R"({"loop": "yes"})", "[1]"})
        EXPECT_THROW(dialogResponseFromJson(request, bad), std::runtime_error) << bad;
}

}  // namespace
}  // namespace tw
