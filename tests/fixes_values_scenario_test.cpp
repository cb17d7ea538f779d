// The [fixes] corrections of values, statements and billing, end to end
// against the simulators, with SQLite and with a MariaDB server as the PBX
// database.
#include <gtest/gtest.h>

#include "support_daemon.h"
#include "support_mariadb.h"

using namespace std::chrono_literals;

namespace {

TEST(FixesValues, NamesReachSqliteAndMariaDbExactlyAndAnAcceptedCallIsMarkedWithItsNumber) {
    mariadb_server server;
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(server.exec_root(
        "CREATE TABLE orlanbeck_test.guests (room VARCHAR(8), name VARCHAR(80), day VARCHAR(32)) "
        "CHARACTER SET utf8mb4"));
    ASSERT_TRUE(server.exec_root("CREATE TABLE orlanbeck_test.probe (ok INT NOT NULL)"));
    daemon_run run;
    ASSERT_TRUE(sqlite_exec(run.pbx_file(), "create table guests (room, name, day)"));
    // Check-in writes the guest into the SQLite table, check-out and wake-up
    // into the MariaDB one.
    run.set("fixes", "all", "yes")
        .set("pms", "encoding", "cp1252")
        .set("rooms", "room1", "101")
        .set("services", "noremovecalls", "1")
        .set("asterisk", "dbdriver", "mysql")
        .set("asterisk", "host", "127.0.0.1")
        .set("asterisk", "port", std::to_string(server.port()))
        .set("asterisk", "user", mariadb_server::user)
        .set("asterisk", "password", mariadb_server::password)
        .set("asterisk", "database", mariadb_server::database)
        .set("services", "checkin", "pbx:insert into guests values ('%exten%', '%name%', '')")
        .set("services", "checkout", "asterisk:insert into guests values ('%exten%', '%name%', '')")
        .set("services", "wakeup_set",
             "asterisk:insert into guests values ('%exten%', 'wake', '%date% %time%')");
    run.use_manager();
    ASSERT_TRUE(run.start()) << run.log();
    EXPECT_NE(std::string::npos, run.log().find("p=(hidden)"));
    EXPECT_EQ(std::string::npos, run.log().find("secret"));
    run.mgr.send_cdr(mgr_cdr_event::make("101", "5551234", "2024-05-09 08:30:00", 125));
    auto ps = run.pms.wait_for_frame("PS|", 10s);
    ASSERT_TRUE(ps) << run.log();
    EXPECT_EQ("PS|P#0001|RN101|PTT|DA240509|TI083000|DU000205|DD5551234|", *ps);
    ASSERT_TRUE(wait_until([&] {
        return run.states("select userfield from cdrcache") == sql_rows{{"0001"}};
    })) << run.log();

    // A quote, a backslash and a double quote; then "Müller" in Windows-1252.
    const std::string obrien = "O'Brien \\ \"Jr\"", mueller = "M\xFCller";
    ASSERT_TRUE(run.play(
        {"GI|RN101|GN" + obrien + "|", "GI|RN102|GN" + mueller + "|", "GO|RN101|GN" + obrien + "|",
         "GO|RN102|GN" + mueller + "|", "WR|RN103|DA240509|TI083000|"},
        "Wakeup set"));
    ASSERT_TRUE(wait_until([&] { return run.pbx("select count(*) from guests")[0][0] == "2"; }))
        << run.log();
    EXPECT_EQ((sql_rows{{"101", obrien}, {"102", "M\xC3\xBCller"}}),
              run.pbx("select room, name from guests order by room"));
    // The server fails the statement (a NULL into a NOT NULL column) unless
    // exactly one row matches.
    auto one_row = [&](const std::string& where) {
        return server.exec_root(
            "INSERT INTO orlanbeck_test.probe SELECT IF((SELECT COUNT(*) FROM "
            "orlanbeck_test.guests WHERE " +
            where + ") = 1, 1, NULL)");
    };
    ASSERT_TRUE(wait_until([&] { return bool(one_row("room='103'")); })) << run.log();
    EXPECT_TRUE(one_row("room='101' AND name='O\\'Brien \\\\ \"Jr\"'"));
    EXPECT_TRUE(one_row("room='102' AND HEX(name)='4DC3BC6C6C6572'"));
    // A wake-up for 08:30 on 2024-05-09 reaches the statement as that date and time.
    EXPECT_TRUE(one_row("room='103' AND day='2024-05-09 08:30:00'"));
    EXPECT_FALSE(one_row("room='104'"));
    EXPECT_EQ(std::string::npos, run.log_after("Received Link active").find("ERROR[")) << run.log();
}

TEST(FixesValues, CallsDueWhileTheLinkIsDownAreAcceptedExactlyOnce) {
    daemon_run run;
    run.set("fixes", "all", "yes").set("rooms", "room1", "101").set("rooms", "room2", "102");
    ASSERT_TRUE(sqlite_exec(run.pbx_file(),
                            "create table calls (src, d, t, dst, billsec, cost, posted default 0, "
                            "billed default '')"));
    run.set("services", "billcalls",
            "pbx:select d, t, dst, billsec, cost from calls where src='%exten%' and posted=0 "
            "and dst like '10%'")
        .set("services", "billmark",
             "pbx:update calls set posted=1 where src='%exten%' and d='%date%' and t='%time%'")
        .set("services", "billok",
             "pbx:update calls set billed='%seqno%' where src='%exten%' and d='%date%' and "
             "t='%time%'")
        .set("services", "wakeup_result", "nosuch:select 1")
        .set("services", "room_status", "pbx:select 0 where 0");
    run.pms.set_answer(pms_sim::answer_mode::none);
    ASSERT_TRUE(run.start()) << run.log();

    // A posting goes out, the link drops before its answer, more calls
    // become due while the PMS is away.
    ASSERT_TRUE(sqlite_exec(run.pbx_file(),
                            "insert into calls (src, d, t, dst, billsec, cost) "
                            "values ('101', '2024-05-09', '08:30:00', '100', 60, "
                            "498)"));
    ASSERT_TRUE(run.pms.wait_for_frame("PS|", 10s)) << run.log();
    run.pms.stop();
    ASSERT_TRUE(sqlite_exec(run.pbx_file(),
                            "insert into calls (src, d, t, dst, billsec, cost) "
                            "values ('101', '2024-05-09', '09:00:00', '101', 60, "
                            "0), ('102', '2024-05-09', '09:01:00', '102', 60, 7)"));

    run.pms.set_answer(pms_sim::answer_mode::ok);
    ASSERT_TRUE(run.pms.start());
    ASSERT_TRUE(wait_until([&] {
        return run.pbx("select count(*) from calls where billed <> ''")[0][0] == "3";
    })) << run.log();
    std::this_thread::sleep_for(500ms);  // a few more cycles: nothing more goes out
    // Every call posted and accepted exactly once on the new link (the first
    // as the copy of its unanswered posting, with its own P#).
    const auto postings = run.pms.postings();
    ASSERT_EQ(3u, postings.size());
    EXPECT_EQ(2, postings.at("0001").posted);  // the original and its copy
    for (const auto& [seq, n] : postings) EXPECT_EQ(1, n.accepted) << seq;
    EXPECT_EQ(1u, run.count_log("Posting P#0001 of room 101 (100) sent again"));
    EXPECT_NE(std::string::npos, run.pms.frames("PS|").front().find("TA498|"));
    // The unknown database of a pass: one ERROR per load, the other passes go on.
    EXPECT_EQ(1u, run.count_log("Unable to find DB driver nosuch"));
}

// [fixes] room_numbers: a record whose room number is missing, empty or
// longer than pms:room_max_length runs no step; one that fits does.
TEST(FixesValues, ARecordWithoutAFittingRoomNumberRunsNoStep) {
    daemon_run run;
    run.use_log_templates();
    run.set("fixes", "room_numbers", "yes")
        .set("fixes", "ordered_records", "yes")
        .set("pms", "room_max_length", "4")
        .set("services", "guest_change",
             "pbx:insert into log values ('change','%exten%','%name%','','')");
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_TRUE(run.play({"GI|GNSmith|", "GI|RN|GNSmith|", "GO|RN12345|", "RE|RN12345|DNY|",
                          "WR|RN12345|DA261125|TI063000|", "GC|RN101|GNSmith|RO12345|",
                          "GC|RN12345|GNSmith|", "GI|RN1234|GNJones|"},
                         "Checkin"))
        << run.log();
    ASSERT_TRUE(wait_until([&] { return run.pbx_log().size() == 1; })) << run.log();
    EXPECT_EQ((sql_rows{{"checkin", "1234", "Jones", "", "0"}}), run.pbx_log());
    EXPECT_EQ(2u, run.count_log("GI record without a room number: no step runs"));
    for (const char* type : {"GO", "RE", "WR", "GC"})
        EXPECT_EQ(type == std::string("GC") ? 2u : 1u,
                  run.count_log(std::string(type) + " record whose room number"))
            << type;
    EXPECT_EQ(1u, run.count_log("(RO) is longer than pms:room_max_length = 4: no step runs"));
}

}  // namespace
