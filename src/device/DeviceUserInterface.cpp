#include "device/DeviceUserInterface.h"

#include "device/EventTrace.h"

#include <utility>

namespace tw::device {

void DeviceUserInterface::showToast(const ToastRequest& toast) {
    inner_->showToast(toast);
    auto line = newTraceLine("toast");
    line["text"] = toast.text;
    line["seconds"] = toast.seconds;
    line["position"] = toast.position;
    if (publish_) publish_(dumpTraceLine(line));
}

void DeviceUserInterface::showPlaySettingsView(const PlaySettingsSheet& sheet, PlaySettingsViewDelegate delegate) {
    if (!sheetAnswer_) return inner_->showPlaySettingsView(sheet, std::move(delegate));
    PlaySettingsSheet chosen = *std::exchange(sheetAnswer_, std::nullopt);
    chosen.filePath = sheet.filePath;
    if (delegate.didConfirmToPlay) delegate.didConfirmToPlay(chosen);
    if (delegate.didDismiss) delegate.didDismiss();
}

void DeviceUserInterface::showTextPrompt(const TextPromptRequest& request, TextPromptDelegate delegate) {
    if (!promptAnswer_) return inner_->showTextPrompt(request, std::move(delegate));
    const std::string password = *std::exchange(promptAnswer_, std::nullopt);
    if (delegate.clickedButtonAtIndex) delegate.clickedButtonAtIndex(1, password);
    if (delegate.didDismiss) delegate.didDismiss();
}

}  // namespace tw::device
