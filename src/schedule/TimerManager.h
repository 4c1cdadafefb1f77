#pragma once
// The schedules of the home-screen process: the archive of every Timer
// ("/var/mobile/Library/Tapwright/Library/timers"), one armed run-loop timer per schedule added in
// this process, and what a firing does: prepare the script's play settings and start it.
//
// Main run loop only: the commands port, the armed timers and their firing all run there.
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/RunLoop.h"
#include "schedule/Timer.h"

namespace tw {

class TimerManager {
public:
    // An armed timer's user data: {"scriptFilePath": path}, its only link to its schedule.
    using UserInfo = std::map<std::string, std::string>;
    struct ArmedTimer {
        std::shared_ptr<RunLoop::Timer> timer;
        UserInfo userInfo;
    };
    // What an armed timer does when it fires.
    enum class Action {
        forwardToPlay,  // schedules added in this process
        test,           // schedules restored by launch(): nothing handles it, so they never play
    };

    static TimerManager& sharedInstance();
    TimerManager() = default;
    // Disarms every timer it armed.
    ~TimerManager();
    TimerManager(const TimerManager&) = delete;
    TimerManager& operator=(const TimerManager&) = delete;

    // Replaces the schedule of the timer's script (the new one goes to the end of the archive) and
    // arms a timer for it. False, arming nothing, when the archive cannot be written. An armed timer
    // of an earlier schedule of the same script is left armed.
    bool add(const Timer& timer);
    // Disarms this process's timers of `path` and drops its schedules from the archive; the
    // success of the archive write.
    bool remove(const std::string& path);
    // Arms a timer for every archived schedule, with the `test` action.
    void launch();

    // The firing action of timers armed by add().
    void forwardToPlay(const UserInfo& userInfo);
    // Makes the stored play settings of `path` (their defaults when none) the current ones.
    void initCurrentPlaySettingsFor(const std::string& path);
    // Logs and starts the current play settings' script.
    void playScriptNow();

    const std::vector<ArmedTimer>& nstimers() const { return nstimers_; }

    // The archived schedules in order; empty when the archive is missing, unreadable or garbage.
    static std::vector<Timer> readArchive();
    // Replaces the archive with `timers`; false when it cannot be written.
    static bool writeArchive(const std::vector<Timer>& timers);
    // The script path of every archived schedule, in order (the library listings' timer marks).
    static std::vector<std::string> archivedScriptPaths();

private:
    void arm(const Timer& timer, Action action);

    std::vector<ArmedTimer> nstimers_;
};

}  // namespace tw
