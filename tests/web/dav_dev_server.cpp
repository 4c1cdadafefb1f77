// A WebDAV server over a folder, for running litmus against the request handling alone:
//   dav_dev_server ROOT STATE_FOLDER   prints "http://127.0.0.1:PORT/" and serves until killed.
#include <csignal>
#include <cstdio>
#include <unistd.h>

#include "web/HttpServer.h"
#include "web/WebDav.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s ROOT STATE_FOLDER\n", argv[0]);
        return 2;
    }
    tw::web::WebDavService service(argv[1], argv[2]);
    tw::web::HttpServer server;
    server.setFallback([&](tw::web::HttpRequest& r) { service.handle(r); });
    std::string error;
    tw::web::HttpServerOptions options;
    options.webDavMethods = true;
    if (!server.start(options, &error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    std::printf("http://127.0.0.1:%u/\n", server.port());
    std::fflush(stdout);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    int sig = 0;
    sigwait(&set, &sig);
    return 0;
}
