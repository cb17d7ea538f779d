// Wake-up calls at scale: 500 rooms booked for the same second, through the
// daemon itself (its binary, in the foreground, with [fixes] all and
// [wakeup] call = yes), against the PMS and Manager simulators. The figure
// is how long after the booked second the last of the 500 Originate actions
// reached the Manager simulator (target: under 2 s).
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>

#include "bench_util.h"
#include "netutil.h"
#include "sim_mgr.h"
#include "sim_pms.h"

namespace {

constexpr int kRooms = 500;

size_t originates(const mgr_sim& mgr) {
    size_t n = 0;
    for (const mgr_action& a : mgr.actions()) n += a.get("Action") == "Originate";
    return n;
}

void BM_WakeupsForOneSecond(benchmark::State& state) {
    const std::string dir = work_dir() + "/wakeups";
    mkdir(dir.c_str(), 0700);
    mgr_sim mgr;
    pms_sim pms;
    if (!mgr.start() || !pms.start()) {
        state.SkipWithError("no simulators");
        return;
    }
    std::ofstream(dir + "/orlanbeck.conf")
        << "[fixes]\nall = yes\n[pms]\nhost = 127.0.0.1\nport = " << pms.port()
        << "\nstatesfile = " << dir << "/states.db\n[logger]\nlog_level = 4\n"
        << "log_file = " << dir << "/orlanbeck.log\n[services]\ncdr_mgr_host = 127.0.0.1\n"
        << "cdr_mgr_port = " << mgr.port() << "\ncdr_mgr_user = orlanbeck\n"
        << "cdr_mgr_password = secret\n[wakeup]\ncall = yes\nattempts = 1\n";
    for (auto _ : state) {
        unlink((dir + "/states.db").c_str());
        const pid_t daemon = start_daemon(ORLANBECK_BINARY, dir + "/orlanbeck.conf");
        bool ok = pms.wait_link_active(std::chrono::seconds(30)) &&
                  mgr.wait_logins(1, std::chrono::seconds(30));
        // The booked second: far enough ahead for the 500 bookings to arrive.
        const time_t due = time(nullptr) + 8;
        struct tm local {};
        localtime_r(&due, &local);
        char when[32];
        strftime(when, sizeof when, "DA%y%m%d|TI%H%M%S", &local);
        for (int r = 0; ok && r < kRooms; ++r)
            ok = pms.send_record("WR|RN" + std::to_string(1000 + r) + "|" + when + "|");
        const auto booked = std::chrono::system_clock::from_time_t(due);
        while (ok && originates(mgr) < static_cast<size_t>(kRooms)) {
            if (std::chrono::system_clock::now() > booked + std::chrono::seconds(30)) ok = false;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        const double late =
            std::chrono::duration<double>(std::chrono::system_clock::now() - booked).count();
        state.SetIterationTime(late > 0 ? late : 0);
        state.counters["late_s"] = late;
        kill(daemon, SIGTERM);
        waitpid(daemon, nullptr, 0);
        if (!ok) state.SkipWithError("not every wake-up call was placed");
    }
    state.counters["calls"] = kRooms;
}
BENCHMARK(BM_WakeupsForOneSecond)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    return run_benchmarks(argc, argv);
}
