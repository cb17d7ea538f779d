// Guest records and cached calls without any optional key, end to end: the
// daemon against the PMS and Manager simulators, with guest templates that
// write what they were given into a table of the PBX database.
#include <gtest/gtest.h>

#include "support_daemon.h"

namespace {

TEST(GuestEvents, TemplatesRunAndTheFirstCheckInClosesTheStatesFileForGood) {
    daemon_run run;
    run.use_log_templates();
    run.use_manager();
    run.set("rooms", "room1", "102").set("services", "noremovecalls", "1");
    run.pms.set_answer(pms_sim::answer_mode::none);
    ASSERT_TRUE(run.start()) << run.log();
    // With noremovecalls an accepted cached call is marked, not removed; the
    // answer's month goes in zero-based, so an answer naming the month before
    // matches the call.
    run.mgr.send_cdr(mgr_cdr_event::make("102", "5551234", "2010-04-14 10:20:30", 61));
    auto ps = run.pms.wait_for_frame("PS|", std::chrono::seconds(10));
    ASSERT_TRUE(ps) << run.log();
    EXPECT_EQ("PS|P#0001|RN102|PTT|DA100414|TI102030|DU000101|DD5551234|", *ps);
    ASSERT_TRUE(run.pms.send_record("PA|ASOK|RN102|P#0001|DA100314|TI102030|"));
    ASSERT_TRUE(wait_until([&] {
        return run.states("select userfield from cdrcache") == sql_rows{{"0001"}};
    })) << run.log();

    // Only the records of the link description are known.
    EXPECT_EQ("DR GI GO RE WC WR WA PA PS ", run.announced());
    for (const std::string r :
         {"GC|RN102|GNSmith|RO101|", "DS|DA240514|TI120000|", "DE|DA240514|TI120000|",
          "NS|DA240514|TI120000|", "NE|DA240514|TI120000|", "LE|DA240514|TI120000|"}) {
        ASSERT_TRUE(run.pms.send_record(r));
        EXPECT_TRUE(run.wait_log("Can not parse FIAS packet " + r)) << run.log();
    }
    EXPECT_EQ(0u, run.pms.count_frames("DR"));
    EXPECT_TRUE(run.states("select name from sqlite_master where name='occupancy'").empty());

    // Phone bar and do-not-disturb, one record at a time: each has a thread of its own.
    const std::pair<const char*, size_t> steps[] = {{"RE|RN101|CS0|", 1},     {"RE|RN101|CS2|", 2},
                                                    {"RE|RN101|DNY|", 3},     {"RE|RN101|DNN|", 4},
                                                    {"RE|RN101|CS1|DNY|", 6}, {"RE|RN101|", 6}};
    for (const auto& step : steps) {
        ASSERT_TRUE(run.pms.send_record(step.first));
        const size_t rows = step.second;
        ASSERT_TRUE(wait_until([&] { return run.pbx_log().size() == rows; })) << step.first;
    }
    ASSERT_TRUE(wait_until([&] { return run.count_log("Room equipment request") == 6; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // for the last one to act
    EXPECT_EQ(1u, run.count_log("Phone bar on"));
    EXPECT_EQ(2u, run.count_log("Phone bar off"));
    EXPECT_EQ(2u, run.count_log("Phone DND on"));
    EXPECT_EQ(1u, run.count_log("Phone DND off"));

    // A check-out removes its room from the list.
    ASSERT_EQ(1u, run.states("select room from rooms where room='102'").size());
    ASSERT_TRUE(run.play({"GO|RN102|"}, "Checkout")) << run.log();
    ASSERT_TRUE(wait_until([&] { return run.pbx_log().size() == 7; }));
    EXPECT_TRUE(run.states("select room from rooms where room='102'").empty());

    ASSERT_TRUE(run.play({"GI|GNJones|"}, "No room number")) << run.log();
    ASSERT_TRUE(run.play({"GI|RN101|GNSmith|GLEN|GSY|"}, "\tShared: 1")) << run.log();
    std::string log = run.log_after("Checkin");
    for (const char* line : {"\tRoom number: 101", "\tName: Smith", "\tLanguage: EN"})
        EXPECT_NE(std::string::npos, log.find(line)) << line;
    ASSERT_TRUE(wait_until([&] { return run.pbx_log().size() == 8; }));
    EXPECT_EQ((sql_rows{{"bareon", "101", "", "", ""},
                        {"bareoff", "101", "", "", ""},
                        {"dndon", "101", "", "", ""},
                        {"dndoff", "101", "", "", ""},
                        {"bareoff", "101", "", "", ""},
                        {"dndon", "101", "", "", ""},
                        {"checkout", "102", "", "", "0"},
                        {"checkin", "101", "Smith", "EN", "1"}}),
              run.pbx_log());
    // The check-in's row carries the time of day as its date and an empty time.
    sql_rows room = run.states("select ci_date, citime, calls from rooms where room='101'");
    ASSERT_EQ(1u, room.size());
    EXPECT_TRUE(like("##:##:##", room[0][0])) << room[0][0];
    EXPECT_EQ("", room[0][1]);
    EXPECT_EQ("0", room[0][2]);

    // The states file is closed now: the check-out that follows cannot delete
    // the row, nor is a call from the Manager cached.
    ASSERT_TRUE(run.pms.send_record("GO|RN101|"));
    ASSERT_TRUE(wait_until([&] { return run.pbx_log().size() == 9; }));
    EXPECT_EQ(1u, run.states("select room from rooms where room='101'").size());
    run.mgr.send_cdr(mgr_cdr_event::make("102", "5551234", "2009-05-14 10:20:30", 125));
    ASSERT_TRUE(run.wait_log_after("sending cache insert query", "Sqlite query error"))
        << run.log();
    EXPECT_EQ((sql_rows{{"2010-04-14 10:20:30"}}), run.states("select start from cdrcache"));
}

}  // namespace
