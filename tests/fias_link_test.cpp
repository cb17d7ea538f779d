// The FIAS link: framed writes, the record reader, connecting and the
// start-up exchange against the PMS simulator.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "fias/codec.h"
#include "fias/link.h"
#include "netutil.h"
#include "sim_pms.h"
#include "support.h"

using namespace std::chrono_literals;

namespace {

// Our end of a socket pair is `fd`, the far end `peer`.
class FiasLink : public ::testing::Test {
  protected:
    void SetUp() override {
        int sv[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv));
        fd = sv[0];
        peer = sv[1];
    }
    void TearDown() override {
        if (fd >= 0) close(fd);
        if (peer >= 0) close(peer);
    }

    void Feed(const std::string& bytes) { ASSERT_TRUE(write_all(peer, bytes)); }

    // One read; `printed` receives what the reader wrote on standard output.
    int ReadRecord(int maxlen = 4096, std::string* printed = nullptr) {
        buf.assign(static_cast<size_t>(maxlen > 0 ? maxlen : 1), '\x7f');
        testing::internal::CaptureStdout();
        int n = fias_read_packet(fd, buf.data(), maxlen);
        std::string out = testing::internal::GetCapturedStdout();
        if (printed) *printed = out;
        return n;
    }

    // Whatever the peer can read within `wait`.
    std::string Drain(std::chrono::milliseconds wait = 200ms) {
        std::string got;
        char chunk[4096];
        pollfd p{peer, POLLIN, 0};
        while (poll(&p, 1, static_cast<int>(wait.count())) > 0) {
            ssize_t n = read(peer, chunk, sizeof chunk);
            if (n <= 0) break;
            got.append(chunk, static_cast<size_t>(n));
        }
        return got;
    }

    int fd = -1;
    int peer = -1;
    std::vector<char> buf;
};

TEST_F(FiasLink, StrayByteBeforeStartIsRejected) {
    Feed("A\x02LA|DA091015|TI143000|\x03");
    std::string printed;
    EXPECT_EQ(-2, ReadRecord(4096, &printed));
    EXPECT_EQ("Read code 41\n", printed);

    EXPECT_EQ(21, ReadRecord(4096, &printed));
    EXPECT_EQ("Read code 2\n", printed);
    EXPECT_EQ("LA|DA091015|TI143000|", std::string(buf.data()).substr(0, 21));
    EXPECT_EQ('\x03', buf[21]);
    EXPECT_EQ('\0', buf[22]);

    Feed("\x80");
    EXPECT_EQ(-2, ReadRecord(4096, &printed));
    EXPECT_EQ("Read code ffffff80\n", printed);
}

TEST_F(FiasLink, OverlongRecordIsCutAndTheRestRejected) {
    Feed("\x02LA|DA091015|\x03");
    EXPECT_EQ(7, ReadRecord(8));
    EXPECT_STREQ("LA|DA09", buf.data());
    std::string printed;
    EXPECT_EQ(-2, ReadRecord(8, &printed));
    EXPECT_EQ("Read code 31\n", printed);  // the '1' that follows

    char rest[16];
    EXPECT_EQ(5, recv(fd, rest, sizeof rest, MSG_DONTWAIT));  // "015|" ETX

    EXPECT_EQ(0, ReadRecord(0));
    Feed("\x02X");
    EXPECT_EQ(0, ReadRecord(1));  // room for the NUL only
    EXPECT_EQ('\0', buf[0]);
    EXPECT_EQ(-1, fias_read_packet(-1, buf.data(), 16));
}

std::atomic<int> idle_calls{0};
std::atomic<bool> give_up{false};
std::atomic<int> idle_fd{-1};

// Ends a reader waiting at end of stream: our own socket is closed, so the
// reader's next attempt fails.
void idle_hook() {
    idle_calls++;
    if (give_up) fias_disconnect(idle_fd.exchange(-1));
}

