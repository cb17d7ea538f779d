// The SQLite file driver on real files: connecting, statements, result walking
// and field readers. (Its users hold the record's lock: the thread-safety
// compile checks that.)
#include "db/sqlite.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "logger.h"
#include "support.h"

// The cases call the operations from one thread without the record's lock:
// no lock analysis here.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace {

using rows = std::vector<std::string>;

class SqliteDriver : public ::testing::Test {
  protected:
    void SetUp() override { logger_init(dir_.file("test.log").c_str(), 5, 0, 0); }
    void TearDown() override { logger_init(nullptr, 1, 0, 0); }

    bool logged(const std::string& text) {
        return has_line_like(
            read_file(dir_.file("test.log")),
            kStamp + ":  ERROR[" + std::to_string(getpid()) + "]: sqlite.cpp:@ in " + text);
    }
    int connect(const std::string& file) {
        return drv_->connect(nullptr, 0, nullptr, nullptr, dir_.file(file).c_str());
    }
    // Column `num` of every remaining row.
    rows walk(int num) {
        rows vals;
        while (drv_->fetch_row() == 0) vals.push_back(get('c', num, 63).c_str());
        return vals;
    }
    // Column `num` read as 'i'nt, 'f'loat or 'c'har (into `len` bytes of a
    // buffer of '#', shown with the byte after them); "code N" on failure.
    std::string get(char kind, int num, int len = 8) {
        char buf[64];
        memset(buf, '#', sizeof buf);
        int i = 0;
        float f = 0;
        int rc = kind == 'i'   ? drv_->fetch_int_field(num, &i)
                 : kind == 'f' ? drv_->fetch_float_field(num, &f)
                               : drv_->fetch_char_field(num, buf, len);
        if (rc != 0) return "code " + std::to_string(rc);
        return kind == 'i'   ? std::to_string(i)
               : kind == 'f' ? std::to_string(f)
                             : std::string(buf, len + 1);
    }

    temp_dir dir_;
    dbdriver_ptr drv_ = sqlite_create_drv("pbx");
};

TEST_F(SqliteDriver, ConnectCodesAndAnOpenHandlerKeepsItsFirstFile) {
    EXPECT_NE(drv_->is_connected(), 0);
    EXPECT_EQ(connect("missing/dir/x.db"), -2);
    EXPECT_EQ(connect(""), -2);  // the folder itself
    EXPECT_NE(drv_->is_connected(), 0);
    EXPECT_TRUE(
        logged("sq_connect: Error connecting to " + dir_.file("missing/dir/x.db") + " sqlite db"));
    ASSERT_EQ(drv_->connect("ignored", 1234, "u", "p", dir_.file("a.db").c_str()), 0);
    EXPECT_EQ(drv_->is_connected(), 0);
    EXPECT_EQ(connect("b.db"), 0);
    ASSERT_EQ(drv_->query("create table t (a)"), 0);
    EXPECT_NE(access(dir_.file("b.db").c_str(), F_OK), 0);
    EXPECT_EQ(sqlite_rows(dir_.file("a.db"), "select name from sqlite_master"),
              std::vector<rows>{{"t"}});
}

TEST_F(SqliteDriver, ResultsAndFieldReaders) {
    ASSERT_EQ(connect("a.db"), 0);
    ASSERT_EQ(drv_->query("create table t (a, b, c); insert into t values ('0x10', '010', '2.5'),"
                          "('42', '-7', 'abc'), (NULL, NULL, NULL)"),
              0);
    for (const char* statement : {"select a from t where a = 99", "update t set a = a"}) {
        EXPECT_EQ(drv_->query(statement), 0) << statement;
        EXPECT_EQ(drv_->numrets(), -1) << statement;
        EXPECT_EQ(drv_->fetch_row(), -1) << statement;
    }
    ASSERT_EQ(drv_->query("select a, b, c from t order by rowid"), 0);
    EXPECT_EQ(drv_->numrets(), 3);
    for (char kind : {'i', 'f', 'c'}) EXPECT_EQ(get(kind, 0), "code -1") << kind;  // no row yet
    EXPECT_EQ(walk(2), (rows{"2.5", "abc", ""}));
    EXPECT_EQ(walk(1), (rows{"010", "-7", ""}));  // walked again after its end

    ASSERT_EQ(drv_->fetch_row(), 0);
    EXPECT_EQ(get('i', 0), "16");  // integers in base 0
    EXPECT_EQ(get('i', 1), "8");
    EXPECT_EQ(get('f', 2), "2.500000");
    for (int bad : {3, -1})
        for (char kind : {'i', 'f', 'c'}) EXPECT_EQ(get(kind, bad), "code -2") << kind << bad;
    ASSERT_EQ(drv_->fetch_row(), 0);
    EXPECT_EQ(get('i', 1), "-7");
    EXPECT_EQ(get('i', 2), "0");
    EXPECT_EQ(get('c', 2, 3), "abc#");  // exactly `len` characters: no terminator
    EXPECT_EQ(get('c', 2, 2), "ab#");
    EXPECT_EQ(get('c', 2, 6), std::string("abc\0\0\0#", 7));
    ASSERT_EQ(drv_->fetch_row(), 0);  // NULL reads as an empty text
    EXPECT_EQ(get('c', 0, 4), std::string("\0\0\0\0#", 5));
    EXPECT_EQ(get('i', 1), "0");
    EXPECT_EQ(drv_->fetch_row(), -1);
    EXPECT_EQ(get('i', 0), "code -1");

    // The next statement frees the result, also when it fails.
    ASSERT_EQ(drv_->fetch_row(), 0);
    EXPECT_EQ(drv_->query("select * from nosuch"), -1);
    EXPECT_EQ(drv_->numrets(), -1);
    EXPECT_EQ(drv_->fetch_row(), -1);
    EXPECT_TRUE(logged("sq_query: Sqlite query error: no such table: nosuch, ext.errcode 1"));

    // With names hidden, the error text shows no piece of the guest's name.
    logger_hide_names(true);
    {
        const hidden_name guest("O'Brien-Smith");
        EXPECT_EQ(drv_->query("insert into t values ('O'Brien-Smith', 1)"), -1);
    }
    logger_hide_names(false);
    const std::string log = read_file(dir_.file("test.log"));
    EXPECT_TRUE(
        logged("sq_query: Sqlite query error: near \"<name>\": syntax error, ext.errcode 1"))
        << log;
    EXPECT_EQ(log.find("Brien"), std::string::npos) << log;
}

