// The MySQL driver against a private MariaDB server (one per test program).
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "db/mysql.h"
#include "logger.h"
#include "netutil.h"
#include "support.h"
#include "support_mariadb.h"

namespace {

class MysqlDriver : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        server_ = std::make_unique<mariadb_server>();
        ready_.emplace(server_->start());
        if (!*ready_) return;
        std::string rows_of_seq = "INSERT INTO orlanbeck_test.seq VALUES (1)";
        for (int n = 2; n <= 100; ++n) rows_of_seq += ",(" + std::to_string(n) + ")";
        for (const std::string& sql : {
                 std::string("CREATE TABLE orlanbeck_test.vals (id INT PRIMARY KEY, big BIGINT, "
                             "amount DECIMAL(12,2), rate FLOAT, note INT NULL, "
                             "name VARCHAR(20), made DATE)"),
                 std::string("INSERT INTO orlanbeck_test.vals VALUES "
                             "(1, 2147483647, 12.50, 0.25, NULL, 'one', '2024-03-01'),"
                             "(2, -7, -3.75, 1.5, 5, 'two', '2024-03-02'),"
                             "(3, 42, 1234567.89, 2500, NULL, 'three', '2024-03-03')"),
                 std::string("CREATE TABLE orlanbeck_test.seq (n INT PRIMARY KEY)"),
                 rows_of_seq,
             }) {
            ready_.emplace(server_->exec_root(sql));
            if (!*ready_) return;
        }
    }

    static void TearDownTestSuite() {
        server_.reset();
        ready_.reset();
    }

    void SetUp() override {
        ASSERT_TRUE(*ready_);
        log_path_ = dir_.file("orlanbeck.log");
        logger_init(log_path_.c_str(), 5, 0, 0);
    }

    void TearDown() override { logger_init(nullptr, 5, 0, 0); }

    // A driver set up for the test login (not yet connected).
    static dbdriver_ptr make_driver(const char* password = mariadb_server::password) {
        dbdriver_ptr drv = mysql_create_drv("pbx");
        drv->host = "127.0.0.1";
        drv->port = server_->port();
        drv->user = mariadb_server::user;
        drv->password = password;
        drv->database = mariadb_server::database;
        return drv;
    }

    static dbdriver_ptr connected_driver() {
        dbdriver_ptr drv = make_driver();
        EXPECT_EQ(0, drv->reconnect());
        return drv;
    }

    std::string log_text() const { return read_file(log_path_); }

    size_t log_count(const std::string& text) const {
        std::string log = log_text();
        size_t n = 0;
        for (size_t p = log.find(text); p != std::string::npos; p = log.find(text, p + 1)) ++n;
        return n;
    }

    static std::unique_ptr<mariadb_server> server_;
    static std::optional<::testing::AssertionResult> ready_;
    temp_dir dir_;
    std::string log_path_;
};

std::unique_ptr<mariadb_server> MysqlDriver::server_;
std::optional<::testing::AssertionResult> MysqlDriver::ready_;

TEST(MysqlDriverFactory, CopiesTheTemplateUnderTheGivenName) {
    dbdriver_ptr drv = mysql_create_drv("a-section-name-of-25-char");
    EXPECT_STREQ("a-section-name-", drv->name);
    EXPECT_STREQ("%Y-%m-%d", drv->dateformat);
    EXPECT_STREQ("%H:%M:%S", drv->timeformat);
    EXPECT_EQ(3306, drv->port);
    // Never connected: every operation answers without a server.
    EXPECT_EQ(1, drv->is_connected());
    EXPECT_EQ(-1, drv->query("SELECT 1"));
    EXPECT_EQ(-1, drv->fetch_row());
    EXPECT_EQ(0, drv->numrets());
    drv->free_result();
    drv->close();
}

TEST_F(MysqlDriver, ConnectsReconnectsAndCloses) {
    dbdriver_ptr drv = connected_driver();
    EXPECT_EQ(0, drv->is_connected());
    // A second connect replaces the first connection.
    EXPECT_EQ(0, drv->reconnect());
    EXPECT_EQ(0, drv->is_connected());
    ASSERT_EQ(0, drv->query("SELECT 7"));
    ASSERT_EQ(0, drv->fetch_row());
    int v = 0;
    EXPECT_EQ(0, drv->fetch_int_field(0, &v));
    EXPECT_EQ(7, v);
    drv->free_result();
    drv->close();
    EXPECT_EQ(1, drv->is_connected());
    EXPECT_EQ(std::string::npos, log_text().find("ERROR"));
}

TEST_F(MysqlDriver, RefusedLoginAndUnreachableServerAnswerMinusTwo) {
    dbdriver_ptr drv = make_driver("wrong-password");
    EXPECT_EQ(-2, drv->reconnect());
    EXPECT_EQ(1, drv->is_connected());
    EXPECT_NE(std::string::npos,
              log_text().find("in m_connect: Failed to connect to database: Error: Access denied "
                              "for user 'orlanbeck'"))
        << log_text();

    dbdriver_ptr lost = make_driver();
    lost->port = pick_free_port();  // nothing listens there
    EXPECT_EQ(-2, lost->reconnect());
    EXPECT_EQ(1, lost->is_connected());
    EXPECT_EQ(-1, lost->query("SELECT 1"));
    EXPECT_EQ(2u, log_count("Failed to connect to database: Error: ")) << log_text();
}

