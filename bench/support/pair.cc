#include "bench/support/pair.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <map>
#include <utility>

namespace bench {
namespace {

struct Row {
  std::string topic;
  double ours;
  double limit;
  std::string unit;
  Target target;
};

std::vector<Row> g_rows;
std::vector<std::pair<std::string, Target>> g_topics;  // in order of registration
std::vector<std::function<void()>> g_customs;

constexpr const char* kOurs = "/ours";
constexpr const char* kLimit = "/limit";

// Keeps the median nanoseconds of one item of each benchmark by name.
class MedianReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& context) override {
    PrintBasicContext(&GetErrorStream(), context);
    return true;
  }

  void ReportRuns(const std::vector<Run>& runs) override {
    std::vector<double> samples;
    for (const Run& run : runs) {
      if (run.error_occurred) {
        fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
      } else if (run.run_type == Run::RT_Iteration) {
        samples.push_back(NsPerItem(run));
      }
    }
    if (samples.empty()) return;
    medians_[runs.front().run_name.function_name] = Median(samples);
  }

  double MedianOf(const std::string& name) const {
    const auto found = medians_.find(name);
    return found == medians_.end() ? 0 : found->second;
  }

 private:
  static double NsPerItem(const Run& run) {
    const auto rate = run.counters.find("items_per_second");
    if (rate != run.counters.end()) return 1e9 / rate->second.value;
    return run.real_accumulated_time * 1e9 / static_cast<double>(run.iterations);
  }

  std::map<std::string, double> medians_;
};

std::string Number(double value) {
  char text[32];
  const double size = std::fabs(value);
  snprintf(text, sizeof text, size >= 1000 ? "%.0f" : size >= 100 ? "%.1f" : "%.2f", value);
  return text;
}

bool IsMet(const Row& row) {
  const double ratio = row.limit > 0 ? row.ours / row.limit : 0;
  switch (row.target.kind) {
    case Target::kNone:
      return true;
    case Target::kRatioAtMost:
      return ratio <= row.target.value;
    case Target::kRatioAtLeast:
      return ratio >= row.target.value;
    case Target::kMoreNsAtMost:
      return row.ours - row.limit <= row.target.value;
    case Target::kAtMost:
      return row.ours <= row.target.value;
    case Target::kAtLeast:
      return row.ours >= row.target.value;
  }
  return true;
}

std::string TargetText(const Target& target) {
  switch (target.kind) {
    case Target::kNone:
      return "";
    case Target::kRatioAtMost:
      return "<= " + Number(target.value) + "x";
    case Target::kRatioAtLeast:
      return ">= " + Number(target.value) + "x";
    case Target::kMoreNsAtMost:
      return "<= limit + " + Number(target.value) + " ns";
    case Target::kAtMost:
      return "<= " + Number(target.value);
    case Target::kAtLeast:
      return ">= " + Number(target.value);
  }
  return "";
}

void PrintTable() {
  printf("%-56s %12s %12s %-6s %7s  %s\n", "topic", "ours", "limit", "unit", "ratio", "target");
  for (const Row& row : g_rows) {
    const std::string limit = row.limit > 0 ? Number(row.limit) : "-";
    const std::string ratio = row.limit > 0 ? Number(row.ours / row.limit) : "-";
    const char* verdict = row.target.kind == Target::kNone ? "" : IsMet(row) ? "  met" : "  MISSED";
    printf("%-56s %12s %12s %-6s %7s  %s%s\n", row.topic.c_str(), Number(row.ours).c_str(),
           limit.c_str(), row.unit.c_str(), ratio.c_str(), TargetText(row.target).c_str(), verdict);
  }
  fflush(stdout);
}

int RunAll(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  // Repeated in random turns, so that a slow moment of the machine falls on both sides alike.
  // What the command line says comes later and wins.
  std::string defaults[] = {"--benchmark_repetitions=9",
                            "--benchmark_enable_random_interleaving=true",
                            "--benchmark_min_time=0.05"};
  std::vector<char*> args = {argv[0]};
  for (std::string& flag : defaults) args.push_back(&flag[0]);
  args.insert(args.end(), argv + 1, argv + argc);
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 2;

  MedianReporter reporter;
  if (!g_topics.empty()) benchmark::RunSpecifiedBenchmarks(&reporter);
  for (const auto& topic : g_topics) {
    const double ours = reporter.MedianOf(topic.first + kOurs);
    if (ours > 0)
      AddRow(topic.first, ours, reporter.MedianOf(topic.first + kLimit), "ns", topic.second);
  }
  for (const auto& measure : g_customs) measure();
  PrintTable();
  return 0;
}

}  // namespace

void Pair(const std::string& topic, Function ours, Function limit, Target target) {
  g_topics.emplace_back(topic, target);
  benchmark::RegisterBenchmark((topic + kOurs).c_str(), std::move(ours))->UseRealTime();
  benchmark::RegisterBenchmark((topic + kLimit).c_str(), std::move(limit))->UseRealTime();
}

void Single(const std::string& topic, Function ours, Target target) {
  g_topics.emplace_back(topic, target);
  benchmark::RegisterBenchmark((topic + kOurs).c_str(), std::move(ours))->UseRealTime();
}

void Custom(std::function<void()> measure) { g_customs.push_back(std::move(measure)); }

void AddRow(const std::string& topic, double ours, double limit, const std::string& unit,
            Target target) {
  g_rows.push_back({topic, ours, limit, unit, target});
}

double Median(std::vector<double> samples) { return Percentile(std::move(samples), 0.5); }

double Percentile(std::vector<double> samples, double p) {
  if (samples.empty()) return 0;
  const auto at = static_cast<size_t>(p * static_cast<double>(samples.size() - 1));
  const auto place = samples.begin() + static_cast<std::ptrdiff_t>(at);
  std::nth_element(samples.begin(), place, samples.end());
  return *place;
}

}  // namespace bench

// Each program defines what it measures.
void RegisterBenchmarks();

int main(int argc, char** argv) {
  RegisterBenchmarks();
  return bench::RunAll(argc, argv);
}
