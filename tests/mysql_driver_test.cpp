// The MySQL driver against a private MariaDB server (one per test program).
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "db/mysql.h"
#include "logger.h"
#include "support.h"
#include "support_mariadb.h"

// The cases call the operations from one thread at a time without the
// record's lock (the lock itself: tests/sqlite_driver_test.cpp).
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace {

class MysqlDriver : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        server_ = std::make_unique<mariadb_server>();
        ready_ = server_->start();
    }
    static void TearDownTestSuite() { server_.reset(); }
    void SetUp() override {
        ASSERT_TRUE(ready_);  // a server that cannot start fails every case
        logger_init(dir_.file("log").c_str(), 5, 0, 0);
    }
    void TearDown() override { logger_init(nullptr, 5, 0, 0); }

    static dbdriver_ptr Driver() {
        dbdriver_ptr drv = mysql_create_drv("pbx");
        drv->host = "127.0.0.1";
        drv->port = server_->port();
        drv->user = mariadb_server::user;
        drv->password = mariadb_server::password;
        drv->database = mariadb_server::database;
        EXPECT_EQ(0, drv->reconnect());
        return drv;
    }
    std::string Log() const { return read_file(dir_.file("log")); }
    bool Logged(const std::string& text) const { return Log().find(text) != std::string::npos; }

    static inline std::unique_ptr<mariadb_server> server_;
    static inline ::testing::AssertionResult ready_ = ::testing::AssertionFailure();
    temp_dir dir_;
};

TEST_F(MysqlDriver, ConnectFailuresAndARestartAreNoticed) {
    dbdriver_ptr drv = Driver();
    EXPECT_EQ(0, drv->is_connected());
    server_->stop();
    EXPECT_EQ(1, drv->is_connected());
    EXPECT_EQ(-1, drv->query("SELECT 1"));
    ASSERT_TRUE(server_->start());
    EXPECT_EQ(1, drv->is_connected());  // the old connection stays dead
    ASSERT_EQ(0, drv->reconnect());
    EXPECT_EQ(0, drv->is_connected());
    EXPECT_EQ(0, drv->query("SELECT 1"));

    drv->password = "wrong-password";
    EXPECT_EQ(-2, drv->reconnect());
    EXPECT_EQ(1, drv->is_connected());
    EXPECT_TRUE(
        Logged("in m_connect: Failed to connect to database: Error: Access denied for user "
               "'orlanbeck'"));
    EXPECT_EQ(-1, drv->query("SELECT 1"));
}

TEST_F(MysqlDriver, StatementsRowsAndNumericColumns) {
    dbdriver_ptr drv = Driver();
    EXPECT_EQ(0, drv->query("DO 1"));
    EXPECT_EQ(-1, drv->fetch_row());  // no result set
    EXPECT_EQ(-1, drv->query("SELEC 1"));
    EXPECT_TRUE(Logged("in my_query: Query error: You have an error in your SQL"));
    // Rows stream: they are counted as they are fetched.
    ASSERT_EQ(0, drv->query("WITH RECURSIVE seq(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM seq "
                            "WHERE n < 5) SELECT n FROM seq"));
    EXPECT_EQ(0, drv->numrets());
    int rc;
    while ((rc = drv->fetch_row()) == 0) continue;
    EXPECT_EQ(-2, rc);
    EXPECT_EQ(5, drv->numrets());
    drv->free_result();
    EXPECT_EQ(0, drv->numrets());
    EXPECT_EQ(-1, drv->fetch_row());

    ASSERT_EQ(0, drv->query("SELECT CAST(2147483647 AS SIGNED), CAST(1234567.89 AS DECIMAL(12,2)),"
                            " CAST(0.25 AS FLOAT), CAST(NULL AS SIGNED), 'one'"));
    ASSERT_EQ(0, drv->fetch_row());
    // Per column "code:int code:float"; text columns are refused untouched.
    std::string got;
    for (int num = 0; num < 5; ++num) {
        int i = -1, ri = drv->fetch_int_field(num, &i);
        float f = -1;
        int rf = drv->fetch_float_field(num, &f);
        got += std::to_string(ri) + ":" + std::to_string(i) + " " + std::to_string(rf) + ":" +
               std::to_string(f) + "|";
    }
    EXPECT_EQ(
        "0:2147483647 0:2147483648.000000|0:1234567 0:1234567.875000|0:0 0:0.250000|"
        "0:0 0:0.000000|-3:-1 -3:-1.000000|",
        got);  // BIGINT, DECIMAL, FLOAT, NULL, VARCHAR
    // The text of a number is cut to len - 1 characters, without a terminator.
    auto text = [&](int num, int len, int code = 0) {
        char buf[12];
        memset(buf, 'x', sizeof buf);
        EXPECT_EQ(code, drv->fetch_char_field(num, buf, len)) << num << " " << len;
        return std::string(buf, sizeof buf);
    };
    EXPECT_EQ("1234xxxxxxxx", text(1, 5));
    EXPECT_EQ("1234567.89xx", text(1, 12));
    EXPECT_EQ("xxxxxxxxxxxx", text(1, 1));
    EXPECT_EQ("xxxxxxxxxxxx", text(4, 12, -3));
    drv->free_result();
}

}  // namespace
