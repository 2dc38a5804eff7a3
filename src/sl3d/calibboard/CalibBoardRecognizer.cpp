#include <sl3d/calibboard/CalibBoardRecognizer.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include <opencv2/highgui.hpp>
#include <opencv2/imgproc.hpp>

#include <sl3d/codecs/image_codecs.h>

namespace {

// Colours of the square rings around the origin circle, blue-green-red.
// Built on first use; a function-local static is initialised exactly once
// even when recognizers on several threads get here together.
const std::vector<cv::Scalar>& ring_colors() {
  static const std::vector<cv::Scalar> colors{
      cv::Scalar(0, 0, 255),   cv::Scalar(0, 165, 255), cv::Scalar(0, 255, 127),
      cv::Scalar(255, 191, 0), cv::Scalar(255, 0, 0),   cv::Scalar(255, 0, 255)};
  return colors;
}

cv::RotatedRect scaled_box(const RotatedEllipse& e, double scale) {
  return cv::RotatedRect(cv::Point2f(e.center),
                         cv::Size2f(float(e.width * scale), float(e.height * scale)),
                         float(e.angle));
}

}  // namespace

namespace sl3d {
namespace detail {

cv::Point2f unit_vector(const cv::Point2d& from, const cv::Point2d& to) {
  const float dx = float(to.x - from.x), dy = float(to.y - from.y);
  const float length = float(std::sqrt(double(dx) * dx + double(dy) * dy));
  return cv::Point2f(dx / length, dy / length);
}

}  // namespace detail
}  // namespace sl3d

using sl3d::detail::unit_vector;

iCalibBoardRecognizer::~iCalibBoardRecognizer() = default;

CalibBoardRecognizer::CalibBoardRecognizer() = default;

CalibBoardRecognizer::~CalibBoardRecognizer() = default;

void CalibBoardRecognizer::destroy() { delete this; }

bool CalibBoardRecognizer::set_parameters(PreProcParams& pre, CircleMarkerParams& marker,
                                          CalibBoardParams& board_params) {
  if (!init_recognizer(board_params)) return false;
  distance_between_circles = board_params.distance_between_circles;
  init_searcher(marker);
  init_preproc(pre);
  return true;
}

bool CalibBoardRecognizer::init_recognizer(CalibBoardParams& board_params) {
  if (board_params.unit_length <= 0.0 || board_params.n_circles_x < 1 ||
      board_params.n_circles_y < 1)
    return false;
  // A marker count past the int range could not be indexed at all.
  const std::int64_t count =
      std::int64_t(board_params.n_circles_x) * std::int64_t(board_params.n_circles_y);
  if (count > INT32_MAX) return false;
  board = board_params;
  n_markers = static_cast<std::int32_t>(count);
  positions3d.resize(std::size_t(n_markers));
  const float unit = static_cast<float>(board.unit_length);
  for (int i = 0; i < board.n_circles_x; ++i)
    for (int j = 0; j < board.n_circles_y; ++j)
      positions3d[std::size_t(i) * std::size_t(board.n_circles_y) + std::size_t(j)] =
          cv::Point3f(unit * float(board.origin_x - i), unit * float(board.origin_y - j), 0.0f);
  return true;
}

cv::Size CalibBoardRecognizer::image_size() { return cv::Size(image_width, image_height); }

cv::Rect CalibBoardRecognizer::get_marker_range() const {
  return cv::Rect(1, 1, board.n_circles_x, board.n_circles_y);
}

int CalibBoardRecognizer::get_marker_index(cv::Point grid) const {
  return (board.origin_x - grid.x) * board.n_circles_y - grid.y + board.origin_y;
}

cv::Point3f CalibBoardRecognizer::get_3d_position(int index) const {
  return positions3d[std::size_t(index)];
}

int CalibBoardRecognizer::corresponding_points(const std::vector<cv::Point2f>& points,
                                               std::vector<cv::Point2f>& out2d,
                                               std::vector<cv::Point3f>& out3d) {
  out2d.clear();
  out3d.clear();
  const std::size_t n = std::min(std::size_t(n_markers), points.size());
  for (std::size_t k = 0; k < n; ++k) {
    if (points[k].x == FLT_MAX) continue;
    out2d.push_back(points[k]);
    out3d.push_back(positions3d[k]);
  }
  return static_cast<int>(out2d.size());
}

