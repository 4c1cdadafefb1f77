#include <gtest/gtest.h>

#include <map>

#include "TestSupport.h"
#include "roles/Supervisor.h"

namespace tw::roles {
namespace {

TEST(Supervisor, RestartsRolesThatDiedAndGivesUpOnOnesThatKeepDyingButNotOnesEndedOnPurpose) {
    test::TempDir dir("tw-supervisor");
    test::writeFile(dir.path() / "role", "#!/bin/sh\necho >> " + dir.str() + "/$2\ncase $2 in clean) exit 0 ;; failing) exit 3 ;;"
                                         " KILL|TERM|INT) kill -$2 $$ ;; esac\nexec sleep 30\n");
    std::filesystem::permissions(dir.path() / "role", std::filesystem::perms::owner_all);
    Supervisor supervisor(dir.str() + "/role", {});
    // Ended on purpose (status 0, SIGTERM, SIGINT): down for good. Died: started again, five times in ten seconds at most.
    const std::map<std::string, long> starts = {{"clean", 1}, {"TERM", 1}, {"INT", 1}, {"failing", 5}, {"KILL", 5}, {"healthy", 1}};
    for (const auto& [role, count] : starts) supervisor.addRole(role);
    ASSERT_TRUE(supervisor.startAll());
    ASSERT_TRUE(test::eventually([&] {
        supervisor.reap(true);
        return std::all_of(starts.begin(), starts.end(), [&](auto& r) { return r.first == "healthy" || supervisor.pidOf(r.first) < 0; });
    }, 20000));
    for (const auto& [role, count] : starts) {
        const std::string text = test::readFile(dir.path() / role);
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), count) << role;
    }
    supervisor.startAll();
    EXPECT_EQ(supervisor.pidOf("KILL"), -1);  // given up: not started again
}

}  // namespace
}  // namespace tw::roles
