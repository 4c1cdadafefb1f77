#pragma once
// The play loop: runs the current play settings' script as many times as they say, on a worker
// thread, and ends the play on the main run loop.
#include <functional>
#include <string>

namespace tw {

class ScriptManager {
public:
    // Main thread: begins a play of Global's current play settings and returns at once.
    static void runScript();
    // Any thread: ends the play under way (the running script stops with "interrupted").
    static void stopPlaying();
    // Worker thread: one run of the current script.
    static void doRunNow();
    // Keeps the screen from locking during a play, on systems that need it.
    static void preventAutoLock(bool prevent);

    // Observers for front ends: a reported script error (on the worker), and the end of a play
    // (on the main run loop, after the end-of-play steps).
    static void setErrorHandler(std::function<void(const std::string&)> handler);
    static void setPlayEndedHandler(std::function<void()> handler);
    static void notifyError(const std::string& message);

    // Blocks until every play worker has returned (tests and process shutdown).
    static void waitForWorkers();
};

// Sleeps on the play's worker through the installed sleeper (real time when none is installed).
void sleepMicroseconds(uint64_t microseconds);

}  // namespace tw
