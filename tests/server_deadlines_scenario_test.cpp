// Deadlines on the outside calls ([fixes] deadlines): a MySQL server, a
// directory and a Manager that accept connections and never answer cost
// their deadline each, are logged, and hold back no other room.
#include <gtest/gtest.h>

#include "support_daemon.h"
#include "support_silent.h"

using namespace std::chrono_literals;

namespace {

TEST(ServerDeadlines, SilentServersCostTheirDeadlineAndHoldBackNoOtherRoom) {
    silent_server mysql, ldap, manager;
    daemon_run run;
    run.use_log_templates();
    const std::string host = "127.0.0.1:";
    run.set("fixes", "deadlines", "yes")
        .set("fixes", "mysql", "yes")
        .set("hung", "dbdriver", "mysql")
        .set("hung", "host", "127.0.0.1")
        .set("hung", "port", std::to_string(mysql.port()))
        .set("hung", "user", "pbx")
        .set("hung", "database", "pbx")
        .set("hung", "connect_timeout", "3")
        .set("services", "checkout", "hung:delete from guests where room = '%exten%'")
        .set("rooms", "type", "ldap")
        .set("rooms", "ldap_host", "127.0.0.1")
        .set("rooms", "ldap_port", std::to_string(ldap.port()))
        .set("rooms", "ldap_version", "3")
        .set("rooms", "ldap_base", "dc=hotel")
        .set("rooms", "ldap_filter", "(roomNumber=*)")
        .set("rooms", "ldap_attribute", "roomNumber")
        .set("rooms", "ldap_timeout", "3")
        .set("services", "cdr_use_manager", "yes")
        .set("services", "cdr_mgr_host", "127.0.0.1")
        .set("services", "cdr_mgr_port", std::to_string(manager.port()))
        .set("services", "cdr_mgr_user", "orlanbeck")
        .set("services", "cdr_mgr_password", "secret")
        .set("services", "ami_login_timeout", "3");
    // The database and the directory are asked in turn before the link starts.
    const auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(run.start()) << run.log();
    EXPECT_LT(std::chrono::steady_clock::now() - started, 9s);
    const std::string mysql_line = "MySQL section [hung] at " + host +
                                   std::to_string(mysql.port()) + ": connect timed out after 3 s";
    EXPECT_EQ(1u, run.count_log(mysql_line)) << run.log();
    EXPECT_EQ(1u, run.count_log("LDAP ldap://" + host + std::to_string(ldap.port()) +
                                ": bind timed out after 3 s"))
        << run.log();

    // Room 101's check-out waits for the database; room 102 is checked in
    // meanwhile.
    ASSERT_TRUE(run.pms.send_record("GO|RN101|"));
    ASSERT_TRUE(run.wait_log("Checkout"));
    const auto sent = std::chrono::steady_clock::now();
    ASSERT_TRUE(run.pms.send_record("GI|RN102|GNSmith|"));
    ASSERT_TRUE(wait_until([&] { return run.pbx("select * from log where exten='102'").size(); }));
    EXPECT_LT(std::chrono::steady_clock::now() - sent, 2s);
    EXPECT_EQ(1u, run.count_log(mysql_line));  // still waiting
    ASSERT_TRUE(wait_until([&] { return run.count_log(mysql_line) == 2; }, 5s)) << run.log();

    ASSERT_TRUE(run.wait_log("Manager " + host + std::to_string(manager.port()) +
                             ": no answer to the login within 3 s"));
    // The Manager counts as unreachable and is connected to again.
    ASSERT_TRUE(wait_until([&] { return manager.accepted() >= 2; }));
    EXPECT_TRUE(run.process().running());
    for (const std::string& line : lines_of(run.log())) {
        if (line.find("timed out after") != std::string::npos ||
            line.find("no answer to the login") != std::string::npos) {
            EXPECT_NE(std::string::npos, line.find(" ERROR[")) << line;
        }
    }
}

}  // namespace
