#include "platform/model/explore.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <malloc.h>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "platform/model/causality.h"
#include "platform/model/schedule.h"
#include "platform/model/shrink.h"
#include "platform/model/verifier.h"

// The runs are cut into items that depend on nothing but the options and the scenario: the first
// run; then, exhaustive, the subtrees that leave its path, in the order of a depth-first walk; or,
// drawn, stretches of seeds. Whoever works on an item, its result is the same, and results are put
// together in the order of the items up to the first that failed.
//
// A reduced exploration is one item: which choices are worth another run is known only from the
// runs behind them.
struct Item {
  Choices Prefix;      // Exhaustive
  uint64_t First = 0;  // Random, Pct: the numbers of its runs
  uint64_t Behind = 0;
};

struct ItemResult {
  bool Done = false;
  bool Complete = false;  // nothing was left out
  bool Failed = false;
  uint64_t Runs = 0;
  std::string Rule;
  std::string Replay;  // of the failed run
  uint64_t Steps = 0;  // likewise
  std::map<std::string, ExploreOutcome> Outcomes;
  std::unordered_set<uint64_t> Orders;
};

using Outcomes = std::map<std::string, ExploreOutcome>;

// What the processes share.
struct Shared {
  std::atomic<uint64_t> NextItem;
  std::atomic<uint64_t> FirstFailed;
  std::atomic<uint64_t> Runs;
};

struct Exploring {
  const ExploreOptions *Options;
  const std::function<void()> *Scenario;
  RunOptions Run;
  uint64_t Points;
  std::vector<Item> Items;
  Shared *Common;
};

static constexpr uint64_t DrawnInAnItem = 64;
static constexpr uint64_t NoItem = UINT64_MAX;

static bool sawOutcome;
static std::string outcome;

void ExploreWindow(bool Open) {
  ScheduleWindow(Open);
}

void ExploreSaw(const std::string &Outcome) {
  sawOutcome = true;
  outcome = Outcome;
}

// --- runs --------------------------------------------------------------------------------------

// One run whose schedule has been begun; false when it failed.
static bool RunOnce(Exploring *exploring, ItemResult *result) {
  sawOutcome = false;
  RunReport report = RunScheduled(exploring->Run, *exploring->Scenario);
  ++result->Runs;
  exploring->Common->Runs.fetch_add(1, std::memory_order_relaxed);
  if (report.Stopped) {
    result->Failed = true;
    result->Rule = report.Rule;
    result->Replay = report.Replay;
    result->Steps = report.Steps;
    return false;
  }
  if (CausalKnown()) {
    result->Orders.insert(CausalPrint());
  }
  if (sawOutcome) {
    ExploreOutcome &seen = result->Outcomes[outcome];
    if (seen.Count++ == 0) {
      seen.Replay = ScheduleText();
    }
  }
  return true;
}

// Makes Choices the next schedule, depth first, leaving the first Fixed as they are; false when
// there is none.
static bool NextSchedule(Choices *choices, size_t fixed, bool reduce) {
  while (choices->size() > fixed) {
    Choice &last = choices->back();
    if (last.Taken + 1 < last.Offered && (last.Wanted || !reduce)) {
      ++last.Taken;
      return true;
    }
    choices->pop_back();
  }
  return false;
}

static bool SomebodyElseFailed(const Exploring *exploring, uint64_t item) {
  return exploring->Common->FirstFailed.load(std::memory_order_relaxed) < item;
}

static void RunSubtree(Exploring *exploring, uint64_t item, ItemResult *result) {
  const ExploreOptions &options = *exploring->Options;
  Choices choices = exploring->Items[item].Prefix;
  size_t fixed = choices.size();
  do {
    if (exploring->Common->Runs.load(std::memory_order_relaxed) >= options.MaxRuns ||
        SomebodyElseFailed(exploring, item)) {
      return;
    }
    ScheduleBeginBounded(options.Preemptions, choices, options.Reduce);
    if (!RunOnce(exploring, result)) {
      return;
    }
    choices = ScheduleChoices();
  } while (NextSchedule(&choices, fixed, options.Reduce));
  result->Complete = true;
}

