#include "graphic/Graphic.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <new>

#include "graphic/Bmp.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define TW_SCAN_AVX2 1
#endif

namespace tw {

namespace {

// Both searches come down to the same question, asked of a row of candidate positions: at how
// many of a list of pixels (the probes, fixed offsets from the candidate) does the screen differ
// from the expected colour, and is that at most `allowed`? Candidate k of a row reads probe i at
// origin + 4k + probes[i].offset, so neighbouring candidates read neighbouring words and eight of
// them can be compared in one vector operation. Since every probe of a matching position must be
// read anyway and reads have no side effects, the order the probes are tested in, and whether a
// rejected candidate is rejected at its first or its last mismatch beyond the allowance, does not
// change which positions match.
struct Probe {
    int64_t offset;  // bytes from the candidate's origin, never negative
    uint32_t color;  // 24-bit colour expected there
};

inline uint32_t wordAt(const uint8_t* at) {
    uint32_t word;
    std::memcpy(&word, at, sizeof word);
    if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap32(word);
    return word & 0xFFFFFFu;
}

// Candidates begin..count-1 one at a time; appends the matching k to out (up to maxOut in all).
size_t scanPortable(const uint8_t* origin, size_t begin, size_t count, const Probe* probes, size_t n,
                    uint32_t allowed, uint32_t* out, size_t found, size_t maxOut) {
    for (size_t k = begin; k < count && found < maxOut; ++k) {
        const uint8_t* at = origin + 4 * k;
        uint32_t mismatches = 0;
        bool rejected = false;
        for (size_t i = 0; i < n; ++i) {
            if (wordAt(at + probes[i].offset) != probes[i].color && ++mismatches > allowed) {
                rejected = true;
                break;
            }
        }
        if (!rejected) out[found++] = static_cast<uint32_t>(k);
    }
    return found;
}

#ifdef TW_SCAN_AVX2
__attribute__((target("avx2"))) size_t emitLanes(unsigned bits, size_t k, uint32_t* out, size_t found,
                                                 size_t maxOut) {
    while (bits && found < maxOut) {
        out[found++] = static_cast<uint32_t>(k + static_cast<unsigned>(__builtin_ctz(bits)));
        bits &= bits - 1;
    }
    return found;
}

// The probes after the first for one block of eight candidates whose lanes in `alive` passed
// the first; returns the lanes that pass them all.
__attribute__((target("avx2"), always_inline)) inline __m256i verifyBlock(const uint8_t* at, __m256i alive,
                                                                           const Probe* probes, size_t n) {
    const __m256i mask = _mm256_set1_epi32(0xFFFFFF);
    for (size_t i = 1; i < n; ++i) {
        const __m256i word = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + probes[i].offset));
        const __m256i color = _mm256_set1_epi32(static_cast<int>(probes[i].color));
        alive = _mm256_and_si256(alive, _mm256_cmpeq_epi32(_mm256_and_si256(word, mask), color));
        if (_mm256_testz_si256(alive, alive)) break;
    }
    return alive;
}

// The lanes of the eight candidates from `at` whose first probe matches.
__attribute__((target("avx2"), always_inline)) inline __m256i firstMatches(const uint8_t* at, __m256i mask,
                                                                            __m256i color) {
    const __m256i word = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
    return _mm256_cmpeq_epi32(_mm256_and_si256(word, mask), color);
}

// Tests the rest of the probes for the block of candidates from k whose first probe matched in
// `alive`, and appends the candidates that pass.
__attribute__((target("avx2"), always_inline)) inline size_t finishBlock(const uint8_t* origin, size_t k,
                                                                          __m256i alive, const Probe* probes,
                                                                          size_t n, uint32_t* out, size_t found,
                                                                          size_t maxOut) {
    if (_mm256_testz_si256(alive, alive)) return found;
    alive = verifyBlock(origin + 4 * k, alive, probes, n);
    return emitLanes(static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(alive))), k, out, found, maxOut);
}

