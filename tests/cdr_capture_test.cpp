// CDR capture: the capture thread against the Manager simulator over loopback,
// and mgr_cache_cdr on the internal database.
//
// The internal database record is process-wide and opens its file once, so
// this program uses one states file (in a temporary folder) for all its tests
// and empties `rooms` and `cdrcache` before each test. Writes to it are not
// synced to disk (a test-only setting) to keep the burst test quick.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "config.h"
#include "db/sqlite.h"
#include "logger.h"
#include "mgr/cdr.h"
#include "mgr/manager.h"
#include "sim_mgr.h"
#include "support.h"

namespace {

temp_dir* states_dir;

std::string states_file() {
    return states_dir->file("states.db");
}

class StatesFile : public ::testing::Environment {
public:
    void SetUp() override {
        states_dir = new temp_dir;  // lives until the process ends
        ASSERT_EQ(0, open_states_file(states_file().c_str()));
        std::lock_guard<dbdriver_t> guard(sqliteint);
        sqliteint.query("PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY");
        sqliteint.free_result();
    }
};
const auto* const states_env = ::testing::AddGlobalTestEnvironment(new StatesFile);

void run(const std::string& sql) {
    std::lock_guard<dbdriver_t> guard(sqliteint);
    ASSERT_EQ(0, sqliteint.query(sql.c_str())) << sql;
    sqliteint.free_result();
}

int cached_calls() {
    std::lock_guard<dbdriver_t> guard(sqliteint);
    int n = -1;
    if (sqliteint.query("select count(*) from cdrcache") == 0 && sqliteint.fetch_row() == 0)
        sqliteint.fetch_int_field(0, &n);
    sqliteint.free_result();
    return n;
}

const char* const all_columns =
    "select accountcode, src, dst, dcontext, clid, channel, dstchannel, lastapp, lastdata, "
    "start, answer, end, duration, billsec, disposition, amaflags, c_from, c_to, cost, "
    "callclass, faxdata, userfield, uniqueid from cdrcache";

class CdrTest : public ::testing::Test {
protected:
    void SetUp() override {
        logger_init(dir_.file("log").c_str(), 5, 0, 0);
        run("delete from cdrcache; delete from rooms");
    }
    void TearDown() override { logger_init(nullptr, 1, 0, 1); }

    void Rooms(std::initializer_list<const char*> rooms) {
        for (const char* r : rooms)
            run(std::string("insert into rooms (room) values ('") + r + "')");
    }
    std::string log() const { return read_file(dir_.file("log")); }
    size_t count_in_log(const std::string& text) const {
        std::string l = log();
        size_t n = 0;
        for (size_t p = l.find(text); p != std::string::npos; p = l.find(text, p + 1)) ++n;
        return n;
    }

    temp_dir dir_;
};

// ---- mgr_cache_cdr on its own

class CdrCache : public CdrTest {
protected:
    static std::unique_ptr<message> Message(const mgr_cdr_event& ev) {
        auto m = std::make_unique<message>();
        for (const auto& h : ev.headers)
            mgr_add_header(*m, "%s: %s", h.first.c_str(), h.second.c_str());
        return m;
    }
    static mgr_cdr_event Call(const char* src) {
        return mgr_cdr_event::make(src, "004930123456", "2024-05-01 10:00:00", 65);
    }
};

TEST_F(CdrCache, SourceMustEqualARoomExactly) {
    std::vector<std::string> rooms = {"1010", "10"};
    EXPECT_EQ(0, mgr_cache_cdr(*Message(Call("101")), rooms));
    EXPECT_EQ(0, cached_calls());
    EXPECT_NE(log().find("TESTING '101' ?= '1010'"), std::string::npos);

    rooms.push_back("101");
    mgr_cache_cdr(*Message(Call("101")), rooms);
    EXPECT_EQ(1, cached_calls());
    EXPECT_NE(log().find("'101' matches '101'"), std::string::npos);
}

TEST_F(CdrCache, MissingHeadersGiveEmptyColumns) {
    auto ev = Call("101");
    ev.set("From", "101").remove("UserField");
    mgr_cache_cdr(*Message(ev), {"101"});
    auto rows =
        sqlite_rows(states_file(), "select c_from, c_to, cost, faxdata, userfield from cdrcache");
    ASSERT_EQ(1u, rows.size());
    EXPECT_EQ((std::vector<std::string>{"101", "", "", "", ""}), rows[0]);
}

TEST_F(CdrCache, BadValuesCacheNothingAndAreLogged) {
    // A quote in a value breaks the statement: the driver logs it, nothing is kept.
    auto ev = Call("101");
    ev.set("CallerID", "\"O'Brien\" <101>");
    mgr_cache_cdr(*Message(ev), {"101"});
    EXPECT_EQ(0, cached_calls());
    EXPECT_NE(log().find("Sqlite query error:"), std::string::npos);

    // A statement longer than its 2048 bytes is cut, and fails the same way.
    auto big = Call("101");
    for (const char* h : {"LastData", "FaxData", "DestinationChannel"})
        big.set(h, std::string(900, 'z'));
    mgr_cache_cdr(*Message(big), {"101"});
    EXPECT_EQ(0, cached_calls());
    EXPECT_EQ(2u, count_in_log("Sqlite query error:"));
}

TEST_F(CdrCache, NoRoomsIsLogged) {
    mgr_cache_cdr(*Message(Call("101")), {});
    EXPECT_EQ(0, cached_calls());
    EXPECT_NE(log().find("No rooms or empty list iterator"), std::string::npos);
}

// ---- the capture thread against the simulator

class CdrCapture : public CdrTest {
protected:
    void TearDown() override {
        StopCapture();
        CdrTest::TearDown();
    }

