#pragma once
// The script list's in-memory copy of every PLAY_SETTINGS row, as fresh as its last reload.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store/PlaySettings.h"

namespace tw {

class PlaySettingsManager {
public:
    // Fills the cache from the database.
    PlaySettingsManager();

    // Replaces the cache with a fresh read of all rows (ROW order); a database that does not open
    // leaves it empty.
    void reloadData();

    // Whether any cached row has exactly this path.
    bool hasPlaySettings(const std::string& path) const;
    // Whether any cached row with exactly this path has playDirectly set (among duplicate rows one
    // set flag is enough).
    bool ifPlayDirectly(const std::string& path) const;
    // Asks the database, not the cache: the first row for the path.
    std::optional<PlaySettings> findPlaySettingsByScriptTitle(const std::string& path) const;

    // What a play of the script at `path` starts from: its stored settings, or the defaults for a
    // script without a row, with filePath set to `path`.
    static std::shared_ptr<PlaySettings> currentPlaySettingsFor(const std::string& path);

    std::vector<PlaySettings> playSettingsArray;
};

}  // namespace tw
