#include "bench/report.h"

#include <cstdio>

#include "bench/benchmarks.h"

constexpr double PASS_THROUGH_AIM = 3;

using FigureMap = std::map<std::string, Figure>;

void FigureReporter::ReportRuns(const std::vector<Run> &Runs) {
  const Run *quickest = nullptr;
  for (const Run &run : Runs) {
    bool repetition = run.run_type == Run::RT_Iteration && !run.error_occurred;
    if (repetition && (!quickest || run.GetAdjustedCPUTime() < quickest->GetAdjustedCPUTime())) {
      quickest = &run;
    }
  }
  if (quickest == nullptr) {
    return;
  }
  auto counter = quickest->counters.find(AllocationsCounter);
  double allocations = counter == quickest->counters.end() ? 0 : counter->second.value;
  counter = quickest->counters.find(StepsCounter);
  double steps = counter == quickest->counters.end() ? 0 : counter->second.value;
  Figures[quickest->run_name.function_name] = {quickest->GetAdjustedCPUTime(), allocations, steps};
  best.insert({quickest->family_index, *quickest});
}

void FigureReporter::Finalize() {
  for (const auto &entry : best) {
    ConsoleReporter::ReportRuns({entry.second});
  }
}

static const Figure *Find(const FigureMap &Figures, const std::string &Name) {
  auto found = Figures.find(Name);
  return found == Figures.end() ? nullptr : &found->second;
}

static std::string SizeText(size_t Bytes) {
  return Bytes < 1024 ? std::to_string(Bytes) + " B" : std::to_string(Bytes / 1024) + " KiB";
}

static bool PrintPassThrough(const FigureMap &Figures, PassedRequest What, const char *Text) {
  const Figure *plain = Find(Figures, PassThroughName(What, Way::Plain));
  const Figure *minimal = Find(Figures, PassThroughName(What, Way::MinimalFilter));
  const Figure *filter = Find(Figures, PassThroughName(What, Way::Driver));
  if (!plain || !minimal || !filter) {
    return true;
  }
  double adds = filter->Nanoseconds - plain->Nanoseconds;
  double minimalAdds = minimal->Nanoseconds - plain->Nanoseconds;
  printf(
      "pass-through of a %s: filter adds %.0f ns to %.0f ns, minimal filter adds %.0f ns: "
      "ratio %.2f (aim: at most %.0f), %g allocations\n",
      Text, adds, plain->Nanoseconds, minimalAdds, adds / minimalAdds, PASS_THROUGH_AIM,
      filter->Allocations);
  return filter->Allocations == 0;
}

static void PrintBlock(const FigureMap &Figures, size_t Bytes) {
  const Figure *copies = Find(Figures, BlockName(Bytes, Way::Plain));
  const Figure *filter = Find(Figures, BlockName(Bytes, Way::Driver));
  if (copies && filter) {
    printf("block of %s in NORMAL: %.0f ns, its copies alone %.0f ns: ratio %.2f, %g allocations\n",
           SizeText(Bytes).c_str(), filter->Nanoseconds, copies->Nanoseconds,
           filter->Nanoseconds / copies->Nanoseconds, filter->Allocations);
  }
}

static void PrintVerifier(const Figure *On, const Figure *Off, const std::string &Text) {
  if (On && Off) {
    printf("verifier, %s: on %.0f ns, off %.0f ns: ratio %.2f\n", Text.c_str(), On->Nanoseconds,
           Off->Nanoseconds, On->Nanoseconds / Off->Nanoseconds);
  }
}

static void PrintExploring(const Figure *Run, const Figure *Switch) {
  if (Run && Switch) {
    printf(
        "exploring a race of the driver, verifier on: %.0f runs/s on one core, %.0f switch points "
        "a run, as long as %.0f fiber switches of %.1f ns\n",
        1e9 / Run->Nanoseconds, Run->Steps, Run->Nanoseconds / Switch->Nanoseconds,
        Switch->Nanoseconds);
  }
}

bool PrintRatios(const FigureMap &Figures) {
  struct {
    PassedRequest What;
    const char *Text;
  } requests[] = {{PassedRequest::Write, "write"},
                  {PassedRequest::DeviceControl, "device control"}};
  bool good = true;
  printf("\n");
  for (const auto &request : requests) {
    good &= PrintPassThrough(Figures, request.What, request.Text);
  }
  for (size_t bytes : BlockSizes) {
    PrintBlock(Figures, bytes);
  }
  for (const auto &request : requests) {
    PrintVerifier(Find(Figures, PassThroughName(request.What, Way::DriverVerified)),
                  Find(Figures, PassThroughName(request.What, Way::Driver)),
                  std::string("pass-through of a ") + request.Text);
  }
  for (size_t bytes : BlockSizes) {
    PrintVerifier(Find(Figures, BlockName(bytes, Way::DriverVerified)),
                  Find(Figures, BlockName(bytes, Way::Driver)), "block of " + SizeText(bytes));
  }
  PrintExploring(Find(Figures, ExploredRunName), Find(Figures, FiberSwitchName));
  return good;
}
