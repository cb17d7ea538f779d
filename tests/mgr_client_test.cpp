// Manager client: message framing over a socket pair (what ends a message,
// a command's output, long lines), and the login over loopback TCP (exact
// bytes, retries, reconnection).
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
    bool InLog(const std::string& text) const { return Count(text) > 0; }
    size_t Count(const std::string& text) const {
        return occurrences(read_file(dir_.file("log")), text);
    }
    // Writes `bytes` to the session, then reads one message.
    int Read(const std::string& bytes = "") {
        if (!write_all(peer_, bytes)) return -99;
        msg_->clear();
        return mgr_read(session_, *msg_);
    }
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
    EXPECT_EQ(3, msg_->count());
    EXPECT_STREQ("A: 1", msg_->line(2));
    EXPECT_EQ("200", Get("Destination"));
    EXPECT_EQ("SIP/trunk-01", Get("destinationchannel"));
    EXPECT_EQ("", Get("Dest"));

    // The first 255 lines are kept; the later ones are read and dropped.
    std::string text;
    for (int i = 0; i < 300; ++i)
        text += "H" + std::to_string(i) + ": v" + std::to_string(i) + "\n";
    ASSERT_EQ(1, Read(text + "\r\nEvent: Next\r\n\r\n"));
    EXPECT_EQ(255, msg_->count());
    EXPECT_EQ("v254", Get("H254"));
    EXPECT_EQ("", Get("H255"));
    ASSERT_EQ(1, Read());
    EXPECT_EQ("Next", Get("Event"));
}

// What changes how lines are read is the message's structure alone: text
// that anyone can put into a value (a caller name) never does.
TEST_F(Manager, OnlyAnAnswersOwnResponseHeaderStartsACommandsOutput) {
    const std::string follows = "Response: Follows";
    const std::string end = "--END COMMAND--";
    struct {
        const char* what;
        std::string bytes;
        std::vector<std::string> firsts;  // the first line of each message read
        int follows_found, end_found;     // DEBUG lines
    } cases[] = {
        {"caller name",
         "Event: Cdr\r\nCallerID: \"" + follows + "\" <101>\r\nLastData: " + end + "\r\n\r\n",
         {"Event: Cdr"},
         0,
         0},
        {"whole line inside an event",
         "Event: Cdr\r\n" + follows + "\r\n\r\nEvent: Cdr\r\n" + end + "\r\n\r\n",
         {"Event: Cdr", "Event: Cdr"},
         0,
         0},
        {"command answer, old form",
         follows + "\r\nPrivilege: Command\r\nActionID: c1\r\nline 1\r\n\r\n" + "x" + end + "\r\n" +
             follows + "\r\n" + end + "\r\n\r\nEvent: Cdr\r\n\r\n",
         {follows, "Event: Cdr"},
         1,
         1},
        {"command answer, Asterisk 22",
         "Response: Success\r\nActionID: c2\r\nMessage: Command output follows\r\n"
         "Output: " +
             end + "\r\nOutput: \r\n\r\nEvent: Cdr\r\n\r\n",
         {"Response: Success", "Event: Cdr"},
         0,
         0},
        {"after the banner",
         "Asterisk Call Manager/9.0.0\r\n" + follows + "\r\n\r\n" + end + "\r\n\r\n",
         {"Asterisk Call Manager/9.0.0"},
         1,
         1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        logger_init(dir_.file("log").c_str(), 5, 0, 0);
        write_file(dir_.file("log"), "");
        ASSERT_TRUE(write_all(peer_, c.bytes));
        for (const std::string& first : c.firsts) {
            ASSERT_EQ(1, Read());
            EXPECT_EQ(first, msg_->line(0));
        }
        EXPECT_EQ(static_cast<size_t>(c.follows_found), Count("Found Response Follows"));
        EXPECT_EQ(static_cast<size_t>(c.end_found), Count("Found END COMMAND"));
        EXPECT_EQ(0u, session_.tail - session_.head) << "bytes left unread";
    }
    // The old form keeps the output's empty line and its end as lines.
    ASSERT_TRUE(write_all(peer_, follows + "\r\nActionID: c3\r\n\r\n" + end + "\r\n\r\n"));
    ASSERT_EQ(1, Read());
    ASSERT_EQ(4, msg_->count());
    EXPECT_EQ("c3", Get("ActionID"));
    EXPECT_STREQ("", msg_->line(2));
}

TEST_F(Manager, LongLinesAreKeptUpToTheBoundAndCutBeyondIt) {
    const std::string dial(3000, 'd'), name(1200, 'n'), full(message::max_line - 7, 'f');
    ASSERT_EQ(1, Read("Event: Cdr\r\nLastData: " + dial + "\r\nCallerID: \"" + name +
                      "\" <101>\r\nFull: " + full + "\r\n\r\n"));
    EXPECT_EQ(dial, Get("LastData"));
    EXPECT_EQ("\"" + name + "\" <101>", Get("CallerID"));
    EXPECT_EQ(full, Get("Full"));
    EXPECT_EQ(0u, Count("was cut"));

    // Longer: cut with a WARNING, sent whole or in pieces; the message is
    // read on, and so is the next one.
    const std::string huge(100000, 'h');
    for (bool pieces : {false, true}) {
        SCOPED_TRACE(pieces ? "in pieces" : "whole");
        std::thread writer([&] {
            const std::string bytes =
                "Event: Cdr\r\nHuge: " + huge + "\r\nSource: 101\r\n\r\nEvent: Next\r\n\r\n";
            for (size_t at = 0; at < bytes.size(); at += pieces ? 3000 : bytes.size()) {
                write_all(peer_, bytes.substr(at, pieces ? 3000 : bytes.size()));
                if (pieces) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        const int r = Read();
        writer.join();
        ASSERT_EQ(1, r);
        EXPECT_EQ(huge.substr(0, message::max_line - 6), Get("Huge"));
        EXPECT_EQ("101", Get("Source"));
        ASSERT_EQ(1, Read());
        EXPECT_EQ("Next", Get("Event"));
    }
    EXPECT_EQ(2u, Count("WARNING"));
    EXPECT_EQ(2u, Count("Manager 0.0.0.0: a line longer than 8192 bytes was cut"));
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