static void RunDrawn(Exploring *exploring, uint64_t item, ItemResult *result) {
  const ExploreOptions &options = *exploring->Options;
  SchedulePolicy policy;
  policy.How = options.How;
  policy.Depth = options.Depth;
  policy.Points = exploring->Points;
  policy.WindowOnly = !options.Whole;
  for (uint64_t n = exploring->Items[item].First; n < exploring->Items[item].Behind; ++n) {
    policy.Seed = (options.Seed << 32) + n;
    ScheduleBegin(policy);
    if (SomebodyElseFailed(exploring, item) || !RunOnce(exploring, result)) {
      return;
    }
  }
  result->Complete = true;
}

static ItemResult RunItem(Exploring *exploring, uint64_t item) {
  ItemResult result;
  if (exploring->Options->How == SchedulePolicy::Kind::Exhaustive) {
    RunSubtree(exploring, item, &result);
  } else {
    RunDrawn(exploring, item, &result);
  }
  result.Done = true;
  if (result.Failed) {
    uint64_t first = exploring->Common->FirstFailed.load();
    while (item < first && !exploring->Common->FirstFailed.compare_exchange_weak(first, item)) {
    }
  }
  return result;
}

// --- items -------------------------------------------------------------------------------------

static ItemResult FirstRun(Exploring *exploring) {
  ItemResult result;
  const ExploreOptions &options = *exploring->Options;
  if (options.How == SchedulePolicy::Kind::Exhaustive) {
    ScheduleBeginBounded(options.Preemptions, {}, false);
  } else {
    ScheduleBeginLenient({}, options.Whole);
  }
  result.Complete = RunOnce(exploring, &result);
  result.Done = true;
  exploring->Points = options.Points ? options.Points : SchedulePoints();
  return result;
}

// The first run's path is left at every choice, the last one first.
static void CutTree(Exploring *exploring) {
  Choices path = ScheduleChoices();
  while (!path.empty()) {
    Choice &last = path.back();
    for (uint16_t taken = 1; taken < last.Offered; ++taken) {
      last.Taken = taken;
      exploring->Items.push_back({path, 0, 0});
    }
    path.pop_back();
  }
}

static void CutDrawn(Exploring *exploring) {
  uint64_t runs = exploring->Options->Runs;
  for (uint64_t at = 0; at < runs; at += DrawnInAnItem) {
    exploring->Items.push_back({{}, at, std::min(at + DrawnInAnItem, runs)});
  }
}

static uint64_t TakeItem(Exploring *exploring) {
  uint64_t item = exploring->Common->NextItem.fetch_add(1);
  return item < exploring->Items.size() && !SomebodyElseFailed(exploring, item) ? item : NoItem;
}

// --- worker processes --------------------------------------------------------------------------

// A line a field; an outcome's text goes to the line's end, its own ends of line as \n.
static std::string Escaped(const std::string &text) {
  std::string line;
  for (char c : text) {
    line += c == '\\' ? "\\\\" : c == '\n' ? "\\n" : std::string(1, c);
  }
  return line;
}

static std::string Unescaped(const std::string &line) {
  std::string text;
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '\\' && i + 1 < line.size()) {
      text += line[++i] == 'n' ? '\n' : line[i];
    } else {
      text += line[i];
    }
  }
  return text;
}

static void WriteOrders(FILE *to, const std::unordered_set<uint64_t> &orders) {
  fprintf(to, "orders");
  for (uint64_t order : orders) {
    fprintf(to, " %llx", static_cast<unsigned long long>(order));
  }
  fprintf(to, "\n");
}

static void WriteResult(FILE *to, uint64_t item, const ItemResult &result) {
  fprintf(to, "item %llu %llu %d %d %llu\n", static_cast<unsigned long long>(item),
          static_cast<unsigned long long>(result.Runs), result.Complete, result.Failed,
          static_cast<unsigned long long>(result.Steps));
  if (result.Failed) {
    fprintf(to, "failed %s %s\n", result.Replay.c_str(), result.Rule.c_str());
  }
  for (const auto &[text, seen] : result.Outcomes) {
    fprintf(to, "outcome %llu %s %s\n", static_cast<unsigned long long>(seen.Count),
            seen.Replay.c_str(), Escaped(text).c_str());
  }
  WriteOrders(to, result.Orders);
}

