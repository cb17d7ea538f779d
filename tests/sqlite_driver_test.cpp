// The SQLite drivers on real files: connecting, statements, result walking,
// field readers, closing, concurrent users, and the internal database.
#include "db/sqlite.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "logger.h"
#include "support.h"

namespace {

class SqliteDriver : public ::testing::Test {
  protected:
    void SetUp() override {
        logger_init(dir_.file("test.log").c_str(), 5, 0, 0);
        drv_ = sqlite_create_drv("pbx");
    }
    void TearDown() override { logger_init(nullptr, 1, 0, 0); }

    std::string log_text() const { return read_file(dir_.file("test.log")); }
    std::string file(const std::string& name) const { return dir_.file(name); }

    // Opens the driver on `name` and fills table t (a, b, c) with `rows`.
    void open_with_rows(const std::string& name, const std::string& rows) {
        ASSERT_EQ(drv_->connect(nullptr, 0, nullptr, nullptr, file(name).c_str()), 0);
        ASSERT_EQ(drv_->query("create table t (a, b, c)"), 0);
        if (!rows.empty()) {
            ASSERT_EQ(drv_->query(("insert into t values " + rows).c_str()), 0);
        }
    }

    // The values of column `num` of every remaining row, as text.
    std::vector<std::string> walk(int num) {
        std::vector<std::string> vals;
        char buf[64];
        while (drv_->fetch_row() == 0) {
            EXPECT_EQ(drv_->fetch_char_field(num, buf, sizeof buf - 1), 0);
            buf[sizeof buf - 1] = '\0';
            vals.push_back(buf);
        }
        return vals;
    }

