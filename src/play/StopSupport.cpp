#include "play/StopSupport.h"

#include "platform/ThreadInterrupt.h"

namespace tw {

std::atomic<int> luaStopFlag{0};

namespace {

// The Lua state (main state or coroutine) whose code runs on the worker thread now.
std::atomic<lua_State*> runningState{nullptr};
static_assert(std::atomic<lua_State*>::is_always_lock_free);

constexpr int kEveryStep = LUA_MASKCALL | LUA_MASKRET | LUA_MASKCOUNT;

bool stopRequested() { return luaStopFlag.load(std::memory_order_relaxed) == 1; }

void hookRunningState() {
    // lua_sethook may be called from a signal handler: it only stores the hook's fields.
    if (lua_State* L = runningState.load(std::memory_order_relaxed))
        lua_sethook(L, lstop, kEveryStep, 1);
}

// Resumes `co` with `narg` arguments from L's stack, as the base library does, with `co` marked
// as the running state meanwhile. Returns the number of results moved to L, or -1 with the error
// message on L.
int resumeTracked(lua_State* L, lua_State* co, int narg) {
    if (!lua_checkstack(co, narg)) {
        lua_pushliteral(L, "too many arguments to resume");
        return -1;
    }
    if (lua_status(co) == LUA_OK && lua_gettop(co) == 0) {
        lua_pushliteral(L, "cannot resume dead coroutine");
        return -1;
    }
    lua_xmove(L, co, narg);
    lua_State* const outer = runningState.exchange(co, std::memory_order_relaxed);
    const int status = lua_resume(co, L, narg);
    runningState.store(outer, std::memory_order_relaxed);
    // The interrupt may have hooked the coroutine only; its resumer stops here.
    if (stopRequested()) return luaL_error(L, "interrupted");
    if (status != LUA_OK && status != LUA_YIELD) {
        lua_xmove(co, L, 1);
        return -1;
    }
    const int results = lua_gettop(co);
    if (!lua_checkstack(L, results + 1)) {
        lua_pop(co, results);
        lua_pushliteral(L, "too many results to resume");
        return -1;
    }
    lua_xmove(co, L, results);
    return results;
}

int coroutineResume(lua_State* L) {
    lua_State* co = lua_tothread(L, 1);
    luaL_argcheck(L, co, 1, "coroutine expected");
    const int results = resumeTracked(L, co, lua_gettop(L) - 1);
    if (results < 0) {
        lua_pushboolean(L, 0);
        lua_insert(L, -2);
        return 2;
    }
    lua_pushboolean(L, 1);
    lua_insert(L, -(results + 1));
    return results + 1;
}

int wrappedCoroutine(lua_State* L) {
    const int results = resumeTracked(L, lua_tothread(L, lua_upvalueindex(1)), lua_gettop(L));
    if (results >= 0) return results;
    if (lua_isstring(L, -1)) {  // the error's position, as the base library adds it
        luaL_where(L, 1);
        lua_insert(L, -2);
        lua_concat(L, 2);
    }
    return lua_error(L);
}

int coroutineWrap(lua_State* L) {
    luaL_checktype(L, 1, LUA_TFUNCTION);
    lua_State* co = lua_newthread(L);
    lua_pushvalue(L, 1);
    lua_xmove(L, co, 1);
    lua_pushcclosure(L, wrappedCoroutine, 1);
    return 1;
}

}  // namespace

void lstop(lua_State* L, lua_Debug*) {
    if (stopRequested()) {
        // From now on at every instruction, so that the stop also lands outside any pcall.
        lua_sethook(L, lstop, kEveryStep, 1);
        luaL_error(L, "interrupted");
        return;
    }
    if (!kStopByCountHook) lua_sethook(L, nullptr, 0, 0);
}

void requestScriptStop() {
    luaStopFlag.store(1, std::memory_order_relaxed);
    threadInterrupt::interrupt();
}

void installStopSupport(lua_State* L) {
    lua_getglobal(L, "coroutine");
    if (lua_istable(L, -1)) {
        lua_pushcfunction(L, coroutineResume);
        lua_setfield(L, -2, "resume");
        lua_pushcfunction(L, coroutineWrap);
        lua_setfield(L, -2, "wrap");
    }
    lua_pop(L, 1);
}

ScriptStopScope::ScriptStopScope(lua_State* L) {
    if (kStopByCountHook) {
        lua_sethook(L, lstop, LUA_MASKCOUNT, kStopCheckInstructions);
        return;
    }
    lua_sethook(L, nullptr, 0, 0);  // what a stop after the last run's end left behind
    runningState.store(L, std::memory_order_relaxed);
    threadInterrupt::enter(hookRunningState);
    if (stopRequested()) hookRunningState();  // asked for before this thread could be reached
}

ScriptStopScope::~ScriptStopScope() {
    if (kStopByCountHook) return;
    threadInterrupt::leave();
    runningState.store(nullptr, std::memory_order_relaxed);
}

}  // namespace tw
