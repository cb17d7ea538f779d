// A compressed busy day, every correction on: 500 rooms, 2,000 check-ins and
// 2,000 check-outs, 10,000 Manager calls, 20 lost PMS links, 50 reloads and a
// night audit. Every call is accepted once, every stay reaches the PBX in
// order, and memory and descriptors do not grow after warm-up.
#include <gtest/gtest.h>
#include <signal.h>

#include <map>
#include <regex>
#include <set>

#include "support_daemon.h"

using namespace std::chrono_literals;

namespace {

TEST(Soak, ABusyDayLosesNothingAndLeavesNoGrowth) {
    constexpr int rounds = 20, stays_per_round = 100, calls_per_round = 500;
    // Calls come from the rooms 1001-1250, which stay checked in all day; guests
    // come and go in 1251-1500. Each call has its own number and start second.
    auto caller = [](int call) { return std::to_string(1001 + call % 250); };
    auto guest_room = [](int stay) { return std::to_string(1251 + stay % 250); };
    auto start = [](int call) {
        char text[32];
        snprintf(text, sizeof text, "2026-11-22 %02d:%02d:%02d", 6 + call / 3600, call / 60 % 60,
                 call % 60);
        return std::string(text);
    };
    daemon_run run;
    run.console_log = false;
    run.set("fixes", "all", "yes").set("pms", "night_audit", "yes").use_log_templates();
    run.use_manager();
    for (int i = 0; i < 250; ++i) {
        run.set("rooms", "room" + std::to_string(i + 1), caller(i));
        run.set("rooms", "room" + std::to_string(i + 251), guest_room(i));
    }
    ASSERT_TRUE(run.start()) << run.log();
    run.set("logger", "log_level", "3").write_config();  // NOTICE and up from the first reload
    const std::string proc = "/proc/" + std::to_string(run.process().pid());
    auto rss_kb = [&] {
        std::string status = read_file(proc + "/status");
        return std::stol(status.substr(status.find("VmRSS:") + 6));
    };
    const std::string hup = "sig_hup: Hangup.";
    sql_rows stays;
    int calls = 0;
    long warm_rss = 0, warm_fds = 0;
    for (int round = 0; round < rounds; ++round) {
        if (round == 10) {
            ASSERT_TRUE(run.pms.send_night_audit(true));
        }
        for (int i = round * stays_per_round; i < (round + 1) * stays_per_round; ++i) {
            const std::string rn = guest_room(i), guest = "Guest" + std::to_string(i);
            ASSERT_TRUE(run.pms.send_record("GI|RN" + rn + "|GN" + guest + "|GLEN|GSN|"));
            ASSERT_TRUE(run.pms.send_record("GO|RN" + rn + "|GN" + guest + "|GSN|"));
            stays.push_back({"checkin", rn, guest});
            stays.push_back({"checkout", rn, guest});
        }
        for (int i = 0; i < calls_per_round; ++i, ++calls)
            ASSERT_EQ(1, run.mgr.send_cdr(mgr_cdr_event::make(
                             caller(calls), "0" + std::to_string(100000000 + calls), start(calls),
                             30 + calls % 60)));
        for (int r = 0; r < (round % 2 ? 2 : 3); ++r) {
            const size_t done = run.count_log(hup);
            run.process().signal(SIGHUP);
            ASSERT_TRUE(wait_until([&] { return run.count_log(hup) > done; }, 30s));
        }
        const std::string rows = std::to_string(stays.size());
        ASSERT_TRUE(
            wait_until([&] { return run.pbx("select count(*) from log")[0][0] == rows; }, 60s));
        if (round == 10) {
            ASSERT_TRUE(run.wait_log("Night audit: postings are held"));
            ASSERT_TRUE(run.pms.send_night_audit(false));
            ASSERT_TRUE(run.wait_log("Night audit window closed"));
        }
        round % 2 ? run.pms.reset_connection() : run.pms.drop_connection();
        ASSERT_TRUE(run.pms.wait_link_active(15s)) << run.log();
        if (round == 3) warm_rss = rss_kb(), warm_fds = open_fds(run.process().pid());
    }
    EXPECT_EQ(50u, run.count_log(hup));

    // Every call: one "P#" of its own, accepted (a posting sent again after
    // a lost answer carries the same "P#"). More than 10,000 postings run the
    // numbers past 9999 to 0000: a number counts in the round of the numbers
    // sent just before it (a posting sent again may carry one of the round
    // before).
    std::map<std::string, std::set<long>> numbers_of_call;
    std::map<long, std::set<std::string>> calls_of_number;
    const std::regex fields(R"(P#([0-9]{4})\|.*\|DD([^|]*)\|)");
    ASSERT_TRUE(wait_until(
        [&] {
            numbers_of_call.clear();
            long last = 0;
            for (const std::string& ps : run.pms.frames("PS")) {
                std::smatch m;
                if (!std::regex_search(ps, m, fields)) continue;
                long n = last - last % 10000 + std::stol(m[1]);
                n += n < last - 5000 ? 10000 : n > last + 5000 ? -10000 : 0;
                last = std::max(last, n);
                numbers_of_call[m[2]].insert(n);
            }
            return numbers_of_call.size() == size_t(calls) &&
                   run.states("select count(*) from cdrcache")[0][0] == "0";
        },
        180s))
        << numbers_of_call.size() << " calls posted";
    const auto postings = run.pms.postings();
    for (const auto& [call, seqs] : numbers_of_call) {
        ASSERT_EQ(1u, seqs.size()) << "call to " << call << " posted under several P#";
        calls_of_number[*seqs.begin()].insert(call);
        char seq[8];
        snprintf(seq, sizeof seq, "%04ld", *seqs.begin() % 10000);
        EXPECT_LE(1, postings.at(seq).accepted) << call;
    }
    for (const auto& [seq, of] : calls_of_number) EXPECT_EQ(1u, of.size()) << "P#" << seq;

    EXPECT_TRUE(run.pbx("select what, exten, a from log order by rowid") == stays)
        << "check-ins and check-outs not in order";
    EXPECT_LE(rss_kb(), warm_rss * 11 / 10) << "resident memory grew from " << warm_rss;
    EXPECT_LE(open_fds(run.process().pid()), warm_fds * 11 / 10)
        << "descriptors grew from " << warm_fds;
    // The errors the scenario provokes: a fresh states file has its tables
    // made after the start-up's errors, and a posting written while the PMS
    // resets the link fails (it is sent again on the next link).
    for (const std::string& line : lines_of(run.log_after("Received Link active packet")))
        if (line.find(" ERROR[") != std::string::npos &&
            line.find("Unable to send fias Post Simple") == std::string::npos)
            ADD_FAILURE() << line;
}

}  // namespace
