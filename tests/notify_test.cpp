// What the daemon tells systemd: READY, STATUS and watchdog pings, read from
// a notification socket of our own; pings stop when the billing thread
// hangs, and go on while it is stopped by its configuration or the PMS is away.
#include <gtest/gtest.h>
#include <signal.h>

#include "sim_notify.h"
#include "support_daemon.h"

using namespace std::chrono_literals;

namespace {

std::vector<std::string> notify_env(const temp_dir& dir) {
    return {"NOTIFY_SOCKET=" + dir.file("notify.sock"), "WATCHDOG_USEC=400000"};
}

TEST(Notify, ReadyStatusPingsAndAWedgedBillingThreadStopsThePings) {
    daemon_run run;
    notify_sim systemd(run.dir().file("notify.sock"));
    run.env = notify_env(run.dir());
    run.env.push_back("ORLANBECK_TEST_WEDGE_BILLING_MS=2000");
    run.set("fixes", "signals", "yes");
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_TRUE(systemd.wait("READY=1", 10s)) << systemd.all();
    EXPECT_NE(std::string::npos, systemd.messages().front().find("READY=1\nSTATUS="));
    ASSERT_TRUE(run.pms.send_record("GI|RN101|GNSmith|"));
    ASSERT_TRUE(systemd.wait("last record GI 101 at ", 10s)) << systemd.all();
    EXPECT_TRUE(has_line_like(systemd.all(),
                              "STATUS=PMS link active since ##:##, last record GI 101 at ##:##"))
        << systemd.all();
    // A room number with line breaks adds no assignment: STATUS holds
    // printable ASCII, and 16 characters of the room number at most.
    ASSERT_TRUE(run.pms.send_record("GI|RN102\nMAINPID=1\nWATCHDOG=trigger|GNSmith|"));
    ASSERT_TRUE(systemd.wait("last record GI 102?MAINPID=1?WA at ", 10s)) << systemd.all();
    for (const std::string& m : systemd.messages())
        for (const std::string& line : lines_of(m))
            EXPECT_TRUE(line.starts_with("STATUS=") || line == "READY=1" || line == "WATCHDOG=1")
                << line;
    ASSERT_TRUE(wait_until([&] { return systemd.count("WATCHDOG=1") >= 2; })) << systemd.all();

    // Hung at 2 s: its last beat counts for one watchdog period more.
    std::this_thread::sleep_for(2500ms);
    const size_t pings = systemd.count("WATCHDOG=1");
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(pings, systemd.count("WATCHDOG=1")) << systemd.all();

    // SIGTERM ends the daemon with status 0, also with a thread that cannot be joined.
    run.process().signal(SIGTERM);
    EXPECT_TRUE(systemd.wait("STOPPING=1", 2s)) << systemd.all();
    EXPECT_EQ(0, run.process().wait_exit(10s));
    EXPECT_TRUE(run.wait_log("Caught signal 15. Exiting.")) << run.log();
}

// Also the PMS link as the daemon keeps it: made once the PMS appears,
// dropped on a stray byte and made again.
TEST(Notify, AnUnreachablePmsAndABillingThreadStoppedByDesignKeepThePings) {
    daemon_run run(false);
    notify_sim systemd(run.dir().file("notify.sock"));
    run.env = notify_env(run.dir());
    run.set("services", "billcalls", "pbx:select %bogus% from cdr where src='%exten%'");
    run.set("rooms", "room1", "101");
    ASSERT_TRUE(run.start());
    const std::string unreachable =
        "STATUS=PMS 127.0.0.1:" + std::to_string(run.pms_port()) + " unreachable since ";
    ASSERT_TRUE(systemd.wait(unreachable, 10s)) << systemd.all();
    ASSERT_TRUE(wait_until([&] { return systemd.count("WATCHDOG=1") >= 3; })) << systemd.all();
    const std::string error =
        "Unable to connect to PMS at 127.0.0.1:" + std::to_string(run.pms_port()) + "/PB";
    ASSERT_TRUE(wait_until([&] {
        return run.count_log(error) >= 3 && run.count_log("Connection to PMS lost") >= 2;
    })) << run.log();
    EXPECT_TRUE(run.process().running()) << "start-up goes on without the PMS";
    // A fresh states file gets its tables after the start-up's errors; with
    // -d the log goes to the console only.
    EXPECT_TRUE(run.wait_log("Sqlite query error: no such table: rooms, ext.errcode 1"));
    EXPECT_EQ("", read_file(run.dir().file("orlanbeck.log")));

    ASSERT_TRUE(run.pms.start());
    ASSERT_TRUE(run.pms.wait_link_active(15s)) << run.log();
    EXPECT_EQ(1u, run.pms.count_frames("LS|"));
    ASSERT_TRUE(run.wait_log("this thread stops here")) << run.log();
    ASSERT_TRUE(
        systemd.wait("; billing stopped: services:billcalls has an unknown placeholder", 10s))
        << systemd.all();
    const size_t pings = systemd.count("WATCHDOG=1");
    EXPECT_TRUE(wait_until([&] { return systemd.count("WATCHDOG=1") >= pings + 3; }))
        << systemd.all();

    // A stray byte before a record drops the link, which is made again.
    ASSERT_TRUE(run.pms.send_raw("A"));
    ASSERT_TRUE(run.wait_log("Read code 41"));
    ASSERT_TRUE(wait_until([&] { return run.pms.connections() == 2; }, 15s)) << run.log();
    ASSERT_TRUE(run.pms.wait_link_active(15s)) << run.log();
    EXPECT_EQ(2u, run.pms.count_frames("LS|"));
}

}  // namespace
