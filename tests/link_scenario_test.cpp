// The PMS link as the running daemon keeps it: connecting, losing and
// re-making the link, and the pace at which records are taken.
#include <gtest/gtest.h>

#include "netutil.h"
#include "sim_pms.h"
#include "support_daemon.h"

using namespace std::chrono_literals;

namespace {

TEST(PmsLink, UnreachablePmsIsRetriedEveryTwoSecondsUntilItAnswers) {
    int port = pick_free_port();
    daemon_run run(port);
    ASSERT_TRUE(run.start());
    const std::string error = "Unable to connect to PMS at 127.0.0.1:" + std::to_string(port) +
                              "/PB";
    ASSERT_TRUE(run.wait_log(error));
    auto first = std::chrono::steady_clock::now();
    ASSERT_TRUE(wait_until([&] { return run.count_log(error) >= 5; }, 15s)) << run.log();
    auto elapsed = std::chrono::steady_clock::now() - first;
    // The start-up attempt and the main loop's first one come together; then
    // one every two seconds (a second's pause after the connect, another after
    // the failed read on no socket).
    EXPECT_GE(elapsed, 5s);
    EXPECT_LE(elapsed, 9s);
    EXPECT_GE(run.count_log("Connection to PMS lost"), 3u);
    EXPECT_TRUE(run.process().running()) << "start-up goes on without the PMS";

    pms_sim::options opts;
    opts.port = port;
    pms_sim pms(opts);
    ASSERT_TRUE(pms.start());
    ASSERT_TRUE(pms.wait_link_active(15s)) << run.log();
    EXPECT_EQ(1u, pms.count_frames("LS|"));
}

// A daemon whose link to the simulated PMS is active.
class ActiveLink : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(pms.start());
        run = std::make_unique<daemon_run>(pms.port());
        ASSERT_TRUE(run->start());
        ASSERT_TRUE(pms.wait_link_active(15s)) << run->log();
        ASSERT_TRUE(run->wait_log("Received Link active packet from PMS"));
    }
    pms_sim pms;
    std::unique_ptr<daemon_run> run;
};

TEST_F(ActiveLink, AStrayByteBeforeARecordDropsTheLinkAndTheDaemonConnectsAgain) {

    ASSERT_TRUE(pms.send_raw("A"));
    ASSERT_TRUE(run->wait_log("Read code 41"));
    ASSERT_TRUE(run->wait_log("Connection to PMS lost"));
    ASSERT_TRUE(wait_until([&] { return pms.connections() == 2; }, 15s)) << run->log();
    ASSERT_TRUE(pms.wait_link_active(15s)) << run->log();
    EXPECT_EQ(2u, pms.count_frames("LS|"));
}

TEST_F(ActiveLink, ABurstOfRecordsIsTakenOnePerSecond) {

    const std::string line = "Received Description record packet from PMS";
    auto sent = std::chrono::steady_clock::now();
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(pms.send_record("DR|DA091015|TI143000|"));
    ASSERT_TRUE(wait_until([&] { return run->count_log(line) == 5; }, 20s)) << run->log();
    EXPECT_GE(std::chrono::steady_clock::now() - sent, 3500ms);
}

}  // namespace
