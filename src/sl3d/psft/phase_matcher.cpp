#include <sl3d/psft/phase_matcher.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace sl3d {
namespace detail {

namespace {
constexpr double kInf = std::numeric_limits<double>::infinity();
// The scan's starting best difference: nothing at or above it is taken.
constexpr double kNoMatchDiff = 1000.0;
// Beyond these the tree search is cheaper than the runs.
constexpr int kMaxRunsPerWindow = 8;
constexpr int kMaxStepsOverUsedColumns = 64;

bool improves(double diff, int column, double best_diff, int best_column) {
  return diff < best_diff || (diff == best_diff && column < best_column);
}
}  // namespace

void PhaseRowMatcher::reserve(int width) {
  int leaves = 1;
  while (leaves < width) leaves *= 2;
  min_.reserve(2 * static_cast<std::size_t>(leaves));
  max_.reserve(2 * static_cast<std::size_t>(leaves));
  columns_.resize(static_cast<std::size_t>(width));
  values_.resize(static_cast<std::size_t>(width));
  run_end_.resize(static_cast<std::size_t>(width));
  first_at_or_after_.resize(static_cast<std::size_t>(width) + 1);
}

void PhaseRowMatcher::reset(const double* phase, const std::uint8_t* status, int width,
                            int max_uses) {
  phase_ = phase;
  status_ = status;
  width_ = width;
  max_uses_ = max_uses;
  tree_built_ = false;
  build_runs();
}

// From the statuses as they are now: columns used up since reset are out.
void PhaseRowMatcher::build_tree() const {
  leaves_ = 1;
  while (leaves_ < width_) leaves_ *= 2;
  min_.assign(2 * static_cast<std::size_t>(leaves_), kInf);
  max_.assign(2 * static_cast<std::size_t>(leaves_), -kInf);
  for (int c = 0; c < width_; ++c) {
    if (usable(c)) min_[leaves_ + c] = max_[leaves_ + c] = phase_[c];
  }
  for (int node = leaves_ - 1; node >= 1; --node) {
    pull_up(node);
  }
  tree_built_ = true;
}

void PhaseRowMatcher::build_runs() {
  const std::size_t width = static_cast<std::size_t>(width_);
  if (columns_.size() < width) {  // rows wider than reserve() was told
    columns_.resize(width);
    values_.resize(width);
    run_end_.resize(width);
  }
  first_at_or_after_.resize(width + 1);
  int* columns = columns_.data();
  double* values = values_.data();
  int* first = first_at_or_after_.data();
  int n = 0;
  for (int c = 0; c < width_; ++c) {
    first[c] = n;
    columns[n] = c;
    values[n] = phase_[c];
    n += usable(c) ? 1 : 0;
  }
  first[width_] = n;
  count_ = n;
  int* run_end = run_end_.data();
  for (int k = n - 1; k >= 0; --k) {
    const bool rises_into_next = k + 1 < n && values[k + 1] > values[k];
    run_end[k] = rises_into_next ? run_end[k + 1] : k + 1;
  }
}

// Phases are finite, so plain comparisons replace the NaN-aware fmin/fmax.
void PhaseRowMatcher::pull_up(int node) const {
  const double lmin = min_[2 * node], rmin = min_[2 * node + 1];
  const double lmax = max_[2 * node], rmax = max_[2 * node + 1];
  min_[node] = lmin < rmin ? lmin : rmin;
  max_[node] = lmax > rmax ? lmax : rmax;
}

void PhaseRowMatcher::refresh_tree(int column) {
  int node = leaves_ + column;
  const bool in_tree = min_[node] <= max_[node];
  if (in_tree == usable(column)) return;  // a use that left it usable
  if (usable(column)) {
    min_[node] = max_[node] = phase_[column];
  } else {
    min_[node] = kInf;
    max_[node] = -kInf;
  }
  for (node /= 2; node >= 1; node /= 2) {
    pull_up(node);
  }
}

// Smallest |p - target| any usable phase below `node` can have. Rounding is
// monotonic, so fl(min - target) never exceeds fl(p - target) for p >= min:
// the bound is safe for the computed differences, not only the exact ones.
double PhaseRowMatcher::lower_bound(int node, double target) const {
  if (target < min_[node]) return min_[node] - target;
  if (target > max_[node]) return target - max_[node];
  return min_[node] <= max_[node] ? 0.0 : kInf;
}

int PhaseRowMatcher::find(double target, int lo, int hi, int hint) const {
  if (lo >= hi) return -1;
  const int first = first_at_or_after_[lo];
  const int last = first_at_or_after_[hi];
  const int hint_element = hint >= 0 && hint <= width_ ? first_at_or_after_[hint] : -1;
  Best best{kNoMatchDiff, -1};
  int runs = 0;
  int searched = 0;
  const double* v = values_.data();
  for (int k = first; k < last; k = run_end_[k]) {
    if (++runs > kMaxRunsPerWindow * 8) return tree_find(target, lo, hi, hint);
    const int end = std::min(run_end_[k], last);
    // Runs lie left to right, so a later run cannot win a tie: one whose
    // phases cannot come closer than the best so far is skipped.
    const double bound = target < v[k] ? v[k] - target : (target > v[end - 1] ? target - v[end - 1] : 0.0);
    if (bound >= best.diff) continue;
    if (++searched > kMaxRunsPerWindow || !search_run(k, end, hint_element, target, best)) {
      return tree_find(target, lo, hi, hint);
    }
  }
  return best.column;
}

bool PhaseRowMatcher::search_run(int begin, int end, int hint_element, double target,
                                 Best& best) const {
  const double* v = values_.data();
  const int crossing = find_crossing(begin, end, hint_element, target);
  int steps = 0;
  int right = crossing;
  while (right < end && !usable(columns_[right])) {
    if (++steps > kMaxStepsOverUsedColumns) return false;
    ++right;
  }
  if (right < end) {
    const double diff = std::fabs(v[right] - target);
    if (improves(diff, columns_[right], best.diff, best.column)) best = {diff, columns_[right]};
  }
  // Left of the crossing the difference grows leftwards, but rounding can
  // make neighbours equal: then the leftmost of them is the scan's choice.
  int left_best = -1;
  double left_diff = 0.0;
  for (int k = crossing - 1; k >= begin; --k) {
    if (++steps > kMaxStepsOverUsedColumns) return false;
    if (!usable(columns_[k])) continue;
    const double diff = std::fabs(v[k] - target);
    if (left_best >= 0 && diff != left_diff) break;
    left_best = k;
    left_diff = diff;
  }
  if (left_best >= 0 && improves(left_diff, columns_[left_best], best.diff, best.column)) {
    best = {left_diff, columns_[left_best]};
  }
  return true;
}

// First element of [begin, end) whose phase is >= target. Neighbouring
// pixels cross the target at neighbouring elements, so a short walk from the
// hint usually finds it; a binary search covers the rest.
int PhaseRowMatcher::find_crossing(int begin, int end, int hint_element, double target) const {
  constexpr int kWalk = 4;
  const double* v = values_.data();
  if (v[begin] >= target) return begin;
  if (v[end - 1] < target) return end;
  // Here v[begin] < target <= v[end - 1], so the crossing is in (begin, end).
  if (hint_element > begin && hint_element < end) {
    int k = hint_element;
    for (int step = 0; step < kWalk; ++step) {
      if (v[k] < target) {
        ++k;  // stays < end: v[end - 1] >= target
      } else if (v[k - 1] >= target) {
        --k;  // stays > begin: v[begin] < target
      } else {
        return k;
      }
    }
  }
  return static_cast<int>(std::lower_bound(v + begin, v + end, target) - v);
}

int PhaseRowMatcher::tree_find(double target, int lo, int hi, int hint) const {
  if (!tree_built_) build_tree();
  Best best{kNoMatchDiff, -1};
  if (hint >= lo && hint < hi && usable(hint)) {
    const double diff = std::fabs(phase_[hint] - target);
    if (diff < best.diff) best = {diff, hint};
  }
  search(1, 0, leaves_, lower_bound(1, target), target, lo, hi, best);
  return best.column;
}

// Depth-first, nearer child first; `bound` is lower_bound(node). A candidate
// beats the best so far when its difference is smaller, or equal with a
// smaller column: the order in which the scan would have met them.
void PhaseRowMatcher::search(int node, int node_lo, int node_hi, double bound, double target,
                             int lo, int hi, Best& best) const {
  if (node_hi <= lo || node_lo >= hi) return;
  if (bound > best.diff || (bound == best.diff && node_lo >= best.column)) return;
  if (node >= leaves_) {
    const int column = node_lo;
    const double diff = std::fabs(phase_[column] - target);
    if (improves(diff, column, best.diff, best.column)) best = {diff, column};
    return;
  }
  const int mid = (node_lo + node_hi) / 2;
  const int left = 2 * node;
  const int right = left + 1;
  const double left_bound = lower_bound(left, target);
  const double right_bound = lower_bound(right, target);
  if (right_bound < left_bound) {
    search(right, mid, node_hi, right_bound, target, lo, hi, best);
    search(left, node_lo, mid, left_bound, target, lo, hi, best);
  } else {
    search(left, node_lo, mid, left_bound, target, lo, hi, best);
    search(right, mid, node_hi, right_bound, target, lo, hi, best);
  }
}

}  // namespace detail
}  // namespace sl3d
