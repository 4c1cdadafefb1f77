#pragma once
// The database of play settings and trigger bindings, "data.sqlite3" in the private data folder.
//
// Every operation opens the file, runs one statement (initDb: the two CREATE statements) and
// closes it again; no connection outlives a call, so calls from any thread rely on SQLite's own
// file locking. Statements are made by plain text formatting with each text put verbatim between
// single quotes. A text holding a single quote would end its quotes early (and one holding a NUL
// byte would be cut short), so such a call is refused as a failed statement before anything is
// formatted: it changes nothing and finds nothing, and it is reported like any other failure of
// its statement.
//
// Neither table has a unique key besides ROW: every insert adds a row, readers of one row take the
// first in ROW order, and title updates and deletes act on every row with the title.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "store/ActivatorTrigger.h"
#include "store/PlaySettings.h"

namespace tw {

class DataManager {
public:
    // Full path of the database file.
    static std::string dataFilePath();

    // Creates the two tables when missing. False (and "error to init db" in the log) when the file
    // does not open or either statement fails.
    static bool initDb();

    // Update statements: true when the statement ran. The file not opening gives false and no log
    // line; a failed statement logs "error to update data", except for the two deletes by title.
    static bool insertPlaySettings(const PlaySettings& settings);
    static bool updatePlaySettings(const PlaySettings& settings);
    static bool updateScriptTitleOfPlaySettingsFrom(const std::string& oldPath, const std::string& newPath);
    static bool deletePlaySettingsByScriptTitle(const std::string& path);

    // All rows in ROW order; empty when the query fails, nullopt when the file does not open.
    static std::optional<std::vector<PlaySettings>> findAllPlaySettings();
    // The first row for the path in ROW order, or nullopt.
    static std::optional<PlaySettings> findPlaySettingsByScriptTitle(const std::string& path);
    // Number of PLAY_SETTINGS rows; -1 when the file does not open or no row comes back.
    static int32_t countPlaySettings();

    static bool addActivatorTrigger(const ActivatorTrigger& trigger);
    static bool removeActivatorTrigger(const std::string& eventName);
    static bool removeActivatorTriggerByScriptTitle(const std::string& path);
    static bool updateScriptTitleOfActivatorTriggerFrom(const std::string& oldPath, const std::string& newPath);

    // All bindings in ROW order; empty when the query fails, nullopt when the file does not open.
    static std::optional<std::vector<ActivatorTrigger>> getActivatorTriggersAll();
    // The first row in ROW order for the event name / script path, or nullopt.
    static std::optional<ActivatorTrigger> getActivatorTriggerByEventName(const std::string& eventName);
    static std::optional<ActivatorTrigger> getActivatorTriggerByScriptTitle(const std::string& path);
    // The first FOR_WHAT 1 / FOR_WHAT 2 row SQLite returns (no ordering asked for), or nullopt.
    static std::optional<ActivatorTrigger> getActivatorTriggerForControlPanel();
    static std::optional<ActivatorTrigger> getActivatorTriggerForStartStopPlaying();
};

}  // namespace tw
