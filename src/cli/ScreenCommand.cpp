// tapwright screen set: the picture on a device's virtual display.
#include <cstdio>

#include "cli/Commands.h"
#include "cli/DeviceAccess.h"
#include "device/ImageFile.h"
#include "device/RoleProcess.h"
#include "device/VirtualDisplay.h"

namespace tw::cli {

void showPicture(const std::string& root, const device::Picture& picture) {
    std::string error;
    auto framebuffer = device::Framebuffer::open(device::runDir(root), &error);
    if (!framebuffer) throw std::runtime_error(error);
    framebuffer->show(picture);
}

Command addScreenCommand(CLI::App& app, CommonOptions& common) {
    auto image = std::make_shared<std::string>();
    auto* sub = app.add_subcommand("screen", "Change what the device's virtual display shows");
    sub->require_subcommand(1);
    auto* set = sub->add_subcommand("set", "Show a picture (32- or 24-bit BMP, or PNG) on the display");
    set->footer("The picture is placed at the top left on black; a larger one is cropped.");
    set->add_option("image", *image, "Picture file")->required()->check(CLI::ExistingFile);
    set->add_option("--root", common.root, "Device root folder");
    return {sub, [&common, image]() -> int {
                const auto picture = device::loadPicture(*image);
                showPicture(deviceRoot(common), picture);
                return 0;
            }};
}

}  // namespace tw::cli
