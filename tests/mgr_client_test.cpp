// Manager client: message framing over a socket pair, and the login over
// loopback TCP (exact bytes, retries, reconnection).
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>

#include "logger.h"
#include "mgr/manager.h"
#include "netutil.h"
#include "support.h"

namespace {

// A session reading from one end of a socket pair (the test writes the other),
// or logging in to a plain listener on loopback.
class Manager : public ::testing::Test {
  protected:
    void SetUp() override {
        logger_init(dir_.file("log").c_str(), 5, 0, 0);
        int sv[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv));
        session_.fd = sv[0];
        peer_ = sv[1];
    }
    void TearDown() override {
        for (int fd : {peer_, conn_, listener_}) close(fd);
        logger_init(nullptr, 1, 0, 1);
    }
    bool InLog(const std::string& text) const {
        return read_file(dir_.file("log")).find(text) != std::string::npos;
    }
    // Writes `bytes` to the session, then reads one message.
    int Read(const std::string& bytes = "") {
        if (!write_all(peer_, bytes)) return -99;
        msg_->clear();
        return mgr_read(session_, *msg_);
    }
    std::string Header(int i) const { return msg_->headers[i]; }
    std::string Get(const char* name) const { return mgr_get_header(*msg_, name); }
    // What the manager receives, up to an empty line, on its next connection.
    std::string AcceptLogin() {
        close(conn_);
        conn_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        std::string got;
        char buf[4096];
        pollfd c{conn_, POLLIN, 0};
        for (ssize_t n; got.find("\r\n\r\n") == std::string::npos && poll(&c, 1, 5000) > 0 &&
                        (n = recv(conn_, buf, sizeof buf, 0)) > 0;)
            got.append(buf, static_cast<size_t>(n));
        return got;
    }

    temp_dir dir_;
    mansession session_;
    std::unique_ptr<message> msg_ = std::make_unique<message>();
    int peer_ = -1, listener_ = -1, conn_ = -1;
};

TEST_F(Manager, ReaderEndsMessagesAtEmptyLinesOnly) {
    // Split across writes, also between "\r" and "\n": whole only at its end.
    // Lines end with or without "\r"; names match whole, in any case.
    std::atomic<bool> last_sent{false};
    std::thread writer([&] {
        for (const char* p :
             {"DestinationChannel: SIP/t", "runk-01\r", "\nDestination: 200\n", "A: 1\r\n", "\r"}) {
            write_all(peer_, p);
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
        }
        last_sent = true;
        write_all(peer_, "\n");
    });
    int r = Read();
    EXPECT_TRUE(last_sent.load());
    writer.join();
    ASSERT_EQ(1, r);
    EXPECT_EQ(3, msg_->hdrcount);
    EXPECT_EQ("A: 1", Header(2));
    EXPECT_EQ("200", Get("Destination"));
    EXPECT_EQ("SIP/trunk-01", Get("destinationchannel"));
    EXPECT_EQ("", Get("Dest"));

    // The first 255 headers are kept; the later ones pass through the spare
    // slot, and the reader stays in step.
    std::string text;
    for (int i = 0; i < 300; ++i)
        text += "H" + std::to_string(i) + ": v" + std::to_string(i) + "\n";
    ASSERT_EQ(1, Read(text + "\r\nEvent: Next\r\n\r\n"));
    EXPECT_EQ(255, msg_->hdrcount);
    EXPECT_EQ("v254", Get("H254"));
    EXPECT_EQ("", Get("H255"));
    ASSERT_EQ(1, Read());
    EXPECT_EQ("Next", Get("Event"));

    // A line that fills the buffer without an end is dropped.
    ASSERT_EQ(1, Read(std::string(1022, 'a') + "\n\r\n"));  // still fits with its "\n"
    EXPECT_EQ(std::string(1022, 'a'), Header(0));
    EXPECT_FALSE(InLog("Got long line"));
    ASSERT_EQ(1, Read(std::string(1023, 'x') + "Response: Success\r\n\r\n"));
    ASSERT_EQ(1, msg_->hdrcount);
    EXPECT_EQ("Response: Success", Header(0));
    EXPECT_TRUE(InLog("Warning: Got long line with no end from 0.0.0.0: xxxx"));
}

TEST_F(Manager, LoginRetriesUntilTheManagerListensAndLogsInAgainAfterADrop) {
    EXPECT_EQ(-1, mgr_init(session_, "", 5038, "u", "p"));
    EXPECT_TRUE(InLog("Host:  not found"));

    const std::string login =
        "Action: Login\r\nUsername: admin\r\nSecret: x\r\nEvents: call\r\n\r\n";
    int port = pick_free_port();
    ASSERT_EQ(0, mgr_init(session_, "127.0.0.1", port, "admin", "x"));
    long before = open_fds();
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        listener_ = listen_loopback(port, &port);
    });
    int r = mgr_login(session_);
    late.join();
    ASSERT_EQ(0, r);
    EXPECT_EQ(login, AcceptLogin());
    EXPECT_TRUE(InLog("manager@127.0.0.1: Connect failed, Retrying (1) Connection refused [111]"));
    EXPECT_EQ(before + 2, open_fds());  // the listener and the accepted connection

    // The manager goes away: the read fails and a new login replaces the old
    // socket, which is closed.
    shutdown(conn_, SHUT_RDWR);
    EXPECT_LT(mgr_read(session_, *msg_), 0);
    ASSERT_EQ(0, mgr_login(session_, ""));  // no event classes given: "call"
    EXPECT_EQ(login, AcceptLogin());
    EXPECT_EQ(before + 2, open_fds());
}

}  // namespace
