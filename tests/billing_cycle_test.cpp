// The billing passes in-process: one cycle at a time over a SQLite PBX
// database and the states file's call cache, with the PMS link attached to a
// socket pair whose far end collects the frames.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>

#include "billing/background.h"
#include "db/sqlite.h"
#include "logger.h"
#include "states/states.h"
#include "support.h"

using namespace std::chrono_literals;
using rows = std::vector<std::vector<std::string>>;

namespace {

std::unique_ptr<temp_dir> suite_dir;

// Passes every statement to the real driver; drops the link when a statement
// holds `trigger`.
class link_dropping_handle : public db_handle {
  public:
    link_dropping_handle(std::unique_ptr<db_handle> inner, std::string trigger, pms_link& link)
        : inner_(std::move(inner)), trigger_(std::move(trigger)), link_(link) {}
    int connect(const char* h, uint16_t p, const char* u, const char* pw, const char* db) override {
        return inner_->connect(h, p, u, pw, db);
    }
    int query(const char* s) override {
        if (strstr(s, trigger_.c_str())) link_.drop();
        return inner_->query(s);
    }
    int fetch_row() override { return inner_->fetch_row(); }
    int fetch_int_field(int n, int* v) override { return inner_->fetch_int_field(n, v); }
    int fetch_char_field(int n, char* v, int l) override {
        return inner_->fetch_char_field(n, v, l);
    }
    int fetch_float_field(int n, float* v) override { return inner_->fetch_float_field(n, v); }
    int numrets() override { return inner_->numrets(); }
    void free_result() override { inner_->free_result(); }
    void close() override { inner_->close(); }
    int is_connected() override { return inner_->is_connected(); }

  private:
    std::unique_ptr<db_handle> inner_;
    std::string trigger_;
    pms_link& link_;
};

class BillingCycle : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        suite_dir = std::make_unique<temp_dir>();
        ASSERT_EQ(0, open_states_file(suite_dir->file("states.db")));
    }
    static void TearDownTestSuite() { suite_dir.reset(); }

    void SetUp() override {
        logger_init(dir.file("log").c_str(), 5, 0, 0);
        {
            db_lock guard(sqliteint);
            sqliteint.query("delete from rooms");
            sqliteint.query("delete from cdrcache");
        }
        pbx = sqlite_create_drv("pbx");
        pbx->database = dir.file("pbx.db");
        {
            db_lock guard(*pbx);
            ASSERT_EQ(0, pbx->reconnect());
        }
        ASSERT_TRUE(sqlite_exec(dir.file("pbx.db"),
                                "create table calls (src, calldate, calltime, dst, billsec, cost, "
                                "posted default 0);"
                                "create table wakeups (exten, result, wdate, wtime, reported "
                                "default 0);"
                                "create table status (exten, code, reported default 0);"));
        cfg.dbdrivers = {pbx};
        cfg.billcalls =
            "pbx:select calldate, calltime, dst, billsec, cost from calls where "
            "src='%exten%' and posted=0";
        cfg.billmark =
            "pbx:update calls set posted=1 where src='%exten%' and "
            "calldate='%date%' and calltime='%time%'";

        int sv[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv));
        link.attach(sv[0]);
        far_end = sv[1];
        reader = std::thread([this] {
            char buf[4096];
            ssize_t n;
            while ((n = read(far_end, buf, sizeof buf)) > 0) {
                std::lock_guard<std::mutex> guard(mutex);
                wire.append(buf, static_cast<size_t>(n));
            }
        });
        link.set_active();
    }

    void TearDown() override {
        shutdown(far_end, SHUT_RDWR);
        reader.join();
        close(far_end);
        logger_init(nullptr, 1, 0, 0);
    }

    bool cycle(const std::vector<std::string>& rooms) {
        return billing_cycle(cfg, rooms, link, sequence);
    }

    // The records received so far (frame bytes removed).
    std::vector<std::string> frames() {
        std::this_thread::sleep_for(50ms);
        std::lock_guard<std::mutex> guard(mutex);
        std::vector<std::string> out;
        size_t pos = 0;
        while ((pos = wire.find('\x02', pos)) != std::string::npos) {
            size_t end = wire.find('\x03', pos);
            if (end == std::string::npos) break;
            out.push_back(wire.substr(pos + 1, end - pos - 1));
            pos = end + 1;
        }
        return out;
    }

    std::string log() { return read_file(dir.file("log")); }
    rows pbx_rows(const std::string& sql) { return sqlite_rows(dir.file("pbx.db"), sql); }

    temp_dir dir;
    dbdriver_ptr pbx;
    config cfg;
    pms_link link;
    posting_sequence sequence;
    int far_end = -1;
    std::thread reader;
    std::mutex mutex;
    std::string wire;
};

