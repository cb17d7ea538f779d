// What the benchmark programs share: a scratch folder of their own, removed
// when the program ends.
#pragma once

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "db/sqlite.h"
#include "logger.h"

// The daemon's binary `binary` in the foreground on `config`, its output
// discarded; its pid.
inline pid_t start_daemon(const char* binary, const std::string& config) {
    const pid_t pid = fork();
    if (pid == 0) {
        freopen("/dev/null", "w", stdout);
        freopen("/dev/null", "w", stderr);
        execl(binary, binary, "-f", "-c", config.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

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

// A connection of the benchmark's own to the SQLite file `path` (the states
// file's own connections belong to the daemon's code under test).
inline dbdriver_t& bench_db(const std::string& path) {
    static dbdriver_ptr drv = [&] {
        dbdriver_ptr d = sqlite_create_drv("bench");
        d->database = path;
        return d;
    }();
    return *drv;
}

// Runs `sql` on `drv`, reconnecting first when needed; complains on failure.
inline void bench_run(dbdriver_t& drv, const std::string& sql) {
    db_lock guard(drv);
    if (drv.is_connected()) drv.reconnect();
    if (drv.query(sql.c_str()) != 0)
        fprintf(stderr, "bench: statement failed: %.200s\n", sql.c_str());
}

// The first column of the first row of `sql` on `drv`, as a number.
inline int bench_number(dbdriver_t& drv, const std::string& sql) {
    db_lock guard(drv);
    if (drv.is_connected()) drv.reconnect();
    int n = 0;
    if (drv.query(sql.c_str()) == 0 && drv.fetch_row() == 0) drv.fetch_int_field(0, &n);
    drv.free_result();
    return n;
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
