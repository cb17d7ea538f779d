// Calls on their way to the PMS: the daemon against the PMS and Manager
// simulators, with billing cycles 200 ms apart. (Wake-up results and room
// states: tests/billing_cycle_test.cpp.)
#include <gtest/gtest.h>

#include "support_daemon.h"

using namespace std::chrono_literals;

namespace {

TEST(Billing, ManagerCallsAreCachedAndEachIsPostedOnce) {
    daemon_run run;
    run.use_manager();
    run.set("rooms", "room1", "101").set("rooms", "room2", "102");
    ASSERT_TRUE(run.start()) << run.log();
    EXPECT_NE(std::string::npos, run.mgr.login_texts().at(0).find("Events: cdr\r\n"));
    auto cache = [&](const std::string& columns) {
        return run.states("select " + columns + " from cdrcache order by rowid");
    };

    run.mgr.send_cdr(mgr_cdr_event::make("101", "5551234", "2009-05-14 10:20:30", 125));
    run.mgr.send_cdr(mgr_cdr_event::make("1010", "5550000", "2009-05-14 10:21:00", 5));
    ASSERT_TRUE(wait_until([&] { return cache("src").size() == 1; })) << run.log();
    EXPECT_EQ((sql_rows{{"101", "5551234", "2009-05-14 10:20:30", "125", ""}}),
              cache("src, dst, start, billsec, userfield"));
    auto ps = run.pms.wait_for_frame("PS|", 10s);
    ASSERT_TRUE(ps) << run.log();
    EXPECT_EQ("PS|P#0001|RN101|PTT|DA090514|TI102030|DU000205|DD5551234|", *ps);
    // The cached row carries the record sent for it.
    ASSERT_TRUE(wait_until([&] { return cache("userfield") == sql_rows{{*ps}}; })) << run.log();

    // A refused answer is only logged.
    run.pms.set_answer(pms_sim::answer_mode::refuse, "NO");
    run.mgr.send_cdr(mgr_cdr_event::make("102", "333", "2009-05-14 12:00:00", 30));
    ASSERT_TRUE(run.wait_log("Non-OK answer on Post call. Please check")) << run.log();
    std::this_thread::sleep_for(600ms);  // a few more cycles
    auto posted = run.pms.frames("PS|");
    ASSERT_EQ(2u, posted.size()) << "each call is posted once";
    EXPECT_EQ(0u, posted[1].find("PS|P#0002|RN102|")) << posted[1];
}

}  // namespace
