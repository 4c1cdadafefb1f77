#pragma once
// The plain message box: no title, the message, one button "OK", no delegate. Scripts' alert(),
// the runner's error alert and the library's notices all show it this way.
#include <string>

namespace tw {

// Shows the alert on the main run loop without waiting (at once when called there). The alert
// keeps its own copy of the text. Nothing happens without a user interface.
void showPlainAlert(const std::string& message);

}  // namespace tw