// Eight candidates per step. Exact searches test the first probe of 32 candidates at once and
// pass over them when none matches, and stop a block at the first probe no lane matches;
// allowances count matches per lane and stop a block once every lane is beyond the allowance.
__attribute__((target("avx2"))) size_t scanAvx2(const uint8_t* origin, size_t count, const Probe* probes, size_t n,
                                                uint32_t allowed, uint32_t* out, size_t maxOut) {
    const __m256i mask = _mm256_set1_epi32(0xFFFFFF);
    size_t found = 0;
    size_t k = 0;
    if (allowed == 0) {
        const uint8_t* first = origin + probes[0].offset;
        const __m256i firstColor = _mm256_set1_epi32(static_cast<int>(probes[0].color));
        while (k + 32 <= count && found < maxOut) {
            const __m256i a = firstMatches(first + 4 * k, mask, firstColor);
            const __m256i b = firstMatches(first + 4 * (k + 8), mask, firstColor);
            const __m256i c = firstMatches(first + 4 * (k + 16), mask, firstColor);
            const __m256i d = firstMatches(first + 4 * (k + 24), mask, firstColor);
            const __m256i any = _mm256_or_si256(_mm256_or_si256(a, b), _mm256_or_si256(c, d));
            if (!_mm256_testz_si256(any, any)) {
                found = finishBlock(origin, k, a, probes, n, out, found, maxOut);
                if (found < maxOut) found = finishBlock(origin, k + 8, b, probes, n, out, found, maxOut);
                if (found < maxOut) found = finishBlock(origin, k + 16, c, probes, n, out, found, maxOut);
                if (found < maxOut) found = finishBlock(origin, k + 24, d, probes, n, out, found, maxOut);
            }
            k += 32;
        }
        for (; k + 8 <= count && found < maxOut; k += 8)
            found = finishBlock(origin, k, firstMatches(first + 4 * k, mask, firstColor), probes, n, out, found, maxOut);
    } else {
        // Mismatches after m probes are m - matches; a lane is out once matches < m - allowed.
        const int64_t needed = static_cast<int64_t>(n) - allowed;  // matches a match needs
        for (; k + 8 <= count && found < maxOut; k += 8) {
            const uint8_t* at = origin + 4 * k;
            __m256i matches = _mm256_setzero_si256();
            bool allOut = false;
            for (size_t i = 0; i < n; ++i) {
                const __m256i word = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + probes[i].offset));
                const __m256i color = _mm256_set1_epi32(static_cast<int>(probes[i].color));
                matches = _mm256_sub_epi32(matches, _mm256_cmpeq_epi32(_mm256_and_si256(word, mask), color));
                if ((i & 7) == 7) {
                    const int64_t bound = static_cast<int64_t>(i + 1) - allowed;
                    if (bound > 0) {
                        const __m256i beyond = _mm256_cmpgt_epi32(_mm256_set1_epi32(static_cast<int>(bound)), matches);
                        if (_mm256_movemask_ps(_mm256_castsi256_ps(beyond)) == 0xFF) {
                            allOut = true;
                            break;
                        }
                    }
                }
            }
            if (allOut) continue;
            unsigned bits = 0xFF;
            if (needed > 0) {
                const __m256i enough = _mm256_cmpgt_epi32(matches, _mm256_set1_epi32(static_cast<int>(needed - 1)));
                bits = static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(enough)));
            }
            found = emitLanes(bits, k, out, found, maxOut);
        }
    }
    return scanPortable(origin, k, count, probes, n, allowed, out, found, maxOut);
}

bool processorHasAvx2() {
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
}
#endif

std::atomic<ScanKernel> selectedKernel{ScanKernel::Automatic};

size_t scanCandidates(const uint8_t* origin, size_t count, const Probe* probes, size_t n, uint32_t allowed,
                      uint32_t* out, size_t maxOut) {
    if (n == 0 || allowed >= n) {
        // Nothing can differ beyond the allowance: every candidate matches.
        const size_t all = std::min(count, maxOut);
        for (size_t k = 0; k < all; ++k) out[k] = static_cast<uint32_t>(k);
        return all;
    }
#ifdef TW_SCAN_AVX2
    if (selectedKernel.load(std::memory_order_relaxed) == ScanKernel::Automatic && processorHasAvx2() &&
        n <= static_cast<size_t>(std::numeric_limits<int32_t>::max()))
        return scanAvx2(origin, count, probes, n, allowed, out, maxOut);
#endif
    return scanPortable(origin, 0, count, probes, n, allowed, out, 0, maxOut);
}

