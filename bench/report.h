// From the benchmarks' figures to the ratios that they are run for.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

struct Figure {
  double Nanoseconds;  // of processor time, in the best repetition: others only add to it
  double Allocations;
  double Steps;  // switch points of an explored run
};

// Keeps each benchmark's best repetition, and shows them in the order of their registration.
class FigureReporter : public benchmark::ConsoleReporter {
 public:
  FigureReporter() : ConsoleReporter(OO_None) {
  }
  void ReportRuns(const std::vector<Run> &Runs) override;
  void Finalize() override;

  std::map<std::string, Figure> Figures;  // by benchmark name

 private:
  std::map<int64_t, Run> best;  // by registration
};

// Prints a line a comparison whose figures are there. Returns whether no request that was passed
// through cost an allocation; times are judged by who reads them.
bool PrintRatios(const std::map<std::string, Figure> &Figures);
