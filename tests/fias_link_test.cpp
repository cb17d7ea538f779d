// The PMS link object: the record reader and framed writes over a socket
// pair, and connecting and the start-up exchange against the PMS simulator.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "fias/link.h"
#include "netutil.h"
#include "sim_pms.h"
#include "support.h"

using namespace std::chrono_literals;

namespace {

// The lowest free descriptor number: it moves when a descriptor is left open.
int lowest_free_fd() {
    int fd = dup(0);
    close(fd);
    return fd;
}

// The link owns one end of a socket pair; the test plays the PMS on `peer`.
class LinkOverSocketPair : public ::testing::Test {
  protected:
    void SetUp() override {
        int sv[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv));
        link.attach(sv[0]);
        peer = sv[1];
    }
    void TearDown() override { close(peer); }
    // One read of at most `maxlen` bytes; `printed` gets what went to standard output.
    int ReadRecord(int maxlen, std::string* printed = nullptr) {
        buf.assign(static_cast<size_t>(maxlen), '\x7f');
        testing::internal::CaptureStdout();
        int n = link.read_packet(buf.data(), maxlen);
        std::string out = testing::internal::GetCapturedStdout();
        if (printed) *printed = out;
        return n;
    }

    pms_link link;
    int peer = -1;
    std::vector<char> buf;
};

TEST_F(LinkOverSocketPair, ReaderRejectsStrayBytesAndCutsOverlongRecords) {
    ASSERT_TRUE(write_all(peer, "A\x02LA|DA091015|TI143000|\x03\x02LA|DA091015|\x03"));
    std::string printed;
    EXPECT_EQ(-2, ReadRecord(64, &printed));
    EXPECT_EQ("Read code 41\n", printed);
    EXPECT_EQ(21, ReadRecord(64));
    EXPECT_EQ("LA|DA091015|TI143000|\x03", std::string(buf.data()));
    EXPECT_EQ(7, ReadRecord(8));
    EXPECT_STREQ("LA|DA09", buf.data());
    EXPECT_EQ(-2, ReadRecord(8, &printed));
    EXPECT_EQ("Read code 31\n", printed);  // the '1' that follows
    // A record begun before a quiet second is finished by the next call.
    ASSERT_TRUE(write_all(peer, "\x02LS|"));
    int n;
    while ((n = ReadRecord(64, &printed)) == -2) {  // the rest of the record cut
    }
    EXPECT_EQ(pms_link::idle, n);
    EXPECT_EQ("Read code 2\n", printed);
    ASSERT_TRUE(write_all(peer, "DA0910|\x03"));
    EXPECT_EQ(10, ReadRecord(64, &printed));
    EXPECT_EQ("", printed);
    EXPECT_STREQ("LS|DA0910|\x03", buf.data());
}

TEST_F(LinkOverSocketPair, EndOfStreamWaitsWithoutSpinningUntilAWriterEndsTheLink) {
    std::atomic<int> idle_calls{0};
    shutdown(peer, SHUT_WR);
    std::atomic<int> result{100};
    const auto start = std::chrono::steady_clock::now();
    std::thread reader([&] {
        char b[64];
        int n;
        while ((n = link.read_packet(b, sizeof b)) == pms_link::idle) idle_calls++;
        result = n;
    });
    // About one return per second, not a busy loop, and still waiting.
    ASSERT_TRUE(wait_until([&] { return idle_calls >= 3; }, 30s));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_EQ(100, result.load());
    // A failed start-up exchange (its peer is gone) ends the waiting reader;
    // the descriptor stays allocated until the link is dropped.
    close(peer);
    peer = -1;
    EXPECT_EQ(-1, link.init_connection("PB"));
    reader.join();
    EXPECT_EQ(-1, result.load());
    EXPECT_TRUE(link.is_open());
    int before_drop = lowest_free_fd();
    link.drop();
    EXPECT_LT(lowest_free_fd(), before_drop);
    EXPECT_EQ(pms_link::state::down, link.current_state());
    EXPECT_EQ(-1, link.send_raw("LA|"));
}

