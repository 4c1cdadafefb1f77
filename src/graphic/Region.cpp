#include "graphic/Region.h"

namespace tw {

int check_and_wash_region(const region_t* region, region_t* out) {
    surface_info_t info;
    get_surface_info(&info);
    const auto screenWidth = static_cast<coord_t>(info.width);
    const auto screenHeight = static_cast<coord_t>(info.height);
    if (!region) {
        *out = {0, 0, screenWidth, screenHeight};
        return 1;
    }
    if (region->width <= 0) return 0;
    if (region->height <= 0) return 0;
    if (region->x > screenWidth - 1) return 0;
    if (region->y > screenHeight - 1) return 0;

    region_t clipped = *region;
    if (clipped.x < 0) {
        clipped.width = region->width + region->x;
        clipped.x = 0;
    }
    if (clipped.y < 0) {
        clipped.height = region->height + region->y;
        clipped.y = 0;
    }
    if (clipped.x + clipped.width > screenWidth) clipped.width = screenWidth - clipped.x;
    if (clipped.y + clipped.height > screenHeight) clipped.height = screenHeight - clipped.y;
    *out = clipped;
    return 1;
}

int wash_region_for_find_colors(const region_t& clipped, const color_point_t* pattern, int32_t n,
                                region_t* search, location_t* span) {
    if (n < 1 || !pattern) return 0;
    coord_t leftmost = pattern[0].x, rightmost = pattern[0].x;
    coord_t topmost = pattern[0].y, bottommost = pattern[0].y;
    for (int32_t i = 1; i < n; ++i) {
        if (pattern[i].x < leftmost) leftmost = pattern[i].x;
        if (pattern[i].x > rightmost) rightmost = pattern[i].x;
        if (pattern[i].y < topmost) topmost = pattern[i].y;
        if (pattern[i].y > bottommost) bottommost = pattern[i].y;
    }
    const location_t extent{rightmost - leftmost, bottommost - topmost};
    if (clipped.width < extent.x || clipped.height < extent.y) return 0;
    const region_t result{clipped.x - leftmost, clipped.y - topmost, clipped.width - extent.x,
                          clipped.height - extent.y};
    graphic_trace("leftmost:%f, rightmost:%f, topmost:%f, bottommost:%f", leftmost, rightmost, topmost, bottommost);
    // "regin" is how the system spells its trace lines; kept so traces compare line for line.
    graphic_trace("regin in fact for findColors: %f, %f, %f, %f", result.x, result.y, result.width, result.height);
    if (span) *span = extent;
    if (search) *search = result;
    return 1;
}

int wash_region_for_find_image(const region_t& clipped, const image_t& tmpl, region_t* search) {
    const auto templateWidth = static_cast<coord_t>(tmpl.width);
    const auto templateHeight = static_cast<coord_t>(tmpl.height);
    if (clipped.width < templateWidth || clipped.height < templateHeight) return 0;
    const region_t result{clipped.x, clipped.y, clipped.width - templateWidth, clipped.height - templateHeight};
    // "regin": the system's spelling, kept (see above).
    graphic_trace("regin in fact for findImage: %f, %f, %f, %f", result.x, result.y, result.width, result.height);
    if (search) *search = result;
    return 1;
}

}  // namespace tw
