// CDR capture: mgr_cache_cdr on the internal database, and the capture thread
// against the Manager simulator over loopback.
//
// The internal database record is process-wide and opens its file once, so
// this program uses one states file for all its tests and empties `rooms` and
// `cdrcache` before each. Its writes are not synced (keeps the burst quick).
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "config.h"
#include "db/sqlite.h"
#include "logger.h"
#include "mgr/cdr.h"
#include "sim_mgr.h"
#include "support.h"

namespace {

temp_dir* states_dir;  // lives until the process ends

std::string states_file() {
    return states_dir->file("states.db");
}

class StatesFile : public ::testing::Environment {
  public:
    void SetUp() override {
        states_dir = new temp_dir;
        ASSERT_EQ(0, open_states_file(states_file().c_str()));
        std::lock_guard<dbdriver_t> guard(sqliteint);
        sqliteint.query("PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY");
        sqliteint.free_result();
    }
};
const auto* const states_env = ::testing::AddGlobalTestEnvironment(new StatesFile);

// The rows of `columns` in cdrcache, each as "value|value|...".
std::vector<std::string> cached(const char* columns = "uniqueid") {
    std::lock_guard<dbdriver_t> guard(sqliteint);  // no reader while the thread writes
    std::vector<std::string> rows;
    for (const auto& row : sqlite_rows(
             states_file(), std::string("select ") + columns + " from cdrcache order by rowid")) {
        rows.emplace_back();
        for (const std::string& v : row) rows.back() += (rows.back().empty() ? "" : "|") + v;
    }
    return rows;
}

mgr_cdr_event call(const char* src, const char* uid = "1714557600.42") {
    return mgr_cdr_event::make(src, "004930123456", "2024-05-01 10:00:00", 65).set("UniqueID", uid);
}

class CdrTest : public ::testing::Test {
  protected:
    void SetUp() override {
        logger_init(dir_.file("log").c_str(), 5, 0, 0);
        ASSERT_TRUE(sqlite_exec(states_file(),
                                "delete from cdrcache; delete from rooms; "
                                "insert into rooms (room) values ('101')"));
    }
    void TearDown() override { logger_init(nullptr, 1, 0, 1); }
    size_t InLog(const std::string& text) const {
        std::string log = read_file(dir_.file("log"));
        size_t n = 0;
        for (size_t p = log.find(text); p != std::string::npos; p = log.find(text, p + 1)) ++n;
        return n;
    }
    temp_dir dir_;
};

using CdrCache = CdrTest;

void cache(const mgr_cdr_event& ev, const std::vector<std::string>& rooms) {
    auto m = std::make_unique<message>();
    for (const auto& [name, value] : ev.headers)
        mgr_add_header(*m, "%s: %s", name.c_str(), value.c_str());
    EXPECT_EQ(0, mgr_cache_cdr(*m, rooms));
}

TEST_F(CdrCache, SourceMustEqualARoomAndBadValuesCacheNothing) {
    cache(call("101"), {"1010", "10"});
    EXPECT_TRUE(cached().empty());

    cache(call("101").set("From", "101").remove("UserField"), {"1010", "101"});
    EXPECT_EQ(std::vector<std::string>{"101|||"}, cached("c_from, c_to, cost, userfield"));

    // A quote in a value breaks the statement: the driver logs it, nothing is kept.
    cache(call("101", "quoted").set("CallerID", "\"O'Brien\" <101>"), {"101"});
    EXPECT_EQ(1u, cached().size());
    EXPECT_EQ(1u, InLog("Sqlite query error:"));
}

// The capture thread against the simulator.
class CdrCapture : public CdrTest {
  protected:
    void TearDown() override {
        if (thread_.joinable()) {  // ended the way the manager can: refuse the next login
            sim_->set_refuse(true);
            sim_->drop();
            Join();
        }
        CdrTest::TearDown();
    }

