// The PMS simulator, as a class and as the pms_sim program, seen from a client
// socket on loopback: what the demonstration and the scenario tests rely on.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>

#include "netutil.h"
#include "sim_pms.h"
#include "support.h"

using namespace std::chrono_literals;

namespace {

// A client of the simulator that sends and reads whole frames.
class client {
  public:
    explicit client(int port) : fd_(connect_loopback(port)) {}
    ~client() { close(fd_); }
    void send(const std::string& text) { EXPECT_TRUE(write_all(fd_, "\x02" + text + "\x03")); }
    // The next frame's text, or "none" within `timeout` (or at end of stream).
    std::string next(std::chrono::milliseconds timeout = 5s) {
        while (buf_.find('\x03') == std::string::npos) {
            pollfd p{fd_, POLLIN, 0};
            char chunk[4096];
            ssize_t n = poll(&p, 1, static_cast<int>(timeout.count())) > 0
                            ? read(fd_, chunk, sizeof chunk)
                            : 0;
            if (n <= 0) return "none";
            buf_.append(chunk, static_cast<size_t>(n));
        }
        std::string text = buf_.substr(1, buf_.find('\x03') - 1);  // frames only: STX first
        buf_.erase(0, text.size() + 2);
        return text;
    }

  private:
    int fd_;
    std::string buf_;
};

TEST(PmsSim, PlaysTheLinkStartUpAndAnswersPostings) {
    pms_sim pms;
    ASSERT_TRUE(pms.start());
    client c(pms.port());
    c.send("LS|DA250101|TI120000|");
    EXPECT_TRUE(like("LS|DA######|TI######|", c.next()));
    c.send("LD|DA250101|TI120000|V#1.01|IFPB|");
    c.send("LR|RIGI|FLRNGNGLGS|");
    EXPECT_FALSE(pms.link_active());
    c.send("LA|DA250101|TI120000|");
    EXPECT_TRUE(like("LA|DA######|TI######|", c.next()));
    EXPECT_TRUE(pms.wait_link_active(5s));
    EXPECT_EQ(4u, pms.frames().size());

    c.send("PS|P#7|RN101|PTC|TA3|DA250109|TI101500|DU000325|");
    EXPECT_EQ("PA|ASOK|RN101|P#7|DA250109|TI101500|", c.next());
    pms.set_answer(pms_sim::answer_mode::refuse, "UR");
    c.send("PS|P#8|RN102|");
    EXPECT_EQ("PA|ASUR|RN102|P#8|", c.next());
    pms.set_answer(pms_sim::answer_mode::none);
    c.send("PS|P#9|RN103|");
    EXPECT_EQ("none", c.next(300ms));
}

// The program as the demonstration runs it: commands on standard input, the
// transcript on standard output, and SIGTERM to end it.
TEST(PmsSimProgram, RunsItsCommandsAndEndsOnSigterm) {
    temp_dir dir;
    const std::string commands =
        "# a check-in once the link stands\nwait LS\nsleep 0.1\n"
        "GI|RN101|GNSmith|GLEN|GSN|\nwait PS\n";
    child_process sim;
    ASSERT_TRUE(sim.start({pms_sim_binary(), "--port-file", dir.file("port"), "--answer", "ok"},
                          &commands));
    ASSERT_TRUE(wait_until([&] { return !read_file(dir.file("port")).empty(); }, 5s));
    client c(std::stoi(read_file(dir.file("port"))));
    c.send("LS|DA250101|TI120000|");
    EXPECT_TRUE(like("LS|DA######|TI######|", c.next()));
    EXPECT_EQ("GI|RN101|GNSmith|GLEN|GSN|", c.next());
    c.send("PS|P#1|RN101|");
    EXPECT_EQ("PA|ASOK|RN101|P#1|", c.next());

    sim.signal(SIGTERM);
    EXPECT_EQ(0, sim.wait_exit(5s));
    std::string out = sim.output();
    for (const char* line : {" <- LS|DA250101|TI120000|\n", " -> GI|RN101|GNSmith|GLEN|GSN|\n",
                             " -> PA|ASOK|RN101|P#1|\n"})
        EXPECT_NE(std::string::npos, out.find(line)) << out;
}

}  // namespace
