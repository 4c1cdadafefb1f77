#include "core/Paths.h"

namespace tw {

namespace {
std::string& rootStorage() {
    static std::string root;
    return root;
}
}  // namespace

void Paths::setRoot(const std::string& root) {
    std::string r = root;
    while (!r.empty() && r.back() == '/') r.pop_back();
    rootStorage() = r;
}

const std::string& Paths::root() { return rootStorage(); }

std::string Paths::resolve(const std::string& fixedPath) { return rootStorage() + fixedPath; }

std::string Paths::preferencesFile(const std::string& domain) {
    return resolve(std::string(kPreferencesPath) + "/" + domain + ".plist");
}

}  // namespace tw
