#include <sl3d/psft/phase_matcher.h>

#include <cmath>
#include <limits>

namespace sl3d {
namespace detail {

namespace {
constexpr double kInf = std::numeric_limits<double>::infinity();
// The scan's starting best difference: nothing at or above it is taken.
constexpr double kNoMatchDiff = 1000.0;
}  // namespace

void PhaseRowMatcher::reset(const double* phase, const std::uint8_t* status, int width,
                            int max_uses) {
  phase_ = phase;
  status_ = status;
  width_ = width;
  max_uses_ = max_uses;
  leaves_ = 1;
  while (leaves_ < width) leaves_ *= 2;
  min_.assign(2 * static_cast<std::size_t>(leaves_), kInf);
  max_.assign(2 * static_cast<std::size_t>(leaves_), -kInf);
  for (int c = 0; c < width; ++c) {
    if (usable(c)) min_[leaves_ + c] = max_[leaves_ + c] = phase[c];
  }
  for (int node = leaves_ - 1; node >= 1; --node) {
    pull_up(node);
  }
}

// Phases are finite, so plain comparisons replace the NaN-aware fmin/fmax.
void PhaseRowMatcher::pull_up(int node) {
  const double lmin = min_[2 * node], rmin = min_[2 * node + 1];
  const double lmax = max_[2 * node], rmax = max_[2 * node + 1];
  min_[node] = lmin < rmin ? lmin : rmin;
  max_[node] = lmax > rmax ? lmax : rmax;
}

void PhaseRowMatcher::refresh(int column) {
  int node = leaves_ + column;
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
  Best best{kNoMatchDiff, -1};
  if (lo >= hi) return -1;
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
    if (diff < best.diff || (diff == best.diff && column < best.column)) best = {diff, column};
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
