#ifndef SL3D_BENCH_GOALS_H_
#define SL3D_BENCH_GOALS_H_

// Speed goals stated as ratios (or whole-process figures) measured in one
// run: the goal benchmarks record what they measured here, and main prints
// every goal with its limit after all benchmarks have run.

#include <algorithm>
#include <chrono>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

namespace sl3d {
namespace bench {

struct GoalResult {
  std::string goal;   // what is compared, e.g. "exec / plain scan, 1920x1200"
  double value = 0.0;
  double limit = 0.0;
  bool at_most = true;  // value <= limit (else value >= limit)
  std::string detail;   // the measurements behind the value
  bool met() const { return at_most ? value <= limit : value >= limit; }
};

std::vector<GoalResult>& goal_results();

inline void record_goal(GoalResult result) { goal_results().push_back(std::move(result)); }

// Milliseconds of one call of f; or, when f itself returns milliseconds (a
// best of several calls), that figure.
template <typename F>
double time_ms(F&& f) {
  const auto start = std::chrono::steady_clock::now();
  if constexpr (std::is_same_v<decltype(f()), double>) {
    return f();
  } else {
    f();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
  }
}

// The fastest of `rounds` calls of each function, the calls alternating so
// that both see the same machine: on a shared machine the minimum is the
// figure least disturbed by other work.
template <typename A, typename B>
std::pair<double, double> fastest_alternating(int rounds, A&& a, B&& b) {
  double best_a = std::numeric_limits<double>::infinity();
  double best_b = best_a;
  for (int r = 0; r < rounds; ++r) {
    best_a = std::min(best_a, time_ms(a));
    best_b = std::min(best_b, time_ms(b));
  }
  return {best_a, best_b};
}

}  // namespace bench
}  // namespace sl3d

#endif  // SL3D_BENCH_GOALS_H_
