#pragma once
// The management site's routes over the script library: the JSON listing and file operations, the
// editor page, uploads, starting a play, and the static files of the site folder.
#include <map>
#include <string>
#include <string_view>

#include "web/HttpServer.h"

namespace tw::web {

inline constexpr const char* kInvalidFilePath = "Invalid file path.";
inline constexpr const char* kScriptDoesNotExist = "Script doesn't exist.";
inline constexpr const char* kFileAlreadyExists = "File already exists.";
inline constexpr const char* kUploadSucceeded = "Successful!";

// Registers every route on `server`, in the order that gives later ones precedence, with the
// static files of `siteFolder` behind them.
void addWebRoutes(HttpServer& server, const std::string& siteFolder);

// Every "{{name}}" of a variable replaced by its value through escapeMarkup; other text, unknown names
// included, stays as it is.
std::string renderTemplate(std::string_view page, const std::map<std::string, std::string>& variables);

}  // namespace tw::web
