// CDR capture: the call cache of the states file, and the capture on a Manager session
// against the Manager simulator over loopback.
//
// One states file serves all the tests of this program; `rooms` and
// `cdrcache` are emptied before each.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <functional>
#include <memory>

#include "logger.h"
#include "mgr/cdr.h"
#include "sim_mgr.h"
#include "states/states.h"
#include "support.h"

using namespace std::chrono_literals;

namespace {

temp_dir suite_dir;
const std::string states_path = suite_dir.file("states.db");
states_file states;

// The rows of `columns` in cdrcache, each as "value|value|...".
std::vector<std::string> cached(const char* columns = "uniqueid") {
    std::vector<std::string> rows;
    for (const auto& row : sqlite_rows(
             states_path, std::string("select ") + columns + " from cdrcache order by rowid")) {
        rows.emplace_back();
        for (const std::string& v : row) rows.back() += (rows.back().empty() ? "" : "|") + v;
    }
    return rows;
}

mgr_cdr_event call(const char* src, const char* uid = "1714557600.42") {
    return mgr_cdr_event::make(src, "004930123456", "2024-05-01 10:00:00", 65).set("UniqueID", uid);
}

class Capture : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_EQ(0, states.open(states_path)); }
    void SetUp() override {
        logger_init(dir.file("log").c_str(), 5, 0, 0);
        ASSERT_TRUE(sqlite_exec(states_path,
                                "delete from cdrcache; delete from rooms; "
                                "insert into rooms (room) values ('101')"));
    }
    void TearDown() override {
        if (session) {  // waiting on a quiet Manager, it ends as soon as it is told to
            EXPECT_TRUE(session->stop(std::chrono::steady_clock::now() + 5s))
                << "capture did not stop";
        }
        logger_init(nullptr, 1, 0, 1);
    }
    size_t InLog(const std::string& text) const {
        return occurrences(read_file(dir.file("log")), text);
    }
    // With `actions` the session sends actions too; `before` runs before it
    // starts.
    void StartCapture(bool refuse = false, bool actions = false,
                      const std::function<void()>& before = {}) {
        mgr_sim_options o;
        o.refuse = refuse;
        sim = std::make_unique<mgr_sim>(o);
        ASSERT_TRUE(sim->start());
        auto cfg = std::make_shared<config>();
        mgr_session::settings s{"127.0.0.1", sim->port(), "orlanbeck", "secret", "cdr"};
        s.actions = actions;
        session = std::make_unique<mgr_session>(s, states, notify);
        attach_cdr_capture(*session, cfg, states);
        if (before) before();
        session->start();
    }
    // A DBPut of `value`, waiting `timeout` for its answer.
    mgr_session::answer Put(const std::string& key, const std::string& value,
                            std::chrono::milliseconds timeout = 5s) {
        return session->action("101", "DBPut", {{"Family", "f"}, {"Key", key}, {"Val", value}},
                               timeout);
    }
    void WaitLoggedIn(size_t n) {
        ASSERT_TRUE(sim->wait_logins(static_cast<int>(n)));
        ASSERT_TRUE(wait_until([&] { return InLog("127.0.0.1: connected successfully!") >= n; }));
    }
    bool WaitCached(size_t n) {
        auto count = [] { return std::stoul(cached("count(*)").at(0)); };
        return wait_until([&] { return count() >= n; }, 60s) && count() == n;
    }

    temp_dir dir;
    notifier notify;
    std::unique_ptr<mgr_sim> sim;
    std::unique_ptr<mgr_session> session;
};

