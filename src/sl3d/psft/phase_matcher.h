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
// full-size captures. Two exact shortcuts replace it:
//
// - Runs. A decoded row's phase rises with the column except at depth
//   edges, so the columns usable at the start of the row split into a few
//   runs of strictly rising phase. Within a run |p - target| falls and then
//   rises, so the best of the run is the usable column nearest to where the
//   phase crosses the target (a binary search), or, among equal differences
//   left of the crossing, the leftmost. Columns used up later stay in their
//   runs and are stepped over.
// - A min/max tree of the usable phases, for windows that hold too many
//   runs or too many used-up columns near the crossing (noisy or adversarial
//   rows): a depth-first search that only enters subtrees which can still
//   hold a closer phase, starting from the bound a hint column gives. It is
//   built the first time a row needs it; smooth rows never do.
class PhaseRowMatcher {
 public:
  // Sizes the storage for rows of up to `width` columns, so that reset and
  // the queries allocate nothing.
  void reserve(int width);

  // Takes the row (not copied; must outlive the queries). Columns whose
  // status is >= max_uses are never taken.
  void reset(const double* phase, const std::uint8_t* status, int width, int max_uses);

  // Best column in [lo, hi) for `target`, or -1. `hint` may be any column.
  int find(double target, int lo, int hi, int hint) const;

  // Re-reads the status of `column` after the caller changed it (only the
  // tree, once built, remembers statuses).
  void refresh(int column) {
    if (tree_built_) refresh_tree(column);
  }

 private:
  struct Best {
    double diff;
    int column;
  };

  // Folds the run part [begin, end) into `best`; false when too many
  // used-up columns had to be stepped over (the tree takes over then).
  bool search_run(int begin, int end, int hint_element, double target, Best& best) const;
  int find_crossing(int begin, int end, int hint_element, double target) const;
  int tree_find(double target, int lo, int hi, int hint) const;
  void build_tree() const;
  void refresh_tree(int column);
  void search(int node, int node_lo, int node_hi, double bound, double target, int lo,
              int hi, Best& best) const;
  void pull_up(int node) const;
  void build_runs();
  double lower_bound(int node, double target) const;
  bool usable(int column) const { return status_[column] < max_uses_; }

  const double* phase_ = nullptr;
  const std::uint8_t* status_ = nullptr;
  int width_ = 0;
  int max_uses_ = 0;
  // Columns usable at reset, ascending, with their phases; run_end_[k] is
  // one past the last element of k's run; first_at_or_after_[c] is the
  // first element whose column is >= c. Sized by reserve(), so that reset
  // only writes them.
  std::vector<int> columns_;
  std::vector<double> values_;
  std::vector<int> run_end_;
  std::vector<int> first_at_or_after_;
  int count_ = 0;  // usable columns: the valid length of the three above
  // The tree is a cache of the usable phases: built on demand by the const
  // queries, kept up to date by refresh() once built.
  mutable bool tree_built_ = false;
  mutable int leaves_ = 1;  // power of two >= width
  mutable std::vector<double> min_;
  mutable std::vector<double> max_;
};

}  // namespace detail
}  // namespace sl3d

#endif  // SL3D_PSFT_PHASE_MATCHER_H_