    void StartCapture(bool refuse = false) {
        mgr_sim_options o;
        o.refuse = refuse;
        sim_ = std::make_unique<mgr_sim>(o);
        ASSERT_TRUE(sim_->start());
        auto cfg = std::make_shared<config>();
        cfg->mgr_host = "127.0.0.1";
        cfg->mgr_port = sim_->port();
        cfg->mgr_user = "orlanbeck";
        cfg->mgr_passwd = "secret";
        cfg->mgr_events = "cdr";
        cfg->statesfile = states_file();
        publish_config(cfg);
        thread_ = std::thread([ended = ended_] {
            cdrmanager_thread();
            *ended = true;
        });
    }
    void Join() {
        if (wait_until([&] { return ended_->load(); }, std::chrono::seconds(15)))
            thread_.join();
        else
            thread_.detach();  // the process ends with the test run
        EXPECT_TRUE(ended_->load()) << "capture thread did not end";
    }
    // Until the thread has read the answer to its n-th login.
    void WaitLoggedIn(size_t n) {
        ASSERT_TRUE(sim_->wait_logins(static_cast<int>(n)));
        ASSERT_TRUE(wait_until([&] { return InLog("127.0.0.1: connected successfully!") >= n; }));
    }
    bool WaitCached(size_t n) {
        auto count = [] { return std::stoul(cached("count(*)").at(0)); };
        return wait_until([&] { return count() >= n; }, std::chrono::seconds(60)) && count() == n;
    }

    std::unique_ptr<mgr_sim> sim_;
    std::thread thread_;
    std::shared_ptr<std::atomic<bool>> ended_ = std::make_shared<std::atomic<bool>>(false);
};

TEST_F(CdrCapture, RoomCallBecomesOneRowWithEveryColumn) {
    StartCapture();
    WaitLoggedIn(1);
    ASSERT_EQ(1, sim_->send_cdr(call("555", "not-a-room")));
    ASSERT_EQ(1, sim_->send_cdr(call("101", "not-a-cdr").set("Event", "Newchannel")));
    auto ev = call("101").set("Event", "cDr").set("AccountCode", "guest").set("From", "101");
    ev.set("To", "004930123456").set("Cost", "0.40").set("CallClass", "2");
    ev.set("FaxData", "none").set("UserField", "ignored");
    ASSERT_EQ(1, sim_->send_cdr(ev));
    ASSERT_TRUE(WaitCached(1));
    const std::vector<std::string> row = {
        "guest|101|004930123456|from-internal|\"101\" <101>|" + ev.get("Channel") + "|" +
        ev.get("DestinationChannel") +
        "|Dial|SIP/trunk/004930123456|2024-05-01 10:00:00|"
        "2024-05-01 10:00:00|2024-05-01 10:01:05|65|65|ANSWERED|DOCUMENTATION|101|004930123456|"
        "0.40|2|none||1714557600.42"};
    EXPECT_EQ(row, cached("accountcode, src, dst, dcontext, clid, channel, dstchannel, lastapp, "
                          "lastdata, start, answer, end, duration, billsec, disposition, "
                          "amaflags, c_from, c_to, cost, callclass, faxdata, userfield, uniqueid"));
}

TEST_F(CdrCapture, LostConnectionLogsInAgainAndEarlyEventsAreDropped) {
    StartCapture();
    WaitLoggedIn(1);
    sim_->set_before_answer(call("101", "early").text());
    sim_->drop();
    WaitLoggedIn(2);
    EXPECT_EQ(1u, InLog("127.0.0.1: Not connected"));
    sim_->send_cdr(call("101", "late"));
    ASSERT_TRUE(WaitCached(1));
    EXPECT_EQ(std::vector<std::string>{"late"}, cached());
}

TEST_F(CdrCapture, RefusedLoginEndsTheThreadAtTheNextFailedRead) {
    StartCapture(/*refuse=*/true);
    Join();
    EXPECT_EQ(1, sim_->logins());
    EXPECT_EQ(1u, InLog("127.0.0.1: Not connected"));
    EXPECT_EQ(0u, InLog("connected successfully"));
}

TEST_F(CdrCapture, BurstOfTenThousandLosesNothing) {
    logger_init(dir_.file("log").c_str(), 1, 0, 0);  // errors only
    StartCapture();
    ASSERT_TRUE(sim_->wait_logins(1));
    ASSERT_TRUE(wait_until([&] { return sim_->send_cdr(call("101", "first")) == 1; }));
    ASSERT_EQ(1, sim_->send_burst(call("101", "room"), 10000));
    ASSERT_EQ(1, sim_->send_burst(call("555", "other"), 1000));
    ASSERT_EQ(1, sim_->send_cdr(call("101", "last")));
    ASSERT_TRUE(WaitCached(10002));
    EXPECT_EQ(std::vector<std::string>{"10002|101|101"},
              cached("count(distinct uniqueid), min(src), max(src)"));
    EXPECT_EQ("", read_file(dir_.file("log")));
}

}  // namespace
