// Trigger bindings: what each bound event does in every play state, events ignored while a pop-up
// shows, and the pass that keeps the framework's assignments, the rows and the library in step.
#include "EngineFixture.h"
#include "core/Global.h"
#include "device/DeviceActivator.h"
#include "play/PivotManager.h"
#include "store/DataManager.h"
#include "triggers/ActionListener.h"
#include "triggers/ActivatorManager.h"

namespace tw {
namespace {

class TriggersTest : public test::EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        activator = std::make_shared<device::DeviceActivator>(root->str(), [] { return std::string(); });
        Platform::current().activator = activator;
        ASSERT_TRUE(DataManager::initDb());
        addScript("a.lua", "");
        activator->registerListener(ActionListener::sharedInstance(), kActivatorListenerName);
    }
    void bind(const char* event, int64_t forWhat, std::optional<std::string> path = std::nullopt) {
        ActivatorManager::assignActivatorTrigger(ActivatorTrigger(event, forWhat, path), ActivatorManager::compatibleModesOfEvent(event));
    }
    std::vector<std::string> rows() {
        std::vector<std::string> out;
        for (const auto& t : DataManager::getActivatorTriggersAll().value_or(std::vector<ActivatorTrigger>{}))
            out.push_back(t.eventName + " " + std::to_string(t.forWhat) + (t.forWhat == 3 ? " " + t.filePath.value_or("") : ""));
        return out;
    }
    std::shared_ptr<device::DeviceActivator> activator;
};

// What the event did, read from what changed.
std::string effectOf(bool handled, bool P, bool R, bool Y, test::ScriptedUserInterface& ui, const std::function<bool()>& played) {
    auto& global = Global::sharedInstance();
    if (!handled) return "ignored";
    if (ui.takeControlPanel()) return "panel";
    if (ui.takePlaySettingsView()) return "forward";
    if (R && !global.isRecording()) return "stopRecording";
    if (Y && !global.isReadyToPlay()) return "quit";
    if (P && !global.isPlaying()) return "stopPlaying";
    if (played()) return "play";
    return "handled, but nothing happened";
}

TEST_F(TriggersTest, EachBoundEventDoesWhatThePlayStateCallsFor) {
    bind("LAEventNameVolumeDownHoldShort", kForWhatControlPanel);
    bind("LAEventNameVolumeDownPress", kForWhatStartStopPlaying);
    bind("LAEventNameLockPress", kForWhatPlayScript, "/a.lua");
    // By state, playing / recording / ready to play as bits P R Y: 000, 001, 010, ..., 111.
    const std::map<std::string, std::vector<std::string>> table{
        {"LAEventNameVolumeDownHoldShort",
         {"panel", "quit", "stopRecording", "ignored", "stopPlaying", "quit", "ignored", "ignored"}},
        {"LAEventNameVolumeDownPress", {"ignored", "play", "ignored", "ignored", "ignored", "stopPlaying", "ignored", "ignored"}},
        {"LAEventNameLockPress", {"forward", "quit", "ignored", "ignored", "stopPlaying", "quit", "ignored", "ignored"}},
        {"LAEventNameVolumeUpPress", std::vector<std::string>(8, "ignored")},  // not bound
    };
    auto& global = Global::sharedInstance();
    for (const auto& [event, effects] : table) {
        for (int state = 0; state < 8; ++state) {
            const bool P = state & 4, R = state & 2, Y = state & 1;
            auto armed = textPlay("");
            armed->filePath = "/a.lua";
            global.setCurrentPlaySettings(armed);
            global.setIsPlaying(P), global.setIsRecording(R), global.setIsReadyToPlay(Y);
            const int endedBefore = playsEnded;
            const bool handled = activator->sendEvent(event);
            const std::string effect =
                effectOf(handled, P, R, Y, *ui, [&] { return runUntil([&] { return playsEnded > endedBefore; }); });
            EXPECT_EQ(effect, effects[state]) << event << " in state " << P << R << Y;
            PivotManager::sharedInstance().reset();
            global.init();
        }
    }
}

TEST_F(TriggersTest, EventsAreIgnoredWhileAPopupShowsAndAScriptEventWhileAnotherScriptIsInHand) {
    bind("LAEventNameVolumeDownHoldShort", kForWhatControlPanel);
    bind("LAEventNameLockPress", kForWhatPlayScript, "/a.lua");
    EXPECT_TRUE(activator->sendEvent("LAEventNameVolumeDownHoldShort"));
    EXPECT_TRUE(PivotManager::sharedInstance().isAnyPopupViewShowing());
    EXPECT_FALSE(activator->sendEvent("LAEventNameVolumeDownHoldShort"));  // the panel is up
    ui->takeControlPanel()->second.didDismiss();
    auto other = textPlay("");
    other->filePath = "/b.lua";
    Global::sharedInstance().setCurrentPlaySettings(other);
    EXPECT_FALSE(activator->sendEvent("LAEventNameLockPress"));
}

TEST_F(TriggersTest, TheConsistencyPassDropsWhatIsGoneOnEitherSideAndRestoresTheDefaults) {
    bind("LAEventNameVolumeUpPress", kForWhatPlayScript, "/gone.lua");    // its script is not there
    bind("LAEventNameLockPress", kForWhatPlayScript, "/a.lua");           // kept
    DataManager::addActivatorTrigger(ActivatorTrigger("LAEventNameVolumeUpHoldLong", 2, std::nullopt));  // not assigned
    activator->assignEvent("LAEventNameMenuPressDouble", kActivatorModeSpringBoard, kActivatorListenerName);  // no row
    activator->assignEvent("LAEventNameVolumeUpHoldShort", kActivatorModeSpringBoard, "someone.else");

    const auto all = ActivatorManager::getActivatorTriggersAll();
    EXPECT_EQ(rows(), (std::vector<std::string>{"LAEventNameLockPress 3 /a.lua", "LAEventNameVolumeDownHoldShort 1",
                                                "LAEventNameVolumeDownPress 2"}));
    EXPECT_EQ(all.size(), 3u);
    auto assigned = [&] {
        auto events = activator->eventsAssignedToListenerWithName(kActivatorListenerName);
        std::sort(events.begin(), events.end());
        return events;
    };
    // The deleted script's event still had its row when the pass collected them; the next pass
    // finds its assignment without a row and removes it.
    EXPECT_EQ(assigned(), (std::vector<std::string>{"LAEventNameLockPress", "LAEventNameVolumeDownHoldShort",
                                                    "LAEventNameVolumeDownPress", "LAEventNameVolumeUpPress"}));
    ActivatorManager::inspectActivators();
    EXPECT_EQ(assigned(), (std::vector<std::string>{"LAEventNameLockPress", "LAEventNameVolumeDownHoldShort",
                                                    "LAEventNameVolumeDownPress"}));
    EXPECT_EQ(ActivatorManager::compatibleModesOfEventAssigned("LAEventNameVolumeDownPress").size(), 3u);  // every mode
    EXPECT_EQ(activator->assignedListenerNameForEvent("LAEventNameVolumeUpHoldShort", kActivatorModeSpringBoard), "someone.else");
    EXPECT_TRUE(ActivatorManager::isEventAssigned("LAEventNameLockPress", 3, "/a.lua"));
    EXPECT_FALSE(ActivatorManager::isEventAssigned("LAEventNameLockPress", 3, "/b.lua"));
}

}  // namespace
}  // namespace tw
