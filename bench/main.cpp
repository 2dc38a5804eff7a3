// Runs the benchmarks, then prints every speed goal with what this run
// measured and the machine it ran on.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "goals.h"

namespace {

std::string first_line_with(const char* path, const std::string& key) {
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(key, 0) == 0) return line.substr(line.find(':') + 1);
  }
  return " unknown";
}

std::string load_average() {
  std::ifstream in("/proc/loadavg");
  std::string one, five, fifteen;
  in >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

void print_goals() {
  const auto& results = sl3d::bench::goal_results();
  if (results.empty()) return;
  std::printf("\nSpeed goals (measured in this run)\n");
  std::printf("machine:%s, %u hardware threads, load average %s\n",
              first_line_with("/proc/cpuinfo", "model name").c_str(),
              std::thread::hardware_concurrency(), load_average().c_str());
  for (const sl3d::bench::GoalResult& r : results) {
    std::printf("  %-66s %10.3f  goal %s %-8g %-4s  (%s)\n", r.goal.c_str(), r.value,
                r.at_most ? "<=" : ">=", r.limit, r.met() ? "met" : "MISS", r.detail.c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  print_goals();
  return 0;
}
