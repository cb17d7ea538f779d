// One log line written to the log file, as the daemon's threads write them
// at level 5, and one DEBUG line below the level (not written).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_util.h"
#include "logger.h"

namespace {

void BM_LogLineToFile(benchmark::State& state) {
    logger_init((work_dir() + "/orlanbeck.log").c_str(), 5, 0, 0);
    const std::string room = "1204";
    for (auto _ : state) LOG(L_DEBUG, "Have something in cache for room %s\n", room.c_str());
}
BENCHMARK(BM_LogLineToFile)->Iterations(300000);

void BM_LogLineNotWritten(benchmark::State& state) {
    logger_init((work_dir() + "/orlanbeck.log").c_str(), 4, 0, 0);
    const std::string room = "1204";
    for (auto _ : state) LOG(L_DEBUG, "Have something in cache for room %s\n", room.c_str());
}
BENCHMARK(BM_LogLineNotWritten);

}  // namespace

int main(int argc, char** argv) {
    return run_benchmarks(argc, argv);
}
