#include <sl3d/pointcloud/disparity_filter.h>
#include <sl3d/pointcloud/threads.h>

#include <cmath>
#include <cstddef>
#include <exception>
#include <vector>

#include <sl3d/calibboard/union_find.h>
#include <sl3d/psft/psft.h>

namespace sl3d {

namespace detail {

// The filter edits a generator's disparity list between exec() and genPC().
// The list is the generator's own and callers only get a read-only view of
// it, so the generator class names this one accessor as a friend rather
// than widening its public interface: the filter is the only code outside
// the generators that writes the list, and it only ever shortens it.
class DisparityListAccess {
 public:
  static double* records(PointCloudGenerator& gen) {
    return static_cast<double*>(gen.disparities_.data());
  }
  // Keeps the first `count` records (0 <= count <= the current count).
  static void truncate(PointCloudGenerator& gen, int count) { gen.disparity_count_ = count; }
};

}  // namespace detail

namespace {

constexpr int kNoRecord = -1;

enum Verdict : std::uint8_t { kKeep = 0, kDecode, kUnfit, kStep, kPatch };

// Phase-shift maps of one exec, for refitting integer matches.
struct PhaseMaps {
  const double* phase0;
  const double* phase1;
  const std::uint8_t* status1;  // rejected >= 200, else usage counts
};

// The record standing for each pixel, or kNoRecord.
class RecordGrid {
 public:
  RecordGrid(const double* records, int count, int width, int height)
      : width_(width), height_(height), index_(std::size_t(width) * height, kNoRecord) {
    for (int i = 0; i < count; ++i) {
      const double* r = records + 4 * std::size_t(i);
      if (contains(r)) index_[std::size_t(r[1]) * width + std::size_t(r[0])] = i;
    }
  }
  // A record on a whole pixel of the image with a finite disparity.
  bool contains(const double* r) const {
    const double x = r[0], y = r[1];
    return x >= 0 && y >= 0 && x < width_ && y < height_ && x == std::floor(x) &&
           y == std::floor(y) && std::isfinite(r[2]);
  }
  int width() const { return width_; }
  int height() const { return height_; }
  int at(int x, int y) const { return index_[std::size_t(y) * width_ + x]; }
  const std::vector<int>& cells() const { return index_; }