    temp_dir dir_;
    dbdriver_ptr drv_;
};

TEST_F(SqliteDriver, RecordStartsAsACopyOfTheTemplate) {
    EXPECT_STREQ(drv_->name, "pbx");
    EXPECT_STREQ(drv_->dateformat, "%Y-%m-%d");
    EXPECT_STREQ(drv_->timeformat, "%H:%M:%S");
    EXPECT_EQ(drv_->port, 0);
    EXPECT_TRUE(drv_->host.empty() && drv_->database.empty());
    EXPECT_STREQ(sqlite_create_drv("a-name-of-twenty-chr")->name, "a-name-of-twent");
    EXPECT_STREQ(sqliteint.name, "sqlite-int");
    EXPECT_STREQ(sqliteint.dateformat, "%Y-%m-%d");
    EXPECT_STREQ(sqliteint.timeformat, "%H:%M:%S");
}

TEST_F(SqliteDriver, ConnectCreatesTheFileAndOpensOnlyOnce) {
    EXPECT_NE(drv_->is_connected(), 0);
    ASSERT_EQ(drv_->connect("ignored", 1234, "u", "p", file("a.db").c_str()), 0);
    EXPECT_EQ(drv_->is_connected(), 0);
    EXPECT_EQ(access(file("a.db").c_str(), F_OK), 0);

    // Another file on an open handler: nothing happens.
    EXPECT_EQ(drv_->connect(nullptr, 0, nullptr, nullptr, file("b.db").c_str()), 0);
    ASSERT_EQ(drv_->query("create table t (a)"), 0);
    EXPECT_NE(access(file("b.db").c_str(), F_OK), 0);
    EXPECT_EQ(sqlite_rows(file("a.db"), "select name from sqlite_master"),
              (std::vector<std::vector<std::string>>{{"t"}}));
}

TEST_F(SqliteDriver, FailedConnectLeavesTheHandlerClosed) {
    std::string bad = file("missing/dir/x.db");
    EXPECT_EQ(drv_->connect(nullptr, 0, nullptr, nullptr, bad.c_str()), -2);
    EXPECT_NE(drv_->is_connected(), 0);
    EXPECT_NE(log_text().find(" in sq_connect: Error connecting to " + bad + " sqlite db"),
              std::string::npos)
        << log_text();
    EXPECT_EQ(drv_->connect(nullptr, 0, nullptr, nullptr, dir_.path().c_str()), -2);

    ASSERT_EQ(drv_->connect(nullptr, 0, nullptr, nullptr, file("good.db").c_str()), 0);
    EXPECT_EQ(drv_->is_connected(), 0);
    EXPECT_EQ(drv_->query("create table t (a)"), 0);
}

TEST_F(SqliteDriver, StatementsWithoutRowsLeaveNoResult) {
    open_with_rows("a.db", "");
    EXPECT_EQ(drv_->query("select a from t"), 0);
    EXPECT_EQ(drv_->numrets(), -1);
    EXPECT_EQ(drv_->fetch_row(), -1);

    EXPECT_EQ(drv_->query("insert into t values (1, 2, 3)"), 0);
    EXPECT_EQ(drv_->numrets(), -1);
    EXPECT_EQ(drv_->fetch_row(), -1);
    EXPECT_EQ(drv_->query("update t set a = 5"), 0);
    EXPECT_EQ(drv_->numrets(), -1);
    EXPECT_EQ(drv_->query("select a from t where a = 99"), 0);
    EXPECT_EQ(drv_->fetch_row(), -1);
    EXPECT_EQ(drv_->numrets(), -1);
}

TEST_F(SqliteDriver, FailingStatementFreesTheEarlierResultAndIsLogged) {
    open_with_rows("a.db", "(1, 'x', 0), (2, 'y', 0)");
    ASSERT_EQ(drv_->query("select a from t"), 0);
    ASSERT_EQ(drv_->numrets(), 2);
    ASSERT_EQ(drv_->fetch_row(), 0);

    EXPECT_EQ(drv_->query("select * from nosuch"), -1);
    EXPECT_EQ(drv_->numrets(), -1);
    EXPECT_EQ(drv_->fetch_row(), -1);
    int v = 0;
    EXPECT_EQ(drv_->fetch_int_field(0, &v), -1);
    EXPECT_NE(log_text().find(" ERROR["), std::string::npos);
    EXPECT_NE(log_text().find(" in sq_query: Sqlite query error: no such table: nosuch, "
                              "ext.errcode 1"),
              std::string::npos)
        << log_text();

    EXPECT_EQ(drv_->query("insert into t values (1, 2, 3, 4)"), -1);
    EXPECT_EQ(drv_->query("garbage"), -1);
}

TEST_F(SqliteDriver, RowsAreWalkedInOrderAndTheWalkStartsAgainAfterItsEnd) {
    open_with_rows("a.db", "(1, 'one', 0), (2, 'two', 0), (3, 'three', 0)");
    ASSERT_EQ(drv_->query("select b from t order by a"), 0);
    EXPECT_EQ(drv_->numrets(), 3);
    EXPECT_EQ(walk(0), (std::vector<std::string>{"one", "two", "three"}));
    // The end was reported once: the next walk starts at the first row.
    EXPECT_EQ(walk(0), (std::vector<std::string>{"one", "two", "three"}));
    ASSERT_EQ(drv_->fetch_row(), 0);
    drv_->free_result();
    EXPECT_EQ(drv_->numrets(), -1);
    EXPECT_EQ(drv_->fetch_row(), -1);

    // Several statements in one text give one list of rows.
    ASSERT_EQ(drv_->query("select b from t where a = 1; select b from t where a = 3"), 0);
    EXPECT_EQ(drv_->numrets(), 2);
    EXPECT_EQ(walk(0), (std::vector<std::string>{"one", "three"}));

    // A new statement after a walk to the end, without free_result.
    ASSERT_EQ(drv_->query("select b from t where a = 2"), 0);
    EXPECT_EQ(walk(0), (std::vector<std::string>{"two"}));
}

TEST_F(SqliteDriver, FieldReadersAndTheirCodes) {
    open_with_rows("a.db", "('0x10', '010', '2.5'), ('42', '-7', 'abc'), (NULL, NULL, NULL)");
    ASSERT_EQ(drv_->query("select a, b, c from t order by rowid"), 0);
    int i = -99;
    float f = -99;
    char buf[8];
    EXPECT_EQ(drv_->fetch_int_field(0, &i), -1);  // no current row yet
    EXPECT_EQ(drv_->fetch_char_field(0, buf, sizeof buf), -1);
    EXPECT_EQ(drv_->fetch_float_field(0, &f), -1);

    ASSERT_EQ(drv_->fetch_row(), 0);
    EXPECT_EQ(drv_->fetch_int_field(0, &i), 0);
    EXPECT_EQ(i, 16);
    EXPECT_EQ(drv_->fetch_int_field(1, &i), 0);
    EXPECT_EQ(i, 8);
    EXPECT_EQ(drv_->fetch_float_field(2, &f), 0);
    EXPECT_FLOAT_EQ(f, 2.5f);
    for (int bad : {3, 4, 100, -1}) {
        EXPECT_EQ(drv_->fetch_int_field(bad, &i), -2) << bad;
        EXPECT_EQ(drv_->fetch_char_field(bad, buf, sizeof buf), -2) << bad;
        EXPECT_EQ(drv_->fetch_float_field(bad, &f), -2) << bad;
    }

    ASSERT_EQ(drv_->fetch_row(), 0);
    EXPECT_EQ(drv_->fetch_int_field(0, &i), 0);
    EXPECT_EQ(i, 42);
    EXPECT_EQ(drv_->fetch_int_field(1, &i), 0);
    EXPECT_EQ(i, -7);
    EXPECT_EQ(drv_->fetch_int_field(2, &i), 0);
    EXPECT_EQ(i, 0);

    // A value of exactly `len` characters fills the buffer without a terminator.
    memset(buf, '#', sizeof buf);
    EXPECT_EQ(drv_->fetch_char_field(2, buf, 3), 0);
    EXPECT_EQ(std::string(buf, 4), "abc#");
    memset(buf, '#', sizeof buf);
    EXPECT_EQ(drv_->fetch_char_field(2, buf, 2), 0);
    EXPECT_EQ(std::string(buf, 3), "ab#");
    memset(buf, '#', sizeof buf);
    EXPECT_EQ(drv_->fetch_char_field(2, buf, 6), 0);
    EXPECT_EQ(std::string(buf, 7), std::string("abc\0\0\0#", 7));

    // NULL reads as an empty text.
    ASSERT_EQ(drv_->fetch_row(), 0);
    memset(buf, '#', sizeof buf);
    EXPECT_EQ(drv_->fetch_char_field(0, buf, 4), 0);
    EXPECT_EQ(std::string(buf, 5), std::string("\0\0\0\0#", 5));
    EXPECT_EQ(drv_->fetch_int_field(1, &i), 0);
    EXPECT_EQ(i, 0);

    EXPECT_EQ(drv_->fetch_row(), -1);
    EXPECT_EQ(drv_->fetch_int_field(0, &i), -1);
}

TEST_F(SqliteDriver, ClosedHandlerStaysMarkedOpenAndStatementsFail) {
    open_with_rows("a.db", "(1, 2, 3)");
    ASSERT_EQ(drv_->query("select a from t"), 0);
    drv_->close();
    EXPECT_EQ(drv_->is_connected(), 0);
    EXPECT_EQ(drv_->connect(nullptr, 0, nullptr, nullptr, file("a.db").c_str()), 0);
    EXPECT_EQ(drv_->query("select a from t"), -1);
    EXPECT_EQ(drv_->numrets(), -1);
    EXPECT_NE(log_text().find("Sqlite query error: "), std::string::npos);
    drv_->close();  // a second close is harmless
}

TEST_F(SqliteDriver, ConcurrentUsersUnderTheRecordLock) {
    ASSERT_EQ(drv_->connect(nullptr, 0, nullptr, nullptr, file("a.db").c_str()), 0);
    ASSERT_EQ(drv_->query("pragma synchronous = off"), 0);  // no disk flush per insert
    ASSERT_EQ(drv_->query("create table calls (who integer, n integer)"), 0);
    constexpr int kThreads = 4;
    constexpr int kRounds = 100;
    std::vector<std::thread> threads;
    std::vector<int> mismatches(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int n = 1; n <= kRounds; ++n) {
                std::lock_guard<dbdriver_t> guard(*drv_);
                if (drv_->is_connected()) drv_->reconnect();
                std::string ins = "insert into calls values (" + std::to_string(t) + "," +
                                  std::to_string(n) + ")";
                if (drv_->query(ins.c_str()) != 0) ++mismatches[t];
                std::string sel =
                    "select count(*), max(n) from calls where who = " + std::to_string(t);
                int count = -1, max = -1;
                if (drv_->query(sel.c_str()) != 0 || drv_->fetch_row() != 0 ||
                    drv_->fetch_int_field(0, &count) != 0 || drv_->fetch_int_field(1, &max) != 0 ||
                    count != n || max != n)
                    ++mismatches[t];
                drv_->free_result();
            }
        });
    }
    for (std::thread& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(mismatches[t], 0) << t;
    EXPECT_EQ(sqlite_rows(file("a.db"), "select count(*) from calls")[0][0],
              std::to_string(kThreads * kRounds));
}

