#pragma once
// Regions of the screen: clipping a script's region to the framebuffer, and shrinking it to the
// positions at which a colour pattern or a template lies wholly inside it.
#include <cstdint>

#include "graphic/Surface.h"

namespace tw {

// A rectangle in framebuffer pixels. A missing region (nullptr) means the whole screen.
struct region_t {
    coord_t x;
    coord_t y;
    coord_t width;
    coord_t height;
};

// One entry of a colour pattern: a colour 0xRRGGBB (with any bit above 23 set it never matches)
// at a point of the pattern's own frame.
struct color_point_t {
    int32_t color;
    coord_t x;
    coord_t y;
};

// Clips `region` (nullptr: the whole screen) to the framebuffer into `out`. Returns 0, leaving
// `out` alone, when the width or height is not positive or the origin lies right of or below the
// screen (tested in that order). A region wholly left of or above the screen is not refused: its
// clipped width or height comes out zero or negative.
int check_and_wash_region(const region_t* region, region_t* out);

// The positions P at which every entry of `pattern` (n entries), placed at P + (entry x, entry y),
// lies inside `clipped`: the search region, and in `span` the pattern's extent. 0 when the
// pattern is wider or taller than the region (or empty).
int wash_region_for_find_colors(const region_t& clipped, const color_point_t* pattern, int32_t n,
                                region_t* search, location_t* span);

// The top-left positions at which `tmpl` lies inside `clipped`: {x, y, width - template width,
// height - template height}. 0 when the template is wider or taller than the region.
int wash_region_for_find_image(const region_t& clipped, const image_t& tmpl, region_t* search);

}  // namespace tw
