// Postings across crashes, with [fixes] all: the daemon killed with SIGKILL
// (as a power cut or an out-of-memory kill would end it) and started again.
// Seeded: ORLANBECK_TEST_SEED repeats a run; the seed is printed.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <set>

#include "support_daemon.h"

using namespace std::chrono_literals;

namespace {

std::string calls_file(const daemon_run& run) {
    return run.dir().file("cdr.db");
}

// Rooms 101 to 104, billed from the table `calls` of a database of their own;
// an accepted posting sets `accepted` to `accepted_value`.
void use_calls(daemon_run& run, const std::string& accepted_value = "1") {
    ASSERT_TRUE(sqlite_exec(calls_file(run),
                            "create table calls (src, d, t, dst, billsec, posted default 0, "
                            "accepted default 0)"));
    run.set("fixes", "all", "yes")
        .set("cdr", "dbdriver", "sqlite")
        .set("cdr", "database", calls_file(run));
    for (int i = 1; i <= 4; ++i)
        run.set("rooms", "room" + std::to_string(i), std::to_string(100 + i));
    run.set("services", "billcalls",
            "cdr:select d, t, dst, billsec, -1 from calls where src='%exten%' and posted=0")
        .set("services", "billmark",
             "cdr:update calls set posted=1 where src='%exten%' and d='%date%' and t='%time%'")
        .set("services", "billok",
             "cdr:update calls set accepted=" + accepted_value +
                 " where src='%exten%' and d='%date%' and t='%time%'");
    run.console_log = false;  // the log file keeps every run's lines
}

// Call `i` (1...): its room, its second of the day and its own number.
bool add_call(const daemon_run& run, int i) {
    char values[128];
    snprintf(values, sizeof values, "'%d', '2026-11-24', '%02d:%02d:%02d', '9%04d', 60",
             101 + i % 4, i / 3600, i / 60 % 60, i % 60, i);
    return sqlite_exec(
        calls_file(run),
        std::string("insert into calls (src, d, t, dst, billsec) values (") + values + ")");
}

// The "P#" numbers under which the PMS received each number called.
std::map<std::string, std::set<std::string>> numbers_by_call(const pms_sim& pms) {
    std::map<std::string, std::set<std::string>> out;
    for (const std::string& ps : pms.frames("PS|")) {
        size_t dd = ps.find("|DD"), seq = ps.find("|P#");
        if (dd == std::string::npos || seq == std::string::npos) continue;
        out[ps.substr(dd + 3, ps.find('|', dd + 1) - dd - 3)].insert(ps.substr(seq + 3, 4));
    }
    return out;
}

std::string join(const std::vector<std::string>& row) {
    std::string out;
    for (const std::string& value : row) out += (out.empty() ? "" : " ") + value;
    return out;
}

// What a restart that did not link up left to see.
std::string start_failure(daemon_run& run) {
    std::string out = run.log() + "\nthe daemon printed:\n" + run.process().output();
    out += "\nconnections: " + std::to_string(run.pms.connections()) +
           ", running: " + (run.process().running() ? "yes" : "no") + "\n";
    const std::string task = "/proc/" + std::to_string(run.process().pid()) + "/task";
    std::error_code ec;
    for (const auto& t : std::filesystem::directory_iterator(task, ec))
        out += t.path().filename().string() + " " + read_file(t.path().string() + "/comm") + " " +
               read_file(t.path().string() + "/wchan") + " " +
               read_file(t.path().string() + "/stack") + "\n";
    return out;
}

unsigned test_seed() {
    const char* given = std::getenv("ORLANBECK_TEST_SEED");
    return given ? static_cast<unsigned>(strtoul(given, nullptr, 10)) : std::random_device{}();
}

TEST(Crash, EveryCallIsAcceptedUnderOneNumberThroughKills) {
    const unsigned seed = test_seed();
    printf("ORLANBECK_TEST_SEED=%u\n", seed);
    RecordProperty("seed", std::to_string(seed));
    std::mt19937 random(seed);
    constexpr int calls = 200;
    for (int round = 1; round <= 20; ++round) {
        SCOPED_TRACE("round " + std::to_string(round) + ", seed " + std::to_string(seed));
        daemon_run run;
        use_calls(run);
        ASSERT_TRUE(run.start()) << run.log();
        int kills = 0;
        for (int i = 1; i <= calls;) {
            for (int n = std::uniform_int_distribution<int>(1, 20)(random); n > 0 && i <= calls;
                 --n, ++i)
                ASSERT_TRUE(add_call(run, i));
            std::this_thread::sleep_for(
                std::chrono::milliseconds(std::uniform_int_distribution<int>(0, 400)(random)));
            if (random() % 3 != 0) continue;
            run.process().signal(SIGKILL);
            ++kills;
            ASSERT_TRUE(run.start()) << start_failure(run);
        }
        const auto settled = [&] {
            return run.pms.frames("PS|").size() >= calls &&
                   numbers_by_call(run.pms).size() == calls &&
                   run.states("select count(*) from outbox")[0][0] == "0" &&
                   sqlite_rows(calls_file(run),
                               "select count(*) from calls where accepted=0")[0][0] == "0";
        };
        if (!wait_until(settled, 60s)) {
            std::string left;
            for (const auto& row :
                 run.states("select id, kind, seq, waiting, mark_key, sends, link from outbox"))
                left += "outbox: " + join(row) + "\n";
            for (const auto& row :
                 sqlite_rows(calls_file(run), "select src, t, posted from calls where accepted=0"))
                left += "not accepted: " + join(row) + "\n";
            ADD_FAILURE() << kills << " kills, " << run.pms.frames("PS|").size() << " PS, "
                          << numbers_by_call(run.pms).size() << " calls posted\n"
                          << left << run.log();
        }
        std::map<std::string, std::string> call_of;  // by "P#"
        for (const auto& [number, seqs] : numbers_by_call(run.pms)) {
            EXPECT_EQ(1u, seqs.size()) << number << " was posted under several numbers";
            for (const std::string& seq : seqs) {
                EXPECT_TRUE(call_of.emplace(seq, number).second)
                    << "P#" << seq << " carried " << call_of[seq] << " and " << number;
            }
        }
        EXPECT_EQ(
            (sql_rows{{"1", std::to_string(calls)}}),
            sqlite_rows(calls_file(run), "select accepted, count(*) from calls group by accepted"))
            << "each call is marked accepted";
        if (HasFailure()) return;
    }
}

// A posting answered only after a restart (the PMS answers late, and answers
// the copy sent after the restart too) is marked once.
TEST(Crash, APostingAnsweredAfterARestartIsMarkedOnce) {
    daemon_run run;
    use_calls(run, "accepted+1");
    run.pms.set_answer(pms_sim::answer_mode::none);
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_TRUE(add_call(run, 1));
    ASSERT_TRUE(run.pms.wait_for_frame("PS|", 15s));
    // Its write is in the file (within a group's period): the copy after the
    // restart is a posting sent again.
    ASSERT_TRUE(
        wait_until([&] { return run.states("select sends from outbox") == sql_rows{{"1"}}; }));
    run.process().signal(SIGKILL);
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_TRUE(run.pms.wait_for_count("PS|", 2, 15s)) << run.log();
    for (int answer = 0; answer < 2; ++answer)
        ASSERT_TRUE(run.pms.send_record("PA|ASOK|RN102|P#0001|DA261124|TI000001|"));
    ASSERT_TRUE(run.wait_log("which waits for none: nothing is marked")) << run.log();
    EXPECT_EQ((sql_rows{{"1", "1"}}),
              sqlite_rows(calls_file(run), "select posted, accepted from calls"));
    EXPECT_EQ(2u, run.pms.frames("PS|P#0001|").size());
    std::this_thread::sleep_for(600ms);  // some billing cycles
    EXPECT_EQ(2u, run.pms.frames("PS|").size()) << "the copy goes out once";
    EXPECT_EQ(1u, run.count_log("Posting P#0001 of room 102 (90001) sent again"));
}

}  // namespace
