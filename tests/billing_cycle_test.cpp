// The billing passes in-process: one cycle at a time over a SQLite PBX
// database, with the PMS link attached to a socket pair whose far end
// collects the frames. (The call cache's pass runs in the daemon's tests.)
#include <gtest/gtest.h>
#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <utility>

#include "billing/background.h"
#include "billing/outbox.h"
#include "db/sqlite.h"
#include "logger.h"
#include "metrics.h"
#include "support.h"

using namespace std::chrono_literals;
using rows = std::vector<std::vector<std::string>>;
using texts = std::vector<std::string>;

namespace {

class BillingCycle : public ::testing::Test {
  protected:
    void SetUp() override {
        logger_init(dir.file("log").c_str(), 5, 0, 0);
        ASSERT_TRUE(exec(
            "create table calls (src, calldate, calltime, dst, billsec, cost, posted default 0);"
            "create table wakeups (exten, result, wdate, wtime, reported default 0);"
            "create table status (exten, code, reported default 0);"));
        pbx = sqlite_create_drv("pbx");
        pbx->database = dir.file("pbx.db");
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
        link.set_active();
    }
    void TearDown() override {
        close(far_end);
        logger_init(nullptr, 1, 0, 0);
    }

    bool cycle(const texts& rooms) { return billing_cycle(cfg, rooms, parts, sequence); }
    bool exec(const std::string& sql) { return sqlite_exec(dir.file("pbx.db"), sql); }
    rows pbx_rows(const std::string& sql) { return sqlite_rows(dir.file("pbx.db"), sql); }
    std::string log() { return read_file(dir.file("log")); }

    // The records received so far, without their frame bytes. Every frame is
    // written whole before the cycle returns, so nothing has to be waited for.
    texts frames() {
        char buf[4096];
        for (ssize_t n; (n = recv(far_end, buf, sizeof buf, MSG_DONTWAIT)) > 0;)
            wire.append(buf, static_cast<size_t>(n));
        texts out;
        for (size_t pos = 0, end; (end = wire.find('\x03', pos)) != std::string::npos;
             pos = end + 1)
            out.push_back(wire.substr(pos + 1, end - pos - 1));
        return out;
    }