// Coordinates the fast paths handle with integer arithmetic: whole numbers of a sane size.
constexpr double kLargestPosition = 1 << 30;

bool wholeAndSmall(double value) { return std::trunc(value) == value && std::fabs(value) < kLargestPosition; }

// How many integers p, counting from `start`, satisfy p < end (start a whole number).
int64_t positionsBefore(double start, double end) {
    if (!(end > start)) return 0;
    const double last = std::ceil(end);
    if (!(last - start < kLargestPosition)) return -1;
    return static_cast<int64_t>(last - start);
}

size_t limitOf(int32_t limit) { return limit >= 1 ? static_cast<size_t>(limit) : std::numeric_limits<size_t>::max(); }

// A prepared scan: the probes (offsets relative to the lowest one), and for each candidate row
// the byte offset in the image of its first candidate's lowest probe.
struct ProbeSet {
    std::vector<Probe> probes;
    int64_t lowest = 0;   // least relative offset before rebasing
    int64_t highest = 0;  // greatest, before rebasing
};

ProbeSet rebase(std::vector<Probe> probes) {
    ProbeSet set;
    if (probes.empty()) return set;
    set.lowest = set.highest = probes[0].offset;
    for (const auto& p : probes) {
        set.lowest = std::min(set.lowest, p.offset);
        set.highest = std::max(set.highest, p.offset);
    }
    for (auto& p : probes) p.offset -= set.lowest;
    set.probes = std::move(probes);
    return set;
}

// Runs the prepared scan over rows x rows of candidates whose first one has its origin
// (unrebased) at byte `firstOrigin`, rows `rowStride` bytes apart, and hands each match (row,
// column) to `report`, which returns false to stop. False when the reads would leave the image.
template <class Report>
bool scanImage(const image_t& screen, const ProbeSet& set, int64_t firstOrigin, int64_t rows, int64_t cols,
               uint32_t allowed, size_t limit, std::vector<uint32_t>& hits, Report&& report) {
    if (rows <= 0 || cols <= 0) return true;
    const int64_t stride = screen.bytesPerRow;
    const int64_t imageBytes = static_cast<int64_t>(screen.height) * stride;
    if (!set.probes.empty()) {
        const int64_t low = firstOrigin + set.lowest;
        const int64_t high = firstOrigin + (rows - 1) * stride + (cols - 1) * 4 + set.highest + 4;
        if (low < 0 || high > imageBytes) return false;
    }
    hits.resize(static_cast<size_t>(cols));
    size_t found = 0;
    for (int64_t row = 0; row < rows; ++row) {
        // With no probes nothing is read, and any origin will do.
        const uint8_t* origin =
            set.probes.empty() ? screen.data : screen.data + (firstOrigin + row * stride + set.lowest);
        const size_t n = scanCandidates(origin, static_cast<size_t>(cols), set.probes.data(), set.probes.size(),
                                        allowed, hits.data(), limit - found);
        for (size_t h = 0; h < n; ++h) {
            ++found;
            if (!report(row, static_cast<int64_t>(hits[h]))) return true;
        }
        if (found >= limit) return true;
    }
    return true;
}

bool ignored(uint32_t color, const int32_t* ignoreColors, int32_t ignoreCount) {
    if (ignoreCount <= 0 || !ignoreColors) return false;
    for (int32_t i = 0; i < ignoreCount; ++i) {
        if (color == static_cast<uint32_t>(ignoreColors[i])) return true;
    }
    return false;
}

uint32_t allowedMismatches(const image_t& tmpl, float fuzzy) {
    if (!(fuzzy > 0.0f && fuzzy < 1.0f)) return 0;
    const float share = 1.0f - fuzzy;
    const float pixels = static_cast<float>(tmpl.width * tmpl.height);
    const float allowed = share * pixels;
    if (!(allowed > 0.0f)) return 0;
    if (allowed >= 4294967295.0f) return std::numeric_limits<uint32_t>::max();
    return static_cast<uint32_t>(allowed);
}

