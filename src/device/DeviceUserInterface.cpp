#include "device/DeviceUserInterface.h"

#include "device/EventTrace.h"

namespace tw::device {

void DeviceUserInterface::showToast(const ToastRequest& toast) {
    inner_->showToast(toast);
    auto line = newTraceLine("toast");
    line["text"] = toast.text;
    line["seconds"] = toast.seconds;
    line["position"] = toast.position;
    if (publish_) publish_(dumpTraceLine(line));
}

}  // namespace tw::device