    // Starts the simulator and the capture thread with `events` as the
    // login's event classes (nullptr: the configuration default).
    void StartCapture(const char* events = "cdr", bool refuse = false) {
        mgr_sim_options o;
        o.refuse = refuse;
        sim_ = std::make_unique<mgr_sim>(o);
        ASSERT_TRUE(sim_->start());
        auto cfg = std::make_shared<config>();
        cfg->mgr_host = "127.0.0.1";
        cfg->mgr_port = sim_->port();
        cfg->mgr_user = "orlanbeck";
        cfg->mgr_passwd = "secret";
        if (events) cfg->mgr_events = events;
        cfg->statesfile = states_file();
        publish_config(cfg);
        ended_ = std::make_shared<std::atomic<bool>>(false);
        thread_ = std::thread([ended = ended_] {
            cdrmanager_thread();
            *ended = true;
        });
    }

    bool Ended(std::chrono::milliseconds timeout = std::chrono::seconds(15)) {
        return wait_until([&] { return ended_ && ended_->load(); }, timeout);
    }

    // Ends the thread the way the manager can: refuse the next login.
    void StopCapture() {
        if (!thread_.joinable()) return;
        sim_->set_refuse(true);
        sim_->drop();
        if (Ended())
            thread_.join();
        else
            thread_.detach();  // reported below; the process ends with the test run
        EXPECT_TRUE(ended_->load()) << "capture thread did not end";
        sim_.reset();
    }

    void WaitLoggedIn(int n = 1) {
        ASSERT_TRUE(sim_->wait_logins(n));
        // The thread has logged in when it says so (it reads the answer after the simulator sent
        // it).
        ASSERT_TRUE(wait_until([&] {
            return count_in_log("127.0.0.1: connected successfully!") >= static_cast<size_t>(n);
        }));
    }

    bool WaitCached(int n) {
        return wait_until([&] { return cached_calls() >= n; }, std::chrono::seconds(60)) &&
               cached_calls() == n;
    }

    static mgr_cdr_event Call(const char* src, const char* uid) {
        return mgr_cdr_event::make(src, "004930123456", "2024-05-01 10:00:00", 65)
            .set("UniqueID", uid);
    }

    std::unique_ptr<mgr_sim> sim_;
    std::thread thread_;
    std::shared_ptr<std::atomic<bool>> ended_;
};

TEST_F(CdrCapture, RoomCallBecomesOneRowWithEveryColumn) {
    Rooms({"101", "102"});
    StartCapture();
    WaitLoggedIn();
    ASSERT_EQ(1, sim_->send_cdr(Call("555", "not-a-room")));
    auto ev = Call("101", "1714557600.42");
    ev.set("AccountCode", "guest").set("From", "101").set("To", "004930123456").set("Cost", "0.40");
    ev.set("CallClass", "2").set("FaxData", "none").set("UserField", "ignored");
    ASSERT_EQ(1, sim_->send_cdr(ev));
    ASSERT_TRUE(WaitCached(1));

    auto rows = sqlite_rows(states_file(), all_columns);
    ASSERT_EQ(1u, rows.size());
    EXPECT_EQ((std::vector<std::string>{"guest",
                                        "101",
                                        "004930123456",
                                        "from-internal",
                                        "\"101\" <101>",
                                        ev.get("Channel"),
                                        ev.get("DestinationChannel"),
                                        "Dial",
                                        "SIP/trunk/004930123456",
                                        "2024-05-01 10:00:00",
                                        "2024-05-01 10:00:00",
                                        "2024-05-01 10:01:05",
                                        "65",
                                        "65",
                                        "ANSWERED",
                                        "DOCUMENTATION",
                                        "101",
                                        "004930123456",
                                        "0.40",
                                        "2",
                                        "none",
                                        "",
                                        "1714557600.42"}),
              rows[0]);
    EXPECT_NE(log().find("Adding cdrmanager rooms room 102"), std::string::npos);
    EXPECT_NE(log().find("127.0.0.1 got: Event: Cdr"), std::string::npos);
}

TEST_F(CdrCapture, EventNameInAnyCaseIsACdr) {
    Rooms({"101"});
    StartCapture();
    WaitLoggedIn();
    sim_->send_cdr(Call("101", "a").set("Event", "cDr"));
    sim_->send_cdr(Call("101", "b").set("Event", "Newchannel"));
    sim_->send_cdr(Call("101", "c").set("Event", "CDR"));
    ASSERT_TRUE(WaitCached(2));
    auto rows = sqlite_rows(states_file(), "select uniqueid from cdrcache order by uniqueid");
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"a"}, {"c"}}), rows);
}