TEST_F(MysqlDriver, FailingStatementsAreLoggedAndLeaveTheConnectionUsable) {
    dbdriver_ptr drv = connected_driver();
    EXPECT_EQ(0, drv->query("UPDATE seq SET n = n WHERE n = 1"));
    EXPECT_EQ(-1, drv->fetch_row());  // no result set
    EXPECT_EQ(-1, drv->query("SELEC 1"));
    EXPECT_EQ(-1, drv->query("SELECT x FROM missing"));
    std::string log = log_text();
    EXPECT_NE(std::string::npos,
              log.find("in my_query: Query error: You have an error in your SQL"))
        << log;
    EXPECT_NE(std::string::npos,
              log.find("Query error: Table 'orlanbeck_test.missing' doesn't exist"))
        << log;
    EXPECT_EQ(0, drv->query("SELECT 1"));
    EXPECT_EQ(0, drv->fetch_row());
}

TEST_F(MysqlDriver, StreamsRowsAndCountsThoseReadSoFar) {
    dbdriver_ptr drv = connected_driver();
    ASSERT_EQ(0, drv->query("SELECT n FROM seq WHERE n <= 5 ORDER BY n"));
    EXPECT_EQ(0, drv->numrets());
    for (int k = 1; k <= 5; ++k) {
        ASSERT_EQ(0, drv->fetch_row());
        EXPECT_EQ(k, drv->numrets());
        int v = 0;
        EXPECT_EQ(0, drv->fetch_int_field(0, &v));
        EXPECT_EQ(k, v);
    }
    EXPECT_EQ(-2, drv->fetch_row());
    EXPECT_EQ(-2, drv->fetch_row());
    EXPECT_EQ(5, drv->numrets());
    int v = 0;
    EXPECT_EQ(-1, drv->fetch_int_field(0, &v));  // no current row after the end
    drv->free_result();
    EXPECT_EQ(0, drv->numrets());
    EXPECT_EQ(-1, drv->fetch_row());  // nothing left to read

    // A result the caller forgot to free does not block the next statement.
    ASSERT_EQ(0, drv->query("SELECT n FROM seq ORDER BY n"));
    ASSERT_EQ(0, drv->fetch_row());
    ASSERT_EQ(0, drv->query("SELECT n FROM seq WHERE n = 42"));
    ASSERT_EQ(0, drv->fetch_row());
    EXPECT_EQ(0, drv->fetch_int_field(0, &v));
    EXPECT_EQ(42, v);
    EXPECT_EQ(-2, drv->fetch_row());
    drv->free_result();
}

TEST_F(MysqlDriver, ReadsNumericColumnsAsIntAndFloat) {
    dbdriver_ptr drv = connected_driver();
    ASSERT_EQ(0, drv->query("SELECT id, big, amount, rate, note FROM vals ORDER BY id"));
    int i = -1;
    float f = -1;
    char buf[8];
    memset(buf, 'x', sizeof buf);

    ASSERT_EQ(0, drv->fetch_row());
    EXPECT_EQ(0, drv->fetch_int_field(1, &i));
    EXPECT_EQ(2147483647, i);
    EXPECT_EQ(0, drv->fetch_int_field(2, &i));  // DECIMAL: the integer part
    EXPECT_EQ(12, i);
    EXPECT_EQ(0, drv->fetch_float_field(2, &f));
    EXPECT_FLOAT_EQ(12.5f, f);
    EXPECT_EQ(0, drv->fetch_float_field(3, &f));  // FLOAT
    EXPECT_FLOAT_EQ(0.25f, f);
    // NULL: 0 and an empty text (the buffer keeps what it had).
    EXPECT_EQ(0, drv->fetch_int_field(4, &i));
    EXPECT_EQ(0, i);
    EXPECT_EQ(0, drv->fetch_float_field(4, &f));
    EXPECT_EQ(0.0f, f);
    EXPECT_EQ(0, drv->fetch_char_field(4, buf, sizeof buf));
    EXPECT_EQ(std::string(8, 'x'), std::string(buf, sizeof buf));

    ASSERT_EQ(0, drv->fetch_row());
    EXPECT_EQ(0, drv->fetch_int_field(1, &i));
    EXPECT_EQ(-7, i);
    EXPECT_EQ(0, drv->fetch_int_field(2, &i));
    EXPECT_EQ(-3, i);
    EXPECT_EQ(0, drv->fetch_float_field(2, &f));
    EXPECT_FLOAT_EQ(-3.75f, f);
    EXPECT_EQ(0, drv->fetch_float_field(1, &f));
    EXPECT_FLOAT_EQ(-7.0f, f);
    EXPECT_EQ(0, drv->fetch_int_field(4, &i));
    EXPECT_EQ(5, i);
    drv->free_result();
}

