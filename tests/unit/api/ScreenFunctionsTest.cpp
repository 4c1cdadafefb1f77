// The screen script functions as scripts call them: arguments and their defaults, what each gives
// back (also when a search does not run), and the errors they raise.
#include <optional>

#include "EngineFixture.h"
#include "ReferenceScans.h"
#include "api/Registry.h"
#include "core/Paths.h"

namespace tw {
namespace {

// show(...) gives the values as text: tables in braces, numbers in %.10g.
constexpr const char* kShow = R"(local function one(v)
  if type(v) == 'number' then return string.format('%.10g', v) elseif type(v) ~= 'table' then return tostring(v) end
  local parts = {} for i = 1, #v do parts[i] = one(v[i]) end return '{' .. table.concat(parts, ',') .. '}'
end
function show(...) local parts = {} for i = 1, select('#', ...) do parts[i] = one((select(i, ...))) end return table.concat(parts, ' ') end
function each(f, list) local out = {} for i, v in ipairs(list) do out[i] = one(f(v)) end return table.concat(out, ' ') end)";

// A 640 x 960 screen of random colours (320 x 480 points at scale 2) and a Lua state with the
// script functions.
class ScreenFunctionsTest : public test::EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        screen.emplace(320, 480, 2);
        luaL_openlibs(L);
        registerFunctions(L);
        ASSERT_EQ(luaL_dostring(L, kShow), LUA_OK);
    }
    // What the expression list `lua` gives, shown; or the error it raised, without its place.
    std::string run(const std::string& lua) {
        const bool ok = luaL_loadstring(L, ("return show(" + lua + ")").c_str()) == LUA_OK && lua_pcall(L, 0, 1, 0) == LUA_OK;
        const std::string out = lua_tostring(L, -1);
        lua_pop(L, 1);
        return ok ? out : "error: " + out.substr(out.find("]:1: ") + 5);
    }
    std::string library(const std::string& name) { return Paths::scriptsDir() + "/" + name; }

    std::optional<reference::InstalledScreen> screen;
    std::unique_ptr<lua_State, void (*)(lua_State*)> state{luaL_newstate(), lua_close};
    lua_State* L = state.get();
};

TEST_F(ScreenFunctionsTest, ScreenSizeIsInPointsAndGetColorsReadsOneCapture) {
    EXPECT_EQ(run("getScreenScale(), getScreenBitDepth(), getScreenSize()"), "2 32 320 480");
    screen->display->setPixel(0, 0, 0xFFFFFF, 0x00);
    screen->display->setPixel(639, 959, 0x000000, 0xFF);
    screen->display->setPixel(100, 200, 0x00FF00, 0x12);
    get_surface_info(nullptr);
    EXPECT_EQ(run("getColors({{0, 0}, {639, 959}, {'100', 200}, {0, 0}})"), "{16777215,0,65280,16777215}");
    EXPECT_EQ(screen->display->renders, 2);  // the probe and one capture
    // A point that is no table or is off the screen, and there is no result.
    EXPECT_EQ(run("each(function(at) return select('#', getColors({{1, 1}, at})) end, "
                  "{5, {640, 0}, {639.5, 0}, {0, 959.5}, {-0.5, 0}, {0, -0.001}})"), "0 0 0 0 0 0");
}

TEST_F(ScreenFunctionsTest, FindColorsGivesEveryMatchByDefaultAcrossTheColourRange) {
    screen->display->fill(0x808080);
    screen->display->setPixel(5, 7, 0xFF0000);
    screen->display->setPixel(3, 9, 0xFF0000);
    screen->display->setPixel(4, 9, 0xFFFFFF);
    screen->display->setPixel(600, 900, 0x000000, 0x00);
    EXPECT_EQ(run("findColors({{0xFF0000, 0, 0}}), findColors({{0xFF0000, 0, 0}}, 1)"), "{{5,7},{3,9}} {{5,7}}");
    EXPECT_EQ(run("findColors({{0xFF0000, 10, 10}, {0xFFFFFF, 11, 10}}, 0, {0, 0, 10, 10})"), "{{-7,-1}}");
    EXPECT_EQ(run("findColors({{0xFFFFFF, 0, 0}}), findColors({{0, 0, 0}}), findColors({{0x1FFFFFF, 0, 0}})"),
              "{{4,9}} {{600,900}} {}");
}

