#pragma once
// The touch recorder of the home-screen process. While it is on, every finger and home-button
// event that the input system delivers is written, as it happens, as Lua calls into a new script
// in the library ("<Scripts>/yyyy-MM-dd HH:mm:ss.lua"): a header (creation time, the screen's
// resolution, the orientation), then per event its lines, with a usleep of the pause before it.
// Everything runs on the main run loop.
#include <string>

#include "platform/HidEvent.h"

namespace tw {

// Starts a recording: writes the header and listens to the input system (one client at most,
// kept in Global). When the header cannot be written it says so in an alert and records nowhere.
void startRecording();
// Ends it: closes the file and stops listening. Nothing is appended.
void stopRecording();
// The input system's callback: appends the lines of one event.
void handle_events(const hid::HidEvent* event);

// The host path of the file being written; empty when no recording runs.
std::string recordingScriptPath();

// The lines one event adds, without the pause before it: the home button (consumer page, menu
// usage) down and up, and each finger of a digitizer event that goes down, moves or goes up, in
// pixels of the portrait screen `width` x `height`. Empty for every other event.
std::string recordedEventText(const hid::HidEvent& event, int width, int height);

}  // namespace tw
