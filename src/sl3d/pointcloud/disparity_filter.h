#ifndef SL3D_POINTCLOUD_DISPARITY_FILTER_H_
#define SL3D_POINTCLOUD_DISPARITY_FILTER_H_

// Removal of outliers from a generator's disparity list, between exec() and
// genPC().
//
// The generators' own checks are one-sided: phase-shift matching compares
// each disparity with its left and upper neighbours only, never consults
// camera 0's decode status, and keeps isolated islands of matches; block
// matching keeps whatever the matcher accepted. The records they let
// through at depth and occlusion edges, where a pixel mixes two surfaces,
// and at the borders of the lit area and of the usable period range, lie
// far from every true surface. This filter drops
//   - records whose camera-0 pixel the phase-shift decode had rejected
//     (status 200 or more in PhaseShift::status_map(0));
//   - phase shift only: integer matches. Matching falls back to the whole
//     pixel when a camera-1 neighbour of the match was rejected, which puts
//     the point up to half a pixel of disparity off (several millimetres at
//     a metre). The match is refitted from the two phases on either side of
//     the camera-0 phase that are usable; where there are none, the record
//     goes;
//   - records whose disparity differs by more than max_neighbour_step from
//     a neighbour on their right or below (the two sides matching does not
//     check), or on any side with check_all_sides. A neighbour is another
//     record or, for phase shift, a pixel that matching fitted and then
//     rejected for its range or its step (status 208, 209);
//   - records in the middle of a steep ramp (max_span_step) and,
//     optionally, records next to pixels without a match;
//   - records in connected patches of fewer than min_patch_size records,
//     where neighbours whose disparities differ by at most max_patch_step
//     are connected (4-neighbourhood).
// The remaining records keep their order, so genPC gives the same points
// for them as before.
//
// Use filter_disparities(gen) after gen->exec() and before gen->genPC():
//
//   gen->exec();
//   sl3d::DisparityFilterReport r = sl3d::filter_disparities(*gen);
//   gen->genPC(0);   // r.removed() fewer points
//
// Nothing here throws; bad arguments remove nothing and say so in the
// report.

#include <cstdint>

#include <sl3d/export.h>
#include <sl3d/pointcloud/PointCloudGenerator.h>

namespace sl3d {

struct SL3D_EXPORT DisparityFilterOptions {
  // Drop records of camera-0 pixels with a decode status of 200 or more
  // (only where a status map is known: phase shift).
  bool drop_decode_rejected = true;
  // Refit (or drop) phase-shift records whose disparity is a whole number.
  bool refit_integer_matches = true;
  // Pixels; 0 or less turns the neighbour test off.
  double max_neighbour_step = 1.0;
  // Test all four neighbours rather than the right and lower ones.
  bool check_all_sides = false;
  // Pixels of disparity between the two neighbours on either side (left
  // and right, upper and lower); 0 or less turns the test off. A pixel that
  // mixes two surfaces across a depth edge sits in the middle of a ramp
  // whose single steps can stay below max_neighbour_step.
  double max_span_step = 1.3;
  // Phase shift: drop records next to a pixel that found no acceptable
  // match (status 204, 205, 206, 210): the border of shadows and of the lit
  // area, where a pixel is partly lit.
  bool drop_unmatched_border = true;
  // Records; 0 or 1 turns the patch test off.
  int min_patch_size = 50;
  // Pixels of disparity between two connected neighbours.
  double max_patch_step = 1.0;
};

// How many records each test removed (a record counts once, under the
// first test that removed it, in the order above), and how many are left.
struct SL3D_EXPORT DisparityFilterReport {
  int decode_rejected = 0;
  int integer_unfit = 0;
  // Integer matches given a sub-pixel disparity (kept, not removed).
  int integer_refitted = 0;
  int neighbour_step = 0;
  int small_patch = 0;
  int kept = 0;
  // False when the arguments were unusable; nothing was removed then.
  bool ok = false;
  int removed() const { return decode_rejected + integer_unfit + neighbour_step + small_patch; }
};

// Filters `count` records of four doubles (column, row, disparity, 1.0) in
// place, moving the kept ones to the front in their order; report.kept is
// the new count. Columns and rows are pixels of a width x height image;
// records outside it, or with a non-integer position, are kept and take no
// part in the tests. `status0`, when not null, is camera 0's status map
// (width x height, row-major) for the decode test; `disparity0`, when not
// null as well, the disparity map of the same exec, whose pixels of status
// 208 and 209 then count as neighbours. Where several records share a
// pixel, the last one stands for the pixel in the tests. No refitting here.
SL3D_EXPORT DisparityFilterReport filter_disparity_records(
    double* records, int count, int width, int height, const std::uint8_t* status0,
    const double* disparity0 = nullptr,
    const DisparityFilterOptions& options = DisparityFilterOptions());

// The same on a generator's own disparity list after exec(): a PhaseShift
// supplies its status, disparity and phase maps (and gets the integer
// refit), any other generator is filtered by the neighbour and patch tests
// alone. The list shrinks to the kept records; refitted records change
// their disparity.
SL3D_EXPORT DisparityFilterReport filter_disparities(
    PointCloudGenerator& generator,
    const DisparityFilterOptions& options = DisparityFilterOptions());

}  // namespace sl3d

#endif  // SL3D_POINTCLOUD_DISPARITY_FILTER_H_
