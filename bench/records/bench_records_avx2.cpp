// simdjson On Demand with its AVX2 ("haswell") kernel, beside the library's DOM decoder, on the
// same 10,000-folder report as bench_records. On Demand picks its kernel when it is compiled, so
// this executable is built with the AVX2 instruction set and runs only on processors that have
// it; the client itself is built for baseline x86-64.
#include "ReportFixture.h"

using namespace records_bench;

namespace {

void BM_Decode_Library_SimdjsonDOM(benchmark::State &state) {
    state.SetLabel(simdjson::get_active_implementation()->name());
    if (!checked(state, tarnwick::decodeDirItems(report()))) {
        return;
    }
    for (auto _ : state) {
        auto items = tarnwick::decodeDirItems(report());
        benchmark::DoNotOptimize(items.data());
    }
    setCounters(state);
}

void BM_Decode_SimdjsonOnDemand_AVX2(benchmark::State &state) {
    state.SetLabel(onDemandKernels());
    simdjson::ondemand::parser parser;
    if (!checked(state, decodeOnDemand(parser, report()))) {
        return;
    }
    for (auto _ : state) {
        auto items = decodeOnDemand(parser, report());
        benchmark::DoNotOptimize(items.data());
    }
    setCounters(state);
}

} // namespace

BENCHMARK(BM_Decode_Library_SimdjsonDOM)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Decode_SimdjsonOnDemand_AVX2)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