TEST_F(FiasLink, EndOfStreamDoesNotReturn) {
    idle_calls = 0;
    give_up = false;
    idle_fd = fd;
    fias_set_idle_hook(idle_hook);
    shutdown(peer, SHUT_WR);

    std::atomic<int> result{100};
    std::thread reader([&] {
        char b[64];
        result = fias_read_packet(idle_fd.load(), b, sizeof b);
    });
    std::this_thread::sleep_for(2500ms);
    EXPECT_EQ(100, result.load());  // still waiting
    int calls = idle_calls.load();
    EXPECT_GE(calls, 2);  // about one wait per second, not a busy loop
    EXPECT_LE(calls, 3);

    give_up = true;
    reader.join();
    EXPECT_EQ(-1, result.load());
    fias_set_idle_hook(nullptr);
    fd = -1;  // closed by the hook
}

// A worker whose start-up records cannot be written ends the link while the
// main thread reads it: the reader returns -1 instead of waiting, and the
// descriptor stays ours until fias_disconnect() releases it.
TEST_F(FiasLink, FailedStartUpEndsTheWaitingReader) {
    std::atomic<int> result{100};
    std::thread reader([&] {
        char b[64];
        result = fias_read_packet(fd, b, sizeof b);
    });
    close(peer);
    peer = -1;
    EXPECT_EQ(-1, fias_init_connection(fd, "PB"));
    reader.join();
    EXPECT_EQ(-1, result.load());
    EXPECT_NE(-1, fcntl(fd, F_GETFD));
    fias_disconnect(fd);
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    fd = -1;
}

TEST_F(FiasLink, FramesAreWrittenWholeAndFailuresReported) {
    EXPECT_EQ(23, fias_send_raw_packet(fd, "LA|DA091015|TI143000|"));
    fias_packet_ptr re = fias_create_packet(FIAS_RE);
    fias_value_t cs;
    cs.ival = 498;
    fias_set_packet_field(re.get(), "CS", &cs);
    EXPECT_EQ(9, fias_send_packet(fd, re.get()));
    EXPECT_EQ(-1, fias_send_packet(fd, nullptr));
    EXPECT_EQ("\x02LA|DA091015|TI143000|\x03\x02RE|CS3|\x03", Drain());

    close(peer);  // no SIGPIPE: the write just fails
    peer = -1;
    EXPECT_EQ(-1, fias_send_raw_packet(fd, "LA|"));
    EXPECT_EQ(-1, fias_send_raw_packet(-1, "LA|"));
}

constexpr int kWriters = 4;
constexpr int kFramesEach = 300;

// Reads all frames of the writers below from `fd` and checks each: one
// writer's letters only, and every writer's frames in its own order.
void CheckFrames(int fd, int* frames) {
    std::string stream;
    int next[kWriters] = {};
    char chunk[65536];
    while (*frames < kWriters * kFramesEach) {
        ssize_t n = read(fd, chunk, sizeof chunk);
        ASSERT_GT(n, 0);
        stream.append(chunk, static_cast<size_t>(n));
        size_t end;
        while ((end = stream.find('\x03')) != std::string::npos) {
            std::string frame = stream.substr(0, end + 1);
            stream.erase(0, end + 1);
            ASSERT_EQ('\x02', frame[0]);
            ASSERT_EQ(std::string::npos, frame.find('\x02', 1));
            int t = frame[6] - '0';
            ASSERT_TRUE(t >= 0 && t < kWriters) << frame;
            std::string rn = "RN" + std::to_string(t) + "-" + std::to_string(next[t]) + "|";
            ASSERT_EQ(rn, frame.substr(4, rn.size()));
            size_t gn = frame.find("|GN") + 3;
            std::string letters = frame.substr(gn, frame.size() - 2 - gn);
            ASSERT_EQ(std::string(letters.size(), static_cast<char>('a' + t)), letters);
            next[t]++;
            (*frames)++;
        }
    }
}

TEST_F(FiasLink, FramesFromManyThreadsNeverMix) {
    std::atomic<int> failures{0};
    std::vector<std::thread> writers;
    for (int t = 0; t < kWriters; t++) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < kFramesEach; i++) {
                std::string text = "GI|RN" + std::to_string(t) + "-" + std::to_string(i) + "|GN" +
                                   std::string(static_cast<size_t>((i * 37) % 3000), 'a' + t) + "|";
                if (fias_send_raw_packet(fd, text.c_str()) < 0) failures++;
            }
        });
    }
    int frames = 0;
    CheckFrames(peer, &frames);
    shutdown(peer, SHUT_RDWR);  // a writer still going (after a failure) stops
    for (std::thread& w : writers) w.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(kWriters * kFramesEach, frames);
}