int CalibBoardRecognizer::corresponding_points(const std::vector<cv::Point2f>& points0,
                                               const std::vector<cv::Point2f>& points1,
                                               std::vector<cv::Point2f>& out0,
                                               std::vector<cv::Point2f>& out1,
                                               std::vector<cv::Point3f>& out3d) {
  out0.clear();
  out1.clear();
  out3d.clear();
  const std::size_t n = std::min({std::size_t(n_markers), points0.size(), points1.size()});
  for (std::size_t i = 0; i < n; ++i) {
    if (points0[i].x == FLT_MAX || points1[i].x == FLT_MAX) continue;
    out0.push_back(points0[i]);
    out1.push_back(points1[i]);
    out3d.push_back(positions3d[i]);
  }
  return static_cast<int>(out3d.size());
}

void CalibBoardRecognizer::save_result_image(std::string path) {
  sl3d::detail::write_image(path, result_image);
}

void CalibBoardRecognizer::copy_result_image(cv::Mat& dst) {
  if (!dst.empty() && dst.size() == result_image.size() && dst.type() == result_image.type())
    result_image.copyTo(dst);  // same size and type: OpenCV keeps dst's buffer
  else
    dst = result_image.clone();
}

void CalibBoardRecognizer::show_result_image() { cv::imshow("result", result_image); }

int CalibBoardRecognizer::mark_ring(int marker, int inner, std::vector<int>& flags) {
  const bool marker_is_rim =
      contours[std::size_t(marker)].size() > contours[std::size_t(inner)].size();
  const int rim = marker_is_rim ? marker : inner;
  const int hole = marker_is_rim ? inner : marker;
  flags[std::size_t(rim)] = 2;
  flags[std::size_t(hole)] = 0;
  return rim;
}

bool CalibBoardRecognizer::accept_image_size(const cv::Mat& image) {
  if (image_width != 0 && image_height != 0)
    return image.cols == image_width && image.rows == image_height;
  image_width = image.cols;
  image_height = image.rows;
  return true;
}

void CalibBoardRecognizer::numbering(int marker, int index, std::vector<cv::Point2f>& points,
                                     std::vector<int>& owner) {
  const cv::Point2d centre = ellipses[std::size_t(marker)].center;
  points[std::size_t(index)] = cv::Point2f(centre);
  owner[std::size_t(index)] = marker;
  for (int slot = 0; slot < 4; ++slot) {
    const int neighbour = connections[std::size_t(marker)][slot];
    if (neighbour == -1) continue;
    const cv::Point2f u = unit_vector(centre, ellipses[std::size_t(neighbour)].center);
    const float px = u.dot(dir_x), py = u.dot(dir_y);
    int step;
    if (std::fabs(px) > std::fabs(py))
      step = px < 0 ? board.n_circles_y : -board.n_circles_y;
    else
      step = py < 0 ? 1 : -1;
    const std::int64_t next = std::int64_t(index) + step;  // near INT32_MAX markers
    if (next >= 0 && next < n_markers && owner[std::size_t(next)] == -1)
      numbering(neighbour, static_cast<int>(next), points, owner);
  }
}

void CalibBoardRecognizer::make_dbgimg(cv::Mat& image, std::vector<int>& owner) {
  cv::cvtColor(image, result_image, cv::COLOR_GRAY2BGR);
  const std::vector<cv::Scalar>& colors = ring_colors();
  for (int i = 0; i < board.n_circles_x; ++i) {
    for (int j = 0; j < board.n_circles_y; ++j) {
      const int marker = owner[std::size_t(i * board.n_circles_y + j)];
      if (marker == -1) continue;
      const int ring = std::max(std::abs(board.origin_x - i), std::abs(board.origin_y - j));
      const cv::Scalar& colour = colors[std::size_t(ring % 6)];
      const RotatedEllipse& e = ellipses[std::size_t(marker)];
      const bool is_base =
          std::find(base_markers.begin(), base_markers.end(), marker) != base_markers.end();
      if (is_base) {
        cv::ellipse(result_image, scaled_box(e, 1.0), colour, 4, 8);
        cv::ellipse(result_image, scaled_box(e, 0.4), colour, -1);
      } else {
        cv::ellipse(result_image, scaled_box(e, 0.8), colour, -1);
      }
    }
  }
}