TEST_F(ScreenFunctionsTest, SearchesThatDoNotRunGiveBackTheRegionOrNothing) {
    const std::string wide = "{{1, 0, 0}, {1, 700, 0}}";  // wider than the screen
    EXPECT_EQ(run("select('#', findColors({})), select('#', findColors({{1, 0, 0}, 5})), findColors(" + wide + ")"),
              "0 0 nil");
    // Refused (no width or height, an origin past the last column or row), left of the screen, or
    // narrower than the pattern: the region itself. Up to the screen's edge: no positions to search.
    EXPECT_EQ(run("each(function(r) return findColors(" + wide + ", 0, r) == r end, {{0, 0, 10, 10}})"), "true");
    EXPECT_EQ(run("each(function(r) return findColors({{1, 0, 0}}, 0, r) == r end, {{0, 0, 0, 5}, {0, 0, 5, -0.5}, "
                  "{639.5, 0, 5, 5}, {0, 959.5, 5, 5}, {-50, 0, 30, 10}})"), "true true true true true");
    EXPECT_EQ(run("findColors({{1, 0, 0}}, 0, {-30, 0, 30, 10}), findImage('missing.bmp', 0, 1, nil, {0, 0, 5, 5})"),
              "{} {0,0,5,5}");
    screen->display->rendering = false;
    EXPECT_EQ(run("findColors({{1, 0, 0}}, 0, {0, 0, 5, 5})"), "{}");  // no capture: no results
}

TEST_F(ScreenFunctionsTest, RegionsMustBeTablesOfFourEntries) {
    struct Case { const char* call; const char* error; };
    const Case cases[] = {
        {"findColors({{1, 0, 0}}, 0, {0, 0, 10})", "Invalid argument for region."},
        {"findColors({{1, 0, 0}}, 0, {0, 0, 10, 10, 10})", "Invalid argument for region."},
        {"findColors({{1, 0, 0}}, 0, 5)", "bad argument #3 to 'findColors' (table expected, got number)"},
        {"screenshot('a.bmp', 'x')", "bad argument #2 to 'screenshot' (table expected, got string)"},
        {"findImage('t.bmp', 0, 1, nil, true)", "bad argument #5 to 'findImage' (table expected, got boolean)"},
    };
    for (const auto& c : cases) EXPECT_EQ(run(c.call), std::string("error: ") + c.error) << c.call;
}

TEST_F(ScreenFunctionsTest, FindImageGivesEveryExactMatchByDefault) {
    for (uint32_t y = 10; y < 13; ++y)
        for (uint32_t x = 10; x < 15; ++x) screen->display->setPixel(x, y, 0x5A5A5A);
    reference::Rows rows(2, std::vector<uint32_t>(2, 0x5A5A5A)), spot(2, std::vector<uint32_t>(5, 0x5A5A5A));
    ASSERT_TRUE(reference::saveBmp(library("flat.bmp"), rows));
    spot[1][4] = 0xA5A5A5;  // 9 pixels of 10 match
    ASSERT_TRUE(reference::saveBmp(library("spot.bmp"), spot));
    const std::string all = "{{10,10},{11,10},{12,10},{13,10},{10,11},{11,11},{12,11},{13,11}}";
    EXPECT_EQ(run("findImage('flat.bmp'), findImage('flat.bmp', 2)"), all + " {{10,10},{11,10}}");
    EXPECT_EQ(run("findImage('spot.bmp'), findImage('spot.bmp', 0, 0.85)"), "{} {{10,10},{10,11}}");
    // The template lies wholly inside the region: one larger by one has one position, one as large
    // none, and a smaller one is refused.
    EXPECT_EQ(run("each(function(r) return findImage('flat.bmp', 0, 1, nil, r) end, {{10, 10, 3, 3}, {10, 10, 2, 2}, "
                  "{10, 10, 1.5, 2}})"), "{{10,10}} {} {10,10,1.5,2}");
    screen->display->rendering = false;
    EXPECT_EQ(run("findImage('flat.bmp', 0, 1, nil, {10, 10, 3, 3})"), "{10,10,3,3}");  // no capture
}

TEST_F(ScreenFunctionsTest, FindImageIgnoresTheColoursItsListTakesFromTheRegion) {
    reference::Rows rows = reference::cut(*screen->display, 200, 300, 3, 3);
    rows[1][1] = 0x000000;
    ASSERT_TRUE(reference::saveBmp(library("black.bmp"), rows));
    // The fourth argument gives the length; the values come from the fifth, the region, into the
    // list's second slot on: {1, 1} ignores the region's x, 0 here: black.
    EXPECT_EQ(run("findImage('black.bmp', 0, 1, {1, 1}, {0, 0, 640, 960})"), "{{200,300}}");
    EXPECT_EQ(run("findImage('black.bmp', 0, 1, {1}, {0, 0, 640, 960})"), "{}");
    EXPECT_EQ(run("findImage('black.bmp', 0, 1, {1, 1}, {1, 0, 640, 960})"), "{}");
}

TEST_F(ScreenFunctionsTest, ScreenshotWritesIntoTheLibraryWithTheBmpExtension) {
    std::filesystem::create_directory(library("shots"));
    EXPECT_EQ(run("screenshot('shots/a.png', {10, 20, 2, 2})") + run("screenshot('shots.old/whole')") + run("screenshot('', {0, 0, 1, 1})"), "");
    EXPECT_EQ(test::readFile(library(".bmp")).size(), 58u);
    EXPECT_EQ(test::readFile(library("shots/a.bmp")).size(), 70u);
    EXPECT_EQ(test::readFile(library("shots.bmp")).size(), 54u + 640 * 960 * 4);  // a dot in a folder counts
}

}  // namespace
}  // namespace tw