TEST_F(LinkOverSocketPair, FramesFromManyThreadsNeverMixAndAClosedPeerRaisesNoSignal) {
    constexpr int kWriters = 4, kFrames = 100;
    auto text = [](int t, int i) {
        return "GI|RN" + std::to_string(t) + "-" + std::to_string(i) + "|GN" +
               std::string(static_cast<size_t>(i * 37 % 3000), static_cast<char>('a' + t)) + "|";
    };
    std::atomic<int> failures{0};
    std::vector<std::thread> writers;
    for (int t = 0; t < kWriters; t++)
        writers.emplace_back([&, t] {
            for (int i = 0; i < kFrames; i++) failures += link.send_raw(text(t, i).c_str()) < 0;
        });
    // Every frame is whole, and each writer's come in its order.
    int next[kWriters] = {}, frames = 0;
    std::string stream;
    char chunk[65536];
    while (frames < kWriters * kFrames) {
        ssize_t n = read(peer, chunk, sizeof chunk);
        ASSERT_GT(n, 0);
        stream.append(chunk, static_cast<size_t>(n));
        for (size_t end; (end = stream.find('\x03')) != std::string::npos; frames++) {
            int t = stream[6] - '0';
            ASSERT_TRUE(t >= 0 && t < kWriters) << stream.substr(0, end);
            ASSERT_EQ("\x02" + text(t, next[t]++) + "\x03", stream.substr(0, end + 1));
            stream.erase(0, end + 1);
        }
    }
    for (std::thread& w : writers) w.join();
    EXPECT_EQ(0, failures.load());
    close(peer);  // the default action of SIGPIPE would end this program
    peer = -1;
    EXPECT_EQ(-1, link.send_raw("LA|"));
}

TEST(PmsLinkConnect, StartUpExchangeWithThePms) {
    pms_link link;
    int before = lowest_free_fd();
    EXPECT_EQ(-1, link.connect("127.0.0.1", pick_free_port()));
    EXPECT_EQ(before, lowest_free_fd()) << "a failed connect left its socket open";
    EXPECT_EQ(pms_link::state::down, link.current_state());

    pms_sim pms;
    ASSERT_TRUE(pms.start());
    ASSERT_EQ(0, link.connect("127.0.0.1", pms.port()));
    EXPECT_EQ(pms_link::state::connecting, link.current_state());
    ASSERT_TRUE(pms.wait_for_frame("LS", 5s));
    EXPECT_EQ(0, link.init_connection("PBX"));
    ASSERT_TRUE(pms.wait_link_active(5s));
    link.set_active();
    EXPECT_EQ(pms_link::state::active, link.current_state());
    std::vector<std::string> got = pms.frames();
    ASSERT_EQ(12u, got.size());
    EXPECT_TRUE(like("LS|DA######|TI######|", got[0])) << got[0];
    EXPECT_TRUE(like("LD|DA######|TI######|", got[1].substr(0, 21))) << got[1];
    EXPECT_EQ("V#1.01|IFPB|", got[1].substr(21));
    const std::vector<std::string> lr = {
        "LR|RIDR|FLDATI|",     "LR|RIGI|FLRNGNGLGS|",   "LR|RIGO|FLRNGNGLGS|",
        "LR|RIRE|FLRNRSCSDN|", "LR|RIWC|FLRNDATI|",     "LR|RIWR|FLRNDATI|",
        "LR|RIWA|FLRNDATIAS|", "LR|RIPA|FLASRNP#DATI|", "LR|RIPS|FLP#RNPTTADATIDUDDPCCT|",
    };
    EXPECT_EQ(lr, std::vector<std::string>(got.begin() + 2, got.begin() + 11));
    EXPECT_TRUE(like("LA|DA######|TI######|", got[11])) << got[11];
}

}  // namespace
