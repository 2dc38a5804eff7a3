#ifndef SL3D_PSFT_PHASE_MATCHER_H_
#define SL3D_PSFT_PHASE_MATCHER_H_

#include <cstdint>
#include <vector>

namespace sl3d {
namespace detail {

// Finds, in one row of camera 1, the column whose absolute phase is nearest
// to a target, exactly as a left-to-right scan would:
//
//   best = 1000, col = -1
//   for c in [lo, hi): if usable(c) and |p[c] - target| < best: take c
//
// i.e. the leftmost column of minimal |p[c] - target|, provided that minimum
// is below 1000. A column is usable while its status is below the row's
// use limit; statuses change as matches are taken (refresh()).
//
// Why not the scan: it costs width x search range per row, far too slow for
// full-size captures. The matcher keeps a min/max tree of the usable phases
// and descends only into subtrees that can still hold a closer phase. A hint
// column (the previous pixel's match, shifted by one) gives a tight bound
// before the descent, so on smooth rows only a few paths are visited.
// Exactness does not depend on the hint.
class PhaseRowMatcher {
 public:
  // Takes the row (not copied; must outlive the queries). Columns whose
  // status is >= max_uses are never taken.
  void reset(const double* phase, const std::uint8_t* status, int width, int max_uses);

  // Best column in [lo, hi) for `target`, or -1. `hint` may be any column.
  int find(double target, int lo, int hi, int hint) const;

  // Re-reads the status of `column` after the caller changed it.
  void refresh(int column);

 private:
  struct Best {
    double diff;
    int column;
  };

  void search(int node, int node_lo, int node_hi, double bound, double target, int lo,
              int hi, Best& best) const;
  void pull_up(int node);
  double lower_bound(int node, double target) const;
  bool usable(int column) const { return status_[column] < max_uses_; }

  const double* phase_ = nullptr;
  const std::uint8_t* status_ = nullptr;
  int width_ = 0;
  int max_uses_ = 0;
  int leaves_ = 1;  // power of two >= width
  std::vector<double> min_;
  std::vector<double> max_;
};

}  // namespace detail
}  // namespace sl3d

#endif  // SL3D_PSFT_PHASE_MATCHER_H_