static void ReadResults(FILE *from, std::vector<ItemResult> *results) {
  ItemResult *result = nullptr;
  char *line = nullptr;
  size_t room = 0;
  while (getline(&line, &room, from) > 0) {
    line[strcspn(line, "\n")] = 0;
    std::istringstream in(line);
    std::string kind;
    in >> kind;
    if (kind == "item") {
      uint64_t item;
      in >> item;
      result = &results->at(item);
      in >> result->Runs >> result->Complete >> result->Failed >> result->Steps;
      result->Done = true;
    } else if (kind == "failed" && result) {
      in >> result->Replay >> result->Rule;
    } else if (kind == "outcome" && result) {
      ExploreOutcome seen;
      std::string text;
      in >> seen.Count >> seen.Replay;
      in.get();
      std::getline(in, text);
      result->Outcomes[Unescaped(text)] = seen;
    } else if (kind == "orders" && result) {
      in >> std::hex;
      for (uint64_t order; in >> order;) {
        result->Orders.insert(order);
      }
    }
  }
  free(line);
}

[[noreturn]] static void Work(Exploring *exploring, int to) {
  FILE *out = fdopen(to, "w");
  for (uint64_t item; (item = TakeItem(exploring)) != NoItem;) {
    WriteResult(out, item, RunItem(exploring, item));
    fflush(out);
  }
  _exit(0);
}

struct Worker {
  pid_t Process;
  FILE *From;
};

static bool StartWorker(Exploring *exploring, Worker *worker) {
  int ends[2];
  if (pipe(ends) != 0) {
    return false;
  }
  fflush(nullptr);  // what is not written yet would be written by each of them
  worker->Process = fork();
  if (worker->Process == 0) {
    close(ends[0]);
    Work(exploring, ends[1]);
  }
  close(ends[1]);
  worker->From = fdopen(ends[0], "r");
  return worker->Process > 0;
}

static void RunWorkers(Exploring *exploring, std::vector<ItemResult> *results) {
  std::vector<Worker> workers(exploring->Options->Workers);
  for (Worker &worker : workers) {
    if (!StartWorker(exploring, &worker)) {
      worker.Process = -1;
    }
  }
  for (Worker &worker : workers) {
    if (worker.From) {
      ReadResults(worker.From, results);
      fclose(worker.From);
    }
    if (worker.Process > 0) {
      waitpid(worker.Process, nullptr, 0);
    }
  }
}

// --- the result --------------------------------------------------------------------------------

static RunReport Explain(const Exploring &exploring, const std::string &rule,
                         const std::string &replay) {
  RunOptions options = exploring.Run;
  options.Schedule.How = SchedulePolicy::Kind::Replay;
  options.Schedule.Replay = replay;
  RunReport report = ModelRun(options, *exploring.Scenario);
  if (report.Rule != rule) {
    report.Text = "schedule.diverged: a run stopped with " + rule + ", but " +
                  (report.Stopped ? "its replay ended otherwise:\n" + report.Text
                                  : "its replay did not stop\nreplay: " + replay + '\n');
    report.Rule = "schedule.diverged";
    report.Stopped = true;
  }
  return report;
}

static constexpr uint64_t MostShrinkSteps = 50'000'000;

// Makes the failed run short and runs it once more to be explained.
static void Conclude(Exploring *exploring, const ItemResult &failed, ExploreResult *result) {
  SchedulePolicy policy;
  policy.How = SchedulePolicy::Kind::Replay;
  policy.Replay = failed.Replay;
  ScheduleBegin(policy);
  bool whole = failed.Replay.starts_with("r:");
  RunScheduled(exploring->Run, *exploring->Scenario);
  Choices choices = ScheduleChoices();
  std::string shortest = failed.Replay;
  uint64_t most = std::min(exploring->Options->ShrinkRuns,
                           MostShrinkSteps / std::max<uint64_t>(failed.Steps, 1));
  auto fails = [&](Choices *run) {
    ScheduleBeginLenient(*run, whole);
    RunReport report = RunScheduled(exploring->Run, *exploring->Scenario);
    *run = ScheduleChoices();
    return report.Rule == failed.Rule;
  };
  result->ShrinkRuns = ShrinkChoices(&choices, most, fails);
  ScheduleBeginLenient(choices, whole);
  RunReport report = RunScheduled(exploring->Run, *exploring->Scenario);
  if (report.Rule == failed.Rule) {
    shortest = report.Replay;
  }
  result->Failure = Explain(*exploring, failed.Rule, shortest);
}

