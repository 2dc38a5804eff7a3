#ifndef SL3D_CALIBBOARD_CALIB_BOARD_PARAMS_H_
#define SL3D_CALIBBOARD_CALIB_BOARD_PARAMS_H_

// The three parameter records of a calibration-board recognizer: image
// pre-processing, circle-marker search and board geometry.
//
// They are plain records, copied by value into the recognizer. Callers fill
// them field by field or from a key map with `set`, which changes only the
// fields whose key is present: a double field takes the value as it is, an
// int field the value truncated toward zero, a bool field becomes true for
// any value other than 0.0 (NaN included). Unknown keys are ignored and no
// range is checked here.

#include <cstdint>
#include <map>
#include <string>

#include <sl3d/export.h>

// How the grey image becomes the binary image of white circle blobs.
struct SL3D_EXPORT PreProcParams {
  bool do_reverse_bw = false;     // invert first: dark circles become white
  bool do_equalize_hist = false;  // histogram equalisation
  bool do_smoothing = false;      // 3x3 median filter
  std::int32_t bin_type = 1;      // 0 fixed threshold, 1 Otsu, 2 adaptive mean
  std::int32_t bin_param0 = 0;    // type 0: threshold; type 2: block size
  std::int32_t bin_param1 = 0;    // type 2: constant subtracted from the mean
  double gamma_correction = 1.0;  // exponent; exactly 1.0 is off

  // Keys: "do_reverse_bw", "do_equalize_hist", "do_smoothing", "bin_type",
  // "bin_param0", "bin_param1", "gamma_correction".
  void set(std::map<std::string, double>& values);
};

// Which contours count as circle markers.
struct SL3D_EXPORT CircleMarkerParams {
  double fitscore = 0.9;          // least ellipse-fit score, 0..1
  std::int32_t n_minimum = 9;     // least number of markers to find
  // No key. The searcher copies these over its accepted image size, so 0
  // lets the next image's size become the accepted one.
  std::int32_t image_width = 0;
  std::int32_t image_height = 0;
  double debug_show_scale = 0.0;  // debug window scale; 0.0 is no display
  double max_radius = 1500.0;     // pixels
  double min_radius = 8.0;        // pixels

  // Keys: "fitscore", "n_minimum", "max_radius", "min_radius",
  // "debug_show_scale".
  void set(std::map<std::string, double>& values);
};

// The board: an n_circles_x by n_circles_y grid of circles unit_length
// apart in the plane z = 0, with the circle (origin_x, origin_y) at the
// 3-D origin.
struct SL3D_EXPORT CalibBoardParams {
  double unit_length = 0.0;
  std::int32_t n_circles_x = 0;
  std::int32_t n_circles_y = 0;
  std::int32_t origin_x = 0;
  std::int32_t origin_y = 0;
  // Largest centre distance of two neighbours, in marker diameters.
  double distance_between_circles = 1.2;

  // Keys: "unit_length", "n_circles_x", "n_circles_y", "origin_x",
  // "origin_y", "distance_between_circles".
  void set(std::map<std::string, double>& values);
};

// The records also travel as raw blocks; their layout is fixed.
static_assert(sizeof(PreProcParams) == 24, "PreProcParams layout");
static_assert(sizeof(CircleMarkerParams) == 48, "CircleMarkerParams layout");
static_assert(sizeof(CalibBoardParams) == 32, "CalibBoardParams layout");

namespace sl3d {
namespace detail {

// double -> int32 truncated toward zero. NaN and values outside the int32
// range give INT32_MIN, the value x86 conversion yields, instead of
// undefined behaviour.
inline std::int32_t truncate_to_int32(double v) {
  if (!(v > -2147483649.0 && v < 2147483648.0)) return INT32_MIN;
  return static_cast<std::int32_t>(v);
}

}  // namespace detail
}  // namespace sl3d

#endif  // SL3D_CALIBBOARD_CALIB_BOARD_PARAMS_H_
