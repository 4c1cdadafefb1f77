// tapwright screen set: the picture on a device's virtual display.
#include <cstdio>
#include <filesystem>

#include "cli/Commands.h"
#include "cli/DeviceAccess.h"
#include "device/ImageFile.h"
#include "device/RoleProcess.h"
#include "device/VirtualDisplay.h"
#include "graphic/Bmp.h"
#include "platform/linux/LinuxPlatform.h"
#include "ui/ConsoleUserInterface.h"

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

Command addScreenshotCommand(CLI::App& app, CommonOptions& common) {
    auto out = std::make_shared<std::string>();
    auto profile = std::make_shared<std::string>("default");
    auto* sub = app.add_subcommand("screenshot", "Save the device's whole screen as a 32-bit BMP file");
    sub->footer("Written by the same code as the script function screenshot(); the extension becomes .bmp.");
    sub->add_option("out", *out, "Output file (OUT.bmp)")->required();
    sub->add_option("--root", common.root, "Device root folder");
    sub->add_option("--profile", *profile, "Device profile of the screen's geometry")->capture_default_str();
    return {sub, [&common, out, profile]() -> int {
                linuxp::ProcessSetup setup;
                setup.root = deviceRoot(common);
                setup.profile = linuxp::loadDeviceProfile(linuxp::profilePath(*profile));
                setup.ui = std::make_shared<ConsoleUserInterface>();
                const std::string target = std::filesystem::absolute(*out).string();
                linuxp::installProcess(setup);
                if (screenshot(target.c_str(), nullptr) != 1) {
                    std::fprintf(stderr, "tapwright: cannot save a screenshot to %s (does a device run on %s?)\n",
                                 target.c_str(), setup.root.c_str());
                    return 1;
                }
                return 0;
            }};
}

}  // namespace tw::cli
