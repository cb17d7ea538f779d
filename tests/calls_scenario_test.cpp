// Calls and dial codes: the posting filter's patterns, and the daemon
// against the simulators with [posting] (which cached calls reach the PMS,
// and how soon) and [dialcodes] (minibar and room status from UserEvents).
#include <gtest/gtest.h>

#include "billing/call_filter.h"
#include "support_daemon.h"
#include "text.h"

using namespace std::chrono_literals;
using texts = std::vector<std::string>;

namespace {

TEST(PostingFilter, PatternsAndReasons) {
    texts bad;
    const auto patterns = parse_free_numbers(
        {"112", "0800*", "100-199", "rooms", "ROOMS", "9-1", "10-199", "1a-1b", "*", "", "1 2"},
        &bad);
    EXPECT_EQ((texts{"9-1", "10-199", "1a-1b", "*", "", "1 2"}), bad);
    ASSERT_EQ(5u, patterns.size());
    auto free = [&](std::string_view n) {
        for (const free_number& p : patterns)
            if (matches_free_number(p, n)) return true;
        return false;
    };
    for (const char* n : {"112", "0800", "08001234", "100", "150", "199"})
        EXPECT_TRUE(free(n)) << n;
    for (const char* n : {"1120", "11", "080", "99", "200", "1000", "15O", "+150"})
        EXPECT_FALSE(free(n)) << n;

    config cfg;
    cfg.extensions["101"] = {"101", "2101"};
    auto reason = [&](std::string dst, int billsec, std::optional<std::string_view> disposition) {
        const char* why =
            call_filter(cfg, {"101", "102"}).reason({"101", dst, billsec, disposition});
        return std::string(why ? why : "posted");
    };
    // Nothing configured: every call is posted.
    EXPECT_EQ("posted", reason("112", 0, "BUSY"));
    cfg.posting.post_unanswered = false;
    cfg.posting.min_billsec = 5;
    cfg.posting.free_numbers = parse_free_numbers({"rooms", "112"});
    EXPECT_EQ("free number", reason("112", 60, "ANSWERED"));
    EXPECT_EQ("free number", reason("102", 60, "ANSWERED"));   // another room
    EXPECT_EQ("free number", reason("2101", 60, "ANSWERED"));  // an extension
    EXPECT_EQ("free number", reason("101", 60, "ANSWERED"));   // the room itself
    EXPECT_EQ("unanswered", reason("555", 60, "BUSY"));
    EXPECT_EQ("unanswered", reason("555", 0, "ANSWERED"));
    EXPECT_EQ("unanswered", reason("555", 0, std::nullopt));  // a billcalls row
    EXPECT_EQ("shorter than min_billsec", reason("555", 4, "answered"));
    EXPECT_EQ("posted", reason("555", 5, std::nullopt));
}

// The local date (or `format`) `seconds` from now.
std::string local_date(int seconds, const char* format = "%y%m%d") {
    return local_time_text(time(nullptr) + seconds, format);
}

// A daemon caching calls from the Manager, rooms 101 (with extension 2101)
// and 102.
void manager_rooms(daemon_run& run) {
    run.use_manager();
    run.set("rooms", "room1", "101")
        .set("rooms", "room2", "102")
        .set("extensions", "101", "101, 2101");
}

mgr_cdr_event call(const std::string& src, const std::string& dst, int billsec, int n,
                   const char* disposition = nullptr) {
    mgr_cdr_event ev =
        mgr_cdr_event::make(src, dst, "2024-05-01 10:00:0" + std::to_string(n), billsec);
    if (disposition) ev.set("Disposition", disposition);
    return ev.set("UniqueID", "1714557600." + std::to_string(n));
}

TEST(Calls, OnlyTheAnsweredExternalCallsArePostedEachOnceAndTheOthersLeaveTheCache) {
    daemon_run run;
    manager_rooms(run);
    run.set("posting", "post_unanswered", "no")
        .set("posting", "free_numbers", "rooms, 100-199, 112");
    ASSERT_TRUE(run.start()) << run.log();
    for (const mgr_cdr_event& ev :
         {call("101", "004930123456", 65, 1), call("101", "004930123457", 0, 2),
          call("101", "004930123458", 0, 3, "BUSY"), call("101", "004930123459", 0, 4, "ANSWERED"),
          call("101", "102", 30, 5), call("101", "150", 30, 6), call("101", "112", 30, 7),
          call("2101", "0044207946", 42, 8)})
        ASSERT_EQ(1, run.mgr.send_cdr(ev));
    ASSERT_TRUE(run.pms.wait_for_count("PS|", 2, 15s)) << run.log();
    ASSERT_TRUE(wait_until([&] {
        return run.states("select count(*) from cdrcache")[0][0] == "2";
    })) << run.log();
    std::this_thread::sleep_for(1s);  // a few more cycles: nothing more goes out
    const texts ps = run.pms.frames("PS|");
    ASSERT_EQ(2u, ps.size()) << run.log();
    EXPECT_NE(std::string::npos, ps[0].find("|RN101|"));
    EXPECT_NE(std::string::npos, ps[0].find("|DD004930123456|"));
    EXPECT_NE(std::string::npos, ps[1].find("|RN101|"));
    EXPECT_NE(std::string::npos, ps[1].find("|DD0044207946|"));
    EXPECT_EQ(1u, run.count_log("Call of room 101 to 112 not posted: free number"));
    EXPECT_EQ(1u, run.count_log("Call of room 101 to 102 not posted: free number"));
    EXPECT_EQ(1u, run.count_log("Call of room 101 to 150 not posted: free number"));
    EXPECT_EQ(3u, run.count_log("not posted: unanswered"));
}

TEST(Calls, ImmediatePostingDoesNotWaitForTheCycle) {
    daemon_run run;
    manager_rooms(run);
    run.env.push_back("ORLANBECK_TEST_BILLING_PERIOD_MS=60000");
    run.set("posting", "immediate", "yes");
    ASSERT_TRUE(run.start()) << run.log();
    const auto sent = std::chrono::steady_clock::now();
    for (int n = 1; n <= 3; ++n) ASSERT_EQ(1, run.mgr.send_cdr(call("101", "0049301", 60, n)));
    ASSERT_TRUE(run.pms.wait_for_count("PS|", 3, 5s)) << run.log();
    EXPECT_LT(std::chrono::steady_clock::now() - sent, 2s);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(3u, run.pms.count_frames("PS|"));
    EXPECT_EQ(3u, run.pms.postings().size());
}

TEST(DialCodes, MinibarAndRoomStatusReachThePmsOnceAlsoWhenTheLinkWasDown) {
    daemon_run run;
    manager_rooms(run);
    // The Manager session serves the dial codes alone, with its own classes.
    run.unset("services", "cdr_use_manager").unset("services", "cdr_mgr_events");
    run.set("dialcodes", "minibar_event", "Minibar").set("dialcodes", "maid_event", "RoomStatus");
    run.set("services", "billok", "pbx:create table billok_ran (x)")
        .set("fixes", "link_end", "yes");
    ASSERT_TRUE(run.start()) << run.log();
    EXPECT_NE(std::string::npos, run.mgr.login_texts().at(0).find("Events: user\r\n"));
    EXPECT_EQ(1u, run.pms.count_frames("LR|RIPS|FLP#RNPTTADATIDUDDPCCTMAM#|"));
    EXPECT_EQ(1u, run.pms.count_frames("LR|RIRE|FLRNRSCSDNID|"));

    run.pms.stop();
    ASSERT_TRUE(
        wait_until([&] { return run.log().find("Connection to PMS lost") != std::string::npos; }));
    run.mgr.send_user_event(
        "Minibar", {{"Room", "2101"}, {"Article", "12"}, {"Quantity", "2"}, {"Amount", "700"}});
    run.mgr.send_user_event("RoomStatus", {{"Room", "101"}, {"Status", "3"}, {"MaidId", "7"}});
    run.mgr.send_user_event("Minibar", {{"Room", "999"}, {"Article", "12"}, {"Quantity", "2"}});
    run.mgr.send_user_event("Minibar", {{"Room", "101"}, {"Article", "12"}, {"Quantity", "two"}});
    run.mgr.send_user_event("RoomStatus", {{"Room", "101"}, {"Status", "7"}});
    run.mgr.send_user_event("Other", {{"Room", "101"}});
    ASSERT_TRUE(run.wait_log("Room status of room 101: 3")) << run.log();
    ASSERT_TRUE(run.wait_log("status \"7\" is not 1-6")) << run.log();
    EXPECT_EQ(1u, run.count_log("unknown room \"999\""));
    EXPECT_EQ(1u, run.count_log("quantity \"two\" is not a number"));

    ASSERT_TRUE(run.pms.start());
    ASSERT_TRUE(run.pms.wait_for_frame("RE|", 15s)) << run.log();
    ASSERT_TRUE(run.wait_log("Minibar posting P#0001 of room 101 accepted")) << run.log();
    ASSERT_TRUE(wait_until([&] { return run.states("select count(*) from outbox")[0][0] == "0"; }));
    std::this_thread::sleep_for(600ms);  // a few more cycles: nothing more goes out
    const texts ps = run.pms.frames("PS|");
    ASSERT_EQ(1u, ps.size());
    for (const char* field : {"|P#0001|", "|RN101|", "|PTM|", "|TA700|", "|MA12|", "|M#2|"})
        EXPECT_NE(std::string::npos, ps[0].find(field)) << ps[0];
    EXPECT_EQ((texts{"RE|RN101|RS3|ID7|"}), run.pms.frames("RE|"));
    // The answer settles the minibar posting and runs no billok.
    EXPECT_TRUE(run.pbx("select name from sqlite_master where name='billok_ran'").empty());
}

TEST(DialCodes, TheGuestsOwnCodesAndVoiceMailReachThePmsAndBadValuesAreDropped) {
    daemon_run run;
    manager_rooms(run);
    run.unset("services", "cdr_use_manager").unset("services", "cdr_mgr_events");
    run.set("dialcodes", "wakeup_event", "WakeupSet")
        .set("dialcodes", "wakeup_clear_event", "WakeupClear")
        .set("dialcodes", "guest_service_event", "GuestService")
        .set("dialcodes", "voicemail", "yes");
    ASSERT_TRUE(run.start()) << run.log();
    EXPECT_NE(std::string::npos, run.mgr.login_texts().at(0).find("Events: user,call\r\n"));
    EXPECT_EQ(1u, run.pms.count_frames("LR|RIRE|FLRNRSCSDNVM|"));
    for (const char* status : {"DND", "mur", "Off"})
        run.mgr.send_user_event("GuestService", {{"Room", "2101"}, {"Status", status}});
    auto waiting = [&](const std::string& mailbox, const char* fresh, const char* old) {
        run.mgr.send_raw("Event: MessageWaiting\r\nPrivilege: call,all\r\nMailbox: " + mailbox +
                         "\r\nWaiting: 1\r\nNew: " + fresh + "\r\nOld: " + old + "\r\n\r\n");
    };
    waiting("101@default", "2", "1");
    waiting("102@default", "0", "0");
    waiting("999@default", "1", "0");
    waiting("101@default", "x", "0");
    // Without [wakeup] call the daemon keeps no bookings: the time dialled,
    // dated by the rule, and the clear-all form.
    const std::string tomorrow = local_date(86400);
    run.mgr.send_user_event("WakeupSet", {{"Room", "102"}, {"Time", "0630"}, {"Date", tomorrow}});
    run.mgr.send_user_event("WakeupClear", {{"Room", "102"}, {"Time", "0630"}});
    run.mgr.send_user_event("WakeupClear", {{"Room", "102"}});
    for (const auto& [time, date] : {std::pair{"2460", ""}, {"063", ""}, {"0630", "200101"}})
        run.mgr.send_user_event("WakeupSet", {{"Room", "101"}, {"Time", time}, {"Date", date}});
    run.mgr.send_user_event("GuestService", {{"Room", "101"}, {"Status", "ON"}});
    run.mgr.send_user_event("GuestService", {{"Room", "999"}, {"Status", "DND"}});
    ASSERT_TRUE(run.pms.wait_for_frame("WC|RN102|DA|TI|", 10s)) << run.log();
    ASSERT_TRUE(run.wait_log("unknown room \"999\"")) << run.log();

    EXPECT_EQ((texts{"RE|RN101|RS8|", "RE|RN101|RS9|", "RE|RN101|RS10|", "RE|RN101|VM0201|",
                     "RE|RN102|VM0000|"}),
              run.pms.frames("RE|"));
    EXPECT_EQ((texts{"WR|RN102|DA" + tomorrow + "|TI063000|"}), run.pms.frames("WR|"));
    // 06:30 is still ahead today, or else tomorrow.
    const std::string dated = local_date(0, "%H%M") < "0630" ? local_date(0) : tomorrow;
    EXPECT_EQ((texts{"WC|RN102|DA" + dated + "|TI063000|", "WC|RN102|DA|TI|"}),
              run.pms.frames("WC|"));
    for (const char* bad : {"\"2460\" is not HHMM", "\"063\" is not HHMM", "is in the past",
                            "\"x\" and Old \"0\" are not numbers", "\"ON\" is not DND"})
        EXPECT_EQ(1u, run.count_log(bad)) << bad;
    EXPECT_EQ(0u, run.count_log("Wake-up call"));
}

}  // namespace
