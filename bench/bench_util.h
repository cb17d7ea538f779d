// What the benchmark programs share: a scratch folder of their own, removed
// when the program ends.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "logger.h"

// A fresh folder under $TMPDIR (or /tmp), made on first use.
inline std::string work_dir() {
    static const std::string dir = [] {
        const char* base = getenv("TMPDIR");
        std::string templ = std::string(base && *base ? base : "/tmp") + "/orlanbeck-bench-XXXXXX";
        std::vector<char> buf(templ.begin(), templ.end());
        buf.push_back('\0');
        return std::string(mkdtemp(buf.data()));
    }();
    return dir;
}

// The log as the daemon writes it, to a file in the work folder, at `level`
// (4 is the level the sample configuration ships).
inline void set_level(int level) {
    logger_init((work_dir() + "/orlanbeck.log").c_str(), level, 0, 0);
}

// Runs the benchmarks of the program, then removes its folder.
inline int run_benchmarks(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ec;
    std::filesystem::remove_all(work_dir(), ec);
    return 0;
}