    temp_dir dir;
    dbdriver_ptr pbx;
    config cfg;
    pms_link link;
    states_file states;
    audit_window audit;
    posting_extensions extensions;
    notifier notify;
    const billing_parts parts{link, states, audit, extensions, notify};
    posting_sequence sequence;
    int far_end = -1;
    std::string wire;
};

TEST_F(BillingCycle, QueryPassPostsEachCallOnceAndMarksIt) {
    sequence.last = 9998;  // the posting numbers go on from 9999 to 0000
    ASSERT_TRUE(
        exec("insert into calls values ('101','2009-05-14','10:20:30','5551234',125,-1,0),"
             "('101','2009-05-15','11:00:00','5559999',60,0,0),"
             "('102','2009-12-01','23:59:59','0049301',3600,498,0);"));
    ASSERT_TRUE(cycle({"101", "102", "103"}));
    EXPECT_EQ((texts{
                  "PS|P#9999|RN101|PTT|DA090514|TI102030|DU000205|DD5551234|",
                  "PS|P#0000|RN101|PTC|TA1|DA090515|TI110000|DU000100|DD5559999|",
                  "PS|P#0001|RN102|PTC|TA3|DA091201|TI235959|DU010000|DD0049301|",
              }),
              frames());
    EXPECT_EQ((rows{{"1"}, {"1"}, {"1"}}), pbx_rows("select posted from calls"));
    ASSERT_TRUE(cycle({"101", "102", "103"}));
    EXPECT_EQ(3u, frames().size()) << "marked calls are not posted again";

    // The PMS is gone (a failed write ends the link): the pass under way
    // completes, marking calls it could not send; the wake-up pass does not
    // start (nor mark), and later cycles do nothing.
    pms_link::options lost;
    lost.link_end = true;
    link.set_options(lost);
    close(std::exchange(far_end, -1));
    cfg.wakeup_result = "pbx:select result, wdate, wtime from wakeups where exten='%exten%'";
    cfg.wrmark = "pbx:update wakeups set reported=1";
    ASSERT_TRUE(
        exec("update calls set posted=0;"
             "insert into wakeups values ('101',1,'2009-05-14','06:30:00',0);"));
    ASSERT_TRUE(cycle({"101", "102"}));
    EXPECT_FALSE(link.active());
    EXPECT_NE(std::string::npos, log().find("Unable to send fias Post Simple"));
    EXPECT_EQ((rows{{"1"}, {"1"}, {"1"}}), pbx_rows("select posted from calls"));
    EXPECT_EQ((rows{{"0"}}), pbx_rows("select reported from wakeups"));
    ASSERT_TRUE(exec("update calls set posted=0"));
    ASSERT_TRUE(cycle({"101"}));
    EXPECT_EQ((rows{{"0"}}), pbx_rows("select max(posted) from calls"));
}

TEST_F(BillingCycle, WakeUpResultsAndRoomStatusAreReportedAndMarked) {
    cfg.billcalls.reset();
    cfg.wakeup_result =
        "pbx:select result, wdate, wtime from wakeups where exten='%exten%' and reported=0";
    cfg.wrmark = "pbx:update wakeups set reported=1 where exten='%exten%' and wdate='%date%'";
    cfg.room_state = "pbx:select code from status where exten='%exten%' and reported=0";
    cfg.remark = "pbx:update status set reported=1 where exten='%exten%'";
    ASSERT_TRUE(exec(
        "insert into wakeups (exten, result, wdate, wtime) values ('1',1,'2009-05-14','06:30:00'),"
        "('2',2,'2009-05-14','06:31:00'),('3',3,'2009-05-14','06:32:00'),"
        "('4',-1,'2009-05-14','06:33:00'),('5',4,'2009-05-14','06:34:00');"
        "insert into status (exten, code) values ('1',1),('2',3),('3',6),('4',7),('6',-2);"));
    ASSERT_TRUE(cycle({"1", "2", "3", "4", "5", "6"}));
    EXPECT_EQ((texts{"WA|RN1|DA090514|TI063000|ASOK|", "WA|RN2|DA090514|TI063100|ASBY|",
                     "WA|RN3|DA090514|TI063200|ASNR|", "WA|RN4|DA090514|TI063300|ASUR|",
                     "WA|RN5|DA090514|TI063400|ASRY|", "RE|RN1|RS1|", "RE|RN2|RS0|", "RE|RN3|RS6|",
                     "RE|RN4|RS0|", "RE|RN6|RS0|"}),
              frames());
    EXPECT_EQ((rows{{"5"}}), pbx_rows("select count(*) from wakeups where reported=1"));
    EXPECT_EQ((rows{{"5"}}), pbx_rows("select count(*) from status where reported=1"));
}

TEST_F(BillingCycle, PassesThatCannotGoOnGiveUpAndReleaseTheLock) {
    cfg.billcalls = "nosuch:select 1";
    EXPECT_FALSE(cycle({"1"}));
    EXPECT_NE(std::string::npos, log().find("Unable to find DB driver nosuch"));
    cfg.billcalls = "pbx";
    EXPECT_TRUE(cycle({"1"}));
    EXPECT_NE(std::string::npos, log().find("has no \":\""));

    cfg.billcalls = "pbx:select calldate, calltime, dst from calls where src='%exten%'";
    cfg.wakeup_result = "pbx:select result from wakeups where exten='%exten%'";
    cfg.wrmark = "pbx:update wakeups set reported=1";
    ASSERT_TRUE(
        exec("insert into calls values ('1','2009-05-14','10:20:30','1',1,-1,0);"
             "insert into wakeups (exten, result) values ('1',1),('2',1);"));
    ASSERT_TRUE(cycle({"1", "2"}));
    EXPECT_TRUE(frames().empty());
    EXPECT_NE(std::string::npos, log().find("No mandatory billsec field in cdr query"));
    EXPECT_NE(std::string::npos, log().find("No mandatory date field in cdr query"));
    EXPECT_EQ((rows{{"0"}, {"0"}}), pbx_rows("select reported from wakeups"));
    // The pass gave up with the driver's lock released: it can be taken again.
    auto taken = std::async(std::launch::async, [&] {
        db_lock guard(*pbx);
        return true;
    });
    ASSERT_EQ(std::future_status::ready, taken.wait_for(5s));
}

// With the outbox, what a run wrote survives it: a run killed after writing
// its postings (here: a second states_file on the same file, as a restart
// makes) sends the unanswered ones once more under their own numbers,
// continues the numbers, runs the marks left due and never posts an
// answered call again.
TEST_F(BillingCycle, TheOutboxCarriesPostingsAndMarksAcrossARestart) {
    cfg.fixes.posting = true;
    ASSERT_EQ(0, states.open(dir.file("states.db")));
    ASSERT_TRUE(
        exec("insert into calls values ('101','2009-05-14','10:20:30','5551234',125,-1,0),"
             "('102','2009-12-01','23:59:59','0049301',3600,498,0);"));
    ASSERT_TRUE(cycle({"101", "102"}));
    ASSERT_EQ(2u, frames().size());
    ASSERT_TRUE(states.outbox().settle_answer("0001", "", "", false));
    EXPECT_FALSE(states.outbox().settle_answer("0001", "", "", false))
        << "an answer settles its posting once";

    // A restart between a posting's write and its mark: the call is in the
    // outbox with its billmark due, and still unmarked in the PBX.
    states_file::outbox_entry left;
    left.kind = "PS";
    left.seq = "0003";
    left.room = "103";
    left.number = "5550000";
    left.date = "2009-05-16";
    left.time = "08:00:00";
    left.record = "PS|P#0003|RN103|DD5550000|";
    left.mark = "pbx";
    left.mark_key = "billmark";
    ASSERT_TRUE(exec("insert into calls values ('103','2009-05-16','08:00:00','5550000',5,-1,0)"));
    ASSERT_GT(states.outbox().put(left), 0);

    states_file restarted;
    ASSERT_EQ(0, restarted.open(dir.file("states.db")));
    const billing_parts after{link, restarted, audit, extensions, notify};
    posting_sequence numbers;
    numbers.last = static_cast<unsigned>(restarted.outbox().last_posting_number());
    EXPECT_EQ(3u, numbers.last);
    ASSERT_TRUE(exec("insert into calls values ('101','2009-05-17','09:00:00','5557777',9,-1,0)"));
    ASSERT_TRUE(billing_cycle(cfg, {"101", "102", "103"}, after, numbers));
    const texts sent = frames();
    EXPECT_EQ((texts{"PS|P#0002|RN102|PTC|TA3|DA091201|TI235959|DU010000|DD0049301|",
                     "PS|P#0003|RN103|DD5550000|",
                     "PS|P#0004|RN101|PTT|DA090517|TI090000|DU000009|DD5557777|"}),
              texts(sent.begin() + 2, sent.end()));
    EXPECT_NE(std::string::npos, log().find("Posting P#0002 of room 102 (0049301) sent again"));
    EXPECT_EQ((rows{{"1"}, {"1"}, {"1"}, {"1"}}), pbx_rows("select posted from calls"));
    ASSERT_TRUE(billing_cycle(cfg, {"101", "102", "103"}, after, numbers));
    EXPECT_EQ(5u, frames().size()) << "a posting goes out again once only";
    std::vector<states_file::outbox_entry> due;
    EXPECT_EQ(0, restarted.outbox().marks_due(due));
    EXPECT_TRUE(due.empty());
}

// Posting numbers coming round skip those still waiting. A pass reads which
// wait for many numbers at once; what it read holds only while the sequence
// has handed out fewer numbers than that since (a number can come to wait
// only after a whole round).
TEST(PostingNumbers, ComingRoundSkipThoseStillWaitingAsTheyAreNow) {
    temp_dir dir;
    states_file states;
    ASSERT_EQ(0, states.open(dir.file("states.db")));
    auto wait_under = [&states](const char* seq) {
        states_file::outbox_entry e;
        e.kind = "PS";
        e.seq = seq;
        e.room = "101";
        e.record = std::string("PS|P#") + seq + "|RN101|";
        return states.outbox().put(e) > 0;
    };
    ASSERT_TRUE(wait_under("0005") && wait_under("0006") && wait_under("9999"));
    posting_sequence sequence;
    sequence.last = 3;
    waiting_numbers known;
    std::vector<std::string> got;
    for (int i = 0; i < 3; ++i) got.push_back(next_free_number(sequence, states, {"0007"}, &known));
    EXPECT_EQ((std::vector<std::string>{"0004", "0008", "0009"}), got);

    // Other threads hand out numbers; meanwhile one under 0010 came to wait
    // (as after a whole round).
    for (int i = 0; i < waiting_numbers::span; ++i) sequence.next();
    ASSERT_TRUE(wait_under("0011"));
    sequence.last = 9;
    EXPECT_EQ("0010", next_free_number(sequence, states, {}, &known));
    EXPECT_EQ("0012", next_free_number(sequence, states, {}, &known));
    sequence.last = 9997;
    EXPECT_EQ("9998", next_free_number(sequence, states, {}, &known));
    EXPECT_EQ("0000", next_free_number(sequence, states, {}, &known));
}

TEST_F(BillingCycle, FilteredRowsAreMarkedFreeAndNeverPosted) {
    cfg.billmark =
        "pbx:update calls set posted='%seqno%' where src='%exten%' and "
        "calldate='%date%' and calltime='%time%'";
    cfg.posting.post_unanswered = false;
    cfg.posting.min_billsec = 10;
    cfg.posting.free_numbers = parse_free_numbers({"112", "rooms"});
    ASSERT_TRUE(
        exec("insert into calls values ('101','2009-05-14','10:00:00','5551234',125,-1,0),"
             "('101','2009-05-14','10:01:00','112',60,-1,0),"
             "('101','2009-05-14','10:02:00','102',60,-1,0),"
             "('101','2009-05-14','10:03:00','5551234',0,-1,0),"
             "('101','2009-05-14','10:04:00','5551234',9,-1,0);"));
    ASSERT_TRUE(cycle({"101", "102"}));
    ASSERT_TRUE(cycle({"101", "102"}));
    EXPECT_EQ((texts{"PS|P#0001|RN101|PTT|DA090514|TI100000|DU000205|DD5551234|"}), frames());
    EXPECT_EQ((rows{{"0001"}, {"FREE"}, {"FREE"}, {"FREE"}, {"FREE"}}),
              pbx_rows("select posted from calls order by calltime"));
    for (const char* line : {"Call of room 101 to 112 not posted: free number",
                             "Call of room 101 to 102 not posted: free number",
                             "Call of room 101 to 5551234 not posted: unanswered",
                             "Call of room 101 to 5551234 not posted: shorter than min_billsec"})
        EXPECT_EQ(1u, occurrences(log(), line)) << line;
}

}  // namespace

