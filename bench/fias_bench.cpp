// Parsing and writing FIAS record texts.
#include <benchmark/benchmark.h>

#include "fias/codec.h"
#include "fias/packet.h"

namespace {

void BM_ParseGuestCheckin(benchmark::State& state) {
    const char line[] = "GI|RN101|GNSmith|GLEN|GSN|\x03";
    for (auto _ : state) {
        fias_packet_ptr p = fias_parse_packet(line, sizeof line - 1);
        benchmark::DoNotOptimize(p.get());
    }
}
BENCHMARK(BM_ParseGuestCheckin);

void BM_ParsePosting(benchmark::State& state) {
    const char line[] =
        "PS|P#1234|RN101|PTC|TA498|DA250109|TI101500|DU000325|DD0123456789|PC1|CT0|\x03";
    for (auto _ : state) {
        fias_packet_ptr p = fias_parse_packet(line, sizeof line - 1);
        benchmark::DoNotOptimize(p.get());
    }
}
BENCHMARK(BM_ParsePosting);

void BM_WritePosting(benchmark::State& state) {
    fias_packet_ptr ps = fias_create_packet(FIAS_PS);
    auto set_text = [&](const char* name, const char* text) {
        fias_value_t v;
        v.str = text;
        fias_set_packet_field(ps.get(), name, &v);
    };
    set_text("P#", "1234");
    set_text("RN", "101");
    set_text("PT", "C");
    set_text("DD", "0123456789");
    set_text("PC", "1");
    set_text("CT", "0");
    fias_value_t v;
    v.ival = 498;
    fias_set_packet_field(ps.get(), "TA", &v);
    v = {};
    v.date = {25, 1, 9, 0};
    fias_set_packet_field(ps.get(), "DA", &v);
    v = {};
    v.time = {10, 15, 0, 0};
    fias_set_packet_field(ps.get(), "TI", &v);
    v = {};
    v.time = {0, 3, 25, 0};
    fias_set_packet_field(ps.get(), "DU", &v);
    for (auto _ : state) {
        std::string text = fias_packet_to_str(ps.get());
        benchmark::DoNotOptimize(text.data());
    }
}
BENCHMARK(BM_WritePosting);

}  // namespace

BENCHMARK_MAIN();
