#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <string>

#include "convert/InstructionSet.h"

namespace vorrel::bench {

/// An instruction set as the names of the benchmarks call it.
inline const char* NameOf(InstructionSet set) {
    switch (set) {
        case InstructionSet::kAvx2:
            return "avx2";
        case InstructionSet::kAvx512:
            return "avx512";
        case InstructionSet::kBaseline:
            break;
    }
    return "baseline";
}

/// How long `work` takes, once.
inline double Seconds(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Adds a benchmark that says itself how long each turn took: function(state, arguments...).
template <class Function, class... Arguments>
void AddBenchmark(const std::string& name, Function function, Arguments... arguments) {
    benchmark::RegisterBenchmark(name.c_str(),
                                 [=](benchmark::State& state) { function(state, arguments...); })
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
}

/// Runs what `registerAll` adds, as the command line asks. @return The program's exit code.
inline int RunBenchmarks(int argc, char** argv, void (*registerAll)()) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    registerAll();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

}  // namespace vorrel::bench