static void Merge(const ItemResult &from, ExploreResult *into) {
  into->Runs += from.Runs;
  into->Orders.insert(from.Orders.begin(), from.Orders.end());
  for (const auto &[text, seen] : from.Outcomes) {
    ExploreOutcome &all = into->Outcomes[text];
    all.Replay = all.Count == 0 ? seen.Replay : all.Replay;
    all.Count += seen.Count;
  }
}

static void ReportDeadWorker(ExploreResult *result) {
  result->Exhausted = false;
  result->Failure.Stopped = true;
  result->Failure.Rule = "model.worker-died";
  result->Failure.Text =
      "model.worker-died: a process that explored has died; with one worker the "
      "failure shows itself\n";
}

static void RunItems(Exploring *exploring, ExploreResult *result) {
  std::vector<ItemResult> results(exploring->Items.size());
  bool several = exploring->Options->Workers > 1 && results.size() > exploring->Options->Workers;
  if (several) {
    RunWorkers(exploring, &results);
  } else {
    for (uint64_t item; (item = TakeItem(exploring)) != NoItem;) {
      results[item] = RunItem(exploring, item);
    }
  }
  for (const ItemResult &item : results) {
    if (!item.Done) {
      ReportDeadWorker(result);
      return;
    }
    Merge(item, result);
    result->Exhausted &= item.Complete;
    if (item.Failed) {
      Conclude(exploring, item, result);
      return;
    }
  }
}

ExploreResult ModelExplore(const ExploreOptions &Options, const std::function<void()> &Scenario) {
  // Memory that every run takes and gives back is not to go to the system and come again.
  mallopt(M_TRIM_THRESHOLD, 256 << 20);
  mallopt(M_MMAP_THRESHOLD, 64 << 20);
  void *shared =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) {
    perror("kernel model: no memory to share");
    abort();
  }
  Exploring exploring = {&Options, &Scenario, {}, 0, {}, new (shared) Shared{{0}, {NoItem}, {0}}};
  exploring.Run.Verifier = Options.Verifier;
  exploring.Run.Forced = Options.Forced;
  exploring.Run.MostSteps = Options.MostSteps;
  ExploreResult result;
  if (Options.How == SchedulePolicy::Kind::Exhaustive && Options.Reduce) {
    result.Exhausted = true;
    exploring.Items.push_back({});
    RunItems(&exploring, &result);
    munmap(shared, sizeof(Shared));
    return result;
  }
  ItemResult first = FirstRun(&exploring);
  Merge(first, &result);
  result.Exhausted = first.Complete;
  if (first.Failed) {
    Conclude(&exploring, first, &result);
  } else {
    switch (Options.How) {
    case SchedulePolicy::Kind::Exhaustive:
      CutTree(&exploring);
      break;
    case SchedulePolicy::Kind::Random:
    case SchedulePolicy::Kind::Pct:
      CutDrawn(&exploring);
      break;
    default:
      break;
    }
    RunItems(&exploring, &result);
  }
  munmap(shared, sizeof(Shared));
  return result;
}

// --- options as text ---------------------------------------------------------------------------

bool ExploreRead(const std::string &Text, ExploreOptions *Options) {
  using Kind = SchedulePolicy::Kind;
  static const std::map<std::string, Kind> kinds = {{"fifo", Kind::Fifo},
                                                    {"random", Kind::Random},
                                                    {"pct", Kind::Pct},
                                                    {"exhaust", Kind::Exhaustive}};
  std::istringstream words(Text);
  for (std::string word; words >> word;) {
    size_t equals = word.find('=');
    std::string key = word.substr(0, equals);
    if (auto kind = kinds.find(word); kind != kinds.end()) {
      Options->How = kind->second;
      continue;
    }
    char *end = nullptr;
    const char *digits = equals == std::string::npos ? "" : word.c_str() + equals + 1;
    uint64_t value = strtoull(digits, &end, 10);
    if (end == digits || *end) {
      return false;
    }
    if (key == "runs") {
      Options->Runs = Options->MaxRuns = value;
    } else if (key == "seed") {
      Options->Seed = value;
    } else if (key == "depth") {
      Options->Depth = static_cast<unsigned>(value);
    } else if (key == "preemptions") {
      Options->Preemptions = static_cast<unsigned>(value);
    } else if (key == "reduce") {
      Options->Reduce = value != 0;
    } else if (key == "workers") {
      Options->Workers = static_cast<unsigned>(value);
    } else {
      return false;
    }
  }
  return true;
}
