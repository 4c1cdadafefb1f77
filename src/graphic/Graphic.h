#pragma once
// Searching the screen: for a pattern of colours at fixed offsets (find_colors) and for a BMP
// template (find_image). Each search captures the display once and reports the matching
// positions in scan order (rows from the top, each row from the left), up to a limit.
#include <cstdint>
#include <vector>

#include "graphic/Region.h"
#include "graphic/Surface.h"

namespace tw {

// Finds every position P of `region` (nullptr: the whole screen), clipped to the screen, at which
// each of the n pattern entries has exactly its colour at P + (entry x, entry y). P is the
// translation of the pattern's own frame. `limit` <= 0 means no limit. `results` is cleared and
// filled. Returns 0 when the region is refused or the pattern does not fit it (nothing is
// captured then) or when the results cannot grow; 1 otherwise, also when there is no capture
// (with no results).
int find_colors(std::vector<location_t>& results, const color_point_t* pattern, int32_t n, int32_t limit,
                const region_t* region);

// The scan of find_colors over `screen`: positions X = search.x + i, Y = search.y + j while
// X < search.x + search.width and Y < search.y + search.height, fractions of the origin kept.
// 1, or 0 when the results cannot grow.
int do_find_colors(std::vector<location_t>& results, const image_t& screen, const color_point_t* pattern, int32_t n,
                   const region_t& search, int32_t limit);

// Finds the template of the BMP file `templatePath` in `region` (nullptr: the whole screen). A
// fuzzy strictly between 0 and 1 is the share of template pixels that must match; any other
// value asks for an exact match. Template pixels whose colour is one of the `ignoreCount`
// colours of `ignoreColors` are skipped. `limit` <= 0 means no limit. `results` is cleared and
// filled with the screen positions of the template's top-left pixel. Returns 0 when there is no
// capture, the template cannot be read (or its headers do not fit its file), the region is
// refused or the template does not fit in it, or the results cannot grow; else 1.
int find_image(std::vector<location_t>& results, const char* templatePath, int32_t limit, float fuzzy,
               const int32_t* ignoreColors, int32_t ignoreCount, const region_t* region);

// The scan of find_image: integer positions from (trunc(x), trunc(y)) while X < x + width and
// Y < y + height; a position matches while no more than (1 - fuzzy) * template pixels (single
// precision, truncated) differ. 1, or 0 when the results cannot grow.
int do_find_image(std::vector<location_t>& results, const image_t& screen, const image_t& tmpl, coord_t x, coord_t y,
                  coord_t width, coord_t height, int32_t limit, float fuzzy, const int32_t* ignoreColors,
                  int32_t ignoreCount);

// The inner loops test eight positions at once where the processor can (x86-64 with AVX2);
// Portable forces the one-position-at-a-time loop, which every build has.
enum class ScanKernel { Automatic, Portable };
void select_scan_kernel(ScanKernel kernel);

}  // namespace tw
