// The screen searches and the capture on the largest screen (414 x 736 points at scale 3:
// 1242 x 2208 pixels, rows of 4992 bytes, 11 MB), each against a baseline measured in the same
// run: one memcpy of the whole screen, and for the fuzzy image search the literal scan.
//
// Counters: "x_memcpy" is the time of one operation over the time of one screen memcpy;
// "x_faster_than_literal" the literal scan's time over the fast one's on the same input.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include "graphic/Bmp.h"
#include "graphic/Graphic.h"
#include "graphic/Region.h"
#include "graphic/Surface.h"
#include "platform/Platform.h"
#include "platform/linux/ProfileDeviceInfo.h"
#include "ReferenceScans.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kWidth = 1242, kHeight = 2208;
// Screen colours: a few greys, so no pattern or template colour below ever appears.
const std::vector<uint32_t> kPalette = {0x202020, 0x404040, 0x606060, 0x808080, 0xA0A0A0, 0xC0C0C0};

// The platform of the benchmarks: the 1242 x 2208 device and its in-memory display.
struct Screen {
    std::shared_ptr<tw::reference::MemoryDisplay> display;
    std::vector<uint8_t> copy;  // the memcpy baseline's destination

    static Screen& shared() {
        static Screen screen;
        return screen;
    }

private:
    Screen() {
        tw::linuxp::DeviceProfile profile;
        profile.screenWidth = 414;
        profile.screenHeight = 736;
        profile.scale = 3;
        display = std::make_shared<tw::reference::MemoryDisplay>(kWidth, kHeight);
        display->fillRandom(2024, kPalette);
        tw::Platform platform;
        platform.device = std::make_shared<tw::linuxp::ProfileDeviceInfo>(profile, "com.apple.springboard");
        platform.display = display;
        tw::Platform::install(platform);
        tw::reset_surface_info();
        copy.resize(static_cast<size_t>(display->bytesPerRow()) * kHeight);
    }
};

void copyScreen() {
    auto& screen = Screen::shared();
    std::memcpy(screen.copy.data(), screen.display->pixels(), screen.copy.size());
    benchmark::ClobberMemory();
}

// Seconds per call of `work`: the best of several rounds, each long enough to time.
template <class Work>
double secondsPerCall(Work&& work, int rounds = 7, double roundSeconds = 0.05) {
    double best = 1e30;
    for (int r = 0; r < rounds; ++r) {
        int calls = 0;
        const auto start = Clock::now();
        double elapsed = 0;
        do {
            work();
            ++calls;
            elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        } while (elapsed < roundSeconds);
        best = std::min(best, elapsed / calls);
    }
    return best;
}

// Time of one call of `work` over the time of one memcpy of the screen, the two timed in
// alternating rounds (best of each), so that both see the same machine.
template <class Work>
double ratioToMemcpy(Work&& work, int rounds = 9) {
    copyScreen();  // fault the destination in
    double bestWork = 1e30, bestCopy = 1e30;
    for (int r = 0; r < rounds; ++r) {
        bestCopy = std::min(bestCopy, secondsPerCall(copyScreen, 1));
        bestWork = std::min(bestWork, secondsPerCall(work, 1));
    }
    return bestWork / bestCopy;
}

// Runs `work` as the benchmark's iterations, then reports its time against the memcpy.
template <class Work>
void timeAgainstMemcpy(benchmark::State& state, Work&& work) {
    for (auto _ : state) work();
    state.counters["x_memcpy"] = ratioToMemcpy(work);
}

tw::image_t captureOnce(std::unique_ptr<tw::Surface>& holder) {
    holder = tw::capture_surface();
    return holder->image();
}

// A 64 x 64 template whose pixels are (mostly) screen colours but whose first pixel is not, so
// an exact search rejects every position at once.
tw::image_t templateNotOnScreen(const tw::image_t& screen) {
    static std::vector<uint8_t> bytes;
    bytes.assign(64 * 64 * 4, 0);
    for (uint32_t ty = 0; ty < 64; ++ty) {
        for (uint32_t tx = 0; tx < 64; ++tx) {
            const uint32_t rgb = tw::color_at_location(screen, 500 + tx, 700 + ty);
            uint8_t* at = bytes.data() + ((63 - ty) * 64 + tx) * 4;
            at[0] = static_cast<uint8_t>(rgb);
            at[1] = static_cast<uint8_t>(rgb >> 8);
            at[2] = static_cast<uint8_t>(rgb >> 16);
        }
    }
    uint8_t* first = bytes.data() + 63 * 64 * 4;  // the template's top-left pixel
    first[0] = 0x12;
    first[1] = 0x34;
    first[2] = 0x56;
    tw::image_t image;
    image.kind = tw::kImageBottomRowFirst;
    image.data = bytes.data();
    image.width = image.height = 64;
    image.bytesPerRow = 64 * 4;
    image.bytesPerPixel = 4;
    return image;
}

// Baseline: one memcpy of the 11 MB screen.
void BM_ScreenMemcpy(benchmark::State& state) {
    Screen::shared();
    timeAgainstMemcpy(state, copyScreen);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(Screen::shared().copy.size()));
}
BENCHMARK(BM_ScreenMemcpy)->Unit(benchmark::kMillisecond);

// One capture: a new surface with the display rendered into it.
void BM_CaptureSurface(benchmark::State& state) {
    Screen::shared();
    timeAgainstMemcpy(state, [] { benchmark::DoNotOptimize(tw::capture_surface()); });
}
BENCHMARK(BM_CaptureSurface)->Unit(benchmark::kMillisecond);

