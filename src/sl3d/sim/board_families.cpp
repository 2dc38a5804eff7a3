#include <sl3d/sim/board_families.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <sstream>

namespace sl3d {

namespace {

BoardDesign design_of(BoardFamily family, const BoardGrid& grid) {
  BoardDesign design;
  make_board_design(family, grid.cols, grid.rows, grid.spacing, design);
  return design;
}

// The recognizer's 3-D position of marker `index`: the grid coordinate
// relative to the origin circle, times the spacing.
cv::Point3d marker_position(const BoardDesign& d, int index) {
  const int i = index / d.n_circles_y, j = index % d.n_circles_y;
  return {d.spacing * (d.origin_x - i), d.spacing * (d.origin_y - j), 0.0};
}

}  // namespace

BoardLayout board_layout(const BoardDesign& design) {
  BoardLayout layout;
  layout.circles_x = design.cols;
  layout.circles_y = design.rows;
  layout.spacing = design.spacing;
  layout.radius = design.radius;
  layout.margin = design.margin;
  layout.dark_circles = true;
  for (const cv::Point& ring : design.rings) {
    layout.rings.push_back({ring.x, ring.y, design.hole_radius});
  }
  return layout;
}

BoardTexture board_texture(const BoardDesign& design, const cv::Mat& bitmap,
                           double pixels_per_unit, cv::Size2d page) {
  const cv::Point2d corner = board_raster_offset(design, pixels_per_unit, page);
  return BoardTexture(bitmap, pixels_per_unit,
                      corner + cv::Point2d(design.margin, design.margin) * pixels_per_unit);
}

SynthBoard synth_board(BoardFamily family, double min_radius, const BoardGrid& grid) {
  return synth_board(design_of(family, grid), min_radius);
}

SynthBoard synth_board(const BoardDesign& design, double min_radius) {
  SynthBoard board;
  board.family = design.family;
  board.design = design;
  board.layout = board_layout(design);
  for (int j = 0; j < design.rows; ++j) {
    for (int i = 0; i < design.cols; ++i) {
      const int index = design.marker_index(i, j);
      board.truth_index.push_back(index);
      board.truth_position.push_back(marker_position(design, index));
    }
  }
  board.keys = board_keys(design, min_radius);
  std::map<std::string, double> keys = board.keys;
  board.pre.set(keys);
  board.marker.set(keys);
  board.board.set(keys);
  board.params_text = board_key_text(
      board.keys, {std::string(family_name(design.family)) +
                   " board rendered by the sl3d virtual sensor"});
  return board;
}

double min_radius_for(const BoardGrid& grid, double focal_px, double distance_mm) {
  const double hole_px = grid.hole_radius() * focal_px / distance_mm;
  return std::min(5.0, std::floor(hole_px * 0.5 * 10.0) / 10.0);
}

const std::vector<ViewAngles>& board_views(BoardFamily family) {
  static const std::vector<ViewAngles> pellux = {
      {10, 8, 3},    {25, 0, 0},     {0, 35, 90},    {30, 0, 180},
      {0, 40, 270},  {-35, 20, -60}, {20, -30, 135}, {-20, -40, 225}};
  static const std::vector<ViewAngles> quill = {
      {10, 40, 0}, {15, -35, 8}, {12, 30, -10}, {10, -40, -5},
      {14, 35, 6}, {12, -32, -8}, {8, 38, 10},  {15, 32, 3}};
  return family == BoardFamily::kPellux ? pellux : quill;
}

const std::vector<ViewAngles>& calibration_views(BoardFamily family) {
  static const std::vector<ViewAngles> pellux = {
      {10, 8, 3},     {25, 0, 0},     {0, 35, 90},   {30, 0, 180},
      {0, 40, 270},   {-35, 20, -60}, {20, -30, 135}, {-20, -40, 225},
      {-15, 25, 20},  {35, 10, -20},  {15, -15, 45}, {-30, -10, 300}};
  static const std::vector<ViewAngles> quill = {
      {12, -35, -8}, {12, 35, 8},  {12, -30, -8}, {12, 35, 0},  {12, -30, 8}, {18, 35, 0},
      {18, -30, -8}, {12, 30, -8}, {18, -30, 0},  {12, 30, 8},  {12, -40, -8}, {12, 40, 0}};
  return family == BoardFamily::kPellux ? pellux : quill;
}

int misnumbered_markers(const SynthBoard& board, const BoardRendering& rendering,
                        const std::vector<cv::Point2f>& points, double tolerance_px) {
  int wrong = 0;
  for (std::size_t c = 0; c < rendering.centres.size(); ++c) {
    const int index = board.truth_index[c];
    if (index < 0 || std::size_t(index) >= points.size() || points[index].x == FLT_MAX) continue;
    const cv::Point2d p(points[index].x, points[index].y);
    if (!(cv::norm(p - rendering.centres[c]) <= tolerance_px)) ++wrong;
  }
  return wrong;
}

}  // namespace sl3d
