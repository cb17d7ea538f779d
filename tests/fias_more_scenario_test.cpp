// Guest changes, room moves, database resync and night audit: the daemon
// against the PMS simulator (and the Manager simulator for cached calls).
// (Without their keys these records stay unknown: tests/guest_scenario_test.cpp.)
#include <gtest/gtest.h>

#include "support_daemon.h"

using namespace std::chrono_literals;

namespace {

const std::string specified_types = "DR GI GO RE WC WR WA PA PS ";

sql_rows occupancy(const daemon_run& run) {
    return run.states("select room, name from occupancy order by room");
}

// The worked example of the operator documentation: caller ID and context of
// both extensions of an Asterisk realtime table.
void use_realtime_templates(daemon_run& run) {
    ASSERT_TRUE(sqlite_exec(run.pbx_file(),
                            "create table sippeers (name, callerid, context);"
                            "insert into sippeers values ('101','101','frontdesk');"
                            "insert into sippeers values ('102','102','frontdesk');"));
    run.set("services", "checkin",
            "pbx:update sippeers set callerid='%name% <%exten%>', context='guests' where "
            "name='%exten%'")
        .set("services", "guest_change",
             "pbx:update sippeers set callerid='%name% <%exten%>' where name='%exten%'")
        .set("services", "room_move",
             "pbx:update sippeers set callerid=case name when '%exten%' then '%name% <%exten%>' "
             "else '%oldexten%' end, context=case name when '%exten%' then 'guests' else "
             "'frontdesk' end where name in ('%exten%','%oldexten%')");
}

TEST(FiasMore, RoomMoveAndNameCorrectionWhileANightAuditHoldsACachedCall) {
    daemon_run run;
    run.use_manager();
    use_realtime_templates(run);
    run.set("rooms", "room1", "101")
        .set("rooms", "room2", "102")
        .set("pms", "night_audit", "yes")
        .set("fixes", "states_file", "yes");
    run.env.push_back("ORLANBECK_TEST_AUDIT_WARNING_MS=300");
    ASSERT_TRUE(run.start()) << run.log();
    EXPECT_EQ(specified_types + "GC NS NE ", run.announced());
    EXPECT_EQ("LR|RIGC|FLRNG#GNGLGSRO|", run.pms.frames("LR|RIGC").at(0));

    ASSERT_TRUE(run.play({"GI|RN101|GNSmith|GLEN|GSN|"}, "Checkin")) << run.log();
    ASSERT_TRUE(run.pms.send_night_audit(true));
    ASSERT_TRUE(run.wait_log("Night audit: postings are held")) << run.log();
    run.mgr.send_cdr(mgr_cdr_event::make("101", "5551234", "2009-05-14 10:20:30", 125));
    ASSERT_TRUE(wait_until([&] { return run.states("select src from cdrcache").size() == 1; }));

    ASSERT_TRUE(run.pms.send_guest_change({"102", "Smith"}, "101"));
    ASSERT_TRUE(run.wait_log("Room move")) << run.log();
    ASSERT_TRUE(wait_until([&] { return occupancy(run) == sql_rows{{"102", "Smith"}}; }));
    // A name correction, with a quote in it.
    ASSERT_TRUE(run.pms.send_guest_change({"102", "O'Brien"}));
    ASSERT_TRUE(wait_until([&] {
        return occupancy(run) == sql_rows{{"102", "O'Brien"}};
    })) << run.log();
    ASSERT_TRUE(wait_until([&] {
        return run.pbx("select * from sippeers order by name") ==
               sql_rows{{"101", "101", "frontdesk"}, {"102", "O'Brien <102>", "guests"}};
    })) << run.log();

    // Nothing goes out while the audit runs; a long audit is reported once.
    std::this_thread::sleep_for(800ms);
    EXPECT_EQ(0u, run.pms.count_frames("PS|"));
    EXPECT_EQ(1u, run.count_log("Night audit has lasted more than"));
    ASSERT_TRUE(run.pms.send_night_audit(false));
    auto ps = run.pms.wait_for_frame("PS|", 10s);
    ASSERT_TRUE(ps) << run.log();
    EXPECT_EQ("PS|P#0001|RN101|PTT|DA090514|TI102030|DU000205|DD5551234|", *ps);
    ASSERT_TRUE(wait_until([&] {
        return run.states("select userfield from cdrcache") == sql_rows{{*ps}};
    })) << run.log();
    std::this_thread::sleep_for(600ms);
    EXPECT_EQ(1u, run.pms.count_frames("PS|"));

    // A new link start-up ends an audit (a PMS whose audit goes on says so again).
    ASSERT_TRUE(run.pms.send_night_audit(true));
    ASSERT_TRUE(run.wait_log_after("Night audit window closed", "postings are held"));
    run.pms.reset_connection();
    EXPECT_TRUE(run.wait_log("Night audit window closed (new link start-up)")) << run.log();
}

TEST(FiasMore, ResyncAfterAnOutageAndAfterARestart) {
    daemon_run run;
    run.use_log_templates();
    run.set("pms", "resync", "yes");
    run.env.push_back("ORLANBECK_TEST_RESYNC_STALL_MS=500");
    ASSERT_TRUE(run.start()) << run.log();
    EXPECT_EQ(specified_types + "DS DE ", run.announced());
    ASSERT_TRUE(run.pms.wait_for_frame("DR|", 5s));  // not answered yet

    // A resync that stops before its end checks nothing out.
    ASSERT_TRUE(run.play(
        {"GI|RN103|GNBrown|GLEN|GSN|", "DS|DA240514|TI120000|", "GI|RN101|GNSmith|GLEN|GSN|"},
        "Database resync stopped before its end (no record"))
        << run.log();
    EXPECT_EQ((sql_rows{{"101", "Smith"}, {"103", "Brown"}}), occupancy(run));

    // During an outage 103 left and 102 arrived.
    run.pms.set_occupied({{{"101", "Smith"}, {"102", "Jones"}}});
    run.pms.reset_connection();
    ASSERT_TRUE(
        run.wait_log("Database resync done: 1 room(s) confirmed, 1 checked in, 1 checked "
                     "out"))
        << run.log();
    EXPECT_EQ(2u, run.pms.count_frames("DR|"));
    EXPECT_EQ((sql_rows{{"101", "Smith"}, {"102", "Jones"}}), occupancy(run));
    const sql_rows before_restart = {{"checkin", "103", "Brown", "EN", "0"},
                                     {"checkin", "101", "Smith", "EN", "0"},
                                     {"checkin", "102", "Jones", "EN", "0"},
                                     {"checkout", "103", "Brown", "EN", "0"}};
    EXPECT_EQ(before_restart, run.pbx_log());

    // The occupancy outlives the daemon; records kept in order do the same.
    run.process().terminate(3s);
    daemon_run again;
    again.use_log_templates();
    again.set("pms", "statesfile", run.states_file())
        .set("pbx", "database", run.pbx_file())
        .set("pms", "resync", "yes")
        .set("fixes", "ordered_records", "yes")
        .set("fixes", "states_file", "yes");
    again.pms.set_occupied({{{"102", "Jones"}, {"104", "Green"}}});
    ASSERT_TRUE(again.start()) << again.log();
    ASSERT_TRUE(
        again.wait_log("Database resync done: 1 room(s) confirmed, 1 checked in, 1 "
                       "checked out"))
        << again.log();
    std::this_thread::sleep_for(200ms);
    sql_rows after = before_restart;
    after.push_back({"checkin", "104", "Green", "EN", "0"});
    after.push_back({"checkout", "101", "Smith", "EN", "0"});
    EXPECT_EQ(after, run.pbx_log());
    EXPECT_EQ((sql_rows{{"102", "Jones"}, {"104", "Green"}}), occupancy(run));
}

}  // namespace
