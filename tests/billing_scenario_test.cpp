// The road of one call end to end: the daemon in the foreground against the
// PMS and Manager simulators, in both billing modes.
#include <gtest/gtest.h>

#include <regex>

#include "sim_mgr.h"
#include "sim_pms.h"
#include "support_daemon.h"

using namespace std::chrono_literals;
using rows = std::vector<std::vector<std::string>>;

namespace {

// The first posting comes with the first billing cycle after the link is up
// (cycles are 10 seconds apart).
constexpr auto kCycle = 25s;

class CallRoad : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(pms.start());
        run = std::make_unique<daemon_run>(pms.port());
        run->config().set("rooms", "room1", "101").set("rooms", "room2", "102");
    }

    void use_manager() {
        ASSERT_TRUE(mgr.start());
        run->config()
            .set("services", "cdr_use_manager", "yes")
            .set("services", "cdr_mgr_host", "127.0.0.1")
            .set("services", "cdr_mgr_port", std::to_string(mgr.port()))
            .set("services", "cdr_mgr_user", "orlanbeck")
            .set("services", "cdr_mgr_password", "secret")
            .set("services", "cdr_mgr_events", "cdr");
    }

    void start() {
        ASSERT_TRUE(run->start());
        ASSERT_TRUE(pms.wait_link_active(15s)) << run->log();
    }

    rows cache(const std::string& columns) {
        return run->states("select " + columns + " from cdrcache order by rowid");
    }

    pms_sim pms;
    mgr_sim mgr;
    std::unique_ptr<daemon_run> run;
};

TEST_F(CallRoad, ManagerModeCachesPostsAndHandlesTheAnswer) {
    use_manager();
    start();
    ASSERT_TRUE(mgr.wait_logins(1, 15s)) << run->log();
    ASSERT_TRUE(run->wait_log("connected successfully!"));
    EXPECT_NE(std::string::npos, mgr.login_texts().at(0).find("Events: cdr\r\n"));

    mgr.send_cdr(mgr_cdr_event::make("101", "5551234", "2009-05-14 10:20:30", 125));
    mgr.send_cdr(mgr_cdr_event::make("1010", "5550000", "2009-05-14 10:21:00", 5));
    ASSERT_TRUE(wait_until([&] { return cache("src").size() == 1; })) << run->log();
    EXPECT_EQ((rows{{"101", "5551234", "2009-05-14 10:20:30", "125", ""}}),
              cache("src, dst, start, billsec, userfield"));

    auto ps = pms.wait_for_frame("PS|", kCycle);
    ASSERT_TRUE(ps) << run->log();
    EXPECT_EQ("PS|P#0001|RN101|PTT|DA090514|TI102030|DU000205|DD5551234|", *ps);
    // The cached row carries the record sent for it, so it is not posted again.
    ASSERT_TRUE(wait_until([&] { return cache("userfield") == rows{{*ps}}; }))
        << cache("userfield").size() << " rows\n" << run->log();

    // The accepted answer runs the remove statement as it stands: it has no
    // "where", so SQLite refuses it and the row stays.
    ASSERT_TRUE(run->wait_log("OK query is: delete from cdrcache src='101' and "
                              "date(start)='2000-06-14' and time(start)='10:20:30'"));
    EXPECT_TRUE(run->wait_log("Sqlite query error"));
    EXPECT_EQ(1u, cache("src").size());

    // A refused answer is only logged.
    pms.set_answer(pms_sim::answer_mode::refuse, "NO");
    mgr.send_cdr(mgr_cdr_event::make("102", "333", "2009-05-14 12:00:00", 30));
    ASSERT_TRUE(pms.wait_for_count("PS|", 2, kCycle));
    EXPECT_EQ(0u, pms.frames("PS|").at(1).find("PS|P#0002|RN102|")) << "each call is posted once";
    EXPECT_TRUE(run->wait_log("Non-OK answer on Post call. Please check"));
}

