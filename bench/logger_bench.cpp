// One log line written to the log file, as the daemon's threads write them
// at level 5, and one DEBUG line below the level (not written).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "logger.h"

namespace {

std::string work_dir() {
    static std::string dir = [] {
        const char* base = getenv("TMPDIR");
        std::string templ = std::string(base && *base ? base : "/tmp") + "/orlanbeck-bench-XXXXXX";
        std::vector<char> buf(templ.begin(), templ.end());
        buf.push_back('\0');
        return std::string(mkdtemp(buf.data()));
    }();
    return dir;
}

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
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ec;
    std::filesystem::remove_all(work_dir(), ec);
    return 0;
}
