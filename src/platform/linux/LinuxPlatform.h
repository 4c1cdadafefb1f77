#pragma once
// Facts of a Linux host that the process wiring needs: where devices and resources live, and the
// running executable.
#include <string>

namespace tw::linuxp {

// $XDG_DATA_HOME/tapwright/devices/default, or ~/.local/share/tapwright/devices/default.
std::string defaultDeviceRoot();

// The repository's resources folder: $TAPWRIGHT_RESOURCES when set, else the source tree's.
std::string resourcesDir();

// The profile file for a profile name ("default" -> resources/devices/default.json), or the name
// itself when it is a path to a file.
std::string profilePath(const std::string& profileNameOrPath);

// The path of the running executable (role processes and apps are started from it).
std::string selfExecutable();

}  // namespace tw::linuxp
