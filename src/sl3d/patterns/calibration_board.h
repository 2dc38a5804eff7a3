#ifndef SL3D_PATTERNS_CALIBRATION_BOARD_H_
#define SL3D_PATTERNS_CALIBRATION_BOARD_H_

// Printable circle-marker calibration boards of the two families, and the
// key file the recognizers read them with.
//
// Use make_board_design to lay a board out, board_svg for a true-scale
// vector drawing to print, board_raster for the same drawing as a bitmap,
// and board_keys / board_key_text for the recognizer settings of exactly
// that board.
//
// The printed board: dark circles on white, `cols` across and `rows` down,
// `spacing` apart (any length unit; millimetres for printing). Seen from
// the front, circle (i, j) is the i-th from the left and the j-th from the
// top, its centre at (margin + i * spacing, margin + j * spacing) from the
// board's top-left corner. Some circles are rings, a circle with a round
// hole: the base markers the recognizers start from.
//
//   pellux  three rings: O at (1, rows - 2), the origin circle; X two
//           columns to its right, (3, rows - 2), with a plain circle
//           between them; Y right above O, (1, rows - 3). The board's
//           x axis runs from O towards X, its y axis from O towards Y, so
//           seen from the front x points right and y up.
//   quill   one ring at (cols - 3, 1), the origin circle. The recognizer
//           takes its axes from the ring's neighbours in the image: +y the
//           neighbour farthest to the image's left, +x the one farthest
//           from the ring. Held turned 30-40 degrees about its vertical
//           axis, its top edge 10-15 degrees nearer the camera than its
//           bottom edge, the board's +x points up and +y left (as
//           printed), which the key file assumes.
//
// Sizes, in spacings: circles 0.8 across (centres 1.25 diameters apart,
// within the recognizer's 1.3), ring holes 0.45 across, a bit over half the
// circle: the hole's contour must look like the other circles' to the
// search's roundness filter, and in tilted views a hole of a quarter of the
// diameter comes out rounder than the circles and is dropped. The white
// margin beyond the outer circles' centres is 0.75 spacings.

#include <map>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/export.h>

namespace sl3d {

// kPellux: three ring base markers (PelluxCalibBoardRecognizer, board type
// 0). kQuill: one ring (QuillCalibBoardRecognizer, any other board type).
enum class BoardFamily { kPellux, kQuill };

SL3D_EXPORT const char* family_name(BoardFamily family);
// The board_type of the calibration drivers for the family.
SL3D_EXPORT int board_type(BoardFamily family);

constexpr double kBoardCircleRadius = 0.4;   // spacings
constexpr double kBoardHoleRadius = 0.225;   // spacings
constexpr double kBoardMargin = 0.75;        // spacings
constexpr int kBoardMinCols = 4;
constexpr int kBoardMinRows = 3;
constexpr int kBoardMaxCircles = 100;        // per row or column

struct SL3D_EXPORT BoardDesign {
  BoardFamily family = BoardFamily::kPellux;
  int cols = 0;
  int rows = 0;
  double spacing = 0.0;
  double radius = 0.0;       // of the circles
  double hole_radius = 0.0;  // of the rings' holes
  double margin = 0.0;       // board edge beyond the outer circles' centres
  std::vector<cv::Point> rings;  // (i, j) of the ring circles

  // The recognizer's grid (CalibBoardParams): counts along its x and y
  // axes and the grid index of the origin ring.
  int n_circles_x = 0;
  int n_circles_y = 0;
  int origin_x = 0;
  int origin_y = 0;

  double width() const { return (cols - 1) * spacing + 2.0 * margin; }
  double height() const { return (rows - 1) * spacing + 2.0 * margin; }
  // Centre of circle (i, j), from the board's top-left corner.
  cv::Point2d centre(int i, int j) const {
    return {margin + i * spacing, margin + j * spacing};
  }
  bool is_ring(int i, int j) const;
  // The recognizer's marker index of circle (i, j), or -1 when the key
  // file's grid does not reach it.
  int marker_index(int i, int j) const;
};

// Lays out a board. Returns false, leaving `design` alone, unless
// kBoardMinCols <= cols, kBoardMinRows <= rows, both at most
// kBoardMaxCircles, and spacing is finite and positive.
SL3D_EXPORT bool make_board_design(BoardFamily family, int cols, int rows, double spacing,
                                   BoardDesign& design);

// An SVG drawing of the board whose user unit is the spacing's unit, stated
// as millimetres: printed at 100 % it has true size. `page` (width, height
// in the same unit; zero for none) makes the drawing the page's size with
// the board centred; the caller checks that it fits.
SL3D_EXPORT std::string board_svg(const BoardDesign& design, cv::Size2d page = cv::Size2d());

// The same drawing as an 8-bit grey bitmap (white 255, circles 0) with
// `pixels_per_unit` pixels per unit of the spacing; pixels on an edge are
// grey in proportion to the circle they cover. Empty when the image would
// have no pixel or more than 2^31 of them.
SL3D_EXPORT cv::Mat board_raster(const BoardDesign& design, double pixels_per_unit,
                                 cv::Size2d page = cv::Size2d());

// Where board_raster put the board: the bitmap position, in pixels with
// pixel centres at integer coordinates, of the board's top-left corner.
SL3D_EXPORT cv::Point2d board_raster_offset(const BoardDesign& design, double pixels_per_unit,
                                            cv::Size2d page = cv::Size2d());

// The recognizer keys for the board (the names CalibBoardParams,
// CircleMarkerParams and PreProcParams read): dark circles inverted
// (do_reverse_bw 1), Otsu binarisation (bin_type 1), `min_radius` pixels
// as the smallest accepted circle, unit_length = spacing, and the grid.
SL3D_EXPORT std::map<std::string, double> board_keys(const BoardDesign& design,
                                                     double min_radius);

// Those keys as a key file (YAML that cv::FileStorage reads), headed by
// `comment` lines (each written after "# ").
SL3D_EXPORT std::string board_key_text(const std::map<std::string, double>& keys,
                                       const std::vector<std::string>& comment);

}  // namespace sl3d

#endif  // SL3D_PATTERNS_CALIBRATION_BOARD_H_