TEST_F(CallRoad, ManagerModeMarksInsteadOfRemovingWithNoRemoveCalls) {
    use_manager();
    run->config().set("services", "noremovecalls", "1");
    pms.set_answer(pms_sim::answer_mode::none);
    start();
    ASSERT_TRUE(mgr.wait_logins(1, 15s));
    ASSERT_TRUE(run->wait_log("connected successfully!"));
    mgr.send_cdr(mgr_cdr_event::make("101", "5551234", "2010-04-14 10:20:30", 61));
    auto ps = pms.wait_for_frame("PS|", kCycle);
    ASSERT_TRUE(ps) << run->log();
    EXPECT_EQ("PS|P#0001|RN101|PTT|DA100414|TI102030|DU000101|DD5551234|", *ps);
    // The answer's date is put into the statement with its month as the
    // zero-based month, so an answer naming the month before matches the call.
    ASSERT_TRUE(pms.send_record("PA|ASOK|RN101|P#0001|DA100314|TI102030|"));
    ASSERT_TRUE(wait_until([&] { return cache("userfield") == rows{{"0001"}}; })) << run->log();
}

TEST_F(CallRoad, ACheckInClosesTheCacheForTheRestOfTheRun) {
    use_manager();
    start();
    ASSERT_TRUE(mgr.wait_logins(1, 15s));
    ASSERT_TRUE(run->wait_log("connected successfully!"));
    ASSERT_TRUE(pms.send_record("GI|RN101|GNSmith|"));
    ASSERT_TRUE(run->wait_log("\tName: Smith"));
    std::this_thread::sleep_for(500ms);
    mgr.send_cdr(mgr_cdr_event::make("101", "5551234", "2009-05-14 10:20:30", 125));
    ASSERT_TRUE(run->wait_log("sending cache insert query"));
    EXPECT_TRUE(run->wait_log("Sqlite query error"));
    EXPECT_TRUE(cache("src").empty());
}

TEST_F(CallRoad, QueryModePostsMarksAndBillsTheCall) {
    ASSERT_TRUE(sqlite_exec(run->pbx_file(),
                            "create table calls (src, calldate, calltime, dst, billsec, cost, "
                            "posted default 0, billed default '');"
                            "insert into calls values ('101','2009-05-14','10:20:30','5551234',"
                            "125,498,0,'');"));
    run->config()
        .set("services", "billcalls",
             "pbx:select calldate, calltime, dst, billsec, cost from calls where src='%exten%' "
             "and posted=0")
        .set("services", "billmark",
             "pbx:update calls set posted=1 where src='%exten%' and calldate='%date%' and "
             "calltime='%time%'")
        .set("services", "billok", "pbx:update calls set billed='%seqno%' where src='%exten%'");
    start();
    auto ps = pms.wait_for_frame("PS|", kCycle);
    ASSERT_TRUE(ps) << run->log();
    // The cost goes out as a number field: the count of its digits.
    EXPECT_EQ("PS|P#0001|RN101|PTC|TA3|DA090514|TI102030|DU000205|DD5551234|", *ps);
    ASSERT_TRUE(wait_until([&] {
        return run->pbx("select posted, billed from calls") == rows{{"1", "0001"}};
    })) << run->log();
}

TEST_F(CallRoad, WakeUpResultsAndRoomStatusReachThePms) {
    ASSERT_TRUE(sqlite_exec(run->pbx_file(),
                            "create table wakeups (exten, result, wdate, wtime, reported);"
                            "insert into wakeups values ('101',3,'2009-05-14','06:30:00',0);"
                            "create table status (exten, code, reported);"
                            "insert into status values ('102',2,0);"));
    run->config()
        .set("services", "wakeup_result",
             "pbx:select result, wdate, wtime from wakeups where exten='%exten%' and reported=0")
        .set("services", "wrmark", "pbx:update wakeups set reported=1 where exten='%exten%'")
        .set("services", "room_status",
             "pbx:select code from status where exten='%exten%' and reported=0")
        .set("services", "remark", "pbx:update status set reported=1 where exten='%exten%'");
    start();
    auto wa = pms.wait_for_frame("WA|", kCycle);
    ASSERT_TRUE(wa) << run->log();
    EXPECT_EQ("WA|RN101|DA090514|TI063000|ASNR|", *wa);
    auto re = pms.wait_for_frame("RE|", 5s);
    ASSERT_TRUE(re);
    EXPECT_EQ("RE|RN102|RS2|", *re);
    ASSERT_TRUE(wait_until([&] {
        return run->pbx("select reported from wakeups") == rows{{"1"}} &&
               run->pbx("select reported from status") == rows{{"1"}};
    }));
}

}  // namespace
