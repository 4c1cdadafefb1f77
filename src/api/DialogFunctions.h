#pragma once
// The form a script shows to ask the user for values, and forgetting remembered answers.
#include <string>

#include "platform/Lua.h"
#include "platform/UserInterface.h"

namespace tw {

int dialogProxy(lua_State* L);
int clearDialogValuesProxy(lua_State* L);

// The attribute name under which a control's answer is remembered.
std::string rememberedDialogKey(const std::string& controlKey);

}  // namespace tw
