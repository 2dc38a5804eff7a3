// Circle-marker search: the PCA ellipse fit and its score ring on drawn
// shapes, and the length, size and roundness filters. The centres found on
// rendered boards are checked against the truth by the board families'
// tests.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include <sl3d/calibboard/CircleMarkerSearcher.h>
#include <sl3d/calibboard/PreProcessor.h>
#include <sl3d/sim/board_renderer.h>

namespace {

using Contour = std::vector<cv::Point>;

CircleMarkerSearcher searcher_with(double min_radius, double max_radius, int n_minimum) {
  CircleMarkerParams p;
  p.min_radius = min_radius;
  p.max_radius = max_radius;
  p.n_minimum = n_minimum;
  CircleMarkerSearcher s;
  s.init_searcher(p);
  return s;
}

// The outer contours of the white shapes of `img`.
std::vector<Contour> outer_contours(const cv::Mat& img) {
  std::vector<Contour> found;
  cv::findContours(img.clone(), found, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
  return found;
}

Contour disc_contour(cv::Point centre, int radius) {
  cv::Mat img = cv::Mat::zeros(2 * radius + 20, 2 * radius + 20, CV_8U);
  cv::circle(img, centre, radius, 255, cv::FILLED);
  return outer_contours(img).at(0);
}

TEST(RotatedEllipse, FitOfADiscAndOfNonCircles) {
  Contour disc = disc_contour({30, 30}, 20);
  RotatedEllipse e;
  EXPECT_GT(e.fit(disc, 1.5), 0.99);
  EXPECT_NEAR(e.center.x, 30.0, 1e-9);
  EXPECT_NEAR(e.center.y, 30.0, 1e-9);
  EXPECT_NEAR(e.width, 40.0, 1.0);
  EXPECT_NEAR(e.height, 40.0, 1.0);
  EXPECT_DOUBLE_EQ(e.a, e.width / 2);
  EXPECT_DOUBLE_EQ(e.b, e.height / 2);
  EXPECT_NEAR(std::fabs(cv::determinant(e.axes)), 1.0, 1e-9);  // orthonormal axes

  // A rotated ellipse: first axis along its long side.
  cv::Mat img = cv::Mat::zeros(120, 120, CV_8U);
  cv::ellipse(img, cv::Point(60, 60), cv::Size(40, 16), 30.0, 0, 360, 255, cv::FILLED);
  Contour tilted = outer_contours(img).at(0);
  EXPECT_GT(e.fit(tilted, 1.5), 0.95);
  EXPECT_NEAR(e.width, 80.0, 1.5);
  EXPECT_NEAR(e.height, 32.0, 1.5);
  const double folded = std::fmod(e.angle + 360.0, 180.0);  // the axis sign is free
  EXPECT_NEAR(folded, 30.0, 2.5);  // drawn as a polygon

  // A square and a bar fall below the default fitscore of 0.9.
  img.setTo(0);
  cv::rectangle(img, cv::Rect(20, 20, 50, 50), 255, cv::FILLED);
  Contour square = outer_contours(img).at(0);
  EXPECT_LT(e.fit(square, 1.5), 0.9);
  img.setTo(0);
  cv::rectangle(img, cv::Rect(10, 50, 90, 12), 255, cv::FILLED);
  Contour bar = outer_contours(img).at(0);
  EXPECT_LT(e.fit(bar, 1.5), 0.9);

  // Fewer than 4 points: score 0 and the ellipse keeps the bar's fit.
  const RotatedEllipse before = e;
  Contour three{{0, 0}, {5, 0}, {0, 5}};
  EXPECT_EQ(e.fit(three, 1.5), 0.0);
  EXPECT_EQ(e.center, before.center);
  EXPECT_EQ(e.width, before.width);

  // A thin line has a zero-width ring: score 0.
  Contour line{{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 0}};
  EXPECT_EQ(e.fit(line, 0.0), 0.0);
}

TEST(CircleMarkerSearcher, RoundnessBandIsThreePopulationDeviations) {
  CircleMarkerSearcher s;
  auto ellipse = [](double w, double h) {
    RotatedEllipse e;
    e.width = w;
    e.height = h;
    return e;
  };
  // Seven equal ratios of 0.9, whose plain sum / 7 is 0.9000000000000001:
  // s = 0 and all are kept.
  std::vector<RotatedEllipse> equal(7, ellipse(10.0, 9.0));
  std::vector<int> flags(7, 1);
  EXPECT_EQ(s.check_diameter_rate(equal, flags), 7);

  // Twenty round ones and one of ratio 0.5: mean 0.976, s 0.107, cut 0.655.
  std::vector<RotatedEllipse> mixed(20, ellipse(40.0, 40.0));
  mixed.push_back(ellipse(20.0, 40.0));
  mixed.push_back(ellipse(80.0, 8.0));  // flagged 0: ignored and not counted
  flags.assign(mixed.size(), 1);
  flags.back() = 0;
  EXPECT_EQ(s.check_diameter_rate(mixed, flags), 20);
  EXPECT_EQ(flags[20], 0);

  // Ratios 0.9 and 1.0 alternating: band 0.8..1.1, all kept, even 0.9.
  std::vector<RotatedEllipse> spread;
  for (int i = 0; i < 10; ++i) spread.push_back(i % 2 ? ellipse(9.0, 10.0) : ellipse(10.0, 10.0));
  flags.assign(spread.size(), 1);
  EXPECT_EQ(s.check_diameter_rate(spread, flags), 10);
}

// A 5 x 4 grid of discs of radius 15 plus shapes that must be rejected.
struct ShapeSheet {
  cv::Mat image = cv::Mat::zeros(420, 720, CV_8U);
  std::vector<cv::Point> circles;

  ShapeSheet() {
    for (int j = 0; j < 4; ++j)
      for (int i = 0; i < 5; ++i) {
        circles.emplace_back(40 + 60 * i, 40 + 60 * j);
        cv::circle(image, circles.back(), 15, 255, cv::FILLED);
      }
    cv::rectangle(image, cv::Rect(340, 20, 40, 40), 255, cv::FILLED);     // square
    cv::rectangle(image, cv::Rect(340, 100, 120, 10), 255, cv::FILLED);   // bar
    std::vector<cv::Point> triangle{{400, 150}, {460, 250}, {340, 250}};
    cv::fillConvexPoly(image, triangle, 255);
    cv::circle(image, {520, 40}, 4, 255, cv::FILLED);                      // too short
    cv::ellipse(image, cv::Point(560, 150), cv::Size(36, 13), 0, 0, 360, 255, cv::FILLED);
    cv::circle(image, {600, 330}, 30, 255, cv::FILLED);  // too wide (spread 60 > 40)
    cv::circle(image, {460, 340}, 55, 255, cv::FILLED);  // too long a contour
  }
};

TEST(CircleMarkerSearcher, FiltersKeepOnlyTheCircles) {
  ShapeSheet sheet;
  // max_radius 40: length limit 252 points, spread limit 40 pixels.
  CircleMarkerSearcher s = searcher_with(8.0, 40.0, 9);
  cv::Mat binary = sheet.image.clone();
  ASSERT_TRUE(s.search(binary));
  ASSERT_EQ(s.ellipses.size(), sheet.circles.size());
  ASSERT_EQ(s.contours.size(), sheet.circles.size());
  for (const RotatedEllipse& e : s.ellipses) {
    const auto nearest = std::min_element(
        sheet.circles.begin(), sheet.circles.end(), [&](cv::Point p, cv::Point q) {
          return cv::norm(cv::Point2d(p) - e.center) < cv::norm(cv::Point2d(q) - e.center);
        });
    EXPECT_LT(cv::norm(cv::Point2d(*nearest) - e.center), 1e-6);
  }
  for (size_t k = 0; k < s.contours.size(); ++k) {  // stored in matching order
    const cv::Scalar mean = cv::mean(s.contours[k]);
    EXPECT_NEAR(mean[0], s.ellipses[k].center.x, 1e-9);
    EXPECT_NEAR(mean[1], s.ellipses[k].center.y, 1e-9);
  }

  // The elongated ellipse fits well: only the roundness band removes it.
  cv::Mat lone = cv::Mat::zeros(100, 120, CV_8U);
  cv::ellipse(lone, cv::Point(60, 50), cv::Size(36, 13), 0, 0, 360, 255, cv::FILLED);
  Contour ellipse_contour = outer_contours(lone).at(0);
  RotatedEllipse e;
  EXPECT_GT(e.fit(ellipse_contour, 1.5), 0.9);

  // The spreads, not the semi-axes, meet the radius limits: discs of radius
  // 15 (spread about 30) fail a max_radius of 25, whose length limit of 157
  // points they pass.
  CircleMarkerSearcher tight = searcher_with(8.0, 25.0, 1);
  binary = sheet.image.clone();
  EXPECT_FALSE(tight.search(binary));
}

TEST(CircleMarkerSearcher, TooFewMarkersFailsAndKeepsThePreviousResult) {
  ShapeSheet sheet;
  CircleMarkerSearcher s = searcher_with(8.0, 40.0, 20);
  cv::Mat binary = sheet.image.clone();
  ASSERT_TRUE(s.search(binary));
  const std::vector<Contour> kept = s.contours;

  s.n_minimum = 21;
  binary = sheet.image.clone();
  EXPECT_FALSE(s.search(binary));
  EXPECT_EQ(s.contours, kept);
  EXPECT_EQ(s.ellipses.size(), kept.size());

  cv::Mat empty;
  EXPECT_FALSE(s.search(empty));
  cv::Mat black = cv::Mat::zeros(100, 100, CV_8U);
  EXPECT_FALSE(s.search(black));

  // Blobs whose contour is shorter than min_length never reach the fit.
  cv::Mat dots = cv::Mat::zeros(200, 200, CV_8U);
  for (int k = 0; k < 12; ++k) cv::circle(dots, {20 + 15 * k, 100}, 5, 255, cv::FILLED);
  s.n_minimum = 1;
  EXPECT_FALSE(s.search(dots));
}

// Every contour is a candidate, holes included: a ring gives a marker for
// its outer rim and one for its hole, both at the ring's centre.
TEST(CircleMarkerSearcher, HolesOfRingsAreMarkersToo) {
  sl3d::BoardLayout layout;
  layout.radius = 8.0;
  layout.rings = {{0, 0, 5.5}, {3, 2, 5.5}};
  sl3d::BoardRendering board =
      sl3d::render_board(layout, sl3d::board_pose_facing(layout, 400.0, 20.0, 10.0));
  PreProcessor pre;
  PreProcParams pp;
  pp.do_reverse_bw = true;
  pre.init_preproc(pp);
  cv::Mat binary = pre.preprocess(board.image);
  CircleMarkerSearcher s;
  ASSERT_TRUE(s.search(binary));
  EXPECT_EQ(s.ellipses.size(), board.centres.size() + 2);
  for (int ring : {0, 2 * 7 + 3}) {
    int near = 0;
    for (const RotatedEllipse& e : s.ellipses)
      if (cv::norm(e.center - board.ellipse_centres[ring]) < 0.5) ++near;
    EXPECT_EQ(near, 2) << ring;
  }
}

}  // namespace
