// tapwright screen set and tapwright screenshot: what the device's virtual display shows.
#include <cstdio>

#include "cli/Commands.h"
#include "core/Diagnostics.h"
#include "roles/ControlSocket.h"
#include "roles/DeviceAccess.h"
#include "roles/ProcessWiring.h"

namespace tw::cli {

Command addScreenCommand(CLI::App& app, CommonOptions& common) {
    auto image = std::make_shared<std::string>();
    auto* sub = app.add_subcommand("screen", "Change what the device's virtual display shows");
    sub->require_subcommand(1);
    auto* set = sub->add_subcommand("set", "Show a picture (32- or 24-bit BMP, or PNG) on the display");
    set->footer("The picture is placed at the top left on black; a larger one is cropped.");
    set->add_option("image", *image, "Picture file")->required()->check(CLI::ExistingFile);
    set->add_option("--root", common.root, "Device root folder");
    return {sub, [&common, image]() -> int {
                roles::showPicture(deviceRoot(common), roles::loadPictureFile(*image));
                return 0;
            }};
}

Command addScreenshotCommand(CLI::App& app, CommonOptions& common) {
    auto out = std::make_shared<std::string>();
    auto profile = std::make_shared<std::string>("default");
    auto* sub = app.add_subcommand("screenshot", "Save the device's whole screen as a 32-bit BMP file");
    sub->footer(
        "With OUT: the screen goes to OUT, its extension made .bmp, written by the same code as the script\n"
        "function screenshot().\n"
        "Without OUT: the running device takes the screenshot itself, as the control panel's screenshot\n"
        "button does (the screenshot sound, then \"yyyy-MM-dd HH:mm:ss.bmp\" in the script library); the\n"
        "library path of the picture is printed.");
    sub->add_option("out", *out, "Output file (OUT.bmp)");
    sub->add_option("--root", common.root, "Device root folder");
    sub->add_option("--profile", *profile,
                    "Profile of the screen's geometry when no device runs on the root (a running device's wins)")
        ->capture_default_str();
    return {sub, [&common, out, profile]() -> int {
                const std::string root = deviceRoot(common);
                if (!out->empty()) {
                    roles::saveScreenshot(root, roles::profileForCommand(root, *profile), *out);
                    return 0;
                }
                const auto reply = roles::sendControlRequest(root, {{"action", "screenshot"}});
                if (!reply.value("ok", false)) fail("the device could not take the screenshot: " + reply.value("error", ""));
                std::printf("%s\n", reply.value("path", "").c_str());
                return 0;
            }};
}

}  // namespace tw::cli