TEST_F(MysqlDriver, RefusesTextColumnsAndBadFieldNumbers) {
    dbdriver_ptr drv = connected_driver();
    ASSERT_EQ(0, drv->query("SELECT name, made, id FROM vals WHERE id = 1"));
    int i = 99;
    float f = 99;
    char buf[8];
    memset(buf, 'x', sizeof buf);
    // Before the first row every check gives way to "no current row".
    EXPECT_EQ(-1, drv->fetch_int_field(0, &i));
    EXPECT_EQ(-1, drv->fetch_char_field(99, buf, sizeof buf));

    ASSERT_EQ(0, drv->fetch_row());
    EXPECT_EQ(-1, drv->fetch_char_field(2, nullptr, 8));
    for (int num : {3, -1, 1000}) {
        EXPECT_EQ(-2, drv->fetch_int_field(num, &i)) << num;
        EXPECT_EQ(-2, drv->fetch_float_field(num, &f)) << num;
        EXPECT_EQ(-2, drv->fetch_char_field(num, buf, sizeof buf)) << num;
    }
    for (int num : {0, 1}) {  // VARCHAR, DATE
        EXPECT_EQ(-3, drv->fetch_int_field(num, &i)) << num;
        EXPECT_EQ(-3, drv->fetch_float_field(num, &f)) << num;
        EXPECT_EQ(-3, drv->fetch_char_field(num, buf, sizeof buf)) << num;
    }
    EXPECT_EQ(99, i);
    EXPECT_EQ(99.0f, f);
    EXPECT_EQ(std::string(8, 'x'), std::string(buf, sizeof buf));
    drv->free_result();
}

TEST_F(MysqlDriver, TextOfANumberIsCutToLenMinusOneWithoutTerminator) {
    dbdriver_ptr drv = connected_driver();
    ASSERT_EQ(0, drv->query("SELECT amount FROM vals WHERE id = 3"));  // "1234567.89"
    ASSERT_EQ(0, drv->fetch_row());
    auto read = [&](int len) {
        char buf[16];
        memset(buf, 'x', sizeof buf);
        EXPECT_EQ(0, drv->fetch_char_field(0, buf, len));
        return std::string(buf, 12);
    };
    EXPECT_EQ("1234xxxxxxxx", read(5));
    EXPECT_EQ("1234567.8xxx", read(10));
    EXPECT_EQ("1234567.89xx", read(11));
    EXPECT_EQ("1234567.89xx", read(16));
    EXPECT_EQ("xxxxxxxxxxxx", read(1));
    EXPECT_EQ("xxxxxxxxxxxx", read(0));
    drv->free_result();
}

TEST_F(MysqlDriver, ServerRestartIsNoticedAndReconnectWorks) {
    dbdriver_ptr drv = connected_driver();
    ASSERT_EQ(0, drv->is_connected());

    server_->stop();
    EXPECT_EQ(1, drv->is_connected());
    EXPECT_EQ(-1, drv->query("SELECT 1"));
    EXPECT_NE(std::string::npos, log_text().find("Query error: "));
    ASSERT_TRUE(server_->start());

    // The old connection stays dead until the user reconnects.
    ASSERT_EQ(1, drv->is_connected());
    ASSERT_EQ(0, drv->reconnect());
    EXPECT_EQ(0, drv->is_connected());
    ASSERT_EQ(0, drv->query("SELECT count(*) FROM seq"));
    ASSERT_EQ(0, drv->fetch_row());
    int v = 0;
    EXPECT_EQ(0, drv->fetch_int_field(0, &v));
    EXPECT_EQ(100, v);
    drv->free_result();
}

TEST_F(MysqlDriver, TwoThreadsShareOneDriverUnderItsLock) {
    dbdriver_ptr drv = connected_driver();
    std::atomic<int> bad{0};
    auto user = [&](const char* statement, int rows, long sum) {
        for (int round = 0; round < 40; ++round) {
            std::lock_guard<dbdriver_t> guard(*drv);
            if (drv->is_connected() && drv->reconnect() != 0) {
                ++bad;
                continue;
            }
            if (drv->query(statement) != 0) {
                ++bad;
                continue;
            }
            int count = 0;
            long total = 0;
            while (drv->fetch_row() == 0) {
                int v = 0;
                if (drv->fetch_int_field(0, &v) != 0) ++bad;
                total += v;
                if (drv->numrets() != ++count) ++bad;
            }
            if (count != rows || total != sum) ++bad;
            drv->free_result();
        }
    };
    std::thread a(user, "SELECT n FROM seq ORDER BY n", 100, 5050L);
    std::thread b(user, "SELECT n FROM seq WHERE n <= 50 ORDER BY n DESC", 50, 1275L);
    a.join();
    b.join();
    EXPECT_EQ(0, bad.load());
    EXPECT_EQ(std::string::npos, log_text().find("ERROR")) << log_text();
}

}  // namespace
