// Wake-up calls placed by the daemon ([wakeup] call), end to end against the
// PMS and Manager simulators; and the local-time rules of a booking.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "support_daemon.h"
#include "text.h"
#include "wakeup/schedule.h"

using namespace std::chrono_literals;

namespace {

// "DA" and "TI" of the local time `seconds` from now.
std::pair<std::string, std::string> in_seconds(int seconds) {
    const time_t t = time(nullptr) + seconds;
    return {local_time_text(t, "%y%m%d"), local_time_text(t, "%H%M%S")};
}

// The Originate actions the simulator received for `channel`.
size_t originates(const mgr_sim& mgr, const std::string& channel) {
    size_t n = 0;
    for (const mgr_action& a : mgr.actions())
        if (a.get("action") == "Originate" && a.get("channel") == channel) ++n;
    return n;
}

// The daemon's clock set `seconds` before the UTC moment `utc` (test-only).
std::string clock_before(time_t utc, int seconds) {
    return "ORLANBECK_TEST_CLOCK_OFFSET_S=" + std::to_string(utc - seconds - time(nullptr));
}

time_t utc(int y, int mo, int d, int h, int mi) {
    struct tm tm {};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    return timegm(&tm);
}

class Zone {
  public:
    explicit Zone(const char* tz) {
        if (const char* old = getenv("TZ")) old_ = old;
        setenv("TZ", tz, 1);
        tzset();
    }
    ~Zone() {
        if (old_)
            setenv("TZ", old_->c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

  private:
    std::optional<std::string> old_;
};

TEST(WakeupSchedule, LocalTimesAcrossDaylightSavingChanges) {
    Zone berlin("Europe/Berlin");
    // 02:30 does not exist on 29 March 2026: the call rings at 03:00 CEST.
    EXPECT_EQ(utc(2026, 3, 29, 1, 0), *wakeup_moment("260329", "0230", 0));
    // 02:30 occurs twice on 25 October 2026: the first, in summer time.
    EXPECT_EQ(utc(2026, 10, 25, 0, 30), *wakeup_moment("261025", "023000", 0));
    EXPECT_EQ(utc(2026, 7, 1, 6, 30), *wakeup_moment("260701", "0830", 0));
    // Without a date: the next 08:30, today or tomorrow; pairs in base 10.
    EXPECT_EQ(utc(2026, 7, 1, 6, 30), *wakeup_moment("", "0830", utc(2026, 7, 1, 6, 0)));
    EXPECT_EQ(utc(2026, 7, 2, 6, 30), *wakeup_moment("", "0830", utc(2026, 7, 1, 6, 30)));
    EXPECT_FALSE(wakeup_moment("261301", "0830", 0));
    EXPECT_FALSE(wakeup_moment("260701", "2460", 0));
}

TEST(Wakeup, ThreeRoomsRetriesResultsAndAlertsEachOnce) {
    daemon_run run;
    run.use_wakeup();
    run.mgr.set_originate("102", {originate_outcome::busy, 100ms});
    run.mgr.set_originate("103", {originate_outcome::no_answer, 300ms});
    sqlite_exec(run.pbx_file(), "create table alerts (room text, exten text, result text)");
    run.set("wakeup", "attempts", "2")
        .set("wakeup", "retry_interval", "2")
        .set("wakeup", "snooze_window", "1")
        .set("wakeup", "alert", "pbx:insert into alerts values ('%room%','%exten%','%result%')");
    ASSERT_TRUE(run.start()) << run.log();
    // The login asks for the dialer's event classes.
    EXPECT_NE(std::string::npos, run.mgr.login_texts().back().find("Events: call,user"));
    const auto [da, ti] = in_seconds(3);
    for (const char* room : {"101", "102", "103"})
        ASSERT_TRUE(
            run.pms.send_record("WR|RN" + std::string(room) + "|DA" + da + "|TI" + ti + "|"));
    // A second "WR" for the same room and time changes nothing.
    ASSERT_TRUE(run.pms.send_record("WR|RN101|DA" + da + "|TI" + ti + "|"));

    ASSERT_TRUE(run.pms.wait_for_count("WA|", 3, 20s)) << run.log();
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(1u, run.pms.count_frames("WA|RN101|DA" + da + "|TI" + ti + "|ASOK|"));
    EXPECT_EQ(1u, run.pms.count_frames("WA|RN102|DA" + da + "|TI" + ti + "|ASBY|"));
    EXPECT_EQ(1u, run.pms.count_frames("WA|RN103|DA" + da + "|TI" + ti + "|ASNR|"));
    EXPECT_EQ(3u, run.pms.count_frames("WA|"));
    EXPECT_EQ(1u, originates(run.mgr, "PJSIP/101"));
    EXPECT_EQ(2u, originates(run.mgr, "PJSIP/102"));
    EXPECT_EQ(2u, originates(run.mgr, "PJSIP/103"));
    EXPECT_EQ((sql_rows{{"102", "102", "BY"}, {"103", "103", "NR"}}),
              run.pbx("select * from alerts order by room"));

    const mgr_action first = run.mgr.actions().front();
    EXPECT_EQ("hotel-wakeup", first.get("context"));
    EXPECT_EQ("45000", first.get("timeout"));
    EXPECT_EQ("true", first.get("async"));
    std::string variables;
    for (const auto& [name, value] : first.headers)
        if (name == "variable") variables += value + " ";
    EXPECT_TRUE(like("WAKEUP_ROOM=10# WAKEUP_ID=@ WAKEUP_ATTEMPT=1 WAKEUP_EXTENS=10# ", variables))
        << variables;
    // The three calls of the booked second went out together.
    EXPECT_TRUE(run.wait_log("Wake-up call for room 102 (attempt 2 of 2): busy"));
    EXPECT_TRUE(run.wait_log("Wake-up for room 103 at "));
    EXPECT_EQ(1u, run.count_log("ended: NR"));
}

TEST(Wakeup, SnoozeWhileTheBookingRunsWhateverTheWindowAndAnHourReadInBaseTen) {
    daemon_run run;
    run.use_wakeup();
    run.env = {"ORLANBECK_TEST_WAKEUP_MINUTE_MS=200"};
    // The daemon's clock shows 08:29:57 local time today; no [fixes]: "0830"
    // is still 08:30.
    const time_t now = time(nullptr);
    struct tm tm {};
    localtime_r(&now, &tm);
    tm.tm_hour = 8;
    tm.tm_min = 30;
    tm.tm_sec = 0;
    tm.tm_isdst = -1;
    run.env.push_back(clock_before(mktime(&tm), 3));
    run.set("wakeup", "snooze_window", "6");
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_TRUE(run.play({"WR|RN201|TI0830|"}, "Wake-up for room 201 booked")) << run.log();
    ASSERT_TRUE(run.wait_log("Wake-up call for room 201 (attempt 1 of 3): answered")) << run.log();
    // More than ten (shortened) minutes after the answer, but within
    // snooze_window: taken, and called again a minute later.
    std::this_thread::sleep_for(2500ms);
    ASSERT_EQ(1, run.mgr.send_user_event("WakeupSnooze", {{"Room", "201"}, {"Minutes", "1"}}));
    ASSERT_TRUE(wait_until([&] { return originates(run.mgr, "PJSIP/201") == 2; }, 5s)) << run.log();
    // Out of range: ignored.
    run.mgr.send_user_event("WakeupSnooze", {{"Room", "201"}, {"Minutes", "61"}});
    ASSERT_TRUE(run.pms.wait_for_count("WA|RN201|TI0830|ASOK|", 1, 15s)) << run.log();
    EXPECT_EQ(1u, run.count_log("; ignored"));
    EXPECT_EQ(1u, run.pms.count_frames("WA|"));
}

TEST(Wakeup, ABookingEndsOnceWhateverOrderItsOutcomeDeadlineAndSnoozeArriveIn) {
    daemon_run run;
    run.use_wakeup();
    run.env = {"ORLANBECK_TEST_WAKEUP_MINUTE_MS=1000"};  // an outcome waits 5 s + 0.5 s
    // 601 ends busy at once; its alert waits 6 s for an answer that never
    // comes, and meanwhile 602's deadline passes and its outcome arrives, and
    // 603 is snoozed and answered.
    run.mgr.set_originate("601", {originate_outcome::busy, 100ms});
    run.mgr.set_originate("602", {originate_outcome::no_answer, 5600ms});
    run.mgr.set_originate("603", {originate_outcome::answer, 1500ms});
    run.mgr.set_action_silent("UserEvent", true);
    run.set("wakeup", "attempts", "1")
        .set("wakeup", "ring_time", "5")
        .set("wakeup", "snooze_window", "1")
        .set("wakeup", "alert", "ami:UserEvent|UserEvent=WakeupFailed|Room=%room%")
        .set("services", "ami_timeout", "6");
    ASSERT_TRUE(run.start()) << run.log();
    const auto [da, ti] = in_seconds(2);
    for (const char* room : {"601", "602", "603"})
        ASSERT_TRUE(
            run.pms.send_record("WR|RN" + std::string(room) + "|DA" + da + "|TI" + ti + "|"));
    ASSERT_TRUE(wait_until([&] { return originates(run.mgr, "PJSIP/603") == 1; }, 10s));
    run.mgr.send_user_event("WakeupSnooze", {{"Room", "603"}, {"Minutes", "1"}});
    ASSERT_TRUE(run.wait_log("Wake-up for room 601 at ")) << run.log();
    run.mgr.send_user_event("WakeupSnooze", {{"Room", "601"}, {"Minutes", "1"}});
    ASSERT_TRUE(run.pms.wait_for_count("WA|", 3, 30s)) << run.log();
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(1u, run.pms.count_frames("WA|RN601|DA" + da + "|TI" + ti + "|ASBY|")) << run.log();
    EXPECT_EQ(1u, run.pms.count_frames("WA|RN602|DA" + da + "|TI" + ti + "|ASNR|"));
    EXPECT_EQ(1u, run.pms.count_frames("WA|RN603|DA" + da + "|TI" + ti + "|ASOK|"));
    EXPECT_EQ(3u, run.pms.count_frames("WA|"));
    EXPECT_EQ(1u, originates(run.mgr, "PJSIP/602"));
    EXPECT_EQ(2u, originates(run.mgr, "PJSIP/603"));
    size_t alerts = 0;
    for (const mgr_action& action : run.mgr.actions())
        alerts += action.get("action") == "UserEvent";
    EXPECT_EQ(2u, alerts);
    EXPECT_EQ(1u, run.count_log("Wake-up snooze for room 601: no wake-up call"));
    EXPECT_TRUE(run.states("select * from wakeups").empty());
}

TEST(Wakeup, ACancelledBookingSendsNoResultAlsoWhileItsCallRings) {
    daemon_run run;
    run.use_wakeup();
    run.mgr.set_originate("701", {originate_outcome::answer, 2500ms});
    run.mgr.set_originate("702", {originate_outcome::answer, 2500ms});
    run.mgr.set_originate("703", {originate_outcome::answer, 2500ms});
    run.set("wakeup", "snooze_window", "1").set("pms", "resync", "yes");
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_TRUE(run.play({"GI|RN701|GNA|", "GI|RN702|GNB|", "GI|RN703|GNC|"}, "\tName: C"));
    const auto [da, ti] = in_seconds(2);
    for (const char* room : {"701", "702", "703"})
        ASSERT_TRUE(
            run.pms.send_record("WR|RN" + std::string(room) + "|DA" + da + "|TI" + ti + "|"));
    ASSERT_TRUE(wait_until([&] { return originates(run.mgr, "PJSIP/703") == 1; }, 10s));
    // While the calls ring: a "WC", a check-out, and a resync that leaves
    // 703 out.
    ASSERT_TRUE(run.play({"WC|RN701|DA" + da + "|TI" + ti + "|", "GO|RN702|",
                          "DS|DA240514|TI120000|", "GI|RN701|GNA|", "DE|DA240514|TI120000|"},
                         "Database resync done"))
        << run.log();
    ASSERT_TRUE(run.wait_log("Wake-up for room 703 at ")) << run.log();
    std::this_thread::sleep_for(4s);  // the outcomes come, and the snooze window would pass
    EXPECT_EQ(0u, run.pms.count_frames("WA|"));
    EXPECT_EQ(0u, run.pms.count_frames("WC|"));
    EXPECT_EQ(3u, run.count_log("cancelled"));
    EXPECT_TRUE(run.states("select * from wakeups").empty());
}

TEST(Wakeup, BookingsSurviveRestartsAndResultsWaitForTheLink) {
    daemon_run run;
    run.use_wakeup();
    run.mgr.set_originate("301", {originate_outcome::answer, 1500ms});
    run.set("wakeup", "snooze_window", "1").set("wakeup", "late_limit", "60");
    run.set("fixes", "link_end", "yes");  // a PMS that went away is noticed
    ASSERT_TRUE(run.start()) << run.log();
    auto [da, ti] = in_seconds(2);
    ASSERT_TRUE(run.play({"WR|RN301|DA" + da + "|TI" + ti + "|"}, "Wake-up for room 301 booked"));
    run.process().terminate(5s);
    std::this_thread::sleep_for(3s);
    // Started again less than late_limit late: the call is placed at once. The
    // PMS is away when the booking ends, and gets its result once back.
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_TRUE(wait_until([&] { return originates(run.mgr, "PJSIP/301") == 1; }, 5s));
    run.pms.stop();
    // Killed once the booking ended: its result was stored with its end.
    ASSERT_TRUE(wait_until([&] {
        return run.states("select count(*) from outbox where kind='WA'")[0][0] == "1";
    })) << run.log();
    EXPECT_TRUE(run.states("select * from wakeups").empty());
    run.process().stop();
    ASSERT_TRUE(run.pms.start());
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_TRUE(run.pms.wait_for_count("WA|RN301|DA" + da + "|TI" + ti + "|ASOK|", 1, 20s))
        << run.log();

    // Stopped once the daemon noted the write.
    ASSERT_TRUE(wait_until([&] { return run.states("select count(*) from outbox")[0][0] == "0"; }));
    // Busy, and its retry falls due while the daemon is stopped: past
    // late_limit it ends "UR" without a call.
    run.mgr.set_originate("302", {originate_outcome::busy, 100ms});
    run.set("wakeup", "attempts", "2").set("wakeup", "retry_interval", "30");
    run.process().terminate(5s);
    ASSERT_TRUE(run.start()) << run.log();
    std::tie(da, ti) = in_seconds(2);
    ASSERT_TRUE(run.play({"WR|RN302|DA" + da + "|TI" + ti + "|"},
                         "Wake-up call for room 302 (attempt 1 of 2): busy"))
        << run.log();
    run.process().terminate(5s);
    run.env = {"ORLANBECK_TEST_CLOCK_OFFSET_S=120"};
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_TRUE(run.pms.wait_for_count("WA|RN302|DA" + da + "|TI" + ti + "|ASUR|", 1, 15s))
        << run.log();
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(1u, originates(run.mgr, "PJSIP/302"));
    EXPECT_EQ(1u, run.pms.count_frames("WA|RN301|"));
    EXPECT_EQ(1u, run.pms.count_frames("WA|RN302|"));
    EXPECT_TRUE(run.states("select * from wakeups").empty());
}

TEST(Wakeup, TheGuestBooksAndCancelsFromThePhone) {
    daemon_run run;
    run.use_wakeup();
    run.use_log_templates();
    run.set("rooms", "room1", "101").set("rooms", "room2", "102");
    run.set("dialcodes", "wakeup_event", "WakeupSet")
        .set("dialcodes", "wakeup_clear_event", "WakeupClear")
        .set("wakeup", "snooze_window", "1");
    ASSERT_TRUE(run.start()) << run.log();
    const auto [da, ti] = in_seconds(3);
    ASSERT_EQ(1, run.mgr.send_user_event("WakeupSet", {{"Room", "101"}, {"Time", ti}}));
    const std::string wr = "WR|RN101|DA" + da + "|TI" + ti + "|";
    ASSERT_TRUE(run.pms.wait_for_frame(wr, 10s)) << run.log();
    // The PMS echoes it back: a booking the room has already.
    ASSERT_TRUE(run.play({wr}, "is booked already")) << run.log();
    const auto [da2, ti2] = in_seconds(600);
    run.mgr.send_user_event("WakeupSet", {{"Room", "102"}, {"Time", ti2.substr(0, 4)}});
    ASSERT_TRUE(run.wait_log("Wake-up for room 102 booked")) << run.log();
    run.mgr.send_user_event("WakeupClear", {{"Room", "102"}});
    const std::string booked = "|RN102|DA" + da2 + "|TI" + ti2.substr(0, 4) + "00|";
    ASSERT_TRUE(run.pms.wait_for_frame("WC" + booked, 10s)) << run.log();
    // Nothing left to cancel: the clear-all form.
    run.mgr.send_user_event("WakeupClear", {{"Room", "102"}});
    ASSERT_TRUE(run.pms.wait_for_frame("WC|RN102|DA|TI|", 10s)) << run.log();

    ASSERT_TRUE(run.pms.wait_for_frame("WA|RN101|", 20s)) << run.log();
    std::this_thread::sleep_for(1s);
    EXPECT_EQ((std::vector<std::string>{wr, "WR" + booked}), run.pms.frames("WR|"));
    EXPECT_EQ(1u, run.pms.count_frames("WA|RN101|DA" + da + "|TI" + ti + "|ASOK|"));
    EXPECT_EQ(1u, run.pms.count_frames("WA|"));
    EXPECT_EQ(1u, originates(run.mgr, "PJSIP/101"));
    EXPECT_EQ(0u, originates(run.mgr, "PJSIP/102"));
    // The steps ran once per booking and cancel, not for the echo.
    EXPECT_EQ(3u, run.pbx("select * from log where what like 'wakeup%'").size());
    EXPECT_EQ(1u, run.pbx("select * from log where what='wakeup_clear' and exten='102'").size());
}

}  // namespace
