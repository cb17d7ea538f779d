// The PMS simulator, as a class and as the pms_sim program, seen from a
// client socket on loopback.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>
#include <utility>

#include "netutil.h"
#include "sim_pms.h"
#include "support.h"

using namespace std::chrono_literals;

namespace {

// A client of the simulator that reads whole frames.
class client {
  public:
    explicit client(int port) : fd_(connect_loopback(port)) {}
    ~client() {
        if (fd_ >= 0) close(fd_);
    }
    bool ok() const { return fd_ >= 0; }
    bool send(const std::string& text) { return write_all(fd_, "\x02" + text + "\x03"); }

    // The next frame's text, or nothing within `timeout` (or at end of stream).
    std::optional<std::string> next(std::chrono::milliseconds timeout = 5s) {
        for (;;) {
            size_t stx = buf_.find('\x02');
            size_t etx = stx == std::string::npos ? stx : buf_.find('\x03', stx);
            if (etx != std::string::npos) {
                std::string text = buf_.substr(stx + 1, etx - stx - 1);
                buf_.erase(0, etx + 1);
                return text;
            }
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return std::nullopt;
            char chunk[4096];
            ssize_t n = read(fd_, chunk, sizeof chunk);
            if (n <= 0) return std::nullopt;
            buf_.append(chunk, static_cast<size_t>(n));
        }
    }
    // The bytes not yet taken, or else those that arrive within `timeout`.
    std::string raw(std::chrono::milliseconds timeout = 2s) {
        if (!buf_.empty()) return std::exchange(buf_, std::string());
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return "";
        char chunk[256];
        ssize_t n = read(fd_, chunk, sizeof chunk);
        return n > 0 ? std::string(chunk, static_cast<size_t>(n)) : "";
    }

