// The device's web server over a real socket: every route with its replies and failures (the
// library's own edge cases and attempts to leave it), the static files and templates, uploads
// (malformed, concurrent), the password, and the commands port's messages for both servers.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "EngineFixture.h"
#include "HttpClient.h"
#include "core/Global.h"
#include "core/Paths.h"
#include "core/Settings.h"
#include "library/FileManager.h"
#include "roles/CommandsPort.h"
#include "web/WebRoutes.h"
#include "web/WebServerManager.h"

namespace tw {
namespace {

using test::httpGet;
using test::httpRequest;
using test::urlEncode;
using Json = nlohmann::json;

Bytes noData() { return {}; }

int32_t replyWord(const Payload& reply) {
    return reply && reply->size() == 4 ? getLE<int32_t>(reply->data(), 0) : -1;
}
std::string replyText(const Payload& reply) { return reply ? std::string(reply->begin(), reply->end()) : "(none)"; }

class WebServerTest : public test::EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        WebServerConfig config;
        config.bindAddress = "127.0.0.1";
        config.webPort = 0;
        config.davPort = 0;
        WebServerManager::sharedInstance().configure(config);
        site = Paths::resolve(kWebsitePath);
        test::writeFile(site + "/index.html", "<h1>Library</h1>{{info}}");
        test::writeFile(site + "/edit.html", "<textarea>{{content}}</textarea><p>{{info}}</p>");
        library = FileManager::rootPath();
    }
    void TearDown() override {
        WebServerManager::sharedInstance().reset();
        EngineFixture::TearDown();
    }

    Payload command(int32_t msgid) { return commandsPortCallBack(msgid, noData()); }
    uint16_t startWeb() {
        command(kMsgStartWebServer);
        const std::string address = WebServerManager::sharedInstance().webServerAddress();
        return static_cast<uint16_t>(std::stoi(address.substr(address.rfind(':') + 1)));
    }
    static Json json(const test::HttpReply& reply) { return Json::parse(reply.body, nullptr, false); }

    std::string site, library;
};

TEST_F(WebServerTest, CommandsStartStopAndReportBothServersAndTheirAutoLaunchSettings) {
    auto& manager = WebServerManager::sharedInstance();
    EXPECT_EQ(replyWord(command(kMsgIsWebServerRunning)), kReplyNo);
    EXPECT_EQ(replyText(command(kMsgWebServerAddress)), "");
    EXPECT_EQ(command(kMsgStartWebServer), std::nullopt);
    EXPECT_EQ(replyWord(command(kMsgIsWebServerRunning)), kReplyYes);
    EXPECT_TRUE(defaults->boolForKey(settings::kWebServerAutoLaunch));
    const std::string address = replyText(command(kMsgWebServerAddress));
    EXPECT_TRUE(address.starts_with("http://127.0.0.1:") && address.ends_with("/")) << address;
    // Starting again keeps the running server (and its port).
    command(kMsgStartWebServer);
    EXPECT_EQ(replyText(command(kMsgWebServerAddress)), address);

    EXPECT_EQ(replyWord(command(kMsgIsWebDAVServerRunning)), kReplyNo);
    command(kMsgStartWebDAVServer);
    EXPECT_EQ(replyWord(command(kMsgIsWebDAVServerRunning)), kReplyYes);
    EXPECT_NE(replyText(command(kMsgWebDAVServerAddress)), address);
    command(kMsgStopWebDAVServer);
    EXPECT_EQ(replyWord(command(kMsgIsWebDAVServerRunning)), kReplyNo);
    EXPECT_FALSE(defaults->boolForKey(settings::kWebDAVServerAutoLaunch));

    command(kMsgStopWebServer);
    EXPECT_EQ(replyWord(command(kMsgIsWebServerRunning)), kReplyNo);
    EXPECT_FALSE(defaults->boolForKey(settings::kWebServerAutoLaunch));
    EXPECT_EQ(httpGet(static_cast<uint16_t>(std::stoi(address.substr(17))), "/files").status, 0);

    // Start-up starts what the settings say.
    defaults->setBool(settings::kWebDAVServerAutoLaunch, true);
    manager.launchAtStartUp();
    EXPECT_FALSE(manager.isWebServerRunning());
    EXPECT_TRUE(manager.isWebDAVServerRunning());
    EXPECT_TRUE(replyWord(command(kMsgIsWifiAvailable)) == kReplyYes || replyWord(command(kMsgIsWifiAvailable)) == kReplyNo);
}

