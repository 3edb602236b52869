// vorlix_bench [--quick] [options of Google Benchmark]
//
// Measures what the driver costs and prints it as ratios of figures of the same run. --quick only
// proves that everything runs.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench/benchmarks.h"
#include "bench/report.h"

// Ours first, so that the caller's win.
static std::vector<char *> Arguments(int Count, char **Values) {
  static char interleave[] = "--benchmark_enable_random_interleaving=true";
  static char repetitions[] = "--benchmark_repetitions=12";
  static char minTime[] = "--benchmark_min_time=0.05";
  static char quickRepetitions[] = "--benchmark_repetitions=1";
  static char quickMinTime[] = "--benchmark_min_time=0.0005";
  std::vector<char *> arguments = {Values[0], interleave, repetitions, minTime};
  for (int i = 1; i < Count; ++i) {
    if (strcmp(Values[i], "--quick") == 0) {
      arguments.insert(arguments.end(), {quickRepetitions, quickMinTime});
    } else {
      arguments.push_back(Values[i]);
    }
  }
  return arguments;
}

int main(int Count, char **Values) {
  std::vector<char *> arguments = Arguments(Count, Values);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
    return EXIT_FAILURE;
  }
  RegisterPassThrough();
  RegisterBlocks();
  RegisterExploring();
  FigureReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return PrintRatios(reporter.Figures) ? EXIT_SUCCESS : EXIT_FAILURE;
}