TEST_F(CdrCapture, EventsBeforeTheLoginAnswerAreDropped) {
    Rooms({"101"});
    StartCapture();
    // Too late for the first login: set it for the next one after a drop.
    WaitLoggedIn();
    sim_->set_before_answer(Call("101", "early").text());
    sim_->drop();
    WaitLoggedIn(2);
    sim_->send_cdr(Call("101", "late"));
    ASSERT_TRUE(WaitCached(1));
    auto rows = sqlite_rows(states_file(), "select uniqueid from cdrcache");
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"late"}}), rows);
}

TEST_F(CdrCapture, LostConnectionLogsInAgain) {
    Rooms({"101"});
    StartCapture();
    WaitLoggedIn();
    sim_->drop();
    WaitLoggedIn(2);
    EXPECT_EQ(1u, count_in_log("127.0.0.1: Not connected"));
    EXPECT_EQ(2, sim_->logins());
    sim_->send_cdr(Call("101", "after"));
    EXPECT_TRUE(WaitCached(1));
}

TEST_F(CdrCapture, RefusedLoginEndsTheThreadAtTheNextFailedRead) {
    Rooms({"101"});
    StartCapture("cdr", /*refuse=*/true);
    ASSERT_TRUE(Ended());
    thread_.join();
    EXPECT_EQ(1, sim_->logins());
    EXPECT_EQ(1u, count_in_log("127.0.0.1: Not connected"));
    EXPECT_EQ(0u, count_in_log("connected successfully"));
}

TEST_F(CdrCapture, DefaultLoginAsksForCallEventsOnly) {
    Rooms({"101"});
    StartCapture(nullptr);
    ASSERT_TRUE(sim_->wait_logins(1));
    auto logins = sim_->login_texts();
    ASSERT_EQ(1u, logins.size());
    EXPECT_EQ("Action: Login\r\nUsername: orlanbeck\r\nSecret: secret\r\nEvents: call\r\n\r\n",
              logins[0]);
    // The exchange sends no Cdr events for "call"; without the filter they are cached.
    EXPECT_EQ(0, sim_->send_cdr(Call("101", "filtered")));
    sim_->set_filter(false);
    EXPECT_EQ(1, sim_->send_cdr(Call("101", "unfiltered")));
    EXPECT_TRUE(WaitCached(1));
}

TEST_F(CdrCapture, UnknownHostEndsTheThread) {
    auto cfg = std::make_shared<config>();
    cfg->mgr_host = "";
    cfg->statesfile = states_file();
    publish_config(cfg);
    cdrmanager_thread();  // returns at once
    EXPECT_NE(log().find("Error initiating manager. exiting manager thread"), std::string::npos);
}

TEST_F(CdrCapture, BurstOfTenThousandLosesNothing) {
    Rooms({"101"});
    logger_init(dir_.file("log").c_str(), 1, 0, 0);  // errors only
    StartCapture();
    ASSERT_TRUE(sim_->wait_logins(1));
    ASSERT_TRUE(wait_until([&] { return sim_->send_cdr(Call("101", "first")) == 1; }));
    ASSERT_EQ(1, sim_->send_burst(Call("101", "room"), 10000));
    ASSERT_EQ(1, sim_->send_burst(Call("555", "other"), 1000));
    ASSERT_EQ(1, sim_->send_cdr(Call("101", "last")));
    ASSERT_TRUE(WaitCached(10002)) << cached_calls();
    auto rows = sqlite_rows(states_file(),
                            "select count(distinct uniqueid), min(src), max(src) from cdrcache");
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"10002", "101", "101"}}), rows);
    EXPECT_EQ("", log());
}

}  // namespace