// `text` against `pattern`, in which each '9' stands for any digit.
bool like(const std::string& text, const std::string& pattern) {
    if (text.size() != pattern.size()) return false;
    for (size_t i = 0; i < text.size(); i++) {
        bool ok = pattern[i] == '9' ? isdigit(static_cast<unsigned char>(text[i])) != 0
                                    : pattern[i] == text[i];
        if (!ok) return false;
    }
    return true;
}

int open_fds() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (d && readdir(d)) n++;
    if (d) closedir(d);
    return n;
}

TEST(FiasConnect, UnreachablePmsLeavesNoSocketBehind) {
    int port = pick_free_port();
    int before = open_fds();
    EXPECT_EQ(-1, fias_connect("127.0.0.1", port, ""));
    EXPECT_EQ(-1, fias_connect(nullptr, port, ""));
    EXPECT_EQ(before, open_fds());
}

// The daemon's half of the link start-up, played against the simulator.
TEST(FiasConnect, StartUpExchangeWithThePms) {
    EXPECT_EQ(-1, fias_sock.load());
    pms_sim pms;
    ASSERT_TRUE(pms.start());

    int sock = fias_connect("127.0.0.1", pms.port(), "unused");
    ASSERT_GE(sock, 0);
    auto ls = pms.wait_for_frame("LS", 5s);
    ASSERT_TRUE(ls);
    EXPECT_TRUE(like(*ls, "LS|DA999999|TI999999|")) << *ls;

    // The simulator answers with its own "LS".
    char buf[4096];
    testing::internal::CaptureStdout();
    int n = fias_read_packet(sock, buf, sizeof buf);
    testing::internal::GetCapturedStdout();
    ASSERT_GT(n, 0);
    fias_packet_ptr answer = fias_parse_packet(buf, n);
    ASSERT_TRUE(answer);
    EXPECT_EQ(FIAS_LS, answer->packet_code);

    EXPECT_EQ(0, fias_init_connection(sock, "PBX"));
    EXPECT_EQ(1, fias_connected.load());
    ASSERT_TRUE(pms.wait_link_active(5s));
    std::vector<std::string> got = pms.frames();
    ASSERT_EQ(12u, got.size());
    EXPECT_EQ(1u, pms.count_frames("LS"));
    EXPECT_TRUE(like(got[1], "LD|DA999999|TI999999|V#1.01|IFPB|")) << got[1];
    const char* lr[] = {
        "LR|RIDR|FLDATI|",     "LR|RIGI|FLRNGNGLGS|",   "LR|RIGO|FLRNGNGLGS|",
        "LR|RIRE|FLRNRSCSDN|", "LR|RIWC|FLRNDATI|",     "LR|RIWR|FLRNDATI|",
        "LR|RIWA|FLRNDATIAS|", "LR|RIPA|FLASRNP#DATI|", "LR|RIPS|FLP#RNPTTADATIDUDDPCCT|",
    };
    for (int i = 0; i < 9; i++) EXPECT_EQ(lr[i], got[2 + i]);
    EXPECT_TRUE(like(got[11], "LA|DA999999|TI999999|")) << got[11];

    // Our side goes away; a new connection with an empty interface type.
    fias_disconnect(sock);
    ASSERT_TRUE(wait_until([&] { return !pms.connected(); }, 5s));
    pms.clear();
    sock = fias_connect("127.0.0.1", pms.port(), "");
    ASSERT_GE(sock, 0);
    ASSERT_TRUE(pms.wait_for_frame("LS", 5s));
    EXPECT_EQ(0, fias_init_connection(sock, ""));
    auto ld = pms.wait_for_frame("LD", 5s);
    ASSERT_TRUE(ld);
    EXPECT_EQ("|IF|", ld->substr(ld->size() - 4));
    fias_disconnect(sock);
}

}  // namespace
