// Call rating with a tariff file of 100,000 lines: loading it, pricing one
// call, and the memory the table holds.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdio>
#include <random>

#include "bench_util.h"
#include "billing/pricing.h"
#include "rating/tariff.h"

namespace {

constexpr int kLines = 100000;

// 100,000 lines: 999 country prefixes of 3 to 5 digits and the rest of 6
// to 9 digits below "00", a fifth of them with a second, dated line; 2,000
// distinct descriptions, some quoted.
const std::string& tariff_file() {
    static const std::string path = [] {
        std::string p = work_dir() + "/tariffs.csv";
        FILE* f = fopen(p.c_str(), "w");
        fprintf(f, "prefix,description,call_type,rate,first,next,connect,free,valid_from\n");
        std::mt19937 rng(34);
        int written = 0;
        for (int n = 0; written < kLines; n++) {
            // Distinct: n * 7919 mod a prime above every n is one-to-one.
            const std::string prefix =
                "00" + std::to_string(n < 999 ? n + 1 : 1000 + n * 7919LL % 1000003);
            const int d = static_cast<int>(rng() % 2000);
            // A comma only inside quotes.
            const char* text =
                d % 7 == 0 ? "\"Destination %d, zone %d\"" : "Destination %d zone %d";
            char description[64];
            snprintf(description, sizeof description, text, d, d % 9);
            fprintf(f, "%s,%s,%c,0.%04u,%d,%d,0.05,5,\n", prefix.c_str(), description, 'A' + d % 26,
                    static_cast<unsigned>(rng() % 10000), n % 2 ? 60 : 30, n % 2 ? 60 : 6);
            written++;
            if (n % 5 == 0 && written < kLines) {
                fprintf(f, "%s,Destination %d,%c,0.%04u,60,60,0,0,2025-0%d-01\n", prefix.c_str(), d,
                        'A' + d % 26, static_cast<unsigned>(rng() % 10000), 1 + n % 9);
                written++;
            }
        }
        fclose(f);
        return p;
    }();
    return path;
}

// The table, loaded once for the lookups.
tariff_ptr table() {
    static const tariff_ptr t = [] {
        std::vector<std::string> reasons;
        tariff_ptr loaded = tariff::load(tariff_file(), reasons);
        if (!loaded)
            fprintf(stderr, "the generated file is refused: %s\n",
                    reasons.empty() ? "?" : reasons.front().c_str());
        return loaded;
    }();
    return t;
}

void BM_LoadTariff100k(benchmark::State& state) {
    tariff_file();
    size_t lines = 0;
    double bytes = 0;
    for (auto _ : state) {
        const size_t before = mallinfo2().uordblks;
        std::vector<std::string> reasons;
        tariff_ptr t = tariff::load(tariff_file(), reasons);
        bytes = static_cast<double>(mallinfo2().uordblks - before);
        if (!t) {
            state.SkipWithError(reasons.empty() ? "refused" : reasons.front().c_str());
            return;
        }
        lines = t->size();
    }
    state.counters["lines"] = static_cast<double>(lines);
    state.counters["table_MB"] = bytes / (1024 * 1024);
}
BENCHMARK(BM_LoadTariff100k)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_PriceCall(benchmark::State& state) {
    tariff_ptr t = table();
    if (!t) {
        state.SkipWithError("no table");
        return;
    }
    config cfg;
    cfg.rating.tariffs = tariff_file();
    cfg.tariff = t;
    std::mt19937 rng(7);
    std::vector<std::string> numbers;
    for (int i = 0; i < 1024; i++) {
        char n[24];
        snprintf(n, sizeof n, "00%010u%04u", static_cast<unsigned>(rng() % 4000000000u),
                 static_cast<unsigned>(rng() % 10000));
        numbers.push_back(n);
    }
    size_t i = 0, priced = 0;
    for (auto _ : state) {
        const call_price p = price_call(cfg, numbers[i++ & 1023], 125, 20250601);
        priced += p.outcome == call_price::priced;
        benchmark::DoNotOptimize(p.amount);
    }
    state.counters["priced_share"] =
        static_cast<double>(priced) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_PriceCall);

}  // namespace

BENCHMARK_MAIN();