  private:
    int fd_;
    std::string buf_;
};

bool starts_with(const std::optional<std::string>& s, const std::string& prefix) {
    return s && s->rfind(prefix, 0) == 0;
}

TEST(PmsSim, PlaysTheLinkStartUp) {
    pms_sim pms;
    ASSERT_TRUE(pms.start());
    client c(pms.port());
    ASSERT_TRUE(c.ok());
    ASSERT_TRUE(pms.wait_connected(5s));

    c.send("LS|DA250101|TI120000|");
    EXPECT_TRUE(starts_with(c.next(), "LS|DA"));
    c.send("LA|DA250101|TI120000|");  // "LA" before "LD": not answered
    c.send("LD|DA250101|TI120000|V#1.01|IFPB|");
    c.send("LR|RIGI|FLRNGNGLGS|");
    EXPECT_FALSE(pms.link_active());
    c.send("LA|DA250101|TI120000|");
    EXPECT_TRUE(starts_with(c.next(), "LA|DA"));
    EXPECT_TRUE(pms.wait_link_active(5s));
    EXPECT_EQ(5u, pms.frames().size());
    EXPECT_EQ(2u, pms.count_frames("LA"));

    size_t index = 0;
    EXPECT_TRUE(pms.wait_for_frame("LA", 1s, 0, &index));
    EXPECT_EQ(1u, index);
    EXPECT_TRUE(pms.wait_for_frame("LA", 1s, index + 1, &index));
    EXPECT_EQ(4u, index);
    EXPECT_FALSE(pms.wait_for_frame("LA", 50ms, index + 1));

    // Transcript: both directions, in order.
    std::vector<pms_sim::frame> t = pms.transcript();
    ASSERT_EQ(7u, t.size());
    EXPECT_TRUE(t[0].incoming);
    EXPECT_FALSE(t[1].incoming);
    EXPECT_EQ(12u, t[1].stamp.size());
}

TEST(PmsSim, AnswersPostingsAsConfigured) {
    pms_sim pms;
    ASSERT_TRUE(pms.start());
    client c(pms.port());
    ASSERT_TRUE(pms.wait_connected(5s));

    c.send("PS|P#7|RN101|PTC|TA3|DA250109|TI101500|DU000325|");
    EXPECT_EQ("PA|ASOK|RN101|P#7|DA250109|TI101500|", c.next().value_or("none"));
    pms.set_answer(pms_sim::answer_mode::refuse, "UR");
    c.send("PS|P#8|RN102|");
    EXPECT_EQ("PA|ASUR|RN102|P#8|", c.next().value_or("none"));
    pms.set_answer(pms_sim::answer_mode::none);
    c.send("PS|P#9|RN103|");
    EXPECT_FALSE(c.next(300ms));
}

TEST(PmsSim, SendsRecordsAndRawBytesAndTakesTheNextClient) {
    pms_sim pms;
    ASSERT_TRUE(pms.start());
    EXPECT_FALSE(pms.send_record("GI|RN1|"));  // nobody there
    {
        client c(pms.port());
        ASSERT_TRUE(pms.wait_connected(5s));
        EXPECT_TRUE(pms.send_raw("A"));
        EXPECT_EQ("A", c.raw());
        EXPECT_TRUE(pms.send_record("GI|RN101|GNSmith|GLEN|GSN|"));
        EXPECT_EQ("GI|RN101|GNSmith|GLEN|GSN|", c.next().value_or("none"));

        pms.drop_connection();
        EXPECT_FALSE(pms.connected());
        EXPECT_FALSE(c.next(1s));  // end of stream
    }
    client second(pms.port());
    ASSERT_TRUE(wait_until([&] { return pms.connections() == 2 && pms.connected(); }, 5s));
    second.send("junk\x02GO|RN101|\x03");  // bytes between frames are ignored
    EXPECT_EQ("GO|RN101|", pms.wait_for_frame("GO", 5s).value_or("none"));
    EXPECT_EQ(1u, pms.frames().size());
}

TEST(PmsSimProgram, RunsAScriptAndPrintsTheTranscript) {
    temp_dir dir;
    write_file(dir.file("script"),
               "# a check-in once the link stands\n"
               "wait LS\n"
               "sleep 0.1\n"
               "GI|RN101|GNSmith|GLEN|GSN|\n"
               "raw \\x41\n"
               "wait PS\n");
    child_process sim;
    ASSERT_TRUE(sim.start({pms_sim_binary(), "--port-file", dir.file("port"), "--script",
                           dir.file("script"), "--exit-after-script"}));
    ASSERT_TRUE(wait_until([&] { return !read_file(dir.file("port")).empty(); }, 5s));
    int port = std::stoi(read_file(dir.file("port")));

    client c(port);
    ASSERT_TRUE(c.ok());
    c.send("LS|DA250101|TI120000|");
    EXPECT_TRUE(starts_with(c.next(), "LS|DA"));
    EXPECT_EQ("GI|RN101|GNSmith|GLEN|GSN|", c.next().value_or("none"));
    EXPECT_EQ("A", c.raw());
    c.send("PS|P#1|RN101|");
    EXPECT_EQ("PA|ASOK|RN101|P#1|", c.next().value_or("none"));

    EXPECT_EQ(0, sim.wait_exit(5s));
    std::string out = sim.output();
    EXPECT_NE(std::string::npos, out.find(" <- LS|DA250101|TI120000|\n")) << out;
    EXPECT_NE(std::string::npos, out.find(" -> GI|RN101|GNSmith|GLEN|GSN|\n")) << out;
    EXPECT_NE(std::string::npos, out.find(" -> A\n")) << out;
    EXPECT_NE(std::string::npos, out.find(" -> PA|ASOK|RN101|P#1|\n")) << out;
}

TEST(PmsSimProgram, EndsOnSigterm) {
    temp_dir dir;
    child_process sim;
    ASSERT_TRUE(sim.start({pms_sim_binary(), "--port-file", dir.file("port"), "--answer", "none"}));
    ASSERT_TRUE(wait_until([&] { return !read_file(dir.file("port")).empty(); }, 5s));
    sim.signal(SIGTERM);
    EXPECT_EQ(0, sim.wait_exit(5s));
}

}  // namespace