TEST_F(WebServerTest, APortThatCannotBeBoundLeavesTheServerStopped) {
    const uint16_t taken = startWeb();
    command(kMsgStopWebServer);
    web::HttpServer holder;
    ASSERT_TRUE(holder.start({"127.0.0.1", taken}));
    WebServerConfig config;
    config.bindAddress = "127.0.0.1";
    config.webPort = taken;
    WebServerManager::sharedInstance().configure(config);
    command(kMsgStartWebServer);
    EXPECT_EQ(replyWord(command(kMsgIsWebServerRunning)), kReplyNo);
    EXPECT_EQ(replyText(command(kMsgWebServerAddress)), "");
}

// One route request and what it must answer and leave on disk.
struct RouteCase {
    const char* name;
    const char* target;
    const char* reply;     // the whole JSON reply, or the start of an HTML/text body
    int status = 200;
    const char* exists = nullptr;   // a library path that must exist afterwards
    const char* missing = nullptr;  // one that must not
};

class WebRouteTest : public WebServerTest, public ::testing::WithParamInterface<RouteCase> {};

TEST_P(WebRouteTest, AnswersAndChangesTheLibraryAsSpecified) {
    test::writeFile(library + "/a.lua", "touchDown(1, 2, 3)");
    test::writeFile(library + "/sub/b.lua", "-- b");
    test::writeFile(site + "/../outside.txt", "secret");
    std::filesystem::create_symlink(site + "/..", library + "/link");
    const uint16_t port = startWeb();
    const RouteCase& c = GetParam();
    const auto reply = httpGet(port, c.target);
    EXPECT_EQ(reply.status, c.status);
    if (reply.header("content-type").starts_with("application/json"))
        EXPECT_EQ(json(reply), Json::parse(c.reply)) << reply.body;
    else
        EXPECT_TRUE(reply.body.starts_with(c.reply)) << reply.body;
    if (c.exists) {
        EXPECT_TRUE(FileManager::fileExist(c.exists)) << c.exists;
    }
    if (c.missing) {
        EXPECT_FALSE(FileManager::fileExist(c.missing)) << c.missing;
    }
}

void PrintTo(const RouteCase& c, std::ostream* os) { *os << c.name; }

constexpr const char* kInvalid = R"({"status":"fail","info":"Invalid file path."})";
constexpr const char* kOk = R"({"status":"success"})";

