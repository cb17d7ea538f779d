// Behaviours the daemon keeps on purpose although they surprise, each pinned
// once, end to end against the simulators.
#include <gtest/gtest.h>
#include <signal.h>

#include "support_daemon.h"

using namespace std::chrono_literals;

namespace {

TEST(Compatibility, CachedCallsAPausePerRecordAndAnUnnoticedLinkEnd) {
    daemon_run run;
    run.use_manager();
    run.set("rooms", "room1", "101").set("rooms", "room2", "102");
    run.env.push_back("ORLANBECK_TEST_RECORD_PAUSE_MS=1000");
    ASSERT_TRUE(run.start()) << run.log();
    // Every byte that opens a record is printed; the Manager password is logged.
    EXPECT_NE(std::string::npos, run.log().find("Read code 2"));
    EXPECT_NE(std::string::npos, run.log().find("p=secret"));
    EXPECT_NE(std::string::npos, run.mgr.login_texts().at(0).find("Events: cdr\r\n"));

    run.mgr.send_cdr(mgr_cdr_event::make("101", "5551234", "2009-05-14 10:20:30", 125));
    run.mgr.send_cdr(mgr_cdr_event::make("1010", "5550000", "2009-05-14 10:21:00", 5));
    auto ps = run.pms.wait_for_frame("PS|", 10s);
    ASSERT_TRUE(ps) << run.log();
    EXPECT_EQ("PS|P#0001|RN101|PTT|DA090514|TI102030|DU000205|DD5551234|", *ps);
    // The remove statement of the accepted posting has no "where": SQLite
    // refuses it and the row, marked with the record sent for it, stays.
    const std::string remove =
        "OK query is: delete from cdrcache src='101' and date(start)='2000-06-14' and "
        "time(start)='10:20:30'";
    ASSERT_TRUE(run.wait_log(remove)) << run.log();
    EXPECT_TRUE(run.wait_log_after(remove, "Sqlite query error"));
    EXPECT_EQ((sql_rows{{"101", "5551234", "2009-05-14 10:20:30", "125", *ps}}),
              run.states("select src, dst, start, billsec, userfield from cdrcache"));
    // A refused answer is only logged; each call is posted once.
    run.pms.set_answer(pms_sim::answer_mode::refuse, "NO");
    run.mgr.send_cdr(mgr_cdr_event::make("102", "333", "2009-05-14 12:00:00", 30));
    ASSERT_TRUE(run.wait_log("Non-OK answer on Post call. Please check")) << run.log();
    std::this_thread::sleep_for(600ms);  // a few more cycles
    auto posted = run.pms.frames("PS|");
    ASSERT_EQ(2u, posted.size());
    EXPECT_EQ(0u, posted[1].find("PS|P#0002|RN102|")) << posted[1];

    // The reader pauses after every record.
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(run.pms.send_record("DR|DA240514|TI120000|"));
    ASSERT_TRUE(run.wait_log("Received Description record packet from PMS"));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(1u, run.count_log("Received Description record packet from PMS"));

    // A PMS that closes the link is not noticed.
    run.pms.drop_connection();
    std::this_thread::sleep_for(2s);
    EXPECT_EQ(1, run.pms.connections());
    EXPECT_EQ(0u, run.count_log("Connection to PMS lost"));

    // In the foreground there are no signal handlers: SIGHUP ends the daemon.
    run.process().signal(SIGHUP);
    int signo = 0;
    EXPECT_EQ(-1, run.process().wait_exit(10s, &signo));
    EXPECT_EQ(SIGHUP, signo);
}

TEST(Compatibility, DatesCostsDoNotDisturbAndTemplatesThatCannotRun) {
    daemon_run run;
    run.use_log_templates();
    run.unset("services", "bareoff").unset("services", "dndon");
    ASSERT_TRUE(sqlite_exec(run.pbx_file(),
                            "create table calls (src, calldate, calltime, dst, billsec, cost, "
                            "posted default 0, billed default '');"
                            "insert into calls values ('101','2009-05-14','10:20:30','5551234',"
                            "125,498,0,'');"));
    run.set("rooms", "room1", "101")
        .set("services", "billcalls",
             "pbx:select calldate, calltime, dst, billsec, cost from calls where src='%exten%' "
             "and posted=0")
        .set("services", "billmark",
             "pbx:update calls set posted=1 where src='%exten%' and calldate='%date%' and "
             "calltime='%time%'")
        .set("services", "billok", "pbx:update calls set billed='%seqno%' where src='%exten%'")
        .set("services", "checkin", "nosuch:insert into log values ('x','y','','','')")
        .set("services", "checkout", "no statement here");
    ASSERT_TRUE(run.start()) << run.log();

    // A cost goes out as a number field: the count of its digits.
    auto ps = run.pms.wait_for_frame("PS|", 10s);
    ASSERT_TRUE(ps) << run.log();
    EXPECT_EQ("PS|P#0001|RN101|PTC|TA3|DA090514|TI102030|DU000205|DD5551234|", *ps);
    ASSERT_TRUE(wait_until([&] {
        return run.pbx("select posted, billed from calls") == sql_rows{{"1", "0001"}};
    })) << run.log();

    // Records that cannot be parsed are warnings, shown with their end byte
    // (made visible, as every control byte in the log).
    ASSERT_TRUE(run.play({"WA|RN1|", "ZZ|RN1|", "GI|RN103|GNSmith"},
                         "Can not parse FIAS packet GI|RN103|GNSmith"));
    EXPECT_TRUE(run.wait_log("Received Wakeup answer packet from PMS"));
    EXPECT_TRUE(wait_until([&] {
        return has_line_like(run.log(), kStamp +
                                            ":  WARNING[@]: dispatch.cpp:@ in process_fias_"
                                            "packet: Can not parse FIAS packet ZZ|RN1|\\003");
    })) << run.log();
    // Templates that cannot run are only logged; the check-in's row is written all the same.
    ASSERT_TRUE(run.play({"GI|RN103|GNSmith|"}, "Unable to find DB driver nosuch"));
    EXPECT_EQ(1u, run.states("select room from rooms where room='103'").size());
    ASSERT_TRUE(run.play({"GO|RN103|"}, "(no \":\")"));

    // DND on is acted upon only when a bar-off template exists, DND off only
    // when a DND-on template exists.
    ASSERT_TRUE(run.play({"RE|RN101|DNY|"}, "Phone DND on"));
    ASSERT_TRUE(run.play({"RE|RN101|DNN|"}, "Phone DND off"));
    EXPECT_TRUE(run.pbx_log().empty());

    // The pair "09" reads as 0; the month goes into the date one ahead.
    ASSERT_TRUE(run.play({"WR|RN101|DA091015|TI063000|"}, "Wakeup set"));
    ASSERT_TRUE(wait_until([&] { return run.pbx_log().size() == 1; }));
    std::string log = run.log_after("Wakeup set");
    EXPECT_NE(std::string::npos, log.find("\tDate: 00-10-15"));
    EXPECT_NE(std::string::npos, log.find("\tTime: 06:30:00"));
    EXPECT_EQ((sql_rows{{"wakeup_set", "101", "2000-11-15", "06:30:00", ""}}), run.pbx_log());
    // Without [wakeup] the daemon keeps no bookings and places no call.
    EXPECT_EQ(0u, run.count_log("Wake-up"));
    EXPECT_TRUE(run.states("select name from sqlite_master where name='wakeups'").empty());
    ASSERT_TRUE(run.play({"WC|RN101|"}, "Wakeup clear"));
    ASSERT_TRUE(wait_until([&] { return run.pbx_log().size() == 2; }));
    EXPECT_EQ((std::vector<std::string>{"wakeup_clear", "101", "", "", ""}), run.pbx_log()[1]);
    EXPECT_EQ(std::string::npos, run.log_after("Wakeup clear").find("\tDate:"));
}

}  // namespace
