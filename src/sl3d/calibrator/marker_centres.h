#ifndef SL3D_CALIBRATOR_MARKER_CENTRES_H_
#define SL3D_CALIBRATOR_MARKER_CENTRES_H_

// Sub-pixel measurement of the circle markers a board recognizer found.
//
// A recognizer places each marker at the mean of the pixels of its
// binarised contour. That centre has no bias but scatters by about a tenth
// of a pixel per marker, because a contour of whole pixels follows the
// outline only to the pixel; over a calibration set the scatter keeps focal
// lengths and principal points several tenths of a pixel from the truth.
// measure_marker_centres measures each recognised marker again from the
// grey image: along rays from the recognised centre it locates the outer
// edge of the marker to a small fraction of a pixel, fits an ellipse to
// those edge points and takes the ellipse's centre. The result scatters
// several times less.
//
// Use it on each image's marker list right after `recognize`, before the
// calibration; then refine the calibration with
// CentreRefinementOptions::outline_centre = OutlineCentre::kEllipseFit, so
// that the perspective bias is predicted for the ellipse's centre (see
// refine_calibration.h), or call calibrate_stereo_precisely, which does
// all of it.
//
// Edge location along a ray. The ray runs from the recognised centre to
// half-way to the neighbouring markers (the board's grid steps as the
// neighbours show them, so rays are spread evenly round the circle on the
// board even when the view is tilted). Going inwards from its end, the
// first fall from above to below the middle of the ray's lightest and
// darkest grey is the outer edge, roughly; holes of ring markers lie
// further in and are never reached. In a window of w pixels either side of
// that crossing, with D and L the mean grey of the window's inner and outer
// ends, the edge lies at
//   t_edge = t_inner + integral over the window of (L - I(t)) / (L - D) dt
// which is exact for a step blurred by any symmetric kernel (the integral
// is the step's "area"), and uses every sample of the window instead of
// one crossing, so it resists noise and pixel quantisation.
//
// Polarity. Whether the markers are darker or lighter than the board is
// decided per image: most markers' recognised centres lie inside a plain
// disc, and the board's ground shows midway between four markers.
//
// Everything here uses plain types, reports failure through its result and
// never throws.

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/export.h>

namespace sl3d {

struct SL3D_EXPORT MarkerCentreOptions {
  // Rays per marker (at most 720); 0 chooses about one per pixel of the
  // outline, at least 32.
  int rays = 0;
  // A marker counts as not measured when its new centre lies farther than
  // this from the recognised one, pixels,
  double max_shift_px = 1.0;
  // or when the edge points lie farther than this from the fitted ellipse,
  // RMS in pixels,
  double max_residual_px = 0.25;
  // or when fewer than this share of its rays found the edge.
  double min_ray_share = 0.6;
  // What becomes of a found marker that could not be measured (no found
  // neighbour along one of the grid directions, too many rays leaving the
  // image, or a test above failed): true leaves it as the recognizer gave
  // it, which keeps every observation, with the recognizer's scatter;
  // false marks it unfound (FLT_MAX), for callers who would rather lose a
  // marker than keep one whose outline could not be traced.
  bool keep_unmeasured = true;
};

struct SL3D_EXPORT MarkerCentreReport {
  // False when the arguments were unusable (`message` says why); nothing
  // was changed then.
  bool ok = false;
  std::string message;
  // Markers measured again, and found markers that could not be (left as
  // the recognizer gave them or dropped, as the options say).
  int remeasured = 0;
  int unmeasured = 0;
  // The polarity found for the image.
  bool dark_markers = true;
  // How far the measured centres moved from the recognised ones, pixels.
  double mean_shift_px = 0.0;
  double max_shift_px = 0.0;
  // Mean over the measured markers of the RMS distance of their edge
  // points from their ellipse, pixels: the quality of the edges.
  double mean_residual_px = 0.0;
};

// Measures again every found marker of `points`, the list that `recognize`
// returned for `image`, in place. `grid` is the recognizer's
// get_marker_range().size(): (n_circles_x, n_circles_y); entry k of
// `points` is the circle at column i = k / n_circles_y and row
// j = k % n_circles_y of that grid. A marker is measured only when both of
// its grid directions have a found neighbour (for the rays' reach).
// Entries that are FLT_MAX stay so; a marker that cannot be measured
// counts in `unmeasured` and is kept or dropped as `keep_unmeasured` says.
// `image` must be 8-bit, one channel, and `points` must hold at least
// n_circles_x * n_circles_y entries (entries beyond are left alone).
SL3D_EXPORT MarkerCentreReport measure_marker_centres(
    const cv::Mat& image, cv::Size grid, std::vector<cv::Point2f>& points,
    const MarkerCentreOptions& options = MarkerCentreOptions());

}  // namespace sl3d

#endif  // SL3D_CALIBRATOR_MARKER_CENTRES_H_
