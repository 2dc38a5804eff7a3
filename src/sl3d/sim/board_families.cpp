#include <sl3d/sim/board_families.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <sstream>

namespace sl3d {

namespace {

// Where the base markers sit: the three-ring family's origin ring O at
// (1, rows - 2), X at (3, rows - 2) and Y at (1, rows - 3); the one-ring
// family's ring at (cols - 3, 1).
cv::Point pellux_origin(const BoardGrid& g) { return {1, g.rows - 2}; }
cv::Point quill_ring(const BoardGrid& g) { return {g.cols - 3, 1}; }

BoardLayout layout_of(BoardFamily family, const BoardGrid& grid) {
  BoardLayout layout;
  layout.circles_x = grid.cols;
  layout.circles_y = grid.rows;
  layout.spacing = grid.spacing;
  layout.radius = grid.radius();
  layout.margin = 0.75 * grid.spacing;
  layout.dark_circles = true;
  if (family == BoardFamily::kPellux) {
    const cv::Point o = pellux_origin(grid);
    layout.rings = three_ring_base_markers(o.x, o.y, grid.hole_radius());
  } else {
    const cv::Point r = quill_ring(grid);
    layout.rings = one_ring_base_marker(r.x, r.y, grid.hole_radius());
  }
  return layout;
}

struct GridRecord {
  int n_x, n_y, origin_x, origin_y;
};

// Three rings: the renderer's +i is the board's +x and its +j the board's
// -y, so the recognizer's grid runs from the far column. One ring: facing
// the camera the ring's left neighbour is the board's +y and its upper one
// +x, so the recognizer's columns are the rendered rows.
GridRecord grid_record(BoardFamily family, const BoardGrid& g) {
  if (family == BoardFamily::kPellux) {
    const cv::Point o = pellux_origin(g);
    return {g.cols, g.rows, g.cols - 1 - o.x, o.y};
  }
  const cv::Point r = quill_ring(g);
  return {g.rows, g.cols, r.y, r.x};
}

// Grid column and row in the recognizer's numbering of rendered circle (i, j).
cv::Point recognizer_cell(BoardFamily family, const BoardGrid& g, int i, int j) {
  return family == BoardFamily::kPellux ? cv::Point(g.cols - 1 - i, j) : cv::Point(j, i);
}

std::map<std::string, double> recognizer_keys(const GridRecord& grid, double spacing,
                                              double min_radius) {
  return {{"do_reverse_bw", 1},          {"bin_type", 1},
          {"min_radius", min_radius},    {"unit_length", spacing},
          {"n_circles_x", grid.n_x},     {"n_circles_y", grid.n_y},
          {"origin_x", grid.origin_x},   {"origin_y", grid.origin_y}};
}

std::string params_text(BoardFamily family, const std::map<std::string, double>& keys) {
  std::ostringstream out;
  out << "%YAML:1.0\n---\n"
      << "# " << family_name(family) << " board rendered by the sl3d virtual sensor\n"
      << "# pre-processing: the circles are dark on a light board\n"
      << "do_reverse_bw: " << keys.at("do_reverse_bw") << "\n"
      << "bin_type: " << keys.at("bin_type") << "\n"
      << "# circle-marker search\n"
      << "min_radius: " << keys.at("min_radius") << "\n"
      << "# board\n";
  for (const char* key : {"unit_length", "n_circles_x", "n_circles_y", "origin_x", "origin_y"})
    out << key << ": " << keys.at(key) << "\n";
  return out.str();
}

}  // namespace

const char* family_name(BoardFamily family) {
  return family == BoardFamily::kPellux ? "pellux" : "quill";
}

int board_type(BoardFamily family) { return family == BoardFamily::kPellux ? 0 : 1; }

SynthBoard synth_board(BoardFamily family, double min_radius, const BoardGrid& grid) {
  SynthBoard board;
  board.family = family;
  board.layout = layout_of(family, grid);
  const GridRecord record = grid_record(family, grid);
  for (int j = 0; j < grid.rows; ++j) {
    for (int i = 0; i < grid.cols; ++i) {
      const cv::Point cell = recognizer_cell(family, grid, i, j);
      board.truth_index.push_back(cell.x * record.n_y + cell.y);
      board.truth_position.emplace_back(grid.spacing * (record.origin_x - cell.x),
                                        grid.spacing * (record.origin_y - cell.y), 0.0);
    }
  }
  board.keys = recognizer_keys(record, grid.spacing, min_radius);
  std::map<std::string, double> keys = board.keys;
  board.pre.set(keys);
  board.marker.set(keys);
  board.board.set(keys);
  board.params_text = params_text(family, board.keys);
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
