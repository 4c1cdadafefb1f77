#include "api/DialogFunctions.h"

#include <set>

#include "core/Global.h"
#include "store/PlaySettings.h"
#include "library/FileManager.h"
#include "platform/Platform.h"
#include "platform/UserInterface.h"
#include "platform/RunLoop.h"
#include "play/ScriptManager.h"

namespace tw {

namespace {

constexpr const char* kInvalidDialog = "Invalid argument for dialog.";
constexpr const char* kInvalidSwitch = "Invalid argument for options of switch control.";

// The string at field `name` of the table on top of the stack; nullopt when absent. A value that
// is neither a string nor a number is malformed.
std::optional<std::string> stringField(lua_State* L, const char* name, bool* malformed) {
    lua_getfield(L, -1, name);
    std::optional<std::string> out;
    if (lua_type(L, -1) == LUA_TSTRING || lua_type(L, -1) == LUA_TNUMBER) {
        size_t length = 0;
        const char* s = lua_tolstring(L, -1, &length);
        out = std::string(s, length);
    } else if (!lua_isnil(L, -1)) {
        *malformed = true;
    }
    lua_pop(L, 1);
    return out;
}

// Reads the control table on top of the stack; raises the dialog errors for malformed ones.
DialogControl readControl(lua_State* L) {
    DialogControl control;
    bool malformed = false;
    lua_getfield(L, -1, "type");
    int isNumber = 0;
    const lua_Integer type = lua_tointegerx(L, -1, &isNumber);
    lua_pop(L, 1);
    if (!isNumber || type < 1 || type > 4) luaL_error(L, kInvalidDialog);
    control.type = static_cast<DialogControlType>(type);

    if (control.type == DialogControlType::Label) {
        auto text = stringField(L, "text", &malformed);
        if (!text || malformed) luaL_error(L, kInvalidDialog);
        control.text = *text;
        return control;
    }

    auto title = stringField(L, "title", &malformed);
    auto key = stringField(L, "key", &malformed);
    if (!title || !key || key->empty() || malformed) luaL_error(L, kInvalidDialog);
    control.title = *title;
    control.key = *key;

    switch (control.type) {
        case DialogControlType::Input: {
            auto value = stringField(L, "value", &malformed);
            if (malformed) luaL_error(L, kInvalidDialog);
            control.value = value.value_or("");
            break;
        }
        case DialogControlType::Picker: {
            lua_getfield(L, -1, "options");
            if (!lua_istable(L, -1)) luaL_error(L, kInvalidDialog);
            const size_t n = lua_rawlen(L, -1);
            for (size_t i = 1; i <= n; ++i) {
                lua_rawgeti(L, -1, static_cast<int>(i));
                if (lua_type(L, -1) != LUA_TSTRING && lua_type(L, -1) != LUA_TNUMBER) luaL_error(L, kInvalidDialog);
                control.options.emplace_back(lua_tostring(L, -1));
                lua_pop(L, 1);
            }
            lua_pop(L, 1);
            if (control.options.empty()) luaL_error(L, kInvalidDialog);
            auto value = stringField(L, "value", &malformed);
            if (malformed) luaL_error(L, kInvalidDialog);
            control.value = value.value_or(control.options.front());
            bool known = false;
            for (const auto& o : control.options) known = known || o == control.value;
            if (!known) luaL_error(L, kInvalidDialog);
            break;
        }
        case DialogControlType::Switch: {
            lua_getfield(L, -1, "value");
            if (!lua_isnil(L, -1) && !lua_isboolean(L, -1)) luaL_error(L, kInvalidSwitch);
            control.on = lua_toboolean(L, -1) != 0;
            lua_pop(L, 1);
            break;
        }
        default: break;
    }
    return control;
}

// Earlier answers remembered on the script file replace the controls' own values.
void applyRememberedValues(const std::string& fullPath, std::vector<DialogControl>& controls) {
    for (auto& control : controls) {
        if (control.type == DialogControlType::Label) continue;
        auto remembered = FileManager::getExtendedAttributeForFile(fullPath, rememberedDialogKey(control.key));
        if (!remembered) continue;
        if (control.type == DialogControlType::Switch) {
            control.on = *remembered == "1";
        } else if (control.type == DialogControlType::Picker) {
            for (const auto& o : control.options)
                if (o == *remembered) control.value = *remembered;
        } else {
            control.value = *remembered;
        }
    }
}

}  // namespace

std::string rememberedDialogKey(const std::string& controlKey) { return "DIALOG." + controlKey; }

int dialogProxy(lua_State* L) {
    luaL_checktype(L, 1, LUA_TTABLE);
    DialogRequest request;
    request.remember = lua_toboolean(L, 2) != 0;
    lua_settop(L, 1);

    const size_t n = lua_rawlen(L, 1);
    std::set<std::string> keys;
    for (size_t i = 1; i <= n; ++i) {
        lua_rawgeti(L, 1, static_cast<int>(i));
        if (!lua_istable(L, -1)) luaL_error(L, kInvalidDialog);
        DialogControl control = readControl(L);
        lua_pop(L, 1);
        if (control.type != DialogControlType::Label && !keys.insert(control.key).second) luaL_error(L, kInvalidDialog);
        request.controls.push_back(std::move(control));
    }

    auto settings = Global::sharedInstance().currentPlaySettings();
    std::string fullPath;
    if (settings && !settings->filePath.empty()) {
        request.scriptPath = settings->filePath;
        fullPath = FileManager::fullPathOfFile(settings->filePath);
        applyRememberedValues(fullPath, request.controls);
    }

    // The form lives on the main run loop; the script waits for the user's answer.
    DialogResponse response{true, false, {}};
    auto ui = Platform::current().ui;
    if (ui) RunLoop::main().postAndWait([&] { response = ui->showDialog(request); });

    if (response.cancelled) {
        ScriptManager::stopPlaying();
        return 0;
    }
    if (response.remember && !fullPath.empty()) {
        for (const auto& [key, answer] : response.answers) {
            const std::string text = std::holds_alternative<bool>(answer) ? (std::get<bool>(answer) ? "1" : "0")
                                                                           : std::get<std::string>(answer);
            FileManager::setExtendedAttributeForFile(fullPath, rememberedDialogKey(key), text);
        }
    }

    lua_createtable(L, 0, static_cast<int>(response.answers.size()));
    for (const auto& [key, answer] : response.answers) {
        if (std::holds_alternative<bool>(answer))
            lua_pushboolean(L, std::get<bool>(answer));
        else
            lua_pushlstring(L, std::get<std::string>(answer).data(), std::get<std::string>(answer).size());
        lua_setfield(L, -2, key.c_str());
    }
    return 1;
}

int clearDialogValuesProxy(lua_State* L) {
    const char* path = luaL_checklstring(L, 1, nullptr);
    FileManager::removeRememberedDialogValuesForFile(FileManager::fullPathOfFile(path));
    return 0;
}

}  // namespace tw
