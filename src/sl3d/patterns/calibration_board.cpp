#include <sl3d/patterns/calibration_board.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <sstream>

namespace sl3d {

namespace {

// Pixels farther than this from a circle's edge are wholly in or out.
constexpr double kEdgeBand = 0.75;
constexpr int kEdgeSamples = 4;  // per pixel side, on edges

// Ring placements (see the header) and the recognizer grid they imply.
void place_rings(BoardDesign& d) {
  if (d.family == BoardFamily::kPellux) {
    const cv::Point o(1, d.rows - 2);
    d.rings = {o, {o.x + 2, o.y}, {o.x, o.y - 1}};
    // Board x runs with i, board y against j: the recognizer's grid counts
    // from the far column.
    d.n_circles_x = d.cols;
    d.n_circles_y = d.rows;
    d.origin_x = d.cols - 1 - o.x;
    d.origin_y = o.y;
  } else {
    const cv::Point r(d.cols - 3, 1);
    d.rings = {r};
    // Board +x is up (against j), +y left (against i): the recognizer's
    // columns are the printed rows.
    d.n_circles_x = d.rows;
    d.n_circles_y = d.cols;
    d.origin_x = r.y;
    d.origin_y = r.x;
  }
}

// "12.5", "30", "0.125": numbers as a drawing wants them.
std::string number(double v) {
  char text[64];
  std::snprintf(text, sizeof text, "%.4f", v);
  std::string s = text;
  while (!s.empty() && s.back() == '0') s.pop_back();
  if (!s.empty() && s.back() == '.') s.pop_back();
  return s == "-0" ? "0" : s;
}

cv::Point2d page_offset(const BoardDesign& d, cv::Size2d page) {
  if (page.width <= 0.0 || page.height <= 0.0) return {0.0, 0.0};
  return {(page.width - d.width()) / 2.0, (page.height - d.height()) / 2.0};
}

cv::Size2d drawing_size(const BoardDesign& d, cv::Size2d page) {
  if (page.width <= 0.0 || page.height <= 0.0) return {d.width(), d.height()};
  return page;
}

// Share of the pixel centred at (x, y) that lies in the annulus
// hole <= distance from the origin <= radius (all in pixels).
double annulus_coverage(double x, double y, double radius, double hole) {
  const double d = std::hypot(x, y);
  const bool inside = d < radius - kEdgeBand && (hole <= 0.0 || d > hole + kEdgeBand);
  const bool outside = d > radius + kEdgeBand || (hole > 0.0 && d < hole - kEdgeBand);
  if (inside) return 1.0;
  if (outside) return 0.0;
  int in = 0;
  for (int sy = 0; sy < kEdgeSamples; ++sy) {
    for (int sx = 0; sx < kEdgeSamples; ++sx) {
      const double px = x + (sx + 0.5) / kEdgeSamples - 0.5;
      const double py = y + (sy + 0.5) / kEdgeSamples - 0.5;
      const double r = std::hypot(px, py);
      in += r <= radius && r >= hole;
    }
  }
  return double(in) / (kEdgeSamples * kEdgeSamples);
}

void draw_circle(cv::Mat& image, cv::Point2d centre, double radius, double hole) {
  const int x0 = std::max(0, int(std::floor(centre.x - radius - 1)));
  const int x1 = std::min(image.cols - 1, int(std::ceil(centre.x + radius + 1)));
  const int y0 = std::max(0, int(std::floor(centre.y - radius - 1)));
  const int y1 = std::min(image.rows - 1, int(std::ceil(centre.y + radius + 1)));
  for (int y = y0; y <= y1; ++y) {
    uchar* row = image.ptr<uchar>(y);
    for (int x = x0; x <= x1; ++x) {
      const double cover = annulus_coverage(x - centre.x, y - centre.y, radius, hole);
      row[x] = cv::saturate_cast<uchar>(std::lround(255.0 * (1.0 - cover)));
    }
  }
}

}  // namespace

const char* family_name(BoardFamily family) {
  return family == BoardFamily::kPellux ? "pellux" : "quill";
}

int board_type(BoardFamily family) { return family == BoardFamily::kPellux ? 0 : 1; }

bool BoardDesign::is_ring(int i, int j) const {
  return std::find(rings.begin(), rings.end(), cv::Point(i, j)) != rings.end();
}

int BoardDesign::marker_index(int i, int j) const {
  if (i < 0 || j < 0 || i >= cols || j >= rows) return -1;
  return family == BoardFamily::kPellux ? (cols - 1 - i) * n_circles_y + j
                                        : j * n_circles_y + i;
}

bool make_board_design(BoardFamily family, int cols, int rows, double spacing,
                       BoardDesign& design) {
  if (cols < kBoardMinCols || rows < kBoardMinRows || cols > kBoardMaxCircles ||
      rows > kBoardMaxCircles || !std::isfinite(spacing) || !(spacing > 0.0)) {
    return false;
  }
  BoardDesign d;
  d.family = family;
  d.cols = cols;
  d.rows = rows;
  d.spacing = spacing;
  d.radius = kBoardCircleRadius * spacing;
  d.hole_radius = kBoardHoleRadius * spacing;
  d.margin = kBoardMargin * spacing;
  place_rings(d);
  design = d;
  return true;
}

std::string board_svg(const BoardDesign& d, cv::Size2d page) {
  const cv::Size2d size = drawing_size(d, page);
  const cv::Point2d offset = page_offset(d, page);
  std::ostringstream svg;
  svg << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << number(size.width)
      << "mm\" height=\"" << number(size.height) << "mm\" viewBox=\"0 0 "
      << number(size.width) << " " << number(size.height) << "\">\n"
      << "<!-- " << family_name(d.family) << " calibration board: " << d.cols << " x " << d.rows
      << " circles " << number(d.spacing) << " mm apart, " << number(d.width()) << " x "
      << number(d.height()) << " mm. Print at 100 % (no fitting to the page). -->\n"
      << "<rect x=\"0\" y=\"0\" width=\"" << number(size.width) << "\" height=\""
      << number(size.height) << "\" fill=\"#ffffff\"/>\n"
      << "<g transform=\"translate(" << number(offset.x) << " " << number(offset.y) << ")\">\n";
  for (int j = 0; j < d.rows; ++j) {
    for (int i = 0; i < d.cols; ++i) {
      const cv::Point2d c = d.centre(i, j);
      svg << "<circle cx=\"" << number(c.x) << "\" cy=\"" << number(c.y) << "\" r=\""
          << number(d.radius) << "\" fill=\"#000000\"/>\n";
      if (d.is_ring(i, j)) {
        svg << "<circle cx=\"" << number(c.x) << "\" cy=\"" << number(c.y) << "\" r=\""
            << number(d.hole_radius) << "\" fill=\"#ffffff\"/>\n";
      }
    }
  }
  svg << "</g>\n</svg>\n";
  return svg.str();
}

cv::Point2d board_raster_offset(const BoardDesign& d, double pixels_per_unit, cv::Size2d page) {
  const cv::Point2d offset = page_offset(d, page);
  return {offset.x * pixels_per_unit - 0.5, offset.y * pixels_per_unit - 0.5};
}

cv::Mat board_raster(const BoardDesign& d, double pixels_per_unit, cv::Size2d page) {
  const cv::Size2d size = drawing_size(d, page);
  const double width = std::round(size.width * pixels_per_unit);
  const double height = std::round(size.height * pixels_per_unit);
  if (!(width >= 1.0 && height >= 1.0) ||
      width * height > double(std::numeric_limits<int>::max())) {
    return cv::Mat();
  }
  cv::Mat image(int(height), int(width), CV_8UC1, cv::Scalar(255));
  const cv::Point2d origin = board_raster_offset(d, pixels_per_unit, page);
  for (int j = 0; j < d.rows; ++j) {
    for (int i = 0; i < d.cols; ++i) {
      const cv::Point2d c = origin + d.centre(i, j) * pixels_per_unit;
      draw_circle(image, c, d.radius * pixels_per_unit,
                  d.is_ring(i, j) ? d.hole_radius * pixels_per_unit : 0.0);
    }
  }
  return image;
}

std::map<std::string, double> board_keys(const BoardDesign& d, double min_radius) {
  return {{"do_reverse_bw", 1},         {"bin_type", 1},
          {"min_radius", min_radius},   {"unit_length", d.spacing},
          {"n_circles_x", d.n_circles_x}, {"n_circles_y", d.n_circles_y},
          {"origin_x", d.origin_x},     {"origin_y", d.origin_y}};
}

std::string board_key_text(const std::map<std::string, double>& keys,
                           const std::vector<std::string>& comment) {
  std::ostringstream out;
  out << "%YAML:1.0\n---\n";
  for (const std::string& line : comment) out << "# " << line << "\n";
  const auto write = [&](const char* key) {
    const auto it = keys.find(key);
    if (it != keys.end()) out << key << ": " << number(it->second) << "\n";
  };
  out << "# pre-processing: the circles are dark on a light board\n";
  write("do_reverse_bw");
  write("bin_type");
  out << "# circle-marker search: the smallest circle contour accepted, pixels\n";
  write("min_radius");
  out << "# board: the spacing of the circles (the unit of all 3-D points), the grid\n";
  for (const char* key : {"unit_length", "n_circles_x", "n_circles_y", "origin_x", "origin_y"}) {
    write(key);
  }
  return out.str();
}

}  // namespace sl3d