namespace {

// The value of a counter of the process's metrics.
double counted(const std::string& name) {
    for (const prometheus::MetricFamily& f : metrics::counters()->Collect())
        if (f.name == name && !f.metric.empty()) return f.metric[0].counter.value;
    return -1;
}

TEST_F(BillingCycle, RowsWithoutACostArePricedByTheLineValidOnTheirDateAndOthersKeepTheirs) {
    const double priced = counted("orlanbeck_calls_priced_total"),
                 unrated = counted("orlanbeck_calls_unrated_total"),
                 amount = counted("orlanbeck_posted_amount_minor_total");
    ASSERT_EQ(0, states.open(dir.file("states.db")));
    std::vector<std::string> reasons;
    cfg.rating.tariffs = "tariffs.csv";
    cfg.rating.rule.markup_hundredths = 1000;
    cfg.tariff = tariff::parse(
        "prefix,description,call_type,rate,first,next,connect,free,valid_from\n"
        "0049,Deutschland|Festnetz und Mobil,I,0.12,60,60,0.05,0,\n"
        "0049,\"Deutschland, ab Juni 2024\",I,0.20,60,60,0.05,0,2024-06-01\n",
        "tariffs.csv", reasons);
    ASSERT_TRUE(cfg.tariff);
    ASSERT_TRUE(
        exec("insert into calls values ('101','2024-05-31','23:59:00','0049891',61,-1,0),"
             "('101','2024-06-01','00:01:00','0049892',61,'',0),"
             "('101','2024-06-01','00:02:00','0049893',61,NULL,0),"
             "('101','2024-06-01','00:03:00','0049894',61,250,0),"
             "('101','2024-06-01','00:04:00','555',61,-1,0);"));
    ASSERT_TRUE(cycle({"101"}));
    // The amount as its value also without [fixes] numbers; "CT" cut to 20
    // characters with the separator a space; the own cost as without rating.
    EXPECT_EQ((texts{
                  "PS|P#0001|RN101|PTC|TA32|DA240531|TI235900|DU000101|DD0049891|PCI|"
                  "CTDeutschland Festnetz|",
                  "PS|P#0002|RN101|PTC|TA50|DA240601|TI000100|DU000101|DD0049892|PCI|"
                  "CTDeutschland, ab Juni|",
                  "PS|P#0003|RN101|PTC|TA50|DA240601|TI000200|DU000101|DD0049893|PCI|"
                  "CTDeutschland, ab Juni|",
                  "PS|P#0004|RN101|PTC|TA3|DA240601|TI000300|DU000101|DD0049894|",
                  "PS|P#0005|RN101|PTT|DA240601|TI000400|DU000101|DD555|",
              }),
              frames());
    std::vector<states_file::rating_record> kept;
    ASSERT_EQ(0, states.ratings().all(kept));
    ASSERT_EQ(3u, kept.size());
    EXPECT_EQ("tariffs.csv:2", kept[0].line);
    EXPECT_EQ("tariffs.csv:3", kept[2].line);
    EXPECT_EQ(120, kept[2].billed);
    EXPECT_EQ(50, kept[2].amount);
    EXPECT_NE(std::string::npos, log().find("No line of the tariff file prices the call to 555"));

    // unrated = zero: "TA0" without type and text; decimals 3.
    cfg.rating.unrated_zero = true;
    cfg.rating.rule.decimals = 3;
    ASSERT_TRUE(
        exec("insert into calls values ('101','2024-05-01','10:00:00','0049891',61,-1,0),"
             "('101','2024-05-01','10:01:00','555',40,-1,0);"));
    ASSERT_TRUE(cycle({"101"}));
    const texts sent = frames();
    ASSERT_EQ(7u, sent.size());
    EXPECT_EQ(
        "PS|P#0006|RN101|PTC|TA319|DA240501|TI100000|DU000101|DD0049891|PCI|"
        "CTDeutschland Festnetz|",
        sent[5]);
    EXPECT_EQ("PS|P#0007|RN101|PTC|TA0|DA240501|TI100100|DU000040|DD555|", sent[6]);
    EXPECT_EQ(priced + 4, counted("orlanbeck_calls_priced_total"));
    EXPECT_EQ(unrated + 2, counted("orlanbeck_calls_unrated_total"));
    EXPECT_EQ(amount + 32 + 50 + 50 + 319, counted("orlanbeck_posted_amount_minor_total"));
}

}  // namespace
