#include "core/Alert.h"

#include "platform/Platform.h"
#include "platform/RunLoop.h"
#include "platform/UserInterface.h"

namespace tw {

void showPlainAlert(const std::string& message) {
    auto ui = Platform::current().ui;
    if (!ui) return;
    AlertRequest alert{"", message, {"OK"}};
    if (RunLoop::hasMain() && !RunLoop::main().isCurrent())
        RunLoop::main().post([ui, alert = std::move(alert)] { ui->showAlert(alert); });
    else
        ui->showAlert(alert);
}

}  // namespace tw