// find_colors' scan of a 3-entry pattern that never matches, over the whole screen.
void BM_FindColorsScanNoMatch(benchmark::State& state) {
    Screen::shared();
    std::unique_ptr<tw::Surface> surface;
    const tw::image_t screen = captureOnce(surface);
    const tw::color_point_t pattern[] = {{0x123456, 0, 0}, {0x202020, 5, 3}, {0x404040, -2, 9}};
    tw::region_t search;
    tw::wash_region_for_find_colors({0, 0, kWidth, kHeight}, pattern, 3, &search, nullptr);
    std::vector<tw::location_t> results;
    timeAgainstMemcpy(state, [&] { tw::do_find_colors(results, screen, pattern, 3, search, 0); });
    state.counters["results"] = static_cast<double>(results.size());
}
BENCHMARK(BM_FindColorsScanNoMatch)->Unit(benchmark::kMillisecond);

// The whole find_colors call: capture plus scan.
void BM_FindColorsWithCaptureNoMatch(benchmark::State& state) {
    Screen::shared();
    const tw::color_point_t pattern[] = {{0x123456, 0, 0}, {0x202020, 5, 3}, {0x404040, -2, 9}};
    std::vector<tw::location_t> results;
    timeAgainstMemcpy(state, [&] { tw::find_colors(results, pattern, 3, 0, nullptr); });
}
BENCHMARK(BM_FindColorsWithCaptureNoMatch)->Unit(benchmark::kMillisecond);

// find_image's exact scan of a 64 x 64 template with no match, over the whole screen.
void BM_FindImageExactScanNoMatch(benchmark::State& state) {
    Screen::shared();
    std::unique_ptr<tw::Surface> surface;
    const tw::image_t screen = captureOnce(surface);
    const tw::image_t tmpl = templateNotOnScreen(screen);
    std::vector<tw::location_t> results;
    timeAgainstMemcpy(state, [&] {
        tw::do_find_image(results, screen, tmpl, 0, 0, kWidth - 64, kHeight - 64, 0, 1.0f, nullptr, 0);
    });
    state.counters["results"] = static_cast<double>(results.size());
}
BENCHMARK(BM_FindImageExactScanNoMatch)->Unit(benchmark::kMillisecond);

// The whole find_image call: capture, reading the template file, scan.
void BM_FindImageExactWithCaptureNoMatch(benchmark::State& state) {
    Screen::shared();
    std::unique_ptr<tw::Surface> surface;
    const tw::image_t tmpl = templateNotOnScreen(captureOnce(surface));
    surface.reset();
    const std::string path = (std::filesystem::temp_directory_path() /
                              ("tw-bench-template-" + std::to_string(::getpid()) + ".bmp"))
                                 .string();
    std::vector<uint8_t> bottomUp(tmpl.data, tmpl.data + 64 * 64 * 4);
    tw::save_bmp(path.c_str(), bottomUp.data(), 64, 64);
    std::vector<tw::location_t> results;
    timeAgainstMemcpy(state, [&] { tw::find_image(results, path.c_str(), 0, 1.0f, nullptr, 0, nullptr); });
    std::filesystem::remove(path);
}
BENCHMARK(BM_FindImageExactWithCaptureNoMatch)->Unit(benchmark::kMillisecond);

// find_image's fuzzy scan (0.9: 409 of the 4096 pixels may differ) against the literal scan,
// over 256 x 256 positions (the literal scan of the whole screen takes many seconds).
void BM_FindImageFuzzyScanVsLiteral(benchmark::State& state) {
    Screen::shared();
    std::unique_ptr<tw::Surface> surface;
    const tw::image_t screen = captureOnce(surface);
    const tw::image_t tmpl = templateNotOnScreen(screen);
    std::vector<tw::location_t> fast, literal;
    const auto fastScan = [&] {
        tw::do_find_image(fast, screen, tmpl, 300, 400, 256, 256, 0, 0.9f, nullptr, 0);
    };
    for (auto _ : state) fastScan();
    const double fastSeconds = secondsPerCall(fastScan);
    const double literalSeconds = secondsPerCall(
        [&] { tw::reference::do_find_image(literal, screen, tmpl, 300, 400, 256, 256, 0, 0.9f, nullptr, 0); }, 3,
        0.2);
    state.counters["x_faster_than_literal"] = literalSeconds / fastSeconds;
    state.counters["literal_ms"] = literalSeconds * 1e3;
    state.counters["results"] = static_cast<double>(fast.size());
    if (fast.size() != literal.size()) state.SkipWithError("the fast and literal scans disagree");
}
BENCHMARK(BM_FindImageFuzzyScanVsLiteral)->Unit(benchmark::kMillisecond);

// The same on the whole screen, fast scan only, against the memcpy.
void BM_FindImageFuzzyScanWholeScreen(benchmark::State& state) {
    Screen::shared();
    std::unique_ptr<tw::Surface> surface;
    const tw::image_t screen = captureOnce(surface);
    const tw::image_t tmpl = templateNotOnScreen(screen);
    std::vector<tw::location_t> results;
    timeAgainstMemcpy(state, [&] {
        tw::do_find_image(results, screen, tmpl, 0, 0, kWidth - 64, kHeight - 64, 0, 0.9f, nullptr, 0);
    });
}
BENCHMARK(BM_FindImageFuzzyScanWholeScreen)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace
