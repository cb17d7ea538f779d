// Manager client: message framing over a socket pair, the message writer, and
// the login over loopback TCP (exact bytes, retries, reconnection).
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "logger.h"
#include "mgr/manager.h"
#include "netutil.h"
#include "sim_mgr.h"
#include "support.h"

namespace {

int open_fds() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d)) ++n;
        closedir(d);
    }
    return n;
}

// Reads from `fd` until `end` has been received (or the peer closes).
std::string read_until(int fd, const std::string& end) {
    std::string got;
    char buf[4096];
    while (got.find(end) == std::string::npos) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 5000) <= 0) break;
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) break;
        got.append(buf, static_cast<size_t>(n));
    }
    return got;
}

// Child of a death test: mgr_init with no descriptor left must fail cleanly.
void init_without_descriptors() {
    rlimit lim{};
    getrlimit(RLIMIT_NOFILE, &lim);
    lim.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &lim);
    mansession s;
    int r = mgr_init(s, "127.0.0.1", 5038, "u", "p");
    _exit(r == -1 && s.fd == -1 ? 0 : 1);
}

class Logged : public ::testing::Test {
protected:
    void SetUp() override { logger_init(dir_.file("log").c_str(), 5, 0, 0); }
    void TearDown() override { logger_init(nullptr, 1, 0, 1); }
    std::string log() const { return read_file(dir_.file("log")); }
    temp_dir dir_;
};

// A session reading from one end of a socket pair; the test writes the other.
class ManagerReader : public Logged {
protected:
    void SetUp() override {
        Logged::SetUp();
        int sv[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv));
        session_.fd = sv[0];
        peer_ = sv[1];
    }
    void TearDown() override {
        if (peer_ >= 0) close(peer_);
        Logged::TearDown();
    }
    void Feed(const std::string& bytes) { ASSERT_TRUE(write_all(peer_, bytes)); }
    int Read() {
        msg_->clear();
        return mgr_read(session_, *msg_);
    }
    std::string Header(int i) const { return msg_->headers[i]; }

    mansession session_;
    std::unique_ptr<message> msg_ = std::make_unique<message>();
    int peer_ = -1;
};

TEST_F(ManagerReader, OnePieceGivesOneMessageWithCaseFreeLookup) {
    Feed("Response: Success\r\nMessage: Authentication accepted\r\n\r\n");
    ASSERT_EQ(1, Read());
    EXPECT_EQ(2, msg_->hdrcount);
    EXPECT_EQ("Response: Success", Header(0));
    EXPECT_STREQ("Authentication accepted", mgr_get_header(*msg_, "message"));
    EXPECT_STREQ("", mgr_get_header(*msg_, "ActionID"));
}

TEST_F(ManagerReader, BareNewlinesAndBackToBackMessages) {
    Feed("Event: One\nA: 1\n\nEvent: Two\r\n\r\n");
    ASSERT_EQ(1, Read());
    EXPECT_EQ(2, msg_->hdrcount);
    EXPECT_EQ("A: 1", Header(1));
    ASSERT_EQ(1, Read());
    EXPECT_EQ(1, msg_->hdrcount);
    EXPECT_STREQ("Two", mgr_get_header(*msg_, "Event"));
}

TEST_F(ManagerReader, SplitMessageIsAssembledAndEndsOnlyAtEmptyLine) {
    std::atomic<bool> last_sent{false};
    std::thread writer([&] {
        const char* pieces[] = {"Resp", "onse: Succ", "ess\r", "\nMessage: x\r\n", "\r"};
        for (const char* p : pieces) {
            write_all(peer_, p);
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
        }
        last_sent = true;
        write_all(peer_, "\n");
    });
    int r = Read();
    bool ended_after_last = last_sent;
    writer.join();
    ASSERT_EQ(1, r);
    EXPECT_TRUE(ended_after_last);
    EXPECT_EQ(2, msg_->hdrcount);
    EXPECT_EQ("Response: Success", Header(0));
    EXPECT_EQ("Message: x", Header(1));
}

TEST_F(ManagerReader, KeepsFirst255HeadersAndStaysInStep) {
    std::string text;
    for (int i = 0; i < 300; ++i)
        text += "H" + std::to_string(i) + ": v" + std::to_string(i) + "\r\n";
    Feed(text + "\r\nEvent: Next\r\n\r\n");
    ASSERT_EQ(1, Read());
    EXPECT_EQ(255, msg_->hdrcount);
    EXPECT_STREQ("v254", mgr_get_header(*msg_, "H254"));
    EXPECT_STREQ("", mgr_get_header(*msg_, "H255"));
    EXPECT_STREQ("", mgr_get_header(*msg_, "H299"));
    ASSERT_EQ(1, Read());
    EXPECT_STREQ("Next", mgr_get_header(*msg_, "Event"));
}

TEST_F(ManagerReader, CommandOutputKeepsItsEmptyLines) {
    Feed(
        "Response: Follows\r\nPrivilege: Command\r\nline one\n\n\nline four\n--END COMMAND--\r\n"
        "\r\n");
    ASSERT_EQ(1, Read());
    ASSERT_EQ(7, msg_->hdrcount);
    EXPECT_EQ("line one", Header(2));
    EXPECT_EQ("", Header(3));
    EXPECT_EQ("", Header(4));
    EXPECT_EQ("--END COMMAND--", Header(6));
    EXPECT_EQ(0, msg_->in_command);
}

TEST_F(ManagerReader, LongLinesAtTheLimit) {
    // 1022 characters and "\n" still fit the buffer: the line is kept whole.
    Feed(std::string(1022, 'a') + "\n\r\n");
    ASSERT_EQ(1, Read());
    EXPECT_EQ(1022u, strlen(msg_->headers[0]));
    EXPECT_EQ(log().find("Got long line"), std::string::npos);

    // 1023 characters without a line end are dropped; reading goes on.
    Feed(std::string(1023, 'x'));
    Feed("Response: Success\r\n\r\n");
    ASSERT_EQ(1, Read());
    ASSERT_EQ(1, msg_->hdrcount);
    EXPECT_EQ("Response: Success", Header(0));
    EXPECT_NE(log().find("Warning: Got long line with no end from 0.0.0.0: xxxx"),
              std::string::npos);
}

TEST_F(ManagerReader, HeaderNamePrefixIsNotAMatch) {
    Feed("DestinationChannel: SIP/trunk-01\r\nDestination: 200\r\n\r\n");
    ASSERT_EQ(1, Read());
    EXPECT_STREQ("200", mgr_get_header(*msg_, "Destination"));
    EXPECT_STREQ("SIP/trunk-01", mgr_get_header(*msg_, "destinationchannel"));
    EXPECT_STREQ("", mgr_get_header(*msg_, "Dest"));
}

TEST_F(ManagerReader, PeerCloseFailsTheRead) {
    Feed("Event: Half\r\n");
    close(peer_);
    peer_ = -1;
    EXPECT_LT(Read(), 0);
}

TEST_F(ManagerReader, WriterSkipsEmptyHeadersAndEndsWithEmptyLine) {
    auto m = std::make_unique<message>();
    EXPECT_EQ(0, mgr_write(session_, *m));
    EXPECT_EQ("\r\n", read_until(peer_, "\r\n"));

    mgr_add_header(*m, "Action: %s", "Ping");
    mgr_add_header(*m, "%s", "");
    mgr_add_header(*m, "ActionID: %d", 7);
    EXPECT_EQ(0, mgr_write(session_, *m));
    EXPECT_EQ("Action: Ping\r\nActionID: 7\r\n\r\n", read_until(peer_, "\r\n\r\n"));
}

TEST(ManagerMessage, AddHeaderIsBoundedAndStopsAt255) {
    auto m = std::make_unique<message>();
    EXPECT_EQ(0, mgr_add_header(*m, "LastData: %s", std::string(3000, 'd').c_str()));
    EXPECT_EQ(1023u, strlen(m->headers[0]));
    for (int i = 1; i < 255; ++i) ASSERT_EQ(0, mgr_add_header(*m, "H: %d", i));
    EXPECT_EQ(1, mgr_add_header(*m, "H: full"));
    EXPECT_EQ(255, m->hdrcount);
}

// Login over loopback TCP against a plain listener.
class ManagerLogin : public Logged {
protected:
    void TearDown() override {
        if (conn_ >= 0) close(conn_);
        if (listener_ >= 0) close(listener_);
        Logged::TearDown();
    }
    void Listen(int port = 0) {
        listener_ = listen_loopback(port, &port_);
        ASSERT_GE(listener_, 0);
    }
    std::string AcceptLogin() {
        pollfd p{listener_, POLLIN, 0};
        if (poll(&p, 1, 5000) <= 0) return "(no connection)";
        if (conn_ >= 0) close(conn_);
        conn_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        return read_until(conn_, "\r\n\r\n");
    }
    int listener_ = -1, conn_ = -1, port_ = 0;
    mansession session_;
};

TEST_F(ManagerLogin, SendsTheLoginTextExactly) {
    Listen();
    ASSERT_EQ(0, mgr_init(session_, "127.0.0.1", port_, "admin", "s3cret"));
    ASSERT_EQ(0, mgr_login(session_));
    EXPECT_EQ("Action: Login\r\nUsername: admin\r\nSecret: s3cret\r\nEvents: call\r\n\r\n",
              AcceptLogin());
    EXPECT_NE(log().find("asterisk@127.0.0.1: Connecting (u=admin, p=s3cret)"), std::string::npos);

    // A configured event class list replaces "call".
    close(conn_);
    conn_ = -1;
    mgr_init(session_, "127.0.0.1", port_, "admin", "s3cret");
    ASSERT_EQ(0, mgr_login(session_, "cdr,system"));
    EXPECT_EQ("Action: Login\r\nUsername: admin\r\nSecret: s3cret\r\nEvents: cdr,system\r\n\r\n",
              AcceptLogin());
}

TEST_F(ManagerLogin, RefusedLoginIsNeverRetried) {
    Listen();
    ASSERT_EQ(0, mgr_init(session_, "127.0.0.1", port_, "admin", "x"));
    session_.connected = -1;
    EXPECT_EQ(1, mgr_login(session_));
    pollfd p{listener_, POLLIN, 0};
    EXPECT_EQ(0, poll(&p, 1, 100));  // nobody connected
}

TEST_F(ManagerLogin, RetriesUntilTheManagerListensWithoutLeakingSockets) {
    int port = pick_free_port();
    int before = open_fds();
    ASSERT_EQ(0, mgr_init(session_, "127.0.0.1", port, "admin", "x"));
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(2500));
        Listen(port);
    });
    int r = mgr_login(session_);
    late.join();
    ASSERT_EQ(0, r);
    EXPECT_EQ("Action: Login\r\nUsername: admin\r\nSecret: x\r\nEvents: call\r\n\r\n",
              AcceptLogin());
    std::string text = log();
    EXPECT_NE(text.find("manager@127.0.0.1: Connect failed, Retrying (1) Connection refused [111]"),
              std::string::npos);
    // Session socket, listener and accepted connection: nothing else stays open.
    EXPECT_EQ(before + 3, open_fds());

    // The manager goes away: the read fails and a new login replaces the
    // old socket, which is closed.
    close(conn_);
    conn_ = -1;
    auto m = std::make_unique<message>();
    EXPECT_LT(mgr_read(session_, *m), 0);
    ASSERT_EQ(0, mgr_login(session_));
    EXPECT_EQ("Action: Login\r\nUsername: admin\r\nSecret: x\r\nEvents: call\r\n\r\n",
              AcceptLogin());
    EXPECT_NE(log().find("connect_nonb: error 106, closing old fd and grabbing a new one..."),
              std::string::npos);
    EXPECT_EQ(before + 3, open_fds());
}

TEST_F(ManagerLogin, InitFailuresAreReported) {
    EXPECT_EQ(-1, mgr_init(session_, "", 5038, "u", "p"));
    EXPECT_NE(log().find("Host:  not found"), std::string::npos);
    EXPECT_EQ(-1, session_.fd);

    // No descriptor left for the socket: an error, and no -1 socket is used.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(init_without_descriptors(), ::testing::ExitedWithCode(0),
                // The log file cannot be opened either: the line goes to standard error.
                "Unable to create manager socket");
}

// The simulator's script lines, as the client receives them.
TEST_F(ManagerLogin, SimulatorScriptLinesReachTheClient) {
    mgr_sim sim;
    ASSERT_TRUE(sim.start());
    ASSERT_EQ(0, mgr_init(session_, "127.0.0.1", sim.port(), "u", "p"));
    ASSERT_EQ(0, mgr_login(session_, "cdr"));
    auto m = std::make_unique<message>();
    ASSERT_EQ(1, mgr_read(session_, *m));  // banner line and login answer
    EXPECT_STREQ("Authentication accepted", mgr_get_header(*m, "Message"));

    ASSERT_EQ(0, sim.run_line("cdr 101 200 2024-05-01T23:59:30 45 Cost=0.40 "
                              "\"CallerID=\\\"Room 101\\\" <101>\" -UserField AccountCode="));
    m->clear();
    ASSERT_EQ(1, mgr_read(session_, *m));
    EXPECT_STREQ("Cdr", mgr_get_header(*m, "Event"));
    EXPECT_STREQ("cdr,all", mgr_get_header(*m, "Privilege"));
    EXPECT_STREQ("\"Room 101\" <101>", mgr_get_header(*m, "CallerID"));
    EXPECT_STREQ("2024-05-02 00:00:15", mgr_get_header(*m, "EndTime"));
    EXPECT_STREQ("45", mgr_get_header(*m, "BillableSeconds"));
    EXPECT_STREQ("0.40", mgr_get_header(*m, "Cost"));
    EXPECT_EQ(std::string("Cost: 0.40"), m->headers[m->hdrcount - 1]);
    EXPECT_EQ(20, m->hdrcount);  // UserField removed, Cost appended
    EXPECT_STREQ("", mgr_get_header(*m, "UserField"));

    EXPECT_EQ(-1, sim.run_line("cdr 101 200"));
    ASSERT_EQ(0, sim.run_line("raw Event: Raw\\r\\n\\r\\n"));
    m->clear();
    ASSERT_EQ(1, mgr_read(session_, *m));
    EXPECT_STREQ("Raw", mgr_get_header(*m, "Event"));
}

}  // namespace
