// Google Benchmark's own main, after silencing the library.

#include "zorvex.h"

#include <benchmark/benchmark.h>

int main(int argc, char** argv) {
    zx_set_verbosity(0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