TEST_F(SqliteDriver, SynchronousNormalOnlyOnAFileInWalMode) {
    for (const char* file : {"wal.db", "plain.db"}) {
        dbdriver_ptr maker = sqlite_create_drv("maker");
        ASSERT_EQ(maker->connect(nullptr, 0, nullptr, nullptr, dir_.file(file).c_str()), 0);
        if (file[0] == 'w') maker->query("pragma journal_mode=wal");  // kept by the file
        maker->query("create table t (a)");
    }
    auto synchronous = [](dbdriver_ptr& drv, const std::string& file) {
        sqlite_set_sync_normal(*drv, true);
        drv->connect(nullptr, 0, nullptr, nullptr, file.c_str());
        drv->query("pragma synchronous");
        drv->fetch_row();
        int level = -1;
        drv->fetch_int_field(0, &level);
        return level;
    };
    EXPECT_EQ(1, synchronous(drv_, dir_.file("wal.db")));  // NORMAL
    dbdriver_ptr plain = sqlite_create_drv("plain");
    EXPECT_EQ(2, synchronous(plain, dir_.file("plain.db")));  // FULL, the default
    EXPECT_TRUE(has_line_like(read_file(dir_.file("test.log")),
                              kStamp + ":  WARNING[" + std::to_string(getpid()) +
                                  "]: sqlite.cpp:@ in use_sync_normal: " + dir_.file("plain.db") +
                                  " is not in WAL mode (journal_mode delete): synchronous = "
                                  "normal is not used, every commit waits for the disk"))
        << read_file(dir_.file("test.log"));
}

TEST_F(SqliteDriver, AWholeCheckpointAndTheNewLogStartedByAWriteThatChangesNothing) {
    ASSERT_EQ(connect("wal.db"), 0);
    drv_->query("pragma journal_mode=wal");
    drv_->query("create table t (a)");
    drv_->query("pragma user_version=7");
    for (int i = 0; i < 3; ++i) drv_->query("insert into t values (1)");
    dbdriver_ptr other = sqlite_create_drv("other");
    ASSERT_EQ(other->connect(nullptr, 0, nullptr, nullptr, dir_.file("wal.db").c_str()), 0);
    other->query("select count(*) from t");  // a connection knows the log once it read
    // The frames of the log, and how many a passive checkpoint wrote.
    auto log = [&] {
        other->query("pragma wal_checkpoint(passive)");
        int frames = -1;
        int written = -1;
        if (other->fetch_row() == 0) {
            other->fetch_int_field(1, &frames);
            other->fetch_int_field(2, &written);
        }
        return std::make_pair(frames, written);
    };
    EXPECT_TRUE(sqlite_checkpoint(*other));
    ASSERT_GT(log().first, 1);

    // Inside a transaction it does nothing, and leaves the transaction open.
    ASSERT_EQ(sqlite_begin(*drv_), 0);
    drv_->query("insert into t values (2)");
    EXPECT_EQ(sqlite_restart_log(*drv_), 0);
    EXPECT_TRUE(sqlite_in_transaction(*drv_));
    drv_->query("rollback");

    // Outside one, the log starts anew with the one page it wrote.
    EXPECT_EQ(sqlite_restart_log(*drv_), 0);
    EXPECT_EQ(log(), std::make_pair(1, 1));
    drv_->query("select count(*) from t");
    EXPECT_EQ(walk(0), rows{"3"});
    drv_->query("pragma user_version");
    EXPECT_EQ(walk(0), rows{"7"});

    // Not in WAL mode: no log to write.
    dbdriver_ptr plain = sqlite_create_drv("plain");
    ASSERT_EQ(plain->connect(nullptr, 0, nullptr, nullptr, dir_.file("plain.db").c_str()), 0);
    plain->query("create table t (a)");
    EXPECT_FALSE(sqlite_checkpoint(*plain));
}

}  // namespace
