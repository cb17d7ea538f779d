// The [fixes] corrections of the PMS link and of the process, end to end
// against the simulators; and, for each, that it is off without the section.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <unistd.h>

#include <cstdio>

#include "support_daemon.h"

using namespace std::chrono_literals;

namespace {

// The call records live in a database of their own ([cdr]), so that the
// billing pass never holds the lock of the guest templates' database.
std::string cdr_file(const daemon_run& run) {
    return run.dir().file("cdr.db");
}

// `n` calls of `room`, each at its own second of the day from `first` on.
void add_calls(daemon_run& run, const std::string& room, int n, int first = 1) {
    if (n == 0) return;
    ASSERT_TRUE(sqlite_exec(
        cdr_file(run),
        "with recursive n(i) as (select " + std::to_string(first) +
            " union all select i + 1 from n where i < " + std::to_string(first + n - 1) +
            ") insert into calls (src, d, t, dst, billsec) select '" + room +
            "', '2024-05-14', printf('%02d:%02d:%02d', i / 3600, i / 60 % 60, i % 60), "
            "'555' || i, 60 from n"));
}

// Room 101 billed from the PBX table `calls` by a query pass; `calls` calls
// are there from the start.
void use_calls(daemon_run& run, int calls = 0) {
    ASSERT_TRUE(sqlite_exec(cdr_file(run),
                            "create table calls (src, d, t, dst, billsec, "
                            "posted default 0)"));
    add_calls(run, "101", calls);
    run.set("cdr", "dbdriver", "sqlite")
        .set("cdr", "database", cdr_file(run))
        .set("rooms", "room1", "101")
        .set("services", "billcalls",
             "cdr:select d, t, dst, billsec, -1 from calls where src='%exten%' and posted=0")
        .set("services", "billmark",
             "cdr:update calls set posted=1 where src='%exten%' and d='%date%' and t='%time%'");
}

mode_t mode_of(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

// (Calls that become due while the link is down: FixesValues. Without the
// section a lost link is not noticed: Compatibility.)
TEST(FixesLink, RecordsComeInOrderAtOnceAndALostLinkIsMadeAgainAtOnce) {
    daemon_run run;
    run.set("fixes", "all", "yes").set("pms", "write_timeout", "0.5");
    run.use_log_templates();
    use_calls(run);
    // A pause of 5 s after each record would take over 16 minutes for these.
    run.env.push_back("ORLANBECK_TEST_RECORD_PAUSE_MS=5000");
    ASSERT_TRUE(run.start()) << run.log();
    for (int room = 1000; room < 1200; ++room)
        ASSERT_TRUE(run.pms.send_record("GI|RN" + std::to_string(room) + "|GNGuest|"));
    ASSERT_TRUE(run.pms.send_record("GI|RN7|GNLate|"));
    ASSERT_TRUE(run.pms.send_record("GO|RN7|"));
    // Watched in the log, so that the test's reads do not hold up the writes.
    ASSERT_TRUE(wait_until([&] { return run.count_log("insert into log values") == 202; }, 60s))
        << run.count_log("insert into log values") << " of 202";
    std::this_thread::sleep_for(300ms);
    sql_rows rows = run.pbx("select what, exten from log order by rowid");
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ((std::vector<std::string>{"checkin", std::to_string(1000 + i)}), rows[i]) << i;
    EXPECT_EQ((std::vector<std::string>{"checkout", "7"}), rows.back());

    // The PMS resets the link, closes it cleanly, then ends it with "LE":
    // each time the daemon connects again at once and runs the start-up again.
    run.pms.reset_connection();
    ASSERT_TRUE(wait_until([&] { return run.pms.connections() == 2; }, 3s)) << run.log();
    ASSERT_TRUE(run.pms.wait_link_active(10s));
    run.pms.drop_connection();
    ASSERT_TRUE(wait_until([&] { return run.pms.connections() == 3; }, 3s)) << run.log();
    ASSERT_TRUE(run.pms.wait_link_active(10s));
    run.pms.send_record("LE|DA240514|TI120000|");
    ASSERT_TRUE(wait_until([&] { return run.pms.connections() == 4; }, 3s)) << run.log();
    ASSERT_TRUE(run.pms.wait_link_active(10s));
    EXPECT_EQ(3u, run.count_log("Connection to PMS lost"));
    EXPECT_EQ(4u, run.pms.count_frames("LS|"));

    // A PMS that stops reading costs the link, not the threads.
    run.pms.pause_reading(true);
    // Calls are added until the socket buffers are full: how much they take
    // grows with the pace of the writes, and under a sanitizer the postings
    // go out at a few hundred a second.
    int added = 0;
    ASSERT_TRUE(wait_until(
        [&] {
            if (run.count_log("Connection to PMS lost") == 4) return true;
            if (added < 80000 &&
                sqlite_rows(cdr_file(run), "select count(*) from calls where posted = 0")[0][0] ==
                    "0") {
                add_calls(run, "101", 2000, added + 1);
                added += 2000;
            }
            return false;
        },
        120s))
        << added << " calls\n"
        << run.log();
    EXPECT_TRUE(has_line_like(run.log(), kStamp +
                                             ":  ERROR[@]: link.cpp:@ in write_bounded: PMS "
                                             "127.0.0.1:@: a write took longer than 0.5 s: the "
                                             "link is taken as down"))
        << run.log();
    run.pms.pause_reading(false);
    ASSERT_TRUE(wait_until([&] { return run.pms.connections() == 5; }, 10s)) << run.log();
    ASSERT_TRUE(run.pms.wait_link_active(10s));
    ASSERT_TRUE(run.play({"GI|RN101|GNSmith|"}, "\tName: Smith")) << run.log();
    ASSERT_TRUE(wait_until([&] { return run.pbx("select count(*) from log")[0][0] == "203"; }));
}

// A PMS whose accept queue is full (plain TCP, [fixes] deadlines), and one
// that accepts but never answers the TLS handshake (TLS always has its
// deadline): each attempt costs the deadline, logged, and is retried.
TEST(FixesLink, DeadlinesBoundConnectingAndTheTlsHandshake) {
    for (const bool tls : {false, true}) {
        daemon_run run(false);
        run.set("pms", "connect_timeout", "1");
        if (tls)
            run.set("pms", "tls", "yes");
        else
            run.set("fixes", "deadlines", "yes");
        int port = 0;
        const int listener = listen_loopback(run.pms_port(), &port);
        ASSERT_GE(listener, 0);
        int filler = -1;
        if (!tls) {
            // Backlog 0: the test's own connection fills the queue, and the
            // daemon's is never answered.
            listen(listener, 0);
            filler = connect_loopback(port);
            ASSERT_GE(filler, 0);
        }
        const auto start = std::chrono::steady_clock::now();
        ASSERT_TRUE(run.start());
        const std::string line =
            tls ? "the TLS handshake took longer than 1 s" : "connecting took longer than 1 s";
        ASSERT_TRUE(run.wait_log(line)) << run.log();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 5s) << run.log();
        EXPECT_TRUE(has_line_like(run.log(), kStamp +
                                                 ":  ERROR[@]: link.cpp:@ in connect: PMS "
                                                 "127.0.0.1:" +
                                                 std::to_string(port) + ": " + line))
            << run.log();
        EXPECT_TRUE(wait_until([&] { return run.count_log(line) >= 2; }, 10s)) << run.log();
        EXPECT_TRUE(run.process().running());
        if (filler >= 0) close(filler);
        close(listener);
    }
}

// Started and reloaded in the foreground, logging to its file.
TEST(FixesLink, HangupReloadsRotatesTheLogAndAMissingFileEndsWithStatusOne) {
    daemon_run run;
    run.set("fixes", "all", "yes");
    use_calls(run);
    add_calls(run, "101", 1);
    add_calls(run, "102", 1);
    run.console_log = false;
    const std::string log_file = run.dir().file("orlanbeck.log");
    write_file(log_file, "");
    chmod(log_file.c_str(), 0666);
    ASSERT_TRUE(run.start()) << run.log();
    EXPECT_EQ(0640u, mode_of(log_file));
    EXPECT_EQ(0640u, mode_of(run.states_file()));
    ASSERT_TRUE(run.pms.wait_for_frame("PS|P#0001|RN101|", 10s)) << run.log();

    // A room added to [rooms] is billed after the reload.
    run.set("rooms", "room2", "102").write_config();
    run.process().signal(SIGHUP);
    ASSERT_TRUE(run.pms.wait_for_frame("PS|P#0002|RN102|", 10s)) << run.log();

    // A check-in (which closes the states file for good) does not cost the
    // billing its room list.
    ASSERT_TRUE(run.play({"GI|RN101|GNSmith|"}, "\tName: Smith"));
    add_calls(run, "101", 2);
    ASSERT_TRUE(run.pms.wait_for_frame("PS|P#0003|RN101|", 10s)) << run.log();

    // A new PMS port is connected to.
    pms_sim moved;
    ASSERT_TRUE(moved.start());
    run.set("pms", "port", std::to_string(moved.port())).write_config();
    run.process().signal(SIGHUP);
    ASSERT_TRUE(moved.wait_link_active(10s)) << run.log();

    // A log file moved away is left for a new one, private too.
    ASSERT_EQ(0, rename(log_file.c_str(), (log_file + ".1").c_str()));
    run.process().signal(SIGHUP);
    ASSERT_TRUE(run.wait_log("Hangup.")) << read_file(log_file + ".1");
    EXPECT_EQ(0640u, mode_of(log_file));
    // Nothing on standard output: no "Read code", no statements.
    EXPECT_EQ(std::string::npos, run.process().output().find("Read code"));

    // A file that cannot be read on reload ends the daemon with status 1.
    std::remove(run.config_path().c_str());
    run.process().signal(SIGHUP);
    EXPECT_EQ(1, run.process().wait_exit(10s)) << run.log();
}

// A reload that changes the event classes the login asks for starts a new
// Manager session, also when only fixes:manager_events changed them; one
// that changes only fixes:private_files (read at start) starts none.
TEST(FixesLink, AReloadThatChangesTheLoginsEventClassesStartsANewSession) {
    daemon_run run;
    run.use_manager();
    run.unset("services", "cdr_mgr_events");
    run.set("fixes", "reload", "yes").set("fixes", "signals", "yes");
    ASSERT_TRUE(run.start()) << run.log();
    run.set("fixes", "private_files", "yes").write_config();
    run.process().signal(SIGHUP);
    ASSERT_TRUE(run.wait_log("Hangup.")) << run.log();
    const std::pair<const char*, const char*> changes[] = {{"manager_events", "cdr"},
                                                           {"cdr_mgr_events", "cdr,user"}};
    int logins = 1;
    for (const auto& [key, events] : changes) {
        if (std::string(key) == "manager_events")
            run.set("fixes", key, "yes");
        else
            run.set("services", key, events);
        run.write_config();
        run.process().signal(SIGHUP);
        ASSERT_TRUE(run.mgr.wait_logins(++logins)) << run.log();
        EXPECT_NE(std::string::npos,
                  run.mgr.login_texts().back().find("Events: " + std::string(events) + "\r\n"));
    }
    EXPECT_EQ(2u, run.count_log("Manager settings changed: starting a new session"));
}

}  // namespace