 private:
  int width_, height_;
  std::vector<int> index_;
};

double disparity(const double* records, int i) { return records[4 * std::size_t(i) + 2]; }

void mark_decode_rejected(const RecordGrid& grid, const std::uint8_t* status0,
                          std::vector<Verdict>& verdict) {
  const std::vector<int>& cells = grid.cells();
  for (std::size_t p = 0; p < cells.size(); ++p) {
    if (cells[p] != kNoRecord && status0[p] >= 200) verdict[cells[p]] = kDecode;
  }
}

// Pixel (x, y)'s record if it has one that has not been removed.
int live_record(const RecordGrid& grid, const std::vector<Verdict>& verdict, int x, int y) {
  if (x < 0 || y < 0 || x >= grid.width() || y >= grid.height()) return kNoRecord;
  const int i = grid.at(x, y);
  return i != kNoRecord && verdict[i] == kKeep ? i : kNoRecord;
}

// Disparity of a pixel that matching fitted and then rejected for its
// range or step, or NaN.
struct FittedRejects {
  const std::uint8_t* status0 = nullptr;
  const double* disparity0 = nullptr;
  double at(const RecordGrid& grid, int x, int y) const {
    if (status0 == nullptr || disparity0 == nullptr) return std::nan("");
    if (x < 0 || y < 0 || x >= grid.width() || y >= grid.height()) return std::nan("");
    const std::size_t p = std::size_t(y) * grid.width() + x;
    if (grid.at(x, y) != kNoRecord) return std::nan("");
    return status0[p] == 208 || status0[p] == 209 ? disparity0[p] : std::nan("");
  }
};

// Matching falls back to the whole pixel i when a camera-1 neighbour of the
// match is rejected. The line through i and a usable neighbour j gives the
// column where camera 1 has camera 0's phase; false when no neighbour is
// usable or the line leads more than a pixel away.
bool refit_integer_match(const PhaseMaps& maps, int width, double* record) {
  const int x = int(record[0]), y = int(record[1]);
  const int i = x - int(record[2]);
  if (i < 0 || i >= width) return false;
  const std::size_t row = std::size_t(y) * width;
  const double target = maps.phase0[row + x];
  const double* p = maps.phase1 + row;
  const std::uint8_t* s = maps.status1 + row;
  double best = std::nan("");
  for (int j : {i - 1, i + 1}) {
    if (j < 0 || j >= width || s[j] >= 200) continue;
    const double slope = (p[j] - p[i]) / (j - i);
    if (!(slope > 0.0)) continue;
    const double column = i + (target - p[i]) / slope;
    const bool brackets = (column - i) * (j - i) >= 0.0;  // target between p[i] and p[j]
    if (std::isnan(best) || brackets) best = column;
    if (brackets) break;
  }
  if (!(std::fabs(best - i) <= 1.0)) return false;
  record[2] = x - best;
  return true;
}

void refit_integer_matches(double* records, const RecordGrid& grid, int count,
                           const PhaseMaps& maps, std::vector<Verdict>& verdict, int& refitted) {
  for (int k = 0; k < count; ++k) {
    double* r = records + 4 * std::size_t(k);
    if (verdict[k] != kKeep || r[2] != std::floor(r[2])) continue;
    if (!grid.contains(r)) continue;
    if (refit_integer_match(maps, grid.width(), r)) {
      ++refitted;
    } else {
      verdict[k] = kUnfit;
    }
  }
}

// Disparity of pixel (x, y): its live record's, or that of a fitted reject.
double neighbour_disparity(const double* records, const RecordGrid& grid,
                           const FittedRejects& rejects, const std::vector<Verdict>& verdict,
                           int x, int y) {
  const int n = live_record(grid, verdict, x, y);
  return n != kNoRecord ? disparity(records, n) : rejects.at(grid, x, y);
}

bool steep_ramp(const double* records, const RecordGrid& grid, const FittedRejects& rejects,
                const std::vector<Verdict>& verdict, int x, int y, double max_span_step) {
  if (!(max_span_step > 0.0)) return false;
  auto at = [&](int px, int py) {
    return neighbour_disparity(records, grid, rejects, verdict, px, py);
  };
  return std::fabs(at(x + 1, y) - at(x - 1, y)) > max_span_step ||
         std::fabs(at(x, y + 1) - at(x, y - 1)) > max_span_step;
}

// A 4-neighbour that matching found no acceptable match for.
bool next_to_unmatched(const RecordGrid& grid, const FittedRejects& rejects, int x, int y) {
  if (rejects.status0 == nullptr) return false;
  static const int kSides[4][2] = {{1, 0}, {0, 1}, {-1, 0}, {0, -1}};
  for (const auto& side : kSides) {
    const int nx = x + side[0], ny = y + side[1];
    if (nx < 0 || ny < 0 || nx >= grid.width() || ny >= grid.height()) continue;
    const std::uint8_t s = rejects.status0[std::size_t(ny) * grid.width() + nx];
    if ((s >= 204 && s <= 206) || s == 210) return true;
  }
  return false;
}

// Whether record i at (x, y) fails the neighbour tests.
bool fails_neighbour_tests(const double* records, const RecordGrid& grid,
                           const FittedRejects& rejects, const DisparityFilterOptions& options,
                           const std::vector<Verdict>& verdict, int i, int x, int y) {
  static const int kRightLower[2][2] = {{1, 0}, {0, 1}};
  static const int kAllSides[4][2] = {{1, 0}, {0, 1}, {-1, 0}, {0, -1}};
  if (steep_ramp(records, grid, rejects, verdict, x, y, options.max_span_step) ||
      (options.drop_unmatched_border && next_to_unmatched(grid, rejects, x, y))) {
    return true;
  }
  const int (*sides)[2] = options.check_all_sides ? kAllSides : kRightLower;
  const int side_count = options.check_all_sides ? 4 : 2;
  for (int s = 0; s < side_count; ++s) {
    const double d =
        neighbour_disparity(records, grid, rejects, verdict, x + sides[s][0], y + sides[s][1]);
    if (std::fabs(d - disparity(records, i)) > options.max_neighbour_step) return true;
  }
  return false;
}

// Judged against the records that passed the earlier tests, all at once,
// so that the order of the pixels does not matter; hence also the same
// verdicts on any number of threads (each chunk of rows only reads them).
void mark_neighbour_steps(const double* records, const RecordGrid& grid,
                          const FittedRejects& rejects, const DisparityFilterOptions& options,
                          std::vector<Verdict>& verdict) {
  const int chunks = detail::chunks_for(grid.height(), 64);
  std::vector<std::vector<int>> failed(static_cast<std::size_t>(chunks));
  detail::run_chunks(chunks, grid.height(), [&](int chunk, int begin, int end) {
    for (int y = begin; y < end; ++y) {
      for (int x = 0; x < grid.width(); ++x) {
        const int i = live_record(grid, verdict, x, y);
        if (i != kNoRecord &&
            fails_neighbour_tests(records, grid, rejects, options, verdict, i, x, y)) {
          failed[std::size_t(chunk)].push_back(i);
        }
      }
    }
  });
  for (const std::vector<int>& part : failed) {
    for (int i : part) verdict[i] = kStep;
  }
}

// Patches are the connected sets of records whose 4-neighbours differ by at
// most max_patch_step; those below the minimum size go. Labelled by a
// union-find over the records in one pass over the rows, joining each
// record with its left and upper neighbours: that reads the records in
// their own order, where a flood fill walks a large patch in its pixels'
// neighbour order and waits on memory.
void mark_small_patches(const double* records, const RecordGrid& grid,
                        const DisparityFilterOptions& options, std::vector<Verdict>& verdict) {
  UnionFind patches(static_cast<int>(verdict.size()));
  for (int y = 0; y < grid.height(); ++y) {
    for (int x = 0; x < grid.width(); ++x) {
      const int i = live_record(grid, verdict, x, y);
      if (i == kNoRecord) continue;
      for (const int n : {live_record(grid, verdict, x - 1, y), live_record(grid, verdict, x, y - 1)}) {
        if (n != kNoRecord &&
            std::fabs(disparity(records, n) - disparity(records, i)) <= options.max_patch_step) {
          patches.unite(i, n);
        }
      }
    }
  }
  // Every size is read before any record is marked.
  std::vector<int> small;
  for (int i : grid.cells()) {
    if (i != kNoRecord && verdict[i] == kKeep &&
        patches.size_of_root(patches.root(i)) < options.min_patch_size) {
      small.push_back(i);
    }
  }
  for (int i : small) verdict[i] = kPatch;
}

// Moves the kept records to the front, in order; returns the report.
DisparityFilterReport compact(double* records, int count, const std::vector<Verdict>& verdict) {
  DisparityFilterReport report;
  report.ok = true;
  int kept = 0;
  for (int i = 0; i < count; ++i) {
    switch (verdict[i]) {
      case kDecode: ++report.decode_rejected; continue;
      case kUnfit: ++report.integer_unfit; continue;
      case kStep: ++report.neighbour_step; continue;
      case kPatch: ++report.small_patch; continue;
      case kKeep: break;
    }
    if (kept != i) {
      for (int k = 0; k < 4; ++k) records[4 * std::size_t(kept) + k] = records[4 * std::size_t(i) + k];
    }
    ++kept;
  }
  report.kept = kept;
  return report;
}

DisparityFilterReport filter(double* records, int count, int width, int height,
                             const std::uint8_t* status0, const double* disparity0,
                             const PhaseMaps* maps, const DisparityFilterOptions& options) {
  const RecordGrid grid(records, count, width, height);
  std::vector<Verdict> verdict(std::size_t(count), kKeep);
  if (status0 != nullptr && options.drop_decode_rejected) {
    mark_decode_rejected(grid, status0, verdict);
  }
  int refitted = 0;
  if (maps != nullptr && options.refit_integer_matches) {
    refit_integer_matches(records, grid, count, *maps, verdict, refitted);
  }
  if (options.max_neighbour_step > 0.0) {
    mark_neighbour_steps(records, grid, FittedRejects{status0, disparity0}, options, verdict);
  }
  if (options.min_patch_size > 1) mark_small_patches(records, grid, options, verdict);
  DisparityFilterReport report = compact(records, count, verdict);
  report.integer_refitted = refitted;
  return report;
}

DisparityFilterReport guarded_filter(double* records, int count, int width, int height,
                                     const std::uint8_t* status0, const double* disparity0,
                                     const PhaseMaps* maps,
                                     const DisparityFilterOptions& options) {
  DisparityFilterReport report;
  report.kept = count;
  if (count < 0 || width <= 0 || height <= 0 || (records == nullptr && count > 0)) return report;
  try {
    return filter(records, count, width, height, status0, disparity0, maps, options);
  } catch (const std::exception&) {  // out of memory for the grids: nothing removed
    return report;
  }
}

template <typename Plane>
bool plane_fits(const Plane& plane, int width, int height) {
  return plane.rows() == height && plane.cols() == width;
}

// Every map the phase-shift tests read has the generator's image size.
bool planes_fit(const PhaseShift& gen, int width, int height) {
  return plane_fits(gen.status_map(0), width, height) &&
         plane_fits(gen.status_map(1), width, height) &&
         plane_fits(gen.phase_map(0), width, height) &&
         plane_fits(gen.phase_map(1), width, height) &&
         plane_fits(gen.disparity_map(), width, height);
}

}  // namespace

DisparityFilterReport filter_disparity_records(double* records, int count, int width, int height,
                                               const std::uint8_t* status0,
                                               const double* disparity0,
                                               const DisparityFilterOptions& options) {
  return guarded_filter(records, count, width, height, status0, disparity0, nullptr, options);
}

DisparityFilterReport filter_disparities(PointCloudGenerator& generator,
                                         const DisparityFilterOptions& options) {
  const int width = generator.width(), height = generator.height();
  const int count = generator.get_disparity_cnt();
  const std::uint8_t* status0 = nullptr;
  const double* disparity0 = nullptr;
  PhaseMaps maps{nullptr, nullptr, nullptr};
  const auto* phase_shift = dynamic_cast<const PhaseShift*>(&generator);
  if (phase_shift != nullptr && planes_fit(*phase_shift, width, height)) {
    status0 = phase_shift->status_map(0).data();
    disparity0 = phase_shift->disparity_map().data();
    maps = PhaseMaps{phase_shift->phase_map(0).data(), phase_shift->phase_map(1).data(),
                     phase_shift->status_map(1).data()};
  }
  double* records = detail::DisparityListAccess::records(generator);
  DisparityFilterReport report = guarded_filter(records, count, width, height, status0,
                                                disparity0, status0 ? &maps : nullptr, options);
  if (report.ok) detail::DisparityListAccess::truncate(generator, report.kept);
  return report;
}

}  // namespace sl3d
