// [posting] immediate: the time from a Cdr event reaching the daemon's
// Manager session to its "PS" on the PMS link, for 1,000 calls of one room
// spread evenly over 20 seconds (argument: the spread in seconds). The
// capture, the cache and the posting are the daemon's own code, logged in to
// the Manager simulator; the PMS link is a socket pair whose far end is read
// by a thread of the benchmark. Counters: p50, p99 and max in ms.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>

#include "bench_util.h"
#include "billing/background.h"
#include "mgr/cdr.h"
#include "sim_mgr.h"

namespace {

using clock_type = std::chrono::steady_clock;

void BM_ImmediatePosting(benchmark::State& state) {
    set_level(4);
    const int calls = 1000;
    const auto spread = std::chrono::seconds(state.range(0));
    for (auto _ : state) {
        const std::string path = work_dir() + "/immediate.db";
        std::filesystem::remove(path);
        states_file states;
        if (states.open(path) != 0 || states.rooms().store("101", false) != 0) {
            state.SkipWithError("states file");
            return;
        }
        int sv[2];
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv);
        pms_link link;
        link.attach(sv[0]);
        link.set_active();
        audit_window audit;
        posting_extensions extensions;
        notifier notify;
        posting_sequence sequence;
        const billing_parts parts{link, states, audit, extensions, notify, &sequence};
        auto cfg = std::make_shared<config>();
        cfg->use_manager = 1;
        cfg->posting.immediate = true;

        std::mutex mutex;
        std::map<std::string, clock_type::time_point> sent;  // by destination
        std::vector<double> latencies;
        std::thread reader([&] {
            std::string wire;
            char buf[4096];
            for (ssize_t n; latencies.size() < static_cast<size_t>(calls) &&
                            (n = read(sv[1], buf, sizeof buf)) > 0;) {
                const auto now = clock_type::now();
                wire.append(buf, static_cast<size_t>(n));
                for (size_t end; (end = wire.find('\x03')) != std::string::npos;
                     wire.erase(0, end + 1)) {
                    const size_t dd = wire.find("|DD");
                    if (dd == std::string::npos || dd > end) continue;
                    const std::string dst = wire.substr(dd + 3, wire.find('|', dd + 3) - dd - 3);
                    std::lock_guard<std::mutex> g(mutex);
                    latencies.push_back(
                        std::chrono::duration<double, std::milli>(now - sent[dst]).count());
                }
            }
        });

        mgr_sim sim;
        sim.start();
        mgr_session session({"127.0.0.1", sim.port(), "orlanbeck", "secret", "cdr"}, states,
                            notify);
        attach_cdr_capture(
            session, cfg, states,
            [&](const std::vector<std::string>& rooms, const std::vector<std::string>& all) {
                post_cached_now(*cfg, rooms, all, parts);
            });
        session.start();
        sim.wait_logins(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const auto start = clock_type::now();
        for (int i = 0; i < calls; ++i) {
            std::this_thread::sleep_until(start + spread * i / calls);
            const std::string dst = "00493012" + std::to_string(10000 + i);
            char start_time[32];  // each call its own start second
            snprintf(start_time, sizeof start_time, "2024-05-01 10:%02d:%02d", i / 60 % 60, i % 60);
            mgr_cdr_event ev = mgr_cdr_event::make("101", dst, start_time, 60);
            ev.set("UniqueID", "1714557600." + std::to_string(i));
            {
                std::lock_guard<std::mutex> g(mutex);
                sent[dst] = clock_type::now();
            }
            sim.send_cdr(ev);
        }
        const auto deadline = clock_type::now() + std::chrono::seconds(10);
        while (clock_type::now() < deadline) {
            std::lock_guard<std::mutex> g(mutex);
            if (latencies.size() >= static_cast<size_t>(calls)) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        session.stop(clock_type::now() + std::chrono::seconds(3));
        shutdown(sv[1], SHUT_RDWR);
        reader.join();
        close(sv[1]);
        std::sort(latencies.begin(), latencies.end());
        if (latencies.size() < static_cast<size_t>(calls)) {
            state.SkipWithError("not every call was posted");
            return;
        }
        state.counters["p50_ms"] = latencies[latencies.size() / 2];
        state.counters["p99_ms"] = latencies[latencies.size() * 99 / 100];
        state.counters["max_ms"] = latencies.back();
    }
}
BENCHMARK(BM_ImmediatePosting)
    ->Arg(20)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
