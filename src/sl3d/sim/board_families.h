#ifndef SL3D_SIM_BOARD_FAMILIES_H_
#define SL3D_SIM_BOARD_FAMILIES_H_

// Boards of the two circle-marker families as the virtual sensor renders
// them, with everything a recognizer needs to read them and the truth to
// check it against.
//
// Use synth_board to get a board of either family, its recognizer's
// parameter records and the marker index and board position of every
// rendered circle; board_views lists poses the family recognizes.

#include <map>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/calibboard/calib_board_params.h>
#include <sl3d/export.h>
#include <sl3d/patterns/calibration_board.h>
#include <sl3d/sim/board_renderer.h>

namespace sl3d {

// A grid of dark circles on a light board, millimetres, laid out as the
// printable boards of make_board_design are: the rings' holes and the
// circles scale with the spacing.
struct SL3D_EXPORT BoardGrid {
  int cols = 7;
  int rows = 5;
  double spacing = 20.0;
  double radius() const { return kBoardCircleRadius * spacing; }
  double hole_radius() const { return kBoardHoleRadius * spacing; }

  // The small board of detection tests: 7 x 5, 20 mm apart.
  static BoardGrid detection() { return BoardGrid(); }
  // A board for calibrating the virtual sensor: 11 x 8, 30 mm apart,
  // 360 x 270 mm with its margin, about half the view at 800 mm.
  static BoardGrid calibration() { return {11, 8, 30.0}; }
};

struct SL3D_EXPORT SynthBoard {
  BoardFamily family = BoardFamily::kPellux;
  BoardDesign design;
  BoardLayout layout;
  // The recognizer's marker index of rendered circle (i, j) and its board
  // position, worked out from the ring placement; by j * cols + i.
  std::vector<int> truth_index;
  std::vector<cv::Point3d> truth_position;
  // The recognizer's parameters: as key values, the records they fill, and
  // a key file `sl3d detect` and `sl3d calibrate` read.
  std::map<std::string, double> keys;
  PreProcParams pre;
  CircleMarkerParams marker;
  CalibBoardParams board;
  std::string params_text;
};

// `min_radius`: the smallest circle contour, in pixels, the search accepts
// (the rings' holes must pass it).
SL3D_EXPORT SynthBoard synth_board(BoardFamily family, double min_radius,
                                   const BoardGrid& grid = BoardGrid::detection());
// The same for a board laid out by make_board_design.
SL3D_EXPORT SynthBoard synth_board(const BoardDesign& design, double min_radius);

// The renderer's layout of a designed board: circle (i, j) of the design is
// circle (i, j) of the layout, centred at (i * spacing, j * spacing).
SL3D_EXPORT BoardLayout board_layout(const BoardDesign& design);

// The printed bitmap of `design` (board_raster's drawing at
// `pixels_per_unit`, on `page` as board_raster lays it out) placed on
// board_layout(design): the layout's origin is the centre of circle (0, 0),
// a margin in from the drawing's corner. Cameras that photograph this
// texture see the board as printed, edges filtered over each pixel's
// footprint, instead of the analytic drawing.
SL3D_EXPORT BoardTexture board_texture(const BoardDesign& design, const cv::Mat& bitmap,
                                       double pixels_per_unit, cv::Size2d page = cv::Size2d());

// Half the radius in pixels of a ring's hole seen frontally at
// `distance_mm` by a camera of `focal_px`, capped at 5 px: room for the
// holes of tilted views.
SL3D_EXPORT double min_radius_for(const BoardGrid& grid, double focal_px, double distance_mm);

// Board orientation: tilt about the board's x, about its y, roll; degrees.
struct SL3D_EXPORT ViewAngles {
  double tilt_x, tilt_y, roll;
};

// Orientations the family recognizes. The one-ring family takes its +x from
// the ring's farthest neighbour, so its board is always turned 30-40
// degrees about its y axis. No view is exactly frontal: there every circle
// is equally round, and the search's three-sigma roundness filter then
// drops circles over pixel-level differences.
SL3D_EXPORT const std::vector<ViewAngles>& board_views(BoardFamily family);

// Twelve orientations for a calibration set (calibration_poses), varied in
// tilt and roll. Those of the one-ring family are the ones its recognizer
// numbers right at the poses calibration_poses makes of them, for the
// virtual sensor's cameras at 640 x 512 and 1280 x 1024.
SL3D_EXPORT const std::vector<ViewAngles>& calibration_views(BoardFamily family);

// Circles a recognition misnumbered: those found (an entry of `points`, by
// the recognizer's marker index, that is not FLT_MAX) farther than
// `tolerance_px` from the rendered centre. Circles not found do not count.
SL3D_EXPORT int misnumbered_markers(const SynthBoard& board, const BoardRendering& rendering,
                              const std::vector<cv::Point2f>& points, double tolerance_px);

}  // namespace sl3d

#endif  // SL3D_SIM_BOARD_FAMILIES_H_
