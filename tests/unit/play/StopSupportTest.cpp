// Stopping scripts that call nothing: a busy loop, a busy coroutine, a loop that swallows errors
// with pcall, and a stop asked for before the run began; and coroutines behaving as the base
// library's own while the runner keeps track of them.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "play/StopSupport.h"

namespace tw {
namespace {

std::atomic<bool> started{false};
int markStarted(lua_State*) {
    started = true;
    return 0;
}

lua_State* newState(bool withStopSupport) {
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    if (withStopSupport) installStopSupport(L);
    lua_register(L, "started", markStarted);
    return L;
}

struct StopCase {
    const char* name;
    const char* script;
    bool stopBeforeTheRun;
};

void PrintTo(const StopCase& c, std::ostream* os) { *os << c.name; }

class StopSupportTest : public ::testing::TestWithParam<StopCase> {
protected:
    void TearDown() override { luaStopFlag = 0; }
};

TEST_P(StopSupportTest, AStopFromAnotherThreadEndsTheScriptWithInterrupted) {
    const StopCase& c = GetParam();
    luaStopFlag = 0;
    started = false;
    if (c.stopBeforeTheRun) requestScriptStop();
    lua_State* L = newState(true);
    ASSERT_EQ(luaL_loadstring(L, c.script), LUA_OK);
    std::promise<std::string> result;
    auto ended = result.get_future();
    std::thread worker([&] {
        ScriptStopScope stoppable(L);
        const int status = lua_pcall(L, 0, 0, 0);
        result.set_value(status == LUA_OK ? "(ended by itself)" : lua_tostring(L, -1));
    });
    if (!c.stopBeforeTheRun) {
        while (!started) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        requestScriptStop();
    }
    if (ended.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        worker.detach();  // still spinning: the stop never reached it
        FAIL() << "the script did not stop";
    }
    worker.join();
    const std::string error = ended.get();
    EXPECT_TRUE(error.ends_with("interrupted")) << error;
    lua_close(L);
}

INSTANTIATE_TEST_SUITE_P(
    Scripts, StopSupportTest,
    ::testing::Values(StopCase{"BusyLoop", "started() while true do end", false},
                      StopCase{"BusyWrappedCoroutine", "started() coroutine.wrap(function() while true do end end)()", false},
                      StopCase{"ResumedAgainAndAgain",
                               "started() while true do coroutine.resume(coroutine.create(function() while true do end end)) end", false},
                      StopCase{"PcallSwallowsErrors", "started() while true do pcall(function() while true do end end) end", false},
                      StopCase{"StopBeforeTheRun", "while true do end", true}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(StopSupport, CoroutinesResumeYieldFailAndWrapAsTheBaseLibrarysOwn) {
    const char* script = R"(
        local out = {}
        local function add(...) for i = 1, select('#', ...) do out[#out + 1] = tostring((select(i, ...))) end end
        local co = coroutine.create(function(a, b) local c = coroutine.yield(a + b, 'y') error('bad ' .. c) end)
        add(coroutine.resume(co, 1, 2)) add(coroutine.resume(co, 'x')) add(coroutine.resume(co), coroutine.status(co))
        add(pcall(coroutine.resume, 42))
        local gen = coroutine.wrap(function(...) coroutine.yield(...) return 'last' end)
        add(gen(1, nil, 3)) add(gen()) add(pcall(gen))
        local failing = coroutine.wrap(function() error('inside') end)
        add(pcall(function() local r = failing() return r end))
        add(type(select(2, pcall(coroutine.wrap(function() error({}, 0) end)))))
        add(pcall(coroutine.wrap, 1))
        return table.concat(out, '|'))";
    luaStopFlag = 0;  // a stop in an earlier test leaves it set
    std::string results[2];
    for (bool withStopSupport : {false, true}) {
        lua_State* L = newState(withStopSupport);
        ASSERT_EQ(luaL_loadstring(L, script), LUA_OK);
        ASSERT_EQ(lua_pcall(L, 0, 1, 0), LUA_OK) << lua_tostring(L, -1);
        results[withStopSupport] = lua_tostring(L, -1);
        lua_close(L);
    }
    EXPECT_EQ(results[1], results[0]);
    EXPECT_NE(results[0].find("cannot resume dead coroutine"), std::string::npos) << results[0];
}

}  // namespace
}  // namespace tw
