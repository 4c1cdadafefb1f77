#include "store/PlaySettingsManager.h"

#include "store/DataManager.h"

namespace tw {

PlaySettingsManager::PlaySettingsManager() { reloadData(); }

void PlaySettingsManager::reloadData() {
    auto rows = DataManager::findAllPlaySettings();
    playSettingsArray = rows ? std::move(*rows) : std::vector<PlaySettings>{};
}

bool PlaySettingsManager::hasPlaySettings(const std::string& path) const {
    for (const auto& s : playSettingsArray)
        if (s.filePath == path) return true;
    return false;
}

bool PlaySettingsManager::ifPlayDirectly(const std::string& path) const {
    // An equal row without the flag does not end the walk: a later duplicate may have it.
    for (const auto& s : playSettingsArray)
        if (s.filePath == path && s.playDirectly) return true;
    return false;
}

std::optional<PlaySettings> PlaySettingsManager::findPlaySettingsByScriptTitle(const std::string& path) const {
    return DataManager::findPlaySettingsByScriptTitle(path);
}

std::shared_ptr<PlaySettings> PlaySettingsManager::currentPlaySettingsFor(const std::string& path) {
    auto settings = std::make_shared<PlaySettings>(PlaySettingsManager().findPlaySettingsByScriptTitle(path).value_or(PlaySettings{}));
    settings->filePath = path;
    return settings;
}

}  // namespace tw
