// The benchmarks: every case under Google Benchmark, with its accesses and its time over the bus
// floor as counters. With --report=<file> and --checksums=<file> the tables are
// written as Markdown.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "bench/cases.h"
#include "bench/report.h"
#include "bench/rig.h"
#include "sim/counts.h"

namespace {

bench::rig& the_rig() {
  static bench::rig rig;
  return rig;
}

std::vector<bench::case_result>& results() {
  static std::vector<bench::case_result> all;
  return all;
}

void run_case(benchmark::State& state, const bench::bench_case& one) {
  bench::prepared_case prepared(the_rig(), one);
  bench::measurement best;
  for (auto _ : state) {
    const bench::measurement now = prepared.run_once();
    state.SetIterationTime(now.seconds);
    const bool first = best.seconds == 0;
    best.counts = now.counts;
    best.seconds = first ? now.seconds : std::min(best.seconds, now.seconds);
    best.floor_seconds =
        first ? now.floor_seconds : std::min(best.floor_seconds, now.floor_seconds);
  }
  state.counters["words_read"] = static_cast<double>(best.counts.words_read);
  state.counters["words_programmed"] = static_cast<double>(best.counts.programs);
  state.counters["erases"] = static_cast<double>(best.counts.erases);
  state.counters["status_reads"] = static_cast<double>(best.counts.status_reads);
  state.counters["floor_ms"] = best.floor_seconds * 1e3;
  state.counters["over_floor"] = best.seconds / best.floor_seconds;
  results().push_back({one, best});
}

// Takes "--<name>=<file>" out of the arguments; empty when it is not there.
std::string take_option(const std::string& name, int* argc, char* argv[]) {
  const std::string option = "--" + name + "=";
  std::string file;
  int kept = 0;
  for (int i = 0; i < *argc; ++i) {
    if (strncmp(argv[i], option.c_str(), option.size()) == 0) {
      file = argv[i] + option.size();
    } else {
      argv[kept++] = argv[i];
    }
  }
  *argc = kept;
  return file;
}

}  // namespace

int main(int argc, char* argv[]) {
  const std::string report = take_option("report", &argc, argv);
  const std::string checksums = take_option("checksums", &argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  for (const bench::bench_case& one : bench::all_cases()) {
    benchmark::RegisterBenchmark((one.operation + "/" + one.size).c_str(), run_case, one)
        ->UseManualTime()
        ->Iterations(one.repetitions)
        ->Unit(benchmark::kMillisecond);
  }
  benchmark::RunSpecifiedBenchmarks();
  if (!report.empty()) {
    std::ofstream out(report);
    bench::write_results(out, results());
  }
  if (!checksums.empty()) {
    std::ofstream out(checksums);
    bench::write_checksums(out, the_rig());
  }
  return 0;
}
