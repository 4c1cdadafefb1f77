// The WebDAV server beyond what litmus checks: no way out of the served folder, uploads that break
// off, dead properties across a restart, the store following scripts, digest over relayed methods.
#include <gmock/gmock.h>

#include <filesystem>

#include "EngineFixture.h"
#include "HttpClient.h"
#include "core/AtomicFile.h"
#include "core/Paths.h"
#include "library/FileManager.h"
#include "store/DataManager.h"
#include "web/HttpServer.h"
#include "web/WebDav.h"

namespace tw::web {
namespace {

namespace fs = std::filesystem;
using Headers = std::vector<std::string>;

class WebDavTest : public test::EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        scripts = FileManager::rootPath();
        start();
    }
    void start(const std::string& passwordFile = "") {
        server = std::make_unique<HttpServer>();
        service = std::make_unique<WebDavService>(scripts, Paths::libraryDir());
        server->setFallback([this](HttpRequest& r) { service->handle(r); });
        HttpServerOptions options;
        options.webDavMethods = true;
        options.passwordFile = passwordFile;
        ASSERT_TRUE(server->start(options));
    }
    test::HttpReply request(const std::string& method, const std::string& target, const Headers& headers = {},
                            const std::string& body = "", const std::string& password = "") {
        return test::httpRequest(server->port(), {method, target, headers, body, kDigestUser, password});
    }
    std::string propfindColor(const std::string& target) {
        return request("PROPFIND", target, {"Depth: 0"},
                       "<propfind xmlns='DAV:'><prop><color xmlns='urn:x'/></prop></propfind>")
            .body;
    }

    std::string scripts;
    std::unique_ptr<HttpServer> server;
    std::unique_ptr<WebDavService> service;
};

TEST_F(WebDavTest, NoRequestReachesOutsideTheServedFolder) {
    // The device root holds the library five levels down; "outside" is beside it.
    const fs::path outside = root->path() / "outside";
    fs::create_directories(outside);
    test::writeFile(outside / "secret.txt", "secret");
    test::writeFile(scripts + "/in.txt", "in");
    fs::create_directory_symlink(outside, scripts + "/link");
    const std::string up = "/../../../../..", encodedUp = "/%2e%2e/%2e%2E/%2E%2e/%2e%2e/%2e%2e";
    const std::string self = "http://127.0.0.1";  // the test client's Host

    struct Case {
        std::string method, target;
        Headers headers;
    };
    const std::vector<Case> cases = {
        {"GET", "/link/secret.txt", {}},
        {"PUT", "/link/new.txt", {}},
        {"PUT", up + "/outside/new.txt", {}},
        {"PUT", encodedUp + "/outside/new.txt", {}},
        {"DELETE", "/link/secret.txt", {}},
        {"MKCOL", "/link/made", {}},
        {"PROPPATCH", "/link/secret.txt", {}},
        {"COPY", "/in.txt", {"Destination: " + up + "/outside/new.txt"}},
        {"COPY", "/in.txt", {"Destination: " + self + encodedUp + "/outside/new.txt"}},
        {"COPY", "/link/secret.txt", {"Destination: /stolen.txt"}},
        {"MOVE", "/in.txt", {"Destination: /link/new.txt"}},
        {"MOVE", "/in.txt", {"Destination: " + self + "/link%2fnew.txt"}},
        {"LOCK", "/link/new.txt", {}},
    };
    for (const auto& c : cases) {
        const auto r = request(c.method, c.target, c.headers);
        EXPECT_TRUE(r.status >= 400 && r.status < 500) << c.method << " " << c.target << ": " << r.status;
        EXPECT_EQ(r.body.find("secret\n"), std::string::npos);
    }
    const auto listing = request("PROPFIND", "/", {"Depth: infinity"});
    EXPECT_EQ(listing.status, 207);
    EXPECT_THAT(listing.body, testing::HasSubstr("<D:href>/in.txt</D:href>"));
    EXPECT_THAT(listing.body, testing::Not(testing::HasSubstr("secret")));

    std::vector<std::string> left;
    for (const auto& e : fs::directory_iterator(outside)) left.push_back(e.path().filename().string());
    EXPECT_THAT(left, testing::ElementsAre("secret.txt"));
    EXPECT_EQ(test::readFile(outside / "secret.txt"), "secret");
    EXPECT_FALSE(fs::exists(scripts + "/stolen.txt"));
    EXPECT_EQ(test::readFile(scripts + "/in.txt"), "in");
}

