#include "result_drawing.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <string>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

namespace sl3d {

namespace {

constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;
const cv::Scalar kBlack(0, 0, 0);
const cv::Scalar kWhite(255, 255, 255);
const cv::Scalar kRed(0, 0, 255);
const cv::Scalar kGreen(0, 200, 0);

// Board plane (x, y) -> image, fitted to the found circles; empty when
// fewer than four are found or the fit fails.
cv::Mat board_to_image(const iCalibBoardRecognizer& recognizer,
                       const std::vector<cv::Point2f>& points) {
  std::vector<cv::Point2f> board, image;
  for (int index = 0; index < int(points.size()); ++index) {
    if (points[index].x == FLT_MAX) continue;
    const cv::Point3f p = recognizer.get_3d_position(index);
    board.emplace_back(p.x, p.y);
    image.push_back(points[index]);
  }
  if (board.size() < 4) return cv::Mat();
  return cv::findHomography(board, image);
}

cv::Point2d mapped(const cv::Mat& h, double x, double y) {
  const cv::Mat p = h * (cv::Mat_<double>(3, 1) << x, y, 1.0);
  return {p.at<double>(0) / p.at<double>(2), p.at<double>(1) / p.at<double>(2)};
}

// Text centred at `at`, light on a dark outline so it reads on any colour.
void label(cv::Mat& picture, const std::string& text, cv::Point2d at, double scale,
           const cv::Scalar& colour) {
  const int thickness = std::max(1, int(std::lround(2 * scale)));
  int baseline = 0;
  const cv::Size size = cv::getTextSize(text, kFont, scale, thickness, &baseline);
  const cv::Point origin(int(std::lround(at.x - size.width / 2.0)),
                         int(std::lround(at.y + size.height / 2.0)));
  cv::putText(picture, text, origin, kFont, scale, kBlack, thickness + 2 * std::max(1, thickness / 2),
              cv::LINE_AA);
  cv::putText(picture, text, origin, kFont, scale, colour, thickness, cv::LINE_AA);
}

void axis(cv::Mat& picture, cv::Point2d from, cv::Point2d to, const char* name, double scale,
          const cv::Scalar& colour) {
  const int thickness = std::max(2, int(std::lround(4 * scale)));
  cv::arrowedLine(picture, from, to, kBlack, thickness + 2, cv::LINE_AA, 0, 0.15);
  cv::arrowedLine(picture, from, to, colour, thickness, cv::LINE_AA, 0, 0.15);
  label(picture, name, to + 0.25 * (to - from), 1.5 * scale, colour);
}

}  // namespace

void annotate_result(cv::Mat& picture, const iCalibBoardRecognizer& recognizer,
                     const std::vector<cv::Point2f>& points) {
  const cv::Mat h = board_to_image(recognizer, points);
  if (h.empty()) return;
  const double unit = cv::norm(recognizer.get_3d_position(1) - recognizer.get_3d_position(0));
  const cv::Point2d origin = mapped(h, 0.0, 0.0);
  // Text about a third of a spacing high, as the board is seen.
  const double spacing_px =
      std::min(cv::norm(mapped(h, unit, 0.0) - origin), cv::norm(mapped(h, 0.0, unit) - origin));
  const double scale = std::clamp(spacing_px / 70.0, 0.25, 3.0);
  for (int index = 0; index < int(points.size()); ++index) {
    if (points[index].x == FLT_MAX) continue;
    label(picture, std::to_string(index), points[index], scale, kWhite);
  }
  axis(picture, origin, mapped(h, 2.0 * unit, 0.0), "x", scale, kRed);
  axis(picture, origin, mapped(h, 0.0, 2.0 * unit), "y", scale, kGreen);
}

}  // namespace sl3d
