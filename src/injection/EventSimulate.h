#pragma once
// The event request client: packs touch, key, text, sync and option requests into their records
// and sends them to the injector's port in the input-event process. Touches only update the
// injector's finger table; a sync turns the table into one hand event.
#include <chrono>
#include <cstdint>
#include <string>

namespace tw {

class EventSimulate {
public:
    // Each returns -1 when the injector's port could not be reached, else the reply word (0: the
    // injector sends no reply data). Requests are synchronous, with 1.0 s send and reply timeouts.
    static int touchDown(int finger, double x, double y);
    static int touchMove(int finger, double x, double y);
    static int touchUp(int finger, double x, double y);
    static int syncEvent();
    static int keyDown(int usage, int usagePage);
    static int keyUp(int usage, int usagePage);
    // Sends the bytes before the first NUL; an empty text sends an empty payload.
    static void input(const char* utf8);
    // One-way option requests: -1 when the port could not be reached, 0 after sending.
    static int setScaleScreen(int flag);
    static int setAdaptOrientation(int orientation);

    // Drops the cached port handle (tests, and a device root change).
    static void resetPort();
    // How many requests this process could not hand to the injector (its port unreachable, or the
    // send or the reply timed out) since it started. The play reports them; scripts never hear.
    static uint64_t lostRequests();
};

int call_simulate_touch_event(int finger, int type, double x, double y);
int call_simulate_keyboard_event(int usage, int usagePage, int down);

// True when a valid port to the injector is at hand after it runs: keeps a valid handle,
// replaces one whose owner went away, and otherwise looks the port up by name.
bool keep_message_port_fresh();

// Decides whether the script's coordinates are points (true) or pixels, and tells the injector.
// `kind` 1: `source` is a file path; 2: `source` is the script text; anything else: pixels.
// Returns the flag that was sent.
bool setScaleScreen(const std::string& source, int kind);

// Whether a script file created at `created` reads its coordinates as points when it carries no
// resolution mark: files made before 2015-10-01 00:00, local time.
bool createdBeforePointsCutoff(std::chrono::system_clock::time_point created);

// The decision alone, without sending: the resolution mark in the first 128 bytes of a file (or
// anywhere in a text), then, for a file without one, its creation date before 2015-10-01.
bool decideScaleScreen(const std::string& source, int kind);

}  // namespace tw
