// A database resync of a 2,000-room hotel whose check-in sends three Manager
// actions per room, through the daemon itself (its binary, in the foreground,
// with [fixes] ordered_records and the shipped log level): from the PMS's
// link start to the last of the 6,000 actions answered by the Manager
// simulator. The PMS simulator answers the daemon's "DR" with 2,000 guests.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "bench_util.h"
#include "netutil.h"
#include "sim_mgr.h"
#include "sim_pms.h"

namespace {

constexpr int kRooms = 2000;
constexpr int kStepsPerRoom = 3;

void BM_ResyncWithActionSteps(benchmark::State& state) {
    const std::string dir = work_dir() + "/resync";
    mkdir(dir.c_str(), 0700);
    mgr_sim mgr;
    pms_sim pms;
    std::vector<pms_sim::guest> guests;
    for (int r = 0; r < kRooms; ++r)
        guests.push_back({std::to_string(1000 + r), "Guest " + std::to_string(r)});
    pms.set_occupied(guests);
    if (!mgr.start() || !pms.start()) {
        state.SkipWithError("no simulators");
        return;
    }
    std::ofstream(dir + "/orlanbeck.conf")
        << "[fixes]\nall = yes\n[pms]\nhost = 127.0.0.1\nport = " << pms.port()
        << "\nstatesfile = " << dir << "/states.db\nresync = yes\n[logger]\nlog_level = 4\n"
        << "log_file = " << dir << "/orlanbeck.log\n[services]\ncdr_mgr_host = 127.0.0.1\n"
        << "cdr_mgr_port = " << mgr.port() << "\ncdr_mgr_user = orlanbeck\n"
        << "cdr_mgr_password = secret\n"
        << "checkin = ami:DBPut|Family=HOTEL/%exten%|Key=cidname|Val=%name%\n"
        << "checkin.2 = ami:DBPut|Family=HOTEL/%exten%|Key=cos|Val=guest\n"
        << "checkin.3 = ami:DBDel|Family=HOTEL/%exten%|Key=dnd\n";
    const size_t total = static_cast<size_t>(kRooms) * kStepsPerRoom;
    for (auto _ : state) {
        const pid_t daemon = start_daemon(ORLANBECK_BINARY, dir + "/orlanbeck.conf");
        const bool linked = pms.wait_link_active(std::chrono::seconds(30));
        const auto from = std::chrono::steady_clock::now();
        const bool done = linked && mgr.wait_actions(total, std::chrono::seconds(120));
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count());
        kill(daemon, SIGTERM);
        waitpid(daemon, nullptr, 0);
        if (!done) state.SkipWithError("not every action arrived");
    }
    state.counters["actions"] = static_cast<double>(total);
}
BENCHMARK(BM_ResyncWithActionSteps)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    return run_benchmarks(argc, argv);
}
