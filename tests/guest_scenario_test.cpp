// Guest events end to end: the daemon in the foreground against the PMS
// simulator, with a SQLite PBX database whose templates write what they were
// given into a `log` table.
#include <gtest/gtest.h>

#include <regex>

#include "sim_pms.h"
#include "support_daemon.h"

using namespace std::chrono_literals;
using rows = std::vector<std::vector<std::string>>;

namespace {

// Every template writes (what, room, a, b, c) into the PBX's log table.
std::string logged(const std::string& what, const std::string& a = "", const std::string& b = "",
                   const std::string& c = "") {
    return "pbx:insert into log values ('" + what + "','%exten%','" + a + "','" + b + "','" + c +
           "')";
}

class GuestEvents : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(pms.start());
        run = std::make_unique<daemon_run>(pms.port());
        ASSERT_TRUE(sqlite_exec(run->pbx_file(),
                                "create table log (what text, exten text, a text, b text, c text)"));
        run->config()
            .set("services", "checkin", logged("checkin", "%name%", "%lang%", "%share%"))
            .set("services", "checkout", logged("checkout", "%name%", "%lang%", "%share%"))
            .set("services", "bareon", logged("bareon"))
            .set("services", "bareoff", logged("bareoff"))
            .set("services", "dndon", logged("dndon"))
            .set("services", "dndoff", logged("dndoff"))
            .set("services", "wakeup_set", logged("wakeup_set", "%date%", "%time%"))
            .set("services", "wakeup_clear", logged("wakeup_clear", "%date%", "%time%"))
            .set("rooms", "room1", "102");
    }

    void start() {
        ASSERT_TRUE(run->start());
        ASSERT_TRUE(pms.wait_link_active(15s)) << run->log();
    }

    // Sends the records and waits until the daemon has handled the last one
    // (`last_line` is a log text of that record's handler).
    void play(const std::vector<std::string>& records, const std::string& last_line) {
        for (const std::string& r : records) ASSERT_TRUE(pms.send_record(r));
        ASSERT_TRUE(run->wait_log(last_line, 30s)) << run->log();
        std::this_thread::sleep_for(300ms);  // the handler's statement after its log line
    }

    rows pbx_log() { return run->pbx("select what, exten, a, b, c from log order by rowid"); }

    pms_sim pms;
    std::unique_ptr<daemon_run> run;
};

TEST_F(GuestEvents, LinkStartUpAndRecordsThatAreOnlyLogged) {
    start();
    EXPECT_EQ(1u, pms.count_frames("LS|"));
    EXPECT_EQ(9u, pms.count_frames("LR|"));
    auto ld = pms.frames("LD|");
    ASSERT_EQ(1u, ld.size());
    EXPECT_TRUE(std::regex_match(ld[0], std::regex(R"(LD\|DA\d{6}\|TI\d{6}\|V#1\.01\|IFPB\|)")))
        << ld[0];
    ASSERT_TRUE(run->wait_log("Received Link active packet from PMS"));

    play({"DR|DA091015|TI143000|", "WA|RN1|", "ZZ|RN1|", "GI|RN101|GNSmith"},
         "Can not parse FIAS packet GI|RN101|GNSmith");
    EXPECT_TRUE(run->wait_log("Received Description record packet from PMS"));
    EXPECT_TRUE(run->wait_log("Received Wakeup answer packet from PMS"));
    EXPECT_NE(std::string::npos, run->log().find("WARNING[")) << "parse failures are warnings";
    EXPECT_NE(std::string::npos, run->log().find("Can not parse FIAS packet ZZ|RN1|"));
    EXPECT_TRUE(pbx_log().empty());
}

TEST_F(GuestEvents, CheckInWritesTheRoomAndRunsTheTemplate) {
    start();
    play({"GI|RN101|GNSmith|GLEN|GSY|"}, "\tShared: 1");
    std::string log = run->log_after("Checkin");
    for (const char* line : {"\tRoom number: 101", "\tName: Smith", "\tLanguage: EN"})
        EXPECT_NE(std::string::npos, log.find(line)) << line;
    ASSERT_TRUE(wait_until([&] { return pbx_log().size() == 1; }));
    EXPECT_EQ((rows{{"checkin", "101", "Smith", "EN", "1"}}), pbx_log());

    // The row carries the time of day as its date and an empty time.
    rows room = run->states("select ci_date, citime, calls from rooms where room='101'");
    ASSERT_EQ(1u, room.size());
    EXPECT_TRUE(std::regex_match(room[0][0], std::regex(R"(\d\d:\d\d:\d\d)"))) << room[0][0];
    EXPECT_EQ("", room[0][1]);
    EXPECT_EQ("0", room[0][2]);

    // Without a room nothing happens.
    play({"GI|GNJones|"}, "No room number");
    EXPECT_EQ(1u, pbx_log().size());
}

