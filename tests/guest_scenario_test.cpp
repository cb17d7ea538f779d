// Guest events end to end: the daemon against the PMS simulator, with guest
// templates that write what they were given into a table of the PBX database.
#include <gtest/gtest.h>

#include "support_daemon.h"

namespace {

TEST(GuestEvents, CheckOutAndCheckInKeepTheRoomListAndRunTheirTemplates) {
    daemon_run run;
    run.use_log_templates();
    run.set("rooms", "room1", "102");
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_EQ(1u, run.states("select room from rooms where room='102'").size());
    ASSERT_TRUE(run.play({"GO|RN102|"}, "Checkout")) << run.log();
    ASSERT_TRUE(wait_until([&] { return run.pbx_log().size() == 1; }));
    EXPECT_TRUE(run.states("select room from rooms where room='102'").empty());

    ASSERT_TRUE(run.play({"GI|GNJones|"}, "No room number")) << run.log();
    ASSERT_TRUE(run.play({"GI|RN101|GNSmith|GLEN|GSY|"}, "\tShared: 1")) << run.log();
    std::string log = run.log_after("Checkin");
    for (const char* line : {"\tRoom number: 101", "\tName: Smith", "\tLanguage: EN"})
        EXPECT_NE(std::string::npos, log.find(line)) << line;
    ASSERT_TRUE(wait_until([&] { return run.pbx_log().size() == 2; }));
    EXPECT_EQ((sql_rows{{"checkout", "102", "", "", "0"}, {"checkin", "101", "Smith", "EN", "1"}}),
              run.pbx_log());
    EXPECT_EQ(1u, run.states("select room from rooms where room='101'").size());
}

TEST(GuestEvents, PhoneBarAndDoNotDisturb) {
    daemon_run run;
    run.use_log_templates();
    ASSERT_TRUE(run.start()) << run.log();
    // One at a time: each record has a thread of its own.
    const std::pair<const char*, size_t> steps[] = {{"RE|RN101|CS0|", 1},     {"RE|RN101|CS2|", 2},
                                                    {"RE|RN101|DNY|", 3},     {"RE|RN101|DNN|", 4},
                                                    {"RE|RN101|CS1|DNY|", 6}, {"RE|RN101|", 6}};
    for (const auto& step : steps) {
        const size_t rows = step.second;
        ASSERT_TRUE(run.pms.send_record(step.first));
        ASSERT_TRUE(wait_until([&] { return run.pbx_log().size() == rows; })) << step.first;
    }
    ASSERT_TRUE(wait_until([&] { return run.count_log("Room equipment request") == 6; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // for the last one to act
    EXPECT_EQ((sql_rows{{"bareon", "101", "", "", ""},
                        {"bareoff", "101", "", "", ""},
                        {"dndon", "101", "", "", ""},
                        {"dndoff", "101", "", "", ""},
                        {"bareoff", "101", "", "", ""},
                        {"dndon", "101", "", "", ""}}),
              run.pbx_log());
    EXPECT_EQ(1u, run.count_log("Phone bar on"));
    EXPECT_EQ(2u, run.count_log("Phone bar off"));
    EXPECT_EQ(2u, run.count_log("Phone DND on"));
    EXPECT_EQ(1u, run.count_log("Phone DND off"));
}

TEST(GuestEvents, BadTemplatesAndRecordsThatAreOnlyLogged) {
    daemon_run run;
    run.use_log_templates();
    run.set("services", "checkin", "nosuch:insert into log values ('x','y','','','')")
        .set("services", "checkout", "no statement here")
        .set("rooms", "room1", "102");
    ASSERT_TRUE(run.start()) << run.log();
    // (The warnings of the load: tests/config_test.cpp.)
    ASSERT_TRUE(run.play({"WA|RN1|", "ZZ|RN1|", "GI|RN101|GNSmith"},
                         "Can not parse FIAS packet GI|RN101|GNSmith"));
    EXPECT_TRUE(run.wait_log("Received Wakeup answer packet from PMS"));
    // A record that cannot be parsed is a warning, shown with its end byte.
    EXPECT_TRUE(wait_until([&] {
        return has_line_like(run.log(), kStamp +
                                            ":  WARNING[@]: dispatch.cpp:@ in process_fias_"
                                            "packet: Can not parse FIAS packet ZZ|RN1|\x03");
    })) << run.log();

    ASSERT_TRUE(run.play({"GI|RN101|GNSmith|"}, "Unable to find DB driver nosuch"));
    EXPECT_EQ(1u, run.states("select room from rooms where room='101'").size())
        << "written all the same";
    ASSERT_TRUE(run.play({"GO|RN102|"}, "(no \":\")"));
    EXPECT_TRUE(run.pbx_log().empty());
}

}  // namespace
