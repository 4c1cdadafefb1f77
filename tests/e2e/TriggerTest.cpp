// A person at a running device: a script chosen on the panel to play later is started by the
// volume-down button, played to its end, started again, and the armed state is left by holding
// the button; a script's own key presses fire no trigger.
#include <gtest/gtest.h>

#include "Cli.h"
#include "roles/ControlSocket.h"

namespace tw {
namespace {

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

TEST(Trigger, AScriptArmedOnThePanelIsStartedByVolumeDownAndDisarmedByItsHold) {
    test::Cli cli;
    ASSERT_TRUE(cli.startDevice()) << cli.device().err();
    const std::string root = std::filesystem::canonical(cli.root()).string();
    test::writeFile(cli.root() / "var/mobile/Library/Tapwright/Scripts/x.lua", "keyDown(KEY_TYPE.VOLUME_DOWN) keyUp(KEY_TYPE.VOLUME_DOWN) usleep(300000) alert('played x')");
    ASSERT_EQ(cli.run({"triggers"}).out, "LAEventNameVolumeDownHoldShort\tpanel\t\nLAEventNameVolumeDownPress\tplaystop\t\n");

    const auto panel = cli.run({"panel"}, "1\n1\n\n\nlater\n");
    ASSERT_EQ(panel.exitCode, 0) << panel.err;
    EXPECT_TRUE(panel.out.ends_with("ready to play: its start/stop trigger starts and stops it\n")) << panel.out;
    ASSERT_TRUE(test::eventually([&] { return cli.device().err().find("[alert] Tip:") != std::string::npos; }));

    // A play vibrates as it starts and as it ends.
    auto vibrations = [&] { return cli.traceLines("sound").size(); };
    for (size_t play = 1; play <= 2; ++play) {
        ASSERT_EQ(cli.run({"hardware", "button", "volume-down"}).exitCode, 0);
        ASSERT_TRUE(test::eventually([&] { return vibrations() == 2 * play; }, 10000)) << cli.device().err();
        // The end's vibration comes just before the play is over.
        ASSERT_TRUE(test::eventually([&] { return !roles::sendControlRequest(root, {{"action", "panel"}}).value("playing", true); }));
        // Its own press of volume down did not stop it.
        EXPECT_EQ(count(cli.device().err(), "[alert] played x"), play);
    }
    ASSERT_EQ(cli.run({"hardware", "button", "volume-down", "--ms", "450"}).exitCode, 0);
    ASSERT_TRUE(test::eventually([&] { return cli.device().err().find("Quited Ready-to-Play Status!") != std::string::npos; }))
        << cli.device().err();
    EXPECT_EQ(count(cli.device().err(), "[alert] played x"), 2u);
    EXPECT_EQ(cli.run({"trigger", "LAEventNameVolumeDownPress"}).out, "unhandled\n");  // no longer armed
}

}  // namespace
}  // namespace tw