TEST_F(GuestEvents, CheckOutDeletesTheRoomAndRunsTheTemplate) {
    start();
    ASSERT_EQ(1u, run->states("select room from rooms where room='102'").size());
    play({"GO|RN102|"}, "Checkout");
    ASSERT_TRUE(wait_until([&] { return pbx_log().size() == 1; }));
    EXPECT_EQ((rows{{"checkout", "102", "", "", "0"}}), pbx_log());
    EXPECT_TRUE(run->states("select room from rooms where room='102'").empty());
}

TEST_F(GuestEvents, CheckInClosesTheStatesFileForGood) {
    // A check-in closes the internal database, which is never opened again:
    // the check-out that follows cannot delete the row.
    start();
    play({"GI|RN101|GNSmith|"}, "\tName: Smith");
    ASSERT_TRUE(wait_until([&] { return pbx_log().size() == 1; }));
    play({"GO|RN101|"}, "Checkout");
    ASSERT_TRUE(wait_until([&] { return pbx_log().size() == 2; }));
    EXPECT_TRUE(run->wait_log("Sqlite query error"));
    EXPECT_EQ(1u, run->states("select room from rooms where room='101'").size());
}

TEST_F(GuestEvents, UnknownDriverAndMissingStatement) {
    run->config().set("services", "checkin", "nosuch:insert into log values ('x','y','','','')");
    run->config().set("services", "checkout", "no statement here");
    start();
    // Both are reported when the daemon starts.
    EXPECT_NE(std::string::npos, run->log().find("services:checkin names the database \"nosuch\""));
    EXPECT_NE(std::string::npos, run->log().find("services:checkout = \"no statement here\" has"));
    play({"GI|RN101|GNSmith|"}, "Unable to find DB driver nosuch");
    // The room is written all the same.
    EXPECT_EQ(1u, run->states("select room from rooms where room='101'").size());
    play({"GO|RN102|"}, "(no \":\")");
    EXPECT_TRUE(pbx_log().empty());
}

TEST_F(GuestEvents, PhoneBarAndDoNotDisturb) {
    start();
    play({"RE|RN101|CS0|", "RE|RN101|CS2|", "RE|RN101|DNY|", "RE|RN101|DNN|", "RE|RN101|CS1|DNY|",
          "RE|RN101|"},
         "Room equipment request");
    ASSERT_TRUE(wait_until([&] { return run->count_log("Room equipment request") == 6; }, 30s));
    ASSERT_TRUE(wait_until([&] { return pbx_log().size() == 6; }));
    EXPECT_EQ((rows{{"bareon", "101", "", "", ""},
                    {"bareoff", "101", "", "", ""},
                    {"dndon", "101", "", "", ""},
                    {"dndoff", "101", "", "", ""},
                    {"bareoff", "101", "", "", ""},
                    {"dndon", "101", "", "", ""}}),
              pbx_log());
    EXPECT_EQ(1u, run->count_log("Phone bar on"));
    EXPECT_EQ(2u, run->count_log("Phone bar off"));
    EXPECT_EQ(2u, run->count_log("Phone DND on"));
    EXPECT_EQ(1u, run->count_log("Phone DND off"));
}

TEST_F(GuestEvents, DoNotDisturbIsGuardedByOtherTemplates) {
    // DND on acts only when a bar-off template exists; DND off only when a
    // DND-on template exists.
    run->config().unset("services", "bareoff").unset("services", "dndon");
    start();
    play({"RE|RN101|DNY|", "RE|RN101|DNN|"}, "Phone DND off");
    EXPECT_EQ(1u, run->count_log("Phone DND on"));
    EXPECT_TRUE(pbx_log().empty());
}

TEST_F(GuestEvents, WakeUpSetAndClear) {
    start();
    play({"WR|RN101|DA091015|TI063000|"}, "Wakeup set");
    ASSERT_TRUE(wait_until([&] { return pbx_log().size() == 1; }));
    std::string log = run->log_after("Wakeup set");
    // The pair "09" reads as 0; the month goes into the date one ahead.
    EXPECT_NE(std::string::npos, log.find("\tDate: 00-10-15"));
    EXPECT_NE(std::string::npos, log.find("\tTime: 06:30:00"));
    EXPECT_EQ((rows{{"wakeup_set", "101", "2000-11-15", "06:30:00", ""}}), pbx_log());

    play({"WC|RN101|"}, "Wakeup clear");
    ASSERT_TRUE(wait_until([&] { return pbx_log().size() == 2; }));
    EXPECT_EQ((std::vector<std::string>{"wakeup_clear", "101", "", "", ""}), pbx_log()[1]);
    EXPECT_EQ(std::string::npos, run->log_after("Wakeup clear").find("\tDate:"));
}

}  // namespace