TEST_F(WebDavTest, AnUploadThatBreaksOffLeavesTheOldFileAndNoTemporaryOne) {
    test::writeFile(scripts + "/a.lua", "old");
    const auto r = request("PUT", "/a.lua", {"Content-Length: 100000"}, std::string(5000, 'x'));
    EXPECT_EQ(r.status, 400);
    EXPECT_EQ(test::readFile(scripts + "/a.lua"), "old");
    for (const auto& e : fs::directory_iterator(scripts))
        EXPECT_FALSE(isAtomicTempName(e.path().filename().string())) << e.path();

    EXPECT_EQ(request("PUT", "/a.lua", {}, "new").status, 204);
    EXPECT_EQ(test::readFile(scripts + "/a.lua"), "new");
}

TEST_F(WebDavTest, DeadPropertiesOutliveARestartButNotTheirResource) {
    test::writeFile(scripts + "/a.lua", "x");
    const auto set = request("PROPPATCH", "/a.lua", {},
                             "<propertyupdate xmlns='DAV:'><set><prop><color xmlns='urn:x'>dark <b xmlns='urn:y'>red"
                             "</b> &amp; &lt;blue&gt;</color></prop></set></propertyupdate>");
    ASSERT_EQ(set.status, 207);
    ASSERT_THAT(set.body, testing::HasSubstr("200 OK"));

    server->stop();
    start();
    EXPECT_THAT(propfindColor("/a.lua"),
                testing::HasSubstr(">dark <b xmlns=\"urn:y\">red</b> &amp; &lt;blue&gt;</P:color>"));

    EXPECT_EQ(request("DELETE", "/a.lua").status, 204);
    EXPECT_EQ(request("PUT", "/a.lua", {}, "x").status, 201);
    EXPECT_THAT(propfindColor("/a.lua"), testing::HasSubstr("404 Not Found"));
}

TEST_F(WebDavTest, AScriptsPlaySettingsFollowItsMoveAndGoWithItsDeletion) {
    ASSERT_TRUE(DataManager::initDb());
    test::writeFile(scripts + "/a.lua", "x");
    fs::create_directory(scripts + "/sub");
    PlaySettings settings;
    settings.filePath = "/a.lua";
    settings.repeatTime = 7;
    ASSERT_TRUE(DataManager::insertPlaySettings(settings));

    EXPECT_EQ(request("MOVE", "/a.lua", {"Destination: /sub/b.lua"}).status, 201);
    EXPECT_FALSE(DataManager::findPlaySettingsByScriptTitle("/a.lua"));
    const auto moved = DataManager::findPlaySettingsByScriptTitle("/sub/b.lua");
    ASSERT_TRUE(moved);
    EXPECT_EQ(moved->repeatTime, 7);

    EXPECT_EQ(request("DELETE", "/sub/b.lua").status, 204);
    EXPECT_FALSE(DataManager::findPlaySettingsByScriptTitle("/sub/b.lua"));
}

TEST_F(WebDavTest, RelayedMethodsPassDigestAuthenticationComputedOverTheirOwnName) {
    const std::string passwords = root->str() + "/passwords";
    std::string error;
    ASSERT_TRUE(writePasswordFile(passwords, "pw", &error)) << error;
    server->stop();
    start(passwords);
    test::writeFile(scripts + "/a.lua", "x");

    for (const std::string method : {"COPY", "MOVE"}) {
        const Headers destination = {"Destination: /" + method + ".lua"};
        EXPECT_EQ(request(method, "/a.lua", destination).status, 401) << method;
        EXPECT_FALSE(fs::exists(scripts + "/" + method + ".lua"));
        EXPECT_EQ(request(method, "/a.lua", destination, "", "pw").status, 201) << method;
        EXPECT_TRUE(fs::exists(scripts + "/" + method + ".lua")) << method;
    }
}

}  // namespace
}  // namespace tw::web
