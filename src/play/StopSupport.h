#pragma once
// Stopping a running script. The stop flag says that a stop was asked for; every script function
// looks at it when it is called and when it returns (callSafely). A loop that calls nothing is
// reached by interrupting the play's worker thread: the interrupt installs a hook on the Lua state
// that runs at that moment, as Lua's own interpreter does on Ctrl-C, and the hook ends the script
// with "interrupted" at its next instruction. A script that nobody stops runs with no hook at all.
//
// Under ThreadSanitizer a signal is only delivered when its thread enters an intercepted call,
// which a busy Lua loop never does; that build checks the stop flag from a count hook instead.
#include <atomic>

#include "platform/Lua.h"

#if defined(__SANITIZE_THREAD__)
#define TW_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TW_THREAD_SANITIZER 1
#endif
#endif

namespace tw {

// The process-wide stop flag: 1 asks the running script to stop; every run clears it.
extern std::atomic<int> luaStopFlag;

#ifdef TW_THREAD_SANITIZER
inline constexpr bool kStopByCountHook = true;
#else
inline constexpr bool kStopByCountHook = false;
#endif
// How often the count hook of a ThreadSanitizer build looks at the stop flag.
inline constexpr int kStopCheckInstructions = 1000;

// Sets the stop flag and interrupts the thread that runs the script. Any thread.
void requestScriptStop();

// Makes coroutine.resume and coroutine.wrap keep track of the coroutine that runs, so that a stop
// reaches a busy coroutine too, and so that a coroutine's "interrupted" ends its resumer as well.
// Call once on a new state, after the standard libraries.
void installStopSupport(lua_State* L);

// While it lives, the calling thread runs scripts in L and a stop request reaches it. A stop
// requested before it was made is seen at once.
class ScriptStopScope {
public:
    explicit ScriptStopScope(lua_State* L);
    ~ScriptStopScope();
    ScriptStopScope(const ScriptStopScope&) = delete;
    ScriptStopScope& operator=(const ScriptStopScope&) = delete;
};

// The stop hook: raises "interrupted" while the flag is set, and stays installed, so that a pcall
// in the script cannot swallow the stop; with the flag clear (a hook left by an earlier stop) it
// removes itself.
void lstop(lua_State* L, lua_Debug* ar);

}  // namespace tw