bool startResults(std::vector<location_t>& results) {
    results.clear();
    try {
        results.reserve(16);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

void dropResults(std::vector<location_t>& results) {
    results.clear();
    results.shrink_to_fit();
}

}  // namespace

void select_scan_kernel(ScanKernel kernel) { selectedKernel.store(kernel); }

int do_find_colors(std::vector<location_t>& results, const image_t& screen, const color_point_t* pattern, int32_t n,
                   const region_t& search, int32_t limit) {
    if (!startResults(results)) return 0;
    const size_t maxResults = limitOf(limit);
    try {
        // An entry with bits above the colour never equals a 24-bit read: no position matches.
        for (int32_t i = 0; i < n; ++i) {
            if (static_cast<uint32_t>(pattern[i].color) > 0xFFFFFFu) return 1;
        }

        bool whole = screen.kind == kImageTopRowFirst && screen.bytesPerPixel == 4 && screen.data &&
                     wholeAndSmall(search.x) && wholeAndSmall(search.y);
        for (int32_t i = 0; whole && i < n; ++i) whole = wholeAndSmall(pattern[i].x) && wholeAndSmall(pattern[i].y);
        const int64_t cols = whole ? positionsBefore(search.x, search.x + search.width) : -1;
        const int64_t rows = whole ? positionsBefore(search.y, search.y + search.height) : -1;
        if (cols >= 0 && rows >= 0) {
            const int64_t stride = screen.bytesPerRow;
            std::vector<Probe> probes;
            probes.reserve(static_cast<size_t>(std::max(n, 0)));
            for (int32_t i = 0; i < n; ++i)
                probes.push_back({static_cast<int64_t>(pattern[i].y) * stride + static_cast<int64_t>(pattern[i].x) * 4,
                                  static_cast<uint32_t>(pattern[i].color)});
            const ProbeSet set = rebase(std::move(probes));
            const auto x0 = static_cast<int64_t>(search.x), y0 = static_cast<int64_t>(search.y);
            std::vector<uint32_t> hits;
            const bool scanned = scanImage(screen, set, y0 * stride + x0 * 4, rows, cols, 0, maxResults, hits,
                                           [&](int64_t row, int64_t col) {
                                               const location_t at{static_cast<coord_t>(x0 + col),
                                                                   static_cast<coord_t>(y0 + row)};
                                               results.push_back(at);
                                               graphic_trace("find colors: x:%f, y:%f", at.x, at.y);
                                               return true;
                                           });
            if (scanned) return 1;
            results.clear();
        }

        // Fractional positions (or an unusual image): one position at a time, with the very
        // arithmetic of the colour reads.
        for (coord_t Y = search.y; Y < search.y + search.height; Y += 1) {
            for (coord_t X = search.x; X < search.x + search.width; X += 1) {
                bool matched = true;
                for (int32_t i = 0; i < n; ++i) {
                    if (color_at_location(screen, X + pattern[i].x, Y + pattern[i].y) !=
                        static_cast<uint32_t>(pattern[i].color)) {
                        matched = false;
                        break;
                    }
                }
                if (matched) {
                    results.push_back({X, Y});
                    graphic_trace("find colors: x:%f, y:%f", X, Y);
                }
                if (results.size() >= maxResults) return 1;
            }
        }
    } catch (const std::bad_alloc&) {
        dropResults(results);
        return 0;
    }
    return 1;
}

int find_colors(std::vector<location_t>& results, const color_point_t* pattern, int32_t n, int32_t limit,
                const region_t* region) {
    results.clear();
    region_t clipped;
    if (!check_and_wash_region(region, &clipped)) return 0;
    region_t search;
    location_t span;
    if (!wash_region_for_find_colors(clipped, pattern, n, &search, &span)) return 0;
    const auto surface = capture_surface();
    if (!surface) return 1;
    // "regin": the system's spelling of its trace line, kept as it is.
    graphic_trace("regin in fact in image: %f, %f, %f, %f", search.x, search.y, search.width, search.height);
    return do_find_colors(results, surface->image(), pattern, n, search, limit);
}

int do_find_image(std::vector<location_t>& results, const image_t& screen, const image_t& tmpl, coord_t x, coord_t y,
                  coord_t width, coord_t height, int32_t limit, float fuzzy, const int32_t* ignoreColors,
                  int32_t ignoreCount) {
    if (!startResults(results)) return 0;
    const size_t maxResults = limitOf(limit);
    const uint32_t allowed = allowedMismatches(tmpl, fuzzy);
    try {
        const double startX = std::trunc(x), startY = std::trunc(y);
        if (!(std::fabs(startX) < kLargestPosition && std::fabs(startY) < kLargestPosition)) return 1;
        const int64_t x0 = static_cast<int64_t>(startX), y0 = static_cast<int64_t>(startY);
        const int64_t cols = positionsBefore(startX, x + width);
        const int64_t rows = positionsBefore(startY, y + height);
        if (cols == 0 || rows == 0) return 1;

        if (screen.kind == kImageTopRowFirst && screen.bytesPerPixel == 4 && screen.data && x0 >= 0 && y0 >= 0 &&
            cols > 0 && rows > 0) {
            const int64_t stride = screen.bytesPerRow;
            std::vector<Probe> probes;
            probes.reserve(static_cast<size_t>(tmpl.width) * tmpl.height);
            for (uint32_t ty = 0; ty < tmpl.height; ++ty) {
                for (uint32_t tx = 0; tx < tmpl.width; ++tx) {
                    const uint32_t t = color_at_location(tmpl, tx, ty);
                    if (ignored(t, ignoreColors, ignoreCount)) continue;
                    probes.push_back({static_cast<int64_t>(ty) * stride + static_cast<int64_t>(tx) * 4, t});
                }
            }
            const ProbeSet set = rebase(std::move(probes));
            std::vector<uint32_t> hits;
            const bool scanned = scanImage(screen, set, y0 * stride + x0 * 4, rows, cols, allowed, maxResults, hits,
                                           [&](int64_t row, int64_t col) {
                                               results.push_back({static_cast<coord_t>(x0 + col),
                                                                  static_cast<coord_t>(y0 + row)});
                                               return true;
                                           });
            if (scanned) return 1;
            results.clear();
        }

        // An unusual image: one position at a time through the colour reads.
        for (int64_t Y = y0; static_cast<coord_t>(Y) < y + height; ++Y) {
            for (int64_t X = x0; static_cast<coord_t>(X) < x + width; ++X) {
                uint32_t mismatches = 0;
                bool rejected = false;
                for (uint32_t ty = 0; ty < tmpl.height && !rejected; ++ty) {
                    for (uint32_t tx = 0; tx < tmpl.width; ++tx) {
                        const uint32_t t = color_at_location(tmpl, tx, ty);
                        if (ignored(t, ignoreColors, ignoreCount)) continue;
                        if (t != color_at_location(screen, static_cast<coord_t>(X + tx), static_cast<coord_t>(Y + ty)) &&
                            ++mismatches > allowed) {
                            rejected = true;
                            break;
                        }
                    }
                }
                if (rejected) continue;
                results.push_back({static_cast<coord_t>(X), static_cast<coord_t>(Y)});
                if (results.size() >= maxResults) return 1;
            }
        }
    } catch (const std::bad_alloc&) {
        dropResults(results);
        return 0;
    }
    return 1;
}

int find_image(std::vector<location_t>& results, const char* templatePath, int32_t limit, float fuzzy,
               const int32_t* ignoreColors, int32_t ignoreCount, const region_t* region) {
    results.clear();
    const auto surface = capture_surface();
    if (!surface) return 0;
    const image_t screen = surface->image();
    image_t tmpl;
    if (!read_bmp(templatePath, &tmpl)) return 0;
    region_t clipped;
    if (!check_and_wash_region(region, &clipped)) return 0;
    region_t search;
    if (!wash_region_for_find_image(clipped, tmpl, &search)) return 0;
    return do_find_image(results, screen, tmpl, search.x, search.y, search.width, search.height, limit, fuzzy,
                         ignoreColors, ignoreCount);
}

}  // namespace tw
