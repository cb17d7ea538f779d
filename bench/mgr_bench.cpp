// Manager client throughput: mgr_read over loopback TCP, and the rate at
// which mgr_cache_cdr stores calls in the internal database.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "db/sqlite.h"
#include "logger.h"
#include "states/states.h"
#include "mgr/cdr.h"
#include "mgr/manager.h"
#include "netutil.h"
#include "sim_mgr.h"

namespace {

mgr_cdr_event sample_call(const char* src) {
    return mgr_cdr_event::make(src, "004930123456", "2024-05-01 10:00:00", 65)
        .set("From", src)
        .set("To", "004930123456")
        .set("Cost", "0.40");
}

// Reads Cdr events that a writer thread pushes through a loopback connection.
void BM_mgr_read(benchmark::State& state) {
    int port = 0;
    int listener = listen_loopback(0, &port);
    mansession s;
    s.fd = connect_loopback(port);
    int server = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (listener < 0 || s.fd < 0 || server < 0) {
        state.SkipWithError("no loopback connection");
        return;
    }
    const std::string text = sample_call("101").text();
    const auto total = static_cast<long>(state.max_iterations);
    std::thread writer([&] {
        std::string chunk;
        for (long i = 0; i < total; ++i) {
            chunk += text;
            if (chunk.size() >= 64 * 1024 || i + 1 == total) {
                if (!write_all(server, chunk)) return;
                chunk.clear();
            }
        }
    });
    auto m = std::make_unique<message>();
    for (auto _ : state) {
        m->clear();
        if (mgr_read(s, *m) != 1) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(m->hdrcount);
    }
    writer.join();
    close(server);
    close(listener);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.counters["messages"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_mgr_read)->UseRealTime();

// The internal database in a temporary folder, opened once for the program.
struct states_file {
    std::string dir;
    bool ok = false;
    states_file() {
        const char* base = getenv("TMPDIR");
        std::string templ = std::string(base && *base ? base : "/tmp") + "/mgr-bench-XXXXXX";
        std::vector<char> buf(templ.begin(), templ.end());
        buf.push_back('\0');
        if (!mkdtemp(buf.data())) return;
        dir = buf.data();
        ok = open_states_file(dir + "/states.db") == 0;
    }
    ~states_file() {
        std::error_code ec;
        if (!dir.empty()) std::filesystem::remove_all(dir, ec);
    }
};

// One call per iteration against a room list of range(0) rooms; the caller's
// room is the last of the list (range(1) = 1) or none of them (0: no insert).
void BM_mgr_cache_cdr(benchmark::State& state) {
    static states_file db;
    if (!db.ok) {
        state.SkipWithError("cannot open the states file");
        return;
    }
    std::vector<std::string> rooms;
    for (int i = 0; i < state.range(0) - 1; ++i) rooms.push_back(std::to_string(1000 + i));
    rooms.push_back("101");
    auto m = std::make_unique<message>();
    for (const auto& h : sample_call(state.range(1) ? "101" : "555").headers)
        mgr_add_header(*m, "%s: %s", h.first.c_str(), h.second.c_str());
    for (auto _ : state) mgr_cache_cdr(*m, rooms);
    state.counters["calls"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_mgr_cache_cdr)
    ->ArgNames({"rooms", "insert"})
    ->Args({10, 1})
    ->Args({1000, 1})
    ->Args({1000, 0});

}  // namespace

int main(int argc, char** argv) {
    logger_init(nullptr, 0, 0, 1);  // the benchmarks measure work, not logging
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