INSTANTIATE_TEST_SUITE_P(
    Routes, WebRouteTest,
    ::testing::Values(
        RouteCase{"NewFile", "/file/new?path=/c.lua", kOk, 200, "/c.lua"},
        RouteCase{"NewFileOnRootIsInvalid", "/file/new?path=/", kInvalid},
        RouteCase{"NewFileOneLetterIsInvalid", "/file/new?path=a", kInvalid},
        RouteCase{"NewFileWithoutPathIsInvalid", "/file/new", kInvalid},
        RouteCase{"NewFileThatExists", "/file/new?path=/a.lua", R"({"status":"fail","info":"File already exists."})"},
        RouteCase{"NewFileOutsideTheLibrary", "/file/new?path=/../../x.lua", kInvalid, 200, nullptr, "/../../x.lua"},
        RouteCase{"NewFileThroughALinkOut", "/file/new?path=/link/x.lua", kInvalid, 200, nullptr, "/link/x.lua"},
        RouteCase{"NewFolder", "/file/newFolder?path=/d", kOk, 200, "/d"},
        RouteCase{"NewFolderEncodedDotDot", "/file/newFolder?path=%2F..%2F..%2Fd", kInvalid},
        RouteCase{"Delete", "/file/delete?path=/a.lua", kOk, 200, nullptr, "/a.lua"},
        RouteCase{"DeleteMissing", "/file/delete?path=/zz.lua", R"({"status":"fail","info":"File does not exist."})"},
        RouteCase{"DeleteTheLinkedFolderOut", "/file/delete?path=/link/outside.txt", kInvalid},
        RouteCase{"Rename", "/file/rename?path=/a.lua&newPath=/sub/z.lua", kOk, 200, "/sub/z.lua", "/a.lua"},
        RouteCase{"RenameOntoExisting", "/file/rename?path=/a.lua&newPath=/sub/b.lua", R"({"status":"fail","info":"File exists"})", 200, "/a.lua"},
        RouteCase{"RenameOutOfTheLibrary", "/file/rename?path=/a.lua&newPath=/../a.lua", kInvalid, 200, "/a.lua"},
        RouteCase{"ListSubFolder", "/files?path=/sub", R"({"files":[{"filePath":"/sub/b.lua","fileSize":" 4.0B","iconName":"text@2x.png","playSettings":false,"timer":false,"trigger":false}]})"},
        RouteCase{"ListOutsideTheLibrary", "/files?path=/..", kInvalid},
        RouteCase{"ListMissingFolderIsEmpty", "/files?path=/nowhere", R"({"files":[]})"},
        RouteCase{"ViewFile", "/file/view?path=/a.lua", "touchDown(1, 2, 3)"},
        RouteCase{"ViewOutsideIsForbidden", "/file/view?path=/../../../Applications/Tapwright.app/outside.txt", "Invalid file path.", 403},
        RouteCase{"ViewThroughALinkIsForbidden", "/file/view?path=/link/outside.txt", "Invalid file path.", 403},
        RouteCase{"ViewMissingFile", "/file/view?path=/zz.lua", "Not Found", 404},
        RouteCase{"EditShowsTheTextEscaped", "/file/edit?path=/a.lua", "<textarea>touchDown(1, 2, 3)</textarea><p></p>"},
        RouteCase{"EditMissingFile", "/file/edit?path=/zz.lua", "<textarea></textarea><p>Invalid file path.</p>"},
        RouteCase{"EditOutside", "/file/edit?path=/link/outside.txt", "<textarea></textarea><p>Invalid file path.</p>"},
        RouteCase{"PlayMissingScript", "/control/start_playing?path=/zz.lua", R"({"status":"fail","info":"Script doesn't exist."})"},
        RouteCase{"PlayShortPath", "/control/start_playing?path=/", kInvalid},
        RouteCase{"StartPageIsRendered", "/", "<h1>Library</h1>{{info}}"},
        RouteCase{"StartPageByNameIsTheFile", "/index.html", "<h1>Library</h1>{{info}}"},
        RouteCase{"StaticFolderHasNoIndex", "/icons/", "Not Found", 404},
        RouteCase{"StaticOutsideTheSite", "/../outside.txt", "Not Found", 404},
        RouteCase{"StaticEncodedDotDot", "/%2e%2e/outside.txt", "Not Found", 404}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(WebServerTest, UpdateWritesOnlyExistingFilesAndKeepsEveryByte) {
    test::writeFile(library + "/a.lua", "old");
    const uint16_t port = startWeb();
    const std::string text = "a = \"x&y=z\" -- 100% ünïcode\r\n+";
    auto update = [&](const std::string& path) {
        return json(httpRequest(port, {"POST", "/file/update?path=" + urlEncode(path),
                                       {"Content-Type: application/x-www-form-urlencoded"},
                                       "content=" + urlEncode(text) + "&other=1"}));
    };
    EXPECT_EQ(update("/a.lua"), Json::parse(kOk));
    EXPECT_EQ(test::readFile(library + "/a.lua"), text);
    EXPECT_EQ(update("/new.lua"), Json::parse(kInvalid));
    EXPECT_FALSE(FileManager::fileExist("/new.lua"));
}

TEST_F(WebServerTest, UploadsAreStoredOnceAndMalformedOnesLeaveNothing) {
    test::writeFile(library + "/a.lua", "old");
    const uint16_t port = startWeb();
    auto upload = [&](const std::string& path, const std::string& body) {
        return httpRequest(port, {"POST", "/file/upload?path=" + path,
                                  {"Content-Type: multipart/form-data; boundary=----twBoundary7MA4YWxk"}, body}).body;
    };
    const std::string page = "<h2>Successful!</h2><br/><a href=\"/\">To Home</a>";
    EXPECT_EQ(upload("/up.lua", test::multipartBody("----twBoundary7MA4YWxk", "up.lua", std::string(300000, 'u'))), page);
    EXPECT_EQ(test::readFile(library + "/up.lua"), std::string(300000, 'u'));
    EXPECT_EQ(upload("/a.lua", test::multipartBody("----twBoundary7MA4YWxk", "a.lua", "new")),
              "<h2>File already exists.</h2><br/><a href=\"/\">To Home</a>");
    EXPECT_EQ(test::readFile(library + "/a.lua"), "old");
    EXPECT_EQ(upload("/", test::multipartBody("----twBoundary7MA4YWxk", "a.lua", "new")),
              "<h2>Invalid file path.</h2><br/><a href=\"/\">To Home</a>");
    // Cut off in the middle of the file, and without any file part.
    EXPECT_TRUE(upload("/cut.lua", test::multipartBody("----twBoundary7MA4YWxk", "cut.lua", "partial").substr(0, 120)).starts_with("<h2>The upload"));
    EXPECT_TRUE(upload("/none.lua", "------twBoundary7MA4YWxk--\r\n").starts_with("<h2>The upload"));
    EXPECT_FALSE(FileManager::fileExist("/cut.lua"));
    // No temporary upload file is left in the private folder.
    for (const auto& entry : std::filesystem::directory_iterator(Paths::libraryDir()))
        EXPECT_EQ(entry.path().filename().string().find(".upload"), std::string::npos) << entry.path();
}

TEST_F(WebServerTest, ConcurrentUploadsOfOneNameStoreExactlyOne) {
    const uint16_t port = startWeb();
    std::vector<std::string> pages(6);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < pages.size(); ++i)
        threads.emplace_back([&, i] {
            pages[i] = httpRequest(port, {"POST", "/file/upload?path=/same.lua",
                                          {"Content-Type: multipart/form-data; boundary=----twConcurrent"},
                                          test::multipartBody("----twConcurrent", "s.lua", std::string(200000, char('a' + i)))}).body;
        });
    for (auto& t : threads) t.join();
    const auto stored = std::count_if(pages.begin(), pages.end(), [](const auto& p) { return p.starts_with("<h2>Successful!"); });
    EXPECT_EQ(stored, 1);
    const std::string content = test::readFile(library + "/same.lua");
    EXPECT_EQ(content, std::string(200000, content.front()));
}

TEST_F(WebServerTest, StaticFilesHaveACacheAgeAndByteRanges) {
    test::writeFile(site + "/app.js", "0123456789");
    const uint16_t port = startWeb();
    const auto whole = httpGet(port, "/app.js");
    EXPECT_NE(whole.header("cache-control").find("max-age=3600"), std::string::npos) << whole.header("cache-control");
    EXPECT_NE(whole.header("content-type").find("javascript"), std::string::npos);
    const auto part = httpRequest(port, {"GET", "/app.js", {"Range: bytes=2-4"}});
    EXPECT_EQ(part.status, 206);
    EXPECT_EQ(part.body, "234");
}

TEST_F(WebServerTest, StartPlayingAnswersAtOnceAndThePlayRunsOnTheMainLoop) {
    test::writeFile(library + "/p.lua", "x = 1");
    const auto reply = httpGet(startWeb(), "/control/start_playing?path=/p.lua");
    EXPECT_EQ(json(reply), Json::parse(kOk));
    EXPECT_TRUE(runUntil([&] { return playsEnded > 0; }));
}

TEST_F(WebServerTest, APasswordGuardsEveryRequestAndARefusedOneChangesNothing) {
    std::string error;
    ASSERT_TRUE(web::writePasswordFile(Paths::resolve(kWebPasswordPath), "s3cret", &error)) << error;
    const uint16_t port = startWeb();
    EXPECT_EQ(httpGet(port, "/file/new?path=/x.lua").status, 401);
    EXPECT_EQ(httpRequest(port, {"GET", "/file/new?path=/x.lua", {}, "", "tapwright", "wrong"}).status, 401);
    EXPECT_FALSE(FileManager::fileExist("/x.lua"));
    EXPECT_EQ(httpRequest(port, {"GET", "/file/new?path=/x.lua", {}, "", "tapwright", "s3cret"}).body, kOk);
    EXPECT_TRUE(FileManager::fileExist("/x.lua"));
    // Removing the password opens the server again, without a restart.
    ASSERT_TRUE(web::writePasswordFile(Paths::resolve(kWebPasswordPath), "", &error));
    EXPECT_EQ(httpGet(port, "/files").status, 200);
}

TEST(TemplateTest, VariablesAreEscapedAndOtherTextKept) {
    EXPECT_EQ(web::renderTemplate("<p>{{a}}|{{b}}|{{zz}}|{{a</p>", {{"a", "<&\"'>"}, {"b", ""}}),
              "<p>&lt;&amp;&quot;&#39;&gt;||{{zz}}|{{a</p>");
}

}  // namespace
}  // namespace tw
