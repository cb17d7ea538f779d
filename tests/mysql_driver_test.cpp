// The MySQL driver against a private MariaDB server (one per test program).
#include <gtest/gtest.h>

#include <stdlib.h>

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

// The cases call the operations from one thread at a time without the
// record's lock (the concurrent cases take it): no lock analysis here.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace {

// The numbers 1 .. 100, without a table.
const std::string seq =
    "WITH RECURSIVE seq(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM seq WHERE n < 100) ";

class MysqlDriver : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        server_ = std::make_unique<mariadb_server>();
        ready_.emplace(server_->start());
        for (const char* sql :
             {"CREATE TABLE orlanbeck_test.vals (big BIGINT, amount DECIMAL(12,2), rate FLOAT, "
              "note INT NULL, name VARCHAR(20))",
              "INSERT INTO orlanbeck_test.vals VALUES (2147483647, 1234567.89, 0.25, NULL, 'one')"})
            if (*ready_) ready_.emplace(server_->exec_root(sql));
    }
    static void TearDownTestSuite() { server_.reset(); }

    void SetUp() override {
        ASSERT_TRUE(*ready_);  // a server that cannot start fails every case
        logger_init(dir_.file("log").c_str(), 5, 0, 0);
    }
    void TearDown() override { logger_init(nullptr, 5, 0, 0); }

    static dbdriver_ptr Driver(const char* password = mariadb_server::password) {
        dbdriver_ptr drv = mysql_create_drv("pbx");
        drv->host = "127.0.0.1";
        drv->port = server_->port();
        drv->user = mariadb_server::user;
        drv->password = password;
        drv->database = mariadb_server::database;
        return drv;
    }
    static dbdriver_ptr Connected() {
        dbdriver_ptr drv = Driver();
        EXPECT_EQ(0, drv->reconnect());
        return drv;
    }
    std::string Log() const { return read_file(dir_.file("log")); }

    static inline std::unique_ptr<mariadb_server> server_;
    static inline std::optional<::testing::AssertionResult> ready_;
    temp_dir dir_;
};

TEST_F(MysqlDriver, ConnectsWithGoodCredentialsAndNoticesARestart) {
    dbdriver_ptr drv = Connected();
    EXPECT_EQ(0, drv->is_connected());
    server_->stop();
    EXPECT_EQ(1, drv->is_connected());
    EXPECT_EQ(-1, drv->query("SELECT 1"));
    ASSERT_TRUE(server_->start());
    EXPECT_EQ(1, drv->is_connected());  // the old connection stays dead
    ASSERT_EQ(0, drv->reconnect());
    EXPECT_EQ(0, drv->is_connected());
    EXPECT_EQ(0, drv->query("SELECT 1"));

    dbdriver_ptr refused = Driver("wrong-password");
    EXPECT_EQ(-2, refused->reconnect());
    EXPECT_EQ(1, refused->is_connected());
    EXPECT_NE(std::string::npos,
              Log().find("in m_connect: Failed to connect to database: Error: Access denied "
                         "for user 'orlanbeck'"))
        << Log();

    dbdriver_ptr lost = Driver();
    lost->port = pick_free_port();  // nothing listens there
    EXPECT_EQ(-2, lost->reconnect());
    EXPECT_EQ(1, lost->is_connected());
    EXPECT_EQ(-1, lost->query("SELECT 1"));
}

