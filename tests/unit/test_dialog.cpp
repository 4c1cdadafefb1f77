// The dialog function: controls read from the script, answers returned by key, "Cancel" stopping
// the play, remembered answers on the script file, and the form's argument errors.
#include <gtest/gtest.h>

#include "EngineFixture.h"
#include "core/Global.h"
#include "store/PlaySettings.h"
#include "library/FileManager.h"
#include "play/ScriptManager.h"
#include "ui/ConsoleUserInterface.h"

namespace tw {
namespace {

class DialogTest : public test::EngineFixture {
protected:
    std::shared_ptr<PlaySettings> filePlay(const std::string& lua) {
        auto s = std::make_shared<PlaySettings>();
        s->filePath = addScript("form.lua", lua);
        return s;
    }
    static constexpr const char* kForm =
        "local a = dialog({"
        " {type = DIALOG_CONTROL.LABEL, text = 'Settings'},"
        " {type = DIALOG_CONTROL.INPUT, title = 'Name', key = 'name', value = 'bob'},"
        " {type = DIALOG_CONTROL.PICKER, title = 'Speed', key = 'speed', options = {'slow', 'fast'}},"
        " {type = DIALOG_CONTROL.SWITCH, title = 'Loop', key = 'loop', value = false},"
        "}, true)\n"
        "log(a.name .. ' ' .. a.speed .. ' ' .. tostring(a.loop))\n";
};

TEST_F(DialogTest, AnswersComeBackKeyedByControlAndTheFormShowsTheScriptsControls) {
    ui->queueDialogResponse({false, false, {{"name", std::string("ann")}, {"speed", std::string("fast")}, {"loop", true}}});
    ASSERT_TRUE(playToEnd(filePlay(kForm)));
    EXPECT_TRUE(errors.empty()) << errors[0];
    EXPECT_EQ(logMessages(), std::vector<std::string>{"ann fast true"});
    auto dialogs = ui->dialogs();
    ASSERT_EQ(dialogs.size(), 1u);
    const auto& c = dialogs[0].controls;
    ASSERT_EQ(c.size(), 4u);
    EXPECT_EQ(c[0].type, DialogControlType::Label);
    EXPECT_EQ(c[0].text, "Settings");
    EXPECT_EQ(c[1].value, "bob");
    EXPECT_EQ(c[2].value, "slow");  // a picker without a value starts at its first option
    EXPECT_EQ(c[2].options, (std::vector<std::string>{"slow", "fast"}));
    EXPECT_FALSE(c[3].on);
    EXPECT_TRUE(dialogs[0].remember);
    EXPECT_EQ(dialogs[0].scriptPath, "/form.lua");
}

TEST_F(DialogTest, CancelStopsThePlayWithoutAnError) {
    ui->queueDialogResponse({true, false, {}});
    ASSERT_TRUE(playToEnd(filePlay(std::string(kForm) + "log('after')")));
    EXPECT_TRUE(errors.empty());
    EXPECT_TRUE(logMessages().empty());  // nothing after the dialog ran
}

TEST_F(DialogTest, RememberedAnswersAreShownNextTimeUntilCleared) {
    ui->queueDialogResponse({false, true, {{"name", std::string("ann")}, {"speed", std::string("fast")}, {"loop", true}}});
    ui->queueDialogResponse({false, false, {{"name", std::string("x")}, {"speed", std::string("slow")}, {"loop", false}}});
    ui->queueDialogResponse({false, false, {{"name", std::string("x")}, {"speed", std::string("slow")}, {"loop", false}}});
    auto settings = filePlay(kForm);
    ASSERT_TRUE(playToEnd(settings));
    const std::string full = FileManager::fullPathOfFile("/form.lua");
    EXPECT_EQ(FileManager::getExtendedAttributeForFile(full, "DIALOG.name"), "ann");
    EXPECT_EQ(FileManager::getExtendedAttributeForFile(full, "DIALOG.loop"), "1");

    auto again = std::make_shared<PlaySettings>();
    again->filePath = "/form.lua";
    ASSERT_TRUE(playToEnd(again));
    auto second = ui->dialogs()[1].controls;
    EXPECT_EQ(second[1].value, "ann");
    EXPECT_EQ(second[2].value, "fast");
    EXPECT_TRUE(second[3].on);
    // Not remembered this time: the earlier answers stay.
    EXPECT_EQ(FileManager::getExtendedAttributeForFile(full, "DIALOG.name"), "ann");

    FileManager::setExtendedAttributeForFile(full, "other", "kept");
    auto clear = std::make_shared<PlaySettings>();
    clear->playType = 1;
    clear->scriptContent = "clearDialogValues('/form.lua')";
    ASSERT_TRUE(playToEnd(clear));
    EXPECT_FALSE(FileManager::getExtendedAttributeForFile(full, "DIALOG.name"));
    EXPECT_EQ(FileManager::getExtendedAttributeForFile(full, "other"), "kept");
    ASSERT_TRUE(playToEnd(again));
    EXPECT_EQ(ui->dialogs()[2].controls[1].value, "bob");
}

TEST_F(DialogTest, MalformedFormsRaiseTheDialogErrors) {
    const std::pair<const char*, const char*> cases[] = {
        {"dialog({ 'not a table' })", "Invalid argument for dialog."},
        {"dialog({ {type = 9, text = 'x'} })", "Invalid argument for dialog."},
        {"dialog({ {type = 1} })", "Invalid argument for dialog."},
        {"dialog({ {type = 2, title = 'T'} })", "Invalid argument for dialog."},
        {"dialog({ {type = 3, title = 'T', key = 'k', options = {}} })", "Invalid argument for dialog."},
        {"dialog({ {type = 3, title = 'T', key = 'k', options = {'a'}, value = 'b'} })", "Invalid argument for dialog."},
        {"dialog({ {type = 2, title = 'T', key = 'k'}, {type = 2, title = 'U', key = 'k'} })", "Invalid argument for dialog."},
        {"dialog({ {type = 4, title = 'T', key = 'k', value = 'yes'} })", "Invalid argument for options of switch control."},
        {"dialog('form')", "bad argument #1 to 'dialog' (table expected, got string)"},
    };
    for (const auto& [lua, message] : cases) {
        errors.clear();
        auto s = std::make_shared<PlaySettings>();
        s->playType = 1;
        s->scriptContent = lua;
        ASSERT_TRUE(playToEnd(s));
        ASSERT_EQ(errors.size(), 1u) << lua;
        EXPECT_NE(errors[0].find(message), std::string::npos) << lua << " gave " << errors[0];
    }
    EXPECT_TRUE(ui->dialogs().empty());
}

TEST(DialogAnswersFile, ObjectsAnswerByKeyWithDefaultsAndChecks) {
    DialogRequest request;
    request.controls = {{DialogControlType::Input, "", "Name", "name", "bob", {}, false},
                        {DialogControlType::Picker, "", "Speed", "speed", "slow", {"slow", "fast"}, false},
                        {DialogControlType::Switch, "", "Loop", "loop", "", {}, true}};
    auto r = dialogResponseFromJson(request, R"({"speed": "fast"})");
    EXPECT_FALSE(r.cancelled);
    EXPECT_EQ(std::get<std::string>(r.answers["name"]), "bob");
    EXPECT_EQ(std::get<std::string>(r.answers["speed"]), "fast");
    EXPECT_TRUE(std::get<bool>(r.answers["loop"]));
    EXPECT_TRUE(dialogResponseFromJson(request, R"({"cancel": true})").cancelled);
    EXPECT_TRUE(dialogResponseFromJson(request, R"({"remember": true})").remember);
    EXPECT_THROW(dialogResponseFromJson(request, R"({"speed": "warp"})"), std::runtime_error);
    EXPECT_THROW(dialogResponseFromJson(request, R"({"loop": "yes"})"), std::runtime_error);
    EXPECT_THROW(dialogResponseFromJson(request, R"([1])"), std::runtime_error);
}

}  // namespace
}  // namespace tw
