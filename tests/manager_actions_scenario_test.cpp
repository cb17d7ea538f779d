// Guest services that drive Asterisk through Manager actions, end to end:
// the daemon against the PMS and Manager simulators.
#include <gtest/gtest.h>

#include "support_daemon.h"

using namespace std::chrono_literals;

namespace {

// The names and one header of the actions the simulator received.
std::vector<std::string> received(const mgr_sim& mgr, const char* header) {
    std::vector<std::string> out;
    for (const mgr_action& a : mgr.actions()) out.push_back(a.get("action") + " " + a.get(header));
    return out;
}

TEST(ManagerActions, StepsRunInOrderForEveryExtensionAndNoValueAddsAnAction) {
    daemon_run run;
    run.use_manager();
    run.use_log_templates();
    run.set("fixes", "all", "yes")
        .set("rooms", "room1", "101")
        .set("extensions", "101", "2101, 2102")
        .set("services", "checkin.2", "ami:DBPut|Family=AMPUSER/%exten%|Key=cidname|Val=%name%")
        .set("services", "checkout", "ami:DBDel|Family=AMPUSER/%exten%|Key=cidname")
        .set("services", "checkout.2", "ami:DBDel|Family=DND|Key=%exten%")
        .set("services", "mwi_on", "ami:MWIUpdate|Mailbox=%exten%@hotel|NewMessages=1");
    ASSERT_TRUE(run.start()) << run.log();
    // The lamp's field is announced last in the description of "RE".
    EXPECT_EQ(1u, run.pms.count_frames("LR|RIRE|FLRNRSCSDNML|"));
    ASSERT_TRUE(run.play({"GI|RN101|GNO'Brien|"}, "Checkin")) << run.log();
    ASSERT_TRUE(run.mgr.wait_actions(2));
    EXPECT_EQ((std::vector<std::string>{"DBPut AMPUSER/2101", "DBPut AMPUSER/2102"}),
              received(run.mgr, "family"));
    EXPECT_EQ("O'Brien", run.mgr.db_get("AMPUSER/2102", "cidname").value_or("none"));
    // The statement ran first (for each extension: it names %exten% too).
    const std::string log = run.log();
    EXPECT_LT(log.find("query: insert into log values ('checkin','2102','O''Brien'"),
              log.find("Manager action DBPut for room 101"));
    EXPECT_EQ(2u, run.pbx("select * from log").size());

    // A check-out clears what was set; the keys never set are only noticed.
    ASSERT_TRUE(run.play({"GO|RN101|"}, "Checkout")) << run.log();
    ASSERT_TRUE(run.mgr.wait_actions(6));
    EXPECT_FALSE(run.mgr.db_get("AMPUSER/2101", "cidname"));
    EXPECT_TRUE(
        run.wait_log("Manager action DBDel for room 101: Database entry could not be "
                     "deleted (nothing to delete)"));
    EXPECT_EQ(0u, run.count_log("failed:"));

    // The lamp of each phone; a record without "ML" leaves it alone.
    ASSERT_TRUE(run.play({"RE|RN101|CS1|", "RE|RN101|MLY|"}, "Message lamp on")) << run.log();
    ASSERT_TRUE(run.mgr.wait_actions(8));
    EXPECT_EQ("2102@hotel", run.mgr.actions().back().get("mailbox"));

    // A line end in a value cannot start another header or action.
    ASSERT_TRUE(run.pms.send_record("GI|RN101|GNEvil\r\nAction: Originate\r\nChannel: x|"));
    ASSERT_TRUE(run.mgr.wait_actions(10));
    EXPECT_EQ("Evil  Action: Originate  Channel: x", run.mgr.actions().back().get("val"));

    // A call from an extension is the room's.
    ASSERT_EQ(1,
              run.mgr.send_cdr(mgr_cdr_event::make("2102", "5551234", "2024-05-01 10:00:00", 65)));
    EXPECT_TRUE(run.pms.wait_for_count("PS|P#0001|RN101|", 1, 15s)) << run.log();
}

TEST(ManagerActions, ErrorsAndSilenceAreLoggedAndHoldBackOnlyTheirRoom) {
    daemon_run run;
    run.use_manager();
    run.use_log_templates();
    run.mgr.set_action_error("DBPut", "Permission denied");
    run.mgr.set_action_silent("UserEvent", true);
    run.set("services", "ami_timeout", "4")
        .set("services", "checkin", "ami:DBPut|Family=CW|Key=%exten%|Val=1")
        .set("services", "checkin.2", "ami:UserEvent|UserEvent=Welcome|Room=%room%")
        .set("services", "checkin.3", "pbx:insert into log values ('checkin','%exten%','','','')");
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_TRUE(run.pms.send_record("GI|RN101|GNSmith|"));
    ASSERT_TRUE(run.wait_log("Manager action DBPut for room 101 failed: Permission denied"));
    // While room 101 waits for its answer, room 102 is checked out.
    ASSERT_TRUE(run.pms.send_record("GO|RN102|"));
    ASSERT_TRUE(wait_until([&] {
        return run.pbx("select * from log where exten='102'").size() == 1;
    })) << run.log();
    EXPECT_EQ(0u, run.count_log("no answer within"));
    ASSERT_TRUE(run.wait_log("Manager action UserEvent for room 101: no answer within 4 s"));
    ASSERT_TRUE(
        wait_until([&] { return run.pbx("select * from log where exten='101'").size() == 1; }));
}

TEST(ManagerActions, AResyncSeesEveryRoomItAnnouncedBeforeItsEnd) {
    daemon_run run;
    run.use_manager();
    run.set("fixes", "all", "yes")  // records in order; a closed link is noticed
        .set("pms", "resync", "yes")
        .set("services", "checkin", "ami:DBPut|Family=CIDNAME|Key=%exten%|Val=%name%")
        .set("services", "checkout", "ami:DBDel|Family=CIDNAME|Key=%exten%");
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_TRUE(run.play({"GI|RN101|GNAda|", "GI|RN102|GNBob|", "GI|RN103|GNCy|"}, "Checkin"));
    ASSERT_TRUE(run.mgr.wait_actions(3));
    // A new link start-up: the PMS has 101 and 102, and 103 left meanwhile.
    run.pms.set_occupied(std::vector<pms_sim::guest>{{"101", "Ada"}, {"102", "Bob"}});
    run.pms.drop_connection();
    ASSERT_TRUE(
        run.wait_log("Database resync done: 2 room(s) confirmed, 0 checked in, 1 checked "
                     "out"))
        << run.log();
    ASSERT_TRUE(run.mgr.wait_actions(4));
    EXPECT_EQ("DBDel 103", received(run.mgr, "key").back());
}

TEST(ManagerActions, ActionsQueuedWhileTheManagerIsDownAreSentOnceInOrderAfterARestart) {
    daemon_run run;
    const int port = pick_free_port();
    run.set("services", "cdr_mgr_host", "127.0.0.1")
        .set("services", "cdr_mgr_port", std::to_string(port))
        .set("services", "cdr_mgr_user", "orlanbeck")
        .set("services", "cdr_mgr_password", "secret")
        .set("services", "checkin", "ami:DBPut|Family=CIDNAME|Key=%exten%|Val=%name%")
        .set("services", "checkout", "ami:DBDel|Family=CIDNAME|Key=%exten%");
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_TRUE(run.play({"GI|RN101|GNAda|", "GO|RN101|", "GI|RN102|GNBob|", "GO|RN102|",
                          "GI|RN103|GNCy|", "GO|RN103|"},
                         "Checkout"));
    ASSERT_TRUE(wait_until([&] {
        return run.count_log("queued: the Manager session is down") == 6;
    })) << run.log();
    run.process().terminate(3s);
    ASSERT_TRUE(run.start()) << run.log();
    mgr_sim_options o;
    o.port = port;
    mgr_sim mgr(o);
    ASSERT_TRUE(mgr.start());
    ASSERT_TRUE(mgr.wait_actions(6, 20s)) << run.log();
    std::this_thread::sleep_for(500ms);  // nothing more comes
    EXPECT_EQ((std::vector<std::string>{"DBPut 101", "DBDel 101", "DBPut 102", "DBDel 102",
                                        "DBPut 103", "DBDel 103"}),
              received(mgr, "key"));
    EXPECT_NE(std::string::npos, mgr.login_texts().at(0).find("Events: off"));
}

TEST(ManagerActions, WithPersonalDataOffNoGuestNameIsWrittenOrKeptAfterItsCheckOut) {
    daemon_run run;
    run.use_manager();
    run.use_log_templates();  // %name% in statements echoed on standard output
    run.mgr.set_action_silent("UserEvent", true);
    run.set("logger", "personal_data", "no")
        .set("logger", "log_level", "5")  // every level, DEBUG included
        .set("pms", "resync", "yes")
        .set("fixes", "states_file", "yes")  // calls are cached after a check-in
        .set("fixes", "reload", "yes")       // from the rooms checked in since
        .set("fixes", "escape", "yes")
        .set("fixes", "link_end", "yes")  // a dropped link is noticed
        .set("services", "ami_timeout", "1")
        .set("services", "checkin.2", "ami:DBPut|Family=CIDNAME|Key=%exten%|Val=%name%")
        .set("services", "room_move",
             "pbx:insert into log values ('move','%exten%','%name%','%oldexten%','')")
        .set("services", "checkout.2", "ami:UserEvent|UserEvent=Bye|Guest=%name%");
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_TRUE(run.play({"GI|RN101|GNO'Brien|GLEN|", "GI|RN105|GNO'Brien|"}, "Checkin"));
    ASSERT_TRUE(run.mgr.wait_actions(2)) << run.log();
    EXPECT_EQ("O'Brien", run.mgr.db_get("CIDNAME", "101").value_or("none"));  // the PBX has it
    ASSERT_EQ(1, run.mgr.send_cdr(mgr_cdr_event::make("101", "5551234", "2024-05-01 10:00:00", 65)
                                      .set("CallerID", "\"O'Brien\" <101>")));
    EXPECT_TRUE(run.pms.wait_for_count("PS|P#0001|RN101|", 1, 15s)) << run.log();
    EXPECT_EQ((sql_rows{{"<101>"}}), run.states("select clid from cdrcache"));

    ASSERT_TRUE(run.play({"GC|RN102|RO101|"}, "Room move")) << run.log();
    ASSERT_TRUE(wait_until([&] { return run.pbx("select * from log where what='move'").size(); }));
    EXPECT_EQ("O'Brien", run.pbx("select a from log where what='move'").at(0).at(0));
    // The PMS still has the guest of 102; 105 left meanwhile.
    run.pms.set_occupied(std::vector<pms_sim::guest>{{"102", "O'Brien"}});
    run.pms.drop_connection();
    ASSERT_TRUE(
        run.wait_log("Database resync done: 1 room(s) confirmed, 0 checked in, 1 checked out"))
        << run.log();
    // The check-out's action goes unanswered and stays queued.
    ASSERT_TRUE(run.play({"GO|RN102|GNO'Brien|"}, "for room 102: no answer within 1 s"))
        << run.log();

    run.process().terminate(3s);        // standard output flushed
    const std::string log = run.log();  // log lines and standard output
    EXPECT_EQ(std::string::npos, log.find("Brien")) << log;
    for (const char* seen : {"Room number: 101", "Room number: 102", "Old room: 101",
                             "Room 105 (<name>) is not occupied", "GN<name>|",
                             "values ('move','102','<name>','101','')"})
        EXPECT_NE(std::string::npos, log.find(seen)) << seen;
    const sql_rows left = run.states(
        "select name from occupancy union all select body from actions union all select clid "
        "from cdrcache");
    for (const auto& row : left) EXPECT_EQ(std::string::npos, row.at(0).find("Brien"));
    // The check-outs' actions of 102 and of 105 (the resync's) wait with the name masked.
    EXPECT_EQ(2u, run.states("select * from actions where body like '%Guest: <name>%'").size());

    // Without the key the name is written as it always was.
    daemon_run plain;
    ASSERT_TRUE(plain.start()) << plain.log();
    ASSERT_TRUE(plain.play({"GI|RN101|GNO'Brien|"}, "Checkin"));
    EXPECT_TRUE(plain.wait_log("Name: O'Brien"));
}

}  // namespace
