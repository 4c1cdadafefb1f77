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

// Control types beyond the four kinds of DialogControlType, in the newer form of dialog():
// a "Remember" control that sets the switch's initial state, and buttons.
constexpr lua_Integer kRememberControl = 5;
constexpr lua_Integer kButtonControl = 6;

// The "type" of the control table on top of the stack; raises the dialog error when it is none.
lua_Integer controlType(lua_State* L) {
    lua_getfield(L, -1, "type");
    int isNumber = 0;
    const lua_Integer type = lua_tointegerx(L, -1, &isNumber);
    lua_pop(L, 1);
    if (!isNumber || type < 1 || type > kButtonControl) luaL_error(L, kInvalidDialog);
    return type;
}

// The number at field `name` of the table on top of the stack, or `otherwise` when absent; a
// value that is no number is malformed.
lua_Number numberField(lua_State* L, const char* name, lua_Number otherwise) {
    lua_getfield(L, -1, name);
    if (!lua_isnil(L, -1) && lua_type(L, -1) != LUA_TNUMBER) luaL_error(L, kInvalidDialog);
    const lua_Number value = lua_isnil(L, -1) ? otherwise : lua_tonumber(L, -1);
    lua_pop(L, 1);
    return value;
}

bool booleanField(lua_State* L, const char* name) {
    lua_getfield(L, -1, name);
    const bool value = lua_toboolean(L, -1) != 0;
    lua_pop(L, 1);
    return value;
}

// Reads the button table on top of the stack; its flag defaults to its place among the buttons.
DialogButton readButton(lua_State* L, size_t place) {
    DialogButton button;
    bool malformed = false;
    button.title = stringField(L, "title", &malformed).value_or("");
    if (malformed) luaL_error(L, kInvalidDialog);
    button.color = static_cast<uint32_t>(numberField(L, "color", 0)) & 0xFFFFFF;
    const lua_Number width = numberField(L, "width", 1);
    button.width = width > 0 && width < 1 ? width : 1;
    button.flag = static_cast<int64_t>(numberField(L, "flag", static_cast<lua_Number>(place)));
    button.collectInputs = booleanField(L, "collectInputs");
    return button;
}

// Reads the control table on top of the stack (types 1 to 4); raises the dialog errors for
// malformed ones.
DialogControl readControl(lua_State* L, lua_Integer type) {
    DialogControl control;
    bool malformed = false;
    if (type > 4) luaL_error(L, kInvalidDialog);
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
            // A boolean, or 0/1 (the answer then comes back as 0/1 too).
            lua_getfield(L, -1, "value");
            if (lua_type(L, -1) == LUA_TNUMBER) {
                const lua_Number value = lua_tonumber(L, -1);
                if (value != 0 && value != 1) luaL_error(L, kInvalidSwitch);
                control.numeric = true;
                control.on = value == 1;
            } else {
                if (!lua_isnil(L, -1) && !lua_isboolean(L, -1)) luaL_error(L, kInvalidSwitch);
                control.on = lua_toboolean(L, -1) != 0;
            }
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

namespace {

void pushAnswer(lua_State* L, const DialogControl& control, const DialogAnswer& answer) {
    if (const bool* on = std::get_if<bool>(&answer)) {
        if (control.numeric)
            lua_pushinteger(L, *on ? 1 : 0);
        else
            lua_pushboolean(L, *on);
        return;
    }
    const auto& text = std::get<std::string>(answer);
    lua_pushlstring(L, text.data(), text.size());
}

void rememberAnswers(const std::string& fullPath, const DialogResponse& response) {
    for (const auto& [key, answer] : response.answers) {
        const std::string text = std::holds_alternative<bool>(answer) ? (std::get<bool>(answer) ? "1" : "0")
                                                                       : std::get<std::string>(answer);
        FileManager::setExtendedAttributeForFile(fullPath, rememberedDialogKey(key), text);
    }
}

}  // namespace

int dialogProxy(lua_State* L) {
    luaL_checktype(L, 1, LUA_TTABLE);
    DialogRequest request;
    // The second argument turns remembering on or off; in the newer form it is the list of the
    // orientations the form may take instead (never an error).
    if (lua_istable(L, 2)) {
        const size_t n = lua_rawlen(L, 2);
        for (size_t i = 1; i <= n; ++i) {
            lua_rawgeti(L, 2, static_cast<int>(i));
            if (lua_type(L, -1) == LUA_TNUMBER) request.orientations.push_back(static_cast<int>(lua_tointeger(L, -1)));
            lua_pop(L, 1);
        }
    } else {
        request.remember = lua_toboolean(L, 2) != 0;
    }
    lua_settop(L, 1);

    // The Lua index of each control's table, so that buttons can write the answers back.
    std::vector<int> controlIndex;
    const size_t n = lua_rawlen(L, 1);
    std::set<std::string> keys;
    for (size_t i = 1; i <= n; ++i) {
        lua_rawgeti(L, 1, static_cast<int>(i));
        if (!lua_istable(L, -1)) luaL_error(L, kInvalidDialog);
        const lua_Integer type = controlType(L);
        if (type == kRememberControl) {
            request.remember = booleanField(L, "on");
        } else if (type == kButtonControl) {
            request.buttons.push_back(readButton(L, request.buttons.size() + 1));
        } else {
            DialogControl control = readControl(L, type);
            if (control.type != DialogControlType::Label && !keys.insert(control.key).second)
                luaL_error(L, kInvalidDialog);
            request.controls.push_back(std::move(control));
            controlIndex.push_back(static_cast<int>(i));
        }
        lua_pop(L, 1);
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

    const bool pressed = response.button && *response.button < request.buttons.size();
    if (response.cancelled || (!request.buttons.empty() && !pressed)) {
        ScriptManager::stopPlaying();
        return 0;
    }

    if (!request.buttons.empty()) {
        // A button returns its flag; one that collects inputs writes each answer into the
        // control's own table (and remembers them when remembering is on).
        const DialogButton& button = request.buttons[*response.button];
        if (button.collectInputs) {
            for (size_t c = 0; c < request.controls.size(); ++c) {
                const auto answer = response.answers.find(request.controls[c].key);
                if (request.controls[c].type == DialogControlType::Label || answer == response.answers.end()) continue;
                lua_rawgeti(L, 1, controlIndex[c]);
                pushAnswer(L, request.controls[c], answer->second);
                lua_setfield(L, -2, "value");
                lua_pop(L, 1);
            }
            if (response.remember && !fullPath.empty()) rememberAnswers(fullPath, response);
        }
        lua_pushinteger(L, static_cast<lua_Integer>(button.flag));
        return 1;
    }

    if (response.remember && !fullPath.empty()) rememberAnswers(fullPath, response);
    lua_createtable(L, 0, static_cast<int>(response.answers.size()));
    for (const auto& control : request.controls) {
        const auto answer = response.answers.find(control.key);
        if (control.type == DialogControlType::Label || answer == response.answers.end()) continue;
        pushAnswer(L, control, answer->second);
        lua_setfield(L, -2, control.key.c_str());
    }
    return 1;
}

int clearDialogValuesProxy(lua_State* L) {
    const char* path = luaL_checklstring(L, 1, nullptr);
    FileManager::removeRememberedDialogValuesForFile(FileManager::fullPathOfFile(path));
    return 0;
}

}  // namespace tw
