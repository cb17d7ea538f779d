// The PMS link as the running daemon keeps it: made once the PMS appears,
// dropped on a stray byte and made again.
#include <gtest/gtest.h>

#include "support_daemon.h"

using namespace std::chrono_literals;

namespace {

TEST(PmsLink, AnUnreachablePmsIsRetriedAndAStrayByteCostsTheLink) {
    daemon_run run(false);
    ASSERT_TRUE(run.start());
    const std::string error =
        "Unable to connect to PMS at 127.0.0.1:" + std::to_string(run.pms_port()) + "/PB";
    ASSERT_TRUE(wait_until([&] {
        return run.count_log(error) >= 3 && run.count_log("Connection to PMS lost") >= 2;
    })) << run.log();
    EXPECT_TRUE(run.process().running()) << "start-up goes on without the PMS";
    ASSERT_TRUE(run.pms.start());
    ASSERT_TRUE(run.pms.wait_link_active(15s)) << run.log();
    EXPECT_EQ(1u, run.pms.count_frames("LS|"));

    // A stray byte before a record drops the link, which is made again.
    ASSERT_TRUE(run.pms.send_raw("A"));
    ASSERT_TRUE(run.wait_log("Read code 41"));
    ASSERT_TRUE(wait_until([&] { return run.pms.connections() == 2; }, 15s)) << run.log();
    ASSERT_TRUE(run.pms.wait_link_active(15s)) << run.log();
    EXPECT_EQ(2u, run.pms.count_frames("LS|"));
}

}  // namespace