TEST_F(BillingCycle, QueryPassPostsEachCallOnceAndMarksIt) {
    ASSERT_TRUE(sqlite_exec(dir.file("pbx.db"),
                            "insert into calls values ('101','2009-05-14','10:20:30','5551234',"
                            "125,-1,0);"
                            "insert into calls values ('101','2009-05-15','11:00:00','5559999',"
                            "60,0,0);"
                            "insert into calls values ('102','2009-12-01','23:59:59','0049301',"
                            "3600,498,0);"));
    ASSERT_TRUE(cycle({"101", "102", "103"}));
    EXPECT_EQ((std::vector<std::string>{
                  "PS|P#0001|RN101|PTT|DA090514|TI102030|DU000205|DD5551234|",
                  "PS|P#0002|RN101|PTC|TA1|DA090515|TI110000|DU000100|DD5559999|",
                  "PS|P#0003|RN102|PTC|TA3|DA091201|TI235959|DU010000|DD0049301|",
              }),
              frames());
    EXPECT_EQ((rows{{"1"}, {"1"}, {"1"}}), pbx_rows("select posted from calls"));
    ASSERT_TRUE(cycle({"101", "102", "103"}));
    EXPECT_EQ(3u, frames().size()) << "marked calls are not posted again";

    ASSERT_TRUE(sqlite_exec(dir.file("pbx.db"), "update calls set posted=0"));
    link.drop();
    ASSERT_TRUE(cycle({"101"}));
    EXPECT_EQ(3u, frames().size()) << "nothing is posted while the link is down";
}

TEST_F(BillingCycle, UnmarkedCallsArePostedEveryCycleAndTheSequenceWraps) {
    cfg.billmark.reset();
    sequence.last = 9998;
    ASSERT_TRUE(sqlite_exec(dir.file("pbx.db"),
                            "insert into calls values ('101','2009-05-14','10:20:30','1',1,-1,0)"));
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(cycle({"101"}));
    auto f = frames();
    ASSERT_EQ(3u, f.size());
    EXPECT_EQ(0u, f[0].find("PS|P#9999|"));
    EXPECT_EQ(0u, f[1].find("PS|P#0000|"));
    EXPECT_EQ(0u, f[2].find("PS|P#0001|"));
}

TEST_F(BillingCycle, CachePassPostsCachedCallsAndMarksThemWithTheRecord) {
    cfg.use_manager = 1;  // billcalls is then never consulted
    {
        db_lock guard(sqliteint);
        ASSERT_EQ(0, sqliteint.query("insert into cdrcache (src, dst, start, billsec, userfield) "
                                     "values ('101','5551234','2009-05-14 10:20:30',125,''),"
                                     "('102','777','2009-05-14 11:00:00',7,'posted before')"));
    }
    ASSERT_TRUE(sqlite_exec(dir.file("pbx.db"),
                            "insert into calls values ('101','2009-05-14','10:20:30','1',1,-1,0)"));
    ASSERT_TRUE(cycle({"101", "102"}));
    const std::string ps = "PS|P#0001|RN101|PTT|DA090514|TI102030|DU000205|DD5551234|";
    EXPECT_EQ((std::vector<std::string>{ps}), frames());
    EXPECT_EQ((rows{{ps}}), sqlite_rows(suite_dir->file("states.db"),
                                        "select userfield from cdrcache where src='101'"));
    ASSERT_TRUE(cycle({"101", "102"}));
    EXPECT_EQ(1u, frames().size());
}

