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
    min_[node] = std::fmin(min_[2 * node], min_[2 * node + 1]);
    max_[node] = std::fmax(max_[2 * node], max_[2 * node + 1]);
  }
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
    min_[node] = std::fmin(min_[2 * node], min_[2 * node + 1]);
    max_[node] = std::fmax(max_[2 * node], max_[2 * node + 1]);
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
  search(1, 0, leaves_, target, lo, hi, best);
  return best.column;
}

// Depth-first, nearer child first. A candidate beats the best so far when
// its difference is smaller, or equal with a smaller column: the order in
// which the scan would have met them.
void PhaseRowMatcher::search(int node, int node_lo, int node_hi, double target, int lo,
                             int hi, Best& best) const {
  if (node_hi <= lo || node_lo >= hi) return;
  const double bound = lower_bound(node, target);
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
  if (lower_bound(right, target) < lower_bound(left, target)) {
    search(right, mid, node_hi, target, lo, hi, best);
    search(left, node_lo, mid, target, lo, hi, best);
  } else {
    search(left, node_lo, mid, target, lo, hi, best);
    search(right, mid, node_hi, target, lo, hi, best);
  }
}

}  // namespace detail
}  // namespace sl3d