TEST_F(MysqlDriver, StatementsSucceedOrFailAndRowsStream) {
    dbdriver_ptr drv = Connected();
    EXPECT_EQ(0, drv->query("UPDATE vals SET note = NULL WHERE note = 1"));
    EXPECT_EQ(-1, drv->fetch_row());  // no result set
    EXPECT_EQ(-1, drv->query("SELEC 1"));
    EXPECT_NE(std::string::npos,
              Log().find("in my_query: Query error: You have an error in your SQL"))
        << Log();

    ASSERT_EQ(0, drv->query((seq + "SELECT n FROM seq WHERE n <= 5").c_str()));
    EXPECT_EQ(0, drv->numrets());
    for (int k = 1; k <= 5; ++k) {
        ASSERT_EQ(0, drv->fetch_row());
        EXPECT_EQ(k, drv->numrets());
        int v = 0;
        EXPECT_EQ(0, drv->fetch_int_field(0, &v));
        EXPECT_EQ(k, v);
    }
    EXPECT_EQ(-2, drv->fetch_row());
    EXPECT_EQ(5, drv->numrets());
    drv->free_result();
    EXPECT_EQ(0, drv->numrets());
    EXPECT_EQ(-1, drv->fetch_row());
}

TEST_F(MysqlDriver, ReadsNumericColumnsOnly) {
    dbdriver_ptr drv = Connected();
    ASSERT_EQ(0, drv->query("SELECT big, amount, rate, note, name FROM vals"));
    ASSERT_EQ(0, drv->fetch_row());
    const struct {
        int num, i;
        float f;
    } numbers[] = {{0, 2147483647, 2147483647.0f},
                   {1, 1234567, 1234567.89f},
                   {2, 0, 0.25f},
                   {3, 0, 0.0f}};  // BIGINT, DECIMAL, FLOAT, NULL
    int i = -1;
    float f = -1;
    for (const auto& n : numbers) {
        EXPECT_EQ(0, drv->fetch_int_field(n.num, &i));
        EXPECT_EQ(n.i, i) << n.num;
        EXPECT_EQ(0, drv->fetch_float_field(n.num, &f));
        EXPECT_FLOAT_EQ(n.f, f) << n.num;
    }

    // The text of a number is cut to len - 1 characters, without a terminator.
    auto text = [&](int num, int len, int rc = 0) {
        char buf[12];
        memset(buf, 'x', sizeof buf);
        EXPECT_EQ(rc, drv->fetch_char_field(num, buf, len)) << num << " " << len;
        return std::string(buf, sizeof buf);
    };
    EXPECT_EQ("1234xxxxxxxx", text(1, 5));
    EXPECT_EQ("1234567.89xx", text(1, 12));
    EXPECT_EQ("xxxxxxxxxxxx", text(1, 1));

    // VARCHAR is refused, and nothing is written.
    i = 99;
    f = 99;
    EXPECT_EQ(-3, drv->fetch_int_field(4, &i));
    EXPECT_EQ(-3, drv->fetch_float_field(4, &f));
    EXPECT_EQ("xxxxxxxxxxxx", text(4, 12, -3));
    EXPECT_EQ(99, i);
    EXPECT_EQ(99.0f, f);
    drv->free_result();
}

TEST_F(MysqlDriver, TwoThreadsShareOneDriverUnderItsLock) {
    dbdriver_ptr drv = Connected();
    std::atomic<int> bad{0};
    auto user = [&](const std::string& statement, int rows, long sum) {
        for (int round = 0; round < 40; ++round) {
            db_lock guard(*drv);
            if ((drv->is_connected() && drv->reconnect() != 0) || drv->query(statement.c_str())) {
                ++bad;
                continue;
            }
            int count = 0, v = 0;
            long total = 0;
            while (drv->fetch_row() == 0) {
                if (drv->fetch_int_field(0, &v) != 0 || drv->numrets() != ++count) ++bad;
                total += v;
            }
            if (count != rows || total != sum) ++bad;
            drv->free_result();
        }
    };
    std::thread a(user, seq + "SELECT n FROM seq", 100, 5050L);
    std::thread b(user, seq + "SELECT n FROM seq WHERE n <= 50 ORDER BY n DESC", 50, 1275L);
    a.join();
    b.join();
    EXPECT_EQ(0, bad.load());
    EXPECT_EQ(std::string::npos, Log().find("ERROR")) << Log();
}

}  // namespace