TEST_F(Capture, OnlyRoomCallsAreCachedWithEveryColumn) {
    StartCapture();
    WaitLoggedIn(1);
    ASSERT_EQ(1, sim->send_cdr(call("555", "not-a-room")));
    ASSERT_EQ(1, sim->send_cdr(call("101", "not-a-cdr").set("Event", "Newchannel")));
    auto ev = call("101").set("Event", "cDr").set("AccountCode", "guest").set("From", "101");
    ev.set("To", "004930123456").set("Cost", "0.40").set("CallClass", "2");
    ev.set("FaxData", "none").set("UserField", "ignored");
    ASSERT_EQ(1, sim->send_cdr(ev));
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

// A wake-up booking and an outbox record change together, or not at all.
TEST_F(Capture, ABookingAndARecordChangeInOneTransaction) {
    wakeup_booking booking;
    booking.room = "101";
    std::vector<wakeup_booking*> bookings{&booking};
    ASSERT_EQ(0, states.wakeups().save(bookings));
    outbox_entry report;
    report.kind = "WA";
    report.room = "101";
    report.record = "WA|RN101|ASOK|";
    auto both = [&](bool commit) {
        states_transaction tx(states.own_connection());
        EXPECT_EQ(0, states.wakeups().remove(tx, booking.id));
        EXPECT_GT(states.outbox().put(tx, report), 0);
        if (commit) {
            EXPECT_EQ(0, tx.commit());
        }
    };
    auto counts = [&] {
        std::vector<wakeup_booking> left;
        std::vector<outbox_entry> due;
        states.wakeups().all(left);
        states.outbox().to_send(1, due);
        return std::make_pair(left.size(), due.size());
    };
    both(false);
    EXPECT_EQ(std::make_pair(size_t{1}, size_t{0}), counts());
    both(true);
    EXPECT_EQ(std::make_pair(size_t{0}, size_t{1}), counts());

    // Inside the sender's open group the transaction is a savepoint: undone
    // alone, or committed together with the group (seen from elsewhere).
    ASSERT_EQ(0, states.wakeups().save(bookings));
    std::vector<outbox_entry> due;
    states.outbox().to_send(1, due);
    ASSERT_EQ(1u, due.size());
    ASSERT_EQ(0, states.outbox().written(due[0].id, 1, true));  // it leaves, in the group
    const std::string left = "select count(*) from outbox where id=" + std::to_string(due[0].id);
    EXPECT_EQ(sql_rows{{"1"}}, sqlite_rows(states_path, left));
    both(false);
    EXPECT_EQ(sql_rows{{"1"}}, sqlite_rows(states_path, left));
    both(true);
    EXPECT_EQ(sql_rows{{"0"}}, sqlite_rows(states_path, left));
    EXPECT_EQ(sql_rows{{"0"}}, sqlite_rows(states_path, "select count(*) from wakeups"));
    EXPECT_EQ(std::make_pair(size_t{0}, size_t{1}), counts());
}

// A new file: 0640 whatever the umask, with its -wal and -shm; with
// quiet_checks (any [fixes] key) its first start logs no ERROR.
TEST_F(Capture, ANewStatesFileIsPrivateAndQuietlyMade) {
    const mode_t before = umask(0);
    for (bool quiet : {true, false}) {
        const std::string path = dir.file(quiet ? "quiet.db" : "plain.db");
        states_file fresh;
        ASSERT_EQ(0, fresh.open(path, quiet));
        for (const char* suffix : {"", "-wal", "-shm"}) {
            struct stat st {};
            ASSERT_EQ(0, stat((path + suffix).c_str(), &st)) << suffix;
            EXPECT_EQ(0640u, st.st_mode & 07777) << suffix;
        }
        EXPECT_EQ(quiet ? 0u : 2u, InLog("ERROR"));
    }
    umask(before);
    EXPECT_EQ(1u, InLog("Sqlite query error: no such table: rooms"));
}

TEST_F(Capture, LostConnectionLogsInAgainAndABurstLosesNothing) {
    StartCapture();
    WaitLoggedIn(1);
    sim->set_before_answer(call("101", "early").text());  // before the login is answered: dropped
    sim->drop();
    WaitLoggedIn(2);
    EXPECT_EQ(1u, InLog("127.0.0.1: Not connected"));
    logger_init(dir.file("log").c_str(), 1, 0, 0);  // errors only
    ASSERT_EQ(1, sim->send_burst(call("101", "room"), 1000));
    ASSERT_EQ(1, sim->send_burst(call("555", "other"), 100));
    ASSERT_EQ(1, sim->send_cdr(call("101", "last")));
    ASSERT_TRUE(WaitCached(1001));
    EXPECT_EQ(std::vector<std::string>{"1001|101|101"},
              cached("count(distinct uniqueid), min(src), max(src)"));
}

// An action the Manager does not take in time ends the connection; what
// went out of it is never completed on the next one.
TEST_F(Capture, AWriteThatCannotFinishEndsTheConnection) {
    StartCapture(false, /*actions=*/true);
    WaitLoggedIn(1);
    sim->set_reading(false);
    const std::string big(12 << 20, 'v');  // more than the sockets hold
    EXPECT_EQ(mgr_session::answer::queued, Put("big", big, 1s).result);
    EXPECT_EQ(1u, InLog("Manager: the action DBPut for room 101 could not be written in time"));
    sim->set_reading(true);
    WaitLoggedIn(2);
    Put("small", "1");  // sent, or queued for the new connection
    ASSERT_TRUE(wait_until([&] { return sim->db_get("f", "small").has_value(); }));
    for (const mgr_action& a : sim->actions())
        EXPECT_EQ(a.get("Key") == "big" ? big.size() : 1u, a.get("Val").size());
}

// The queue sent after a login does not hold up the reader: calls are
// cached while the Manager takes none of it.
TEST_F(Capture, EventsAreReadWhileTheQueueIsSent) {
    const int queued = 1500;
    const std::string value(3000, 'q');            // together more than the sockets hold
    std::vector<states_file::queued_action> left;  // by other tests
    states.actions().all(left);
    for (const states_file::queued_action& q : left) states.actions().done(q.id);
    StartCapture(false, /*actions=*/true, [&] {
        for (int i = 0; i < queued; ++i)
            ASSERT_EQ(mgr_session::answer::queued, Put(std::to_string(i), value).result);
    });
    sim->set_reading(false, /*after_login=*/true);
    WaitLoggedIn(1);
    for (const char* uid : {"r1", "r2", "r3"}) ASSERT_EQ(1, sim->send_cdr(call("101", uid)));
    ASSERT_TRUE(WaitCached(3));
    EXPECT_TRUE(sim->actions().empty());
    sim->set_reading(true);
    ASSERT_TRUE(sim->wait_actions(queued, 30s));
    const std::vector<mgr_action> sent = sim->actions();
    ASSERT_EQ(static_cast<size_t>(queued), sent.size());
    for (int i = 0; i < queued; ++i) {
        EXPECT_EQ(std::to_string(i), sent[static_cast<size_t>(i)].get("Key"));
        EXPECT_EQ(value, sent[static_cast<size_t>(i)].get("Val"));
    }
}

TEST_F(Capture, RefusedLoginEndsTheThread) {
    StartCapture(/*refuse=*/true);
    ASSERT_TRUE(session->ended_by(std::chrono::steady_clock::now() + 15s));
    EXPECT_EQ(1, sim->logins());
    EXPECT_EQ(1u, InLog("127.0.0.1: Not connected"));
    EXPECT_EQ(0u, InLog("connected successfully"));
}

}  // namespace
