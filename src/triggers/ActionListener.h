#pragma once
// The listener registered with the trigger framework: turns trigger events into the play
// controller's calls, by the play state (playing, recording, ready to play) and the action the
// event is bound to. Home-screen process, main run loop only.
#include <memory>

#include "platform/ActivatorFramework.h"
#include "platform/RunLoop.h"

namespace tw {

class ActionListener : public ActivatorListener {
public:
    static std::shared_ptr<ActionListener> sharedInstance();

    // The home-screen role's start-up: registers the listener, prepares the library folders and
    // the database, and inspects the bindings 30 seconds later.
    static void load();
    void initControlActions();

    // The dispatch; true when the event was handled.
    bool receiveEvent(const std::string& eventName, const std::string& mode) override;

    std::shared_ptr<RunLoop::Timer> controlActionsLimitTimer;
};

inline constexpr double kControlActionsDelaySeconds = 30.0;

}  // namespace tw