TEST_F(BillingCycle, WakeUpResultsAndRoomStatusAreReportedAndMarked) {
    cfg.billcalls.reset();
    cfg.wakeup_result =
        "pbx:select result, wdate, wtime from wakeups where exten='%exten%' and reported=0";
    cfg.wrmark = "pbx:update wakeups set reported=1 where exten='%exten%' and wdate='%date%'";
    cfg.room_state = "pbx:select code from status where exten='%exten%' and reported=0";
    cfg.remark = "pbx:update status set reported=1 where exten='%exten%'";
    ASSERT_TRUE(sqlite_exec(
        dir.file("pbx.db"),
        "insert into wakeups (exten, result, wdate, wtime) values ('1',1,'2009-05-14','06:30:00'),"
        "('2',2,'2009-05-14','06:31:00'),('3',3,'2009-05-14','06:32:00'),"
        "('4',-1,'2009-05-14','06:33:00'),('5',4,'2009-05-14','06:34:00'),"
        "('6',0,'2009-05-14','06:35:00');"
        "insert into status (exten, code) values ('1',1),('2',2),('3',3),('4',4),('5',5),('6',6),"
        "('7',-2);"));
    ASSERT_TRUE(cycle({"1", "2", "3", "4", "5", "6", "7"}));
    EXPECT_EQ((std::vector<std::string>{
                  "WA|RN1|DA090514|TI063000|ASOK|", "WA|RN2|DA090514|TI063100|ASBY|",
                  "WA|RN3|DA090514|TI063200|ASNR|", "WA|RN4|DA090514|TI063300|ASUR|",
                  "WA|RN5|DA090514|TI063400|ASRY|", "WA|RN6|DA090514|TI063500|ASRY|", "RE|RN1|RS1|",
                  "RE|RN2|RS2|", "RE|RN3|RS0|", "RE|RN4|RS4|", "RE|RN5|RS5|", "RE|RN6|RS6|",
                  "RE|RN7|RS0|"}),
              frames());
    EXPECT_EQ((rows{{"6"}}), pbx_rows("select count(*) from wakeups where reported=1"));
    EXPECT_EQ((rows{{"7"}}), pbx_rows("select count(*) from status where reported=1"));
}

TEST_F(BillingCycle, AnUnreadableColumnEndsTheRoomOrThePassAndReleasesTheLock) {
    cfg.billcalls = "pbx:select calldate, calltime, dst from calls where src='%exten%'";
    cfg.wakeup_result = "pbx:select result from wakeups where exten='%exten%'";
    cfg.wrmark = "pbx:update wakeups set reported=1";
    ASSERT_TRUE(sqlite_exec(dir.file("pbx.db"),
                            "insert into calls values ('1','2009-05-14','10:20:30','1',1,-1,0);"
                            "insert into wakeups (exten, result) values ('1',1),('2',1);"));
    ASSERT_TRUE(cycle({"1", "2"}));
    EXPECT_TRUE(frames().empty());
    std::string text = log();
    EXPECT_NE(std::string::npos, text.find("No mandatory billsec field in cdr query"));
    EXPECT_NE(std::string::npos, text.find("No mandatory date field in cdr query"));
    // The pass gave up with the driver's lock released: it can be taken again.
    auto taken = std::async(std::launch::async, [&] {
        db_lock guard(*pbx);
        return true;
    });
    ASSERT_EQ(std::future_status::ready, taken.wait_for(5s));
}

TEST_F(BillingCycle, AMissingDriverEndsBillingAndAMissingStatementSkipsThePass) {
    cfg.billcalls = "nosuch:select 1";
    EXPECT_FALSE(cycle({"101"}));
    EXPECT_NE(std::string::npos, log().find("Unable to find DB driver nosuch"));

    cfg.billcalls = "pbx";
    EXPECT_TRUE(cycle({"101"}));
    EXPECT_NE(std::string::npos, log().find("has no \":\""));
    EXPECT_TRUE(frames().empty());
}

TEST_F(BillingCycle, ALinkThatDropsDuringAPassStopsTheCycleAfterIt) {
    auto dropping = std::make_shared<dbdriver_t>();
    dropping->dbhandle =
        std::make_unique<link_dropping_handle>(std::move(pbx->dbhandle), "posted=1", link);
    dbdriver_t::set_text16(dropping->name, "pbx");
    cfg.dbdrivers = {dropping};
    cfg.wakeup_result = "pbx:select result, wdate, wtime from wakeups where exten='%exten%'";
    cfg.wrmark = "pbx:update wakeups set reported=1";
    ASSERT_TRUE(sqlite_exec(dir.file("pbx.db"),
                            "insert into calls values ('1','2009-05-14','10:20:30','1',1,-1,0);"
                            "insert into calls values ('2','2009-05-14','10:20:30','1',1,-1,0);"
                            "insert into wakeups values ('1',1,'2009-05-14','06:30:00',0);"));
    ASSERT_TRUE(cycle({"1", "2"}));
    // The pass under way completes (its rows marked although the second
    // posting could not be sent); the wake-up pass does not start.
    auto f = frames();
    ASSERT_EQ(1u, f.size());
    EXPECT_EQ(0u, f[0].find("PS|P#0001|RN1|"));
    EXPECT_NE(std::string::npos, log().find("Unable to send fias Post Simple"));
    EXPECT_EQ((rows{{"1"}, {"1"}}), pbx_rows("select posted from calls"));
}

}  // namespace
