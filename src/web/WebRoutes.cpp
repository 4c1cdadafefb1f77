#include "web/WebRoutes.h"

#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>

#include "core/AtomicFile.h"
#include "core/Paths.h"
#include "library/FileManager.h"
#include "platform/RunLoop.h"
#include "play/PivotManager.h"

namespace fs = std::filesystem;

namespace tw::web {

namespace {

// Form bodies of the editor: a script is text, a few MiB at the most.
constexpr size_t kFormLimit = 16 * 1024 * 1024;

using Json = nlohmann::json;

void replyJson(HttpRequest& request, const Json& json) {
    request.sendJson(json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

Json success() { return Json{{"status", "success"}}; }
Json failure(const std::string& info) { return Json{{"status", "fail"}, {"info", info}}; }

// A "path" of the routes: present, at least 2 characters, and (beyond what the phone checks) inside
// the library once ".." and symbolic links are resolved.
bool validPath(const std::optional<std::string>& path) {
    return path && path->size() >= 2 && FileManager::isInsideLibrary(*path);
}

// The status reply of a file operation that reports through callbacks.
template <typename Operation>
void replyWithOperation(HttpRequest& request, Operation&& operation) {
    Json reply = failure("");
    operation([&] { reply = success(); }, [&](const Error& error) { reply = failure(error.description); });
    replyJson(request, reply);
}

std::optional<std::string> readPage(const std::string& siteFolder, const char* name) {
    return readWholeFile(siteFolder + "/" + name);
}

void sendPage(HttpRequest& request, const std::string& siteFolder, const char* name,
              const std::map<std::string, std::string>& variables) {
    auto page = readPage(siteFolder, name);
    if (!page) return request.sendText(404, "Not Found");
    request.sendHtml(renderTemplate(*page, variables));
}

void listFiles(HttpRequest& request) {
    std::string folder = request.query("path").value_or("");
    if (folder.empty()) folder = "/";
    if (!FileManager::isInsideLibrary(folder)) return replyJson(request, failure(kInvalidFilePath));
    FileManager manager;
    Json files = Json::array();
    for (const auto& entry : manager.loadFiles(folder)) {
        const auto attributes = FileManager::fileAttributes(entry);
        const std::string icon = FileManager::fileIcon(entry);
        files.push_back({{"filePath", entry},
                         {"fileSize", attributes ? FileManager::fileSize(*attributes) : ""},
                         {"iconName", icon.substr(icon.rfind('/') + 1)},
                         // Marks for the site's list, beside what the phone's site shows.
                         {"playSettings", manager.playSettingsManager.hasPlaySettings(entry)},
                         {"trigger", manager.isScriptAssignedActivatorTrigger(entry)},
                         {"timer", manager.isTimerSet(entry)}});
    }
    replyJson(request, Json{{"files", std::move(files)}});
}

// Routes that take one valid "path" and run one file operation on it.
void addPathOperation(HttpServer& server, const char* route,
                      void (*operation)(const std::string&, SuccessCallback, FailureCallback)) {
    server.addHandler("GET", route, [operation](HttpRequest& request) {
        const auto path = request.query("path");
        if (!validPath(path)) return replyJson(request, failure(kInvalidFilePath));
        replyWithOperation(request, [&](auto onSuccess, auto onFailure) { operation(*path, onSuccess, onFailure); });
    });
}

void viewFile(HttpRequest& request) {
    const std::string path = request.query("path").value_or("");
    // Beyond the phone, which serves whatever the path names: nothing outside the library.
    if (!FileManager::isInsideLibrary(path)) return request.sendText(403, kInvalidFilePath);
    request.sendFile(FileManager::fullPathOfFile(path), nullptr);
}

void editFile(HttpRequest& request, const std::string& siteFolder) {
    const auto path = request.query("path");
    std::map<std::string, std::string> variables{{"content", ""}, {"info", kInvalidFilePath}};
    if (validPath(path) && FileManager::fileExist(*path))
        FileManager::readFile(
            *path, [&](const std::string& content) { variables = {{"content", content}, {"info", ""}}; },
            [&](const Error& error) { variables = {{"content", ""}, {"info", error.description}}; });
    sendPage(request, siteFolder, "edit.html", variables);
}

void updateFile(HttpRequest& request) {
    const auto path = request.query("path");
    // The body is read either way, so the connection stays usable.
    const auto form = request.readUrlEncodedForm(kFormLimit);
    if (!validPath(path) || !FileManager::fileExist(*path)) return replyJson(request, failure(kInvalidFilePath));
    if (!form) return replyJson(request, failure("The text could not be read (at most 16 MiB)."));
    const auto content = form->find("content");
    const std::string text = content == form->end() ? "" : content->second;
    replyWithOperation(request, [&](auto onSuccess, auto onFailure) {
        FileManager::writeFile(*path, text, onSuccess, onFailure);
    });
}

void sendUploadPage(HttpRequest& request, const std::string& message) {
    request.sendHtml("<h2>" + escapeMarkup(message) + "</h2><br/><a href=\"/\">To Home</a>");
}

// Uploads to one name are taken one at a time, so two of them cannot both find it free.
std::mutex uploadMutex;

void uploadFile(HttpRequest& request) {
    const auto path = request.query("path");
    if (!validPath(path)) return sendUploadPage(request, kInvalidFilePath);
    if (FileManager::fileExist(*path)) return sendUploadPage(request, kFileAlreadyExists);
    // The files arrive into the private folder (same disk as the library, never listed).
    const std::string incoming = Paths::libraryDir();
    std::error_code ec;
    fs::create_directories(incoming, ec);
    auto files = request.receiveMultipartFiles(incoming);
    if (!files) return sendUploadPage(request, "The upload could not be read: send one file as multipart/form-data.");
    if (files->empty()) return sendUploadPage(request, "The upload has no file.");
    std::string message;
    {
        std::lock_guard lock(uploadMutex);
        if (FileManager::fileExist(*path))
            message = kFileAlreadyExists;
        else
            FileManager::moveFile(
                files->front().tempPath, FileManager::fullPathOfFile(*path), [&] { message = kUploadSucceeded; },
                [&](const Error& error) { message = error.description; });
    }
    for (const auto& file : *files) fs::remove(file.tempPath, ec);
    sendUploadPage(request, message);
}

void startPlaying(HttpRequest& request) {
    const auto path = request.query("path");
    if (!path || path->size() < 2 || !FileManager::isInsideLibrary(*path))
        return replyJson(request, failure(kInvalidFilePath));
    if (!FileManager::fileExist(*path)) return replyJson(request, failure(kScriptDoesNotExist));
    // Answered before the play begins; whether it starts is the play controller's decision.
    RunLoop::main().post([script = *path] { PivotManager::sharedInstance().directToPlay(script); });
    replyJson(request, success());
}

void serveStatic(HttpRequest& request, const std::string& siteFolder) {
    if (request.method() != "GET" && request.method() != "HEAD") return request.sendText(405, "Method Not Allowed");
    std::error_code ec;
    const fs::path root = fs::weakly_canonical(siteFolder, ec);
    const fs::path file = fs::weakly_canonical(siteFolder + request.path(), ec);
    const bool inside = !ec && std::mismatch(root.begin(), root.end(), file.begin(), file.end()).first == root.end();
    // Folders have no index file.
    if (!inside || !fs::is_regular_file(file, ec)) return request.sendText(404, "Not Found");
    request.sendFile(file.string());
}

}  // namespace

std::string renderTemplate(std::string_view page, const std::map<std::string, std::string>& variables) {
    std::string out;
    out.reserve(page.size());
    size_t at = 0;
    while (at < page.size()) {
        const size_t open = page.find("{{", at);
        const size_t close = open == std::string_view::npos ? open : page.find("}}", open + 2);
        if (close == std::string_view::npos) break;
        const auto it = variables.find(std::string(page.substr(open + 2, close - open - 2)));
        out.append(page.substr(at, open - at));
        if (it == variables.end())
            out.append(page.substr(open, close + 2 - open));
        else
            out += escapeMarkup(it->second);
        at = close + 2;
    }
    out.append(page.substr(at));
    return out;
}

void addWebRoutes(HttpServer& server, const std::string& siteFolder) {
    server.setFallback([siteFolder](HttpRequest& request) { serveStatic(request, siteFolder); });
    server.addHandler("GET", "/", [siteFolder](HttpRequest& request) { sendPage(request, siteFolder, "index.html", {}); });
    server.addHandler("GET", "/files", listFiles);
    addPathOperation(server, "/file/newFolder", FileManager::newDir);
    addPathOperation(server, "/file/new", FileManager::newFile);
    server.addHandler("GET", "/file/view", viewFile);
    addPathOperation(server, "/file/delete", FileManager::deleteFile);
    server.addHandler("GET", "/file/rename", [](HttpRequest& request) {
        const auto path = request.query("path");
        if (!validPath(path)) return replyJson(request, failure(kInvalidFilePath));
        // "newPath" is passed as given, but may not leave the library either.
        const std::string newPath = request.query("newPath").value_or("");
        if (!FileManager::isInsideLibrary(newPath)) return replyJson(request, failure(kInvalidFilePath));
        replyWithOperation(request, [&](auto onSuccess, auto onFailure) {
            FileManager::renameFile(*path, newPath, onSuccess, onFailure);
        });
    });
    server.addHandler("GET", "/file/edit", [siteFolder](HttpRequest& request) { editFile(request, siteFolder); });
    server.addHandler("POST", "/file/update", updateFile);
    server.addHandler("POST", "/file/upload", uploadFile);
    server.addHandler("GET", "/control/start_playing", startPlaying);
}

}  // namespace tw::web