// The internal database is process-wide, so it is opened in a child.
int open_states_in_child(const std::string& path) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) _exit(open_states_file(path.c_str()) == 0 ? 0 : 1);
    int st = 0;
    waitpid(pid, &st, 0);
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

TEST_F(SqliteDriver, StatesFileGetsItsTablesOnce) {
    std::string states = file("states.db");
    ASSERT_EQ(open_states_in_child(states), 0);

    temp_dir ref;
    std::string expected = ref.file("ref.db");
    ASSERT_TRUE(sqlite_exec(
        expected,
        "create table rooms (room varchar(8), ci_date date, citime time, calls integer, primary "
        "key(room));"
        "create table if not exists `cdrcache` (       `accountcode` varchar(20) NOT NULL "
        "default '',       `src` varchar(80) NOT NULL default '',       `dst` varchar(80) NOT "
        "NULL default '',       `dcontext` varchar(80) NOT NULL default '',       `clid` "
        "varchar(80) NOT NULL default '',       `channel` varchar(80) NOT NULL default '',       "
        "`dstchannel` varchar(80) NOT NULL default '',       `lastapp` varchar(80) NOT NULL "
        "default '',       `lastdata` varchar(80) NOT NULL default '',       `start` datetime "
        "NOT NULL default '0000-00-00 00:00:00',       `answer` datetime NOT NULL default "
        "'0000-00-00 00:00:00',       `end` datetime NOT NULL default '0000-00-00 00:00:00',    "
        "   `duration` int(11) NOT NULL default '0',       `billsec` int(11) NOT NULL default "
        "'0',       `disposition` varchar(45) NOT NULL default '',       `amaflags` int(11) NOT "
        "NULL default '',       `c_from` varchar(80) NOT NULL default '',       `c_to` "
        "varchar(80) NOT NULL default '',       `cost` varchar(20) NOT NULL default '',       "
        "`callclass` int(11) NOT NULL default '0',       `faxdata` varchar(255) NOT NULL "
        "default '',       `userfield` varchar(255) NOT NULL default '',       `uniqueid` "
        "varchar(32) NOT NULL default '');"
        "CREATE INDEX IF NOT EXISTS `idx_cdrcache_c_from_start` ON `cdrcache` "
        "(`c_from`,`start`)"));
    EXPECT_EQ(sqlite_schema(states), sqlite_schema(expected));
    EXPECT_EQ(sqlite_rows(states,
                          "select count(*) from sqlite_master where type = 'index' and "
                          "name = 'idx_cdrcache_c_from_start'")[0][0],
              "1");

    // A second start finds the tables and keeps their rows.
    ASSERT_TRUE(sqlite_exec(states, "insert into rooms (room) values ('101')"));
    ASSERT_EQ(open_states_in_child(states), 0);
    EXPECT_EQ(sqlite_schema(states), sqlite_schema(expected));
    EXPECT_EQ(sqlite_rows(states, "select room from rooms"),
              (std::vector<std::vector<std::string>>{{"101"}}));

    EXPECT_EQ(open_states_in_child(dir_.path()), 1);
    EXPECT_EQ(open_states_in_child(file("no/such/dir/states.db")), 1);
}

}  // namespace
