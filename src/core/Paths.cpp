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

std::string Paths::devicePath(const std::string& hostPath) {
    const std::string& root = rootStorage();
    if (root.empty() || hostPath.compare(0, root.size(), root) != 0) return hostPath;
    if (hostPath.size() == root.size()) return "/";
    return hostPath[root.size()] == '/' ? hostPath.substr(root.size()) : hostPath;
}

std::string Paths::preferencesFile(const std::string& domain) {
    return resolve(std::string(kPreferencesPath) + "/" + domain + ".plist");
}

}  // namespace tw
