#pragma once
// The fake-location table: a property list at "/Applications/Tapwright.app/locations" whose root
// dictionary maps an app's bundle identifier to [latitude, longitude] (degrees). A reader inside
// the app substitutes that position for the real one; this side only edits the table.
//
// Each edit reads the whole table, changes one entry and writes it back atomically (a new file
// renamed over the old), so a reader never sees half a table. Two writers at once can lose an
// update. Write failures are only logged.
#include <optional>
#include <string>

namespace tw {

struct FakedLocation {
    double latitude = 0;
    double longitude = 0;
    bool operator==(const FakedLocation&) const = default;
};

class TWLocationClient {
public:
    // Sets the app's entry, keeping the others; a missing or unreadable table starts afresh.
    // Logs "Failed to write data to file when faking location!" when the table cannot be written.
    // A null or non-UTF-8 bundle identifier names no app and changes nothing.
    static void fakeLocationForApp(const char* bundleIdentifier, double latitude, double longitude);
    // Removes the app's entry. Without a readable table nothing is written (and nothing created).
    // Logs "Failed to write data to file when clearing faked location!" when it cannot be written.
    static void clearFakeLocationForApp(const char* bundleIdentifier);

    // The app side: the position the table gives the app `bundleIdentifier`, or nullopt when it
    // has no entry (or the table is missing, unreadable, or its entry is not two numbers). The
    // app reports this position in place of the real one.
    static std::optional<FakedLocation> fakedLocationForApp(const std::string& bundleIdentifier);
};

}  // namespace tw
