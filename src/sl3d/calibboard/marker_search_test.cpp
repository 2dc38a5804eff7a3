// The rules of the marker search that rendered boards do not pin down:
// pre-processing (gamma off at exactly 1.0, binarisation types, step order),
// the ellipse fit and the searcher's filters on drawn shapes, and the grid
// connection's truncated distance cuts, group tie rule, length filter and
// neighbour slots. Whole recognitions are checked by the families' tests.

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include <sl3d/calibboard/ConnectionFinder.h>
#include <sl3d/calibboard/PreProcessor.h>

namespace {

bool equal(const cv::Mat& x, const cv::Mat& y) {
  return x.size() == y.size() && x.type() == y.type() && cv::countNonZero(x != y) == 0;
}

// --- pre-processing ---------------------------------------------------------

PreProcessor configured(PreProcParams params) {
  PreProcessor pre;
  pre.init_preproc(params);
  return pre;
}

// A smooth two-level image with noise: every step changes it.
cv::Mat board_like_image() {
  cv::Mat img(60, 80, CV_8U);
  cv::RNG rng(7);
  for (int y = 0; y < img.rows; ++y)
    for (int x = 0; x < img.cols; ++x) {
      const double base = std::hypot(x - 40, y - 30) < 15 ? 60.0 : 170.0;
      img.at<uchar>(y, x) = cv::saturate_cast<uchar>(base + x * 0.8 + rng.gaussian(12.0));
    }
  return img;
}

cv::Mat apply_table(const cv::Mat& src, const std::vector<int>& table) {
  cv::Mat dst = src.clone();
  for (auto it = dst.begin<uchar>(); it != dst.end<uchar>(); ++it) *it = uchar(table[*it]);
  return dst;
}

cv::Mat threshold(const cv::Mat& m, int level) {
  cv::Mat b;
  cv::threshold(m, b, level, 255, cv::THRESH_BINARY);
  return b;
}

// Gamma is off at exactly 1.0, even with a table left from an earlier
// setting, and on just above it; strictly above a fixed threshold is white;
// unknown binarisation types give an empty image. Records are given as
// {invert, equalise, smooth, type, param0, param1, gamma}.
TEST(PreProcessor, GammaSwitchAndBinarisationTypes) {
  PreProcParams fixed{false, false, false, 0, 128, 0, 1.0};
  EXPECT_TRUE(configured(fixed).gamma_table.empty());
  EXPECT_EQ(configured({false, false, false, 0, 128, 0, 1.001}).gamma_table.size(), 256u);
  PreProcessor pre = configured({false, false, false, 0, 128, 0, 2.0});
  pre.init_preproc(fixed);
  EXPECT_EQ(pre.gamma_table.size(), 256u);
  cv::Mat img = board_like_image(), edge = (cv::Mat_<uchar>(1, 3) << 127, 128, 129), expected;
  EXPECT_TRUE(equal(pre.preprocess(img), threshold(img, 128)));
  EXPECT_TRUE(equal(pre.preprocess(edge), (cv::Mat_<uchar>(1, 3) << 0, 0, 255)));
  cv::adaptiveThreshold(img, expected, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY, 11, 4);
  EXPECT_TRUE(equal(configured({false, false, false, 2, 11, 4, 1.0}).preprocess(img), expected));
  for (int unknown : {3, -1})
    EXPECT_TRUE(configured({false, false, false, unknown, 0, 0, 1.0}).preprocess(img).empty());
}

// Invert, median, gamma, equalise, binarise: each order would give another
// image, and the caller's image is not touched.
TEST(PreProcessor, StepsRunInFixedOrderOnACopy) {
  cv::Mat img = board_like_image();
  const cv::Mat original = img.clone();
  PreProcessor pre = configured({true, true, true, 0, 140, 0, 2.2});
  const std::vector<int> table = pre.gamma_table;
  auto median = [](const cv::Mat& m) { cv::Mat o; cv::medianBlur(m, o, 3); return o; };
  auto equalize = [](const cv::Mat& m) { cv::Mat o; cv::equalizeHist(m, o); return o; };
  auto invert = [](const cv::Mat& m) { return cv::Mat(255 - m); };

  const cv::Mat result = pre.preprocess(img);
  EXPECT_TRUE(equal(result, threshold(equalize(apply_table(median(invert(img)), table)), 140)));
  EXPECT_FALSE(equal(result, threshold(apply_table(equalize(median(invert(img))), table), 140)));
  EXPECT_TRUE(equal(img, original));
  // Gamma acts on the inverted image (equalisation would hide the order).
  const cv::Mat inverted_first = configured({true, false, false, 0, 140, 0, 2.2}).preprocess(img);
  EXPECT_TRUE(equal(inverted_first, threshold(apply_table(invert(img), table), 140)));
  EXPECT_FALSE(equal(inverted_first, threshold(invert(apply_table(img, table)), 140)));
}

// --- ellipse fit and search filters ---------------------------------------------

using Contour = std::vector<cv::Point>;

// The outer contour of the one white shape `draw` puts on a black image.
template <typename Draw>
Contour drawn_contour(Draw draw) {
  cv::Mat img = cv::Mat::zeros(120, 120, CV_8U);
  draw(img);
  std::vector<Contour> found;
  cv::findContours(img, found, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
  return found.at(0);
}

// Centres and rejections are checked on drawn shapes below and on rendered
// boards by the families' tests; here the axis convention and the
// degenerate contours.
TEST(RotatedEllipse, LongAxisFirstAndDegenerateContoursScoreZero) {
  RotatedEllipse e;
  auto fit = [&e](Contour c, double ring_width) { return e.fit(c, ring_width); };
  EXPECT_GT(fit(drawn_contour([](cv::Mat& m) {
              cv::ellipse(m, {60, 60}, {40, 16}, 30.0, 0, 360, 255, -1);
            }), 1.5), 0.95);
  EXPECT_NEAR(e.width, 80.0, 1.5);
  EXPECT_NEAR(e.height, 32.0, 1.5);
  EXPECT_DOUBLE_EQ(e.a, e.width / 2);
  EXPECT_DOUBLE_EQ(e.b, e.height / 2);
  EXPECT_NEAR(std::fmod(e.angle + 360.0, 180.0), 30.0, 2.5);  // the axis sign is free
  EXPECT_NEAR(std::fabs(cv::determinant(e.axes)), 1.0, 1e-9);  // orthonormal axes
  // Fewer than 4 points: score 0 and the ellipse keeps its fit. A thin line
  // has a zero-width ring: score 0.
  const RotatedEllipse before = e;
  EXPECT_EQ(fit(Contour{{0, 0}, {5, 0}, {0, 5}}, 1.5), 0.0);
  EXPECT_EQ(e.center, before.center);
  EXPECT_EQ(e.width, before.width);
  EXPECT_EQ(fit(Contour{{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 0}}, 0.0), 0.0);
}

TEST(CircleMarkerSearcher, RoundnessBandIsThreePopulationDeviations) {
  CircleMarkerSearcher s;
  // Ellipses of the given (width, height); returns how many are kept.
  auto kept = [&s](std::vector<std::pair<double, double>> sizes, std::vector<int>& flags) {
    std::vector<RotatedEllipse> ellipses(sizes.size());
    for (std::size_t i = 0; i < sizes.size(); ++i) {
      ellipses[i].width = sizes[i].first;
      ellipses[i].height = sizes[i].second;
    }
    return s.check_diameter_rate(ellipses, flags);
  };
  // Seven equal ratios of 0.9, whose plain sum / 7 is 0.9000000000000001:
  // s = 0 and all are kept.
  std::vector<int> flags(7, 1);
  EXPECT_EQ(kept(std::vector(7, std::pair{10.0, 9.0}), flags), 7);
  // Twenty round ones and one of ratio 0.5: mean 0.976, s 0.107, cut
  // 0.655. A flagged-off one is ignored and not counted.
  std::vector<std::pair<double, double>> sizes(20, {40.0, 40.0});
  sizes.insert(sizes.end(), {{20.0, 40.0}, {80.0, 8.0}});
  flags.assign(22, 1);
  flags.back() = 0;
  EXPECT_EQ(kept(sizes, flags), 20);
  EXPECT_EQ(flags[20], 0);
  // Ratios 0.9 and 1.0 alternating: band 0.8..1.1, all kept, even 0.9.
  sizes.clear();
  for (int i = 0; i < 10; ++i) sizes.emplace_back(i % 2 ? 9.0 : 10.0, 10.0);
  flags.assign(10, 1);
  EXPECT_EQ(kept(sizes, flags), 10);
}

CircleMarkerSearcher searcher_with(double min_radius, double max_radius, int n_minimum) {
  CircleMarkerParams p;
  p.min_radius = min_radius;
  p.max_radius = max_radius;
  p.n_minimum = n_minimum;
  CircleMarkerSearcher s;
  s.init_searcher(p);
  return s;
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
    cv::rectangle(image, cv::Rect(340, 20, 40, 40), 255, cv::FILLED);    // square
    cv::rectangle(image, cv::Rect(340, 100, 120, 10), 255, cv::FILLED);  // bar
    std::vector<cv::Point> triangle{{400, 150}, {460, 250}, {340, 250}};
    cv::fillConvexPoly(image, triangle, 255);
    cv::circle(image, {520, 40}, 4, 255, cv::FILLED);  // too short
    // Fits well: only the roundness band removes it.
    cv::ellipse(image, cv::Point(560, 150), cv::Size(36, 13), 0, 0, 360, 255, cv::FILLED);
    cv::circle(image, {600, 330}, 30, 255, cv::FILLED);  // too wide (spread 60 > 40)
    cv::circle(image, {460, 340}, 55, 255, cv::FILLED);  // too long a contour
  }
  cv::Mat binary() const { return image.clone(); }
};

TEST(CircleMarkerSearcher, FiltersKeepOnlyTheCircles) {
  const ShapeSheet sheet;
  // max_radius 40: length limit 252 points, spread limit 40 pixels.
  CircleMarkerSearcher s = searcher_with(8.0, 40.0, 20);
  cv::Mat binary = sheet.binary();
  ASSERT_TRUE(s.search(binary));
  ASSERT_EQ(s.ellipses.size(), sheet.circles.size());
  ASSERT_EQ(s.contours.size(), sheet.circles.size());
  for (std::size_t k = 0; k < s.ellipses.size(); ++k) {
    double nearest = DBL_MAX;
    for (cv::Point c : sheet.circles)
      nearest = std::min(nearest, cv::norm(cv::Point2d(c) - s.ellipses[k].center));
    EXPECT_LT(nearest, 1e-6);
    // Contours are stored in the ellipses' order.
    const cv::Scalar mean = cv::mean(s.contours[k]);
    EXPECT_LT(cv::norm(cv::Point2d(mean[0], mean[1]) - s.ellipses[k].center), 1e-9);
  }
  // The spreads, not the semi-axes, meet the radius limits: discs of radius
  // 15 (spread about 30) fail a max_radius of 25, whose length limit of 157
  // points they pass.
  CircleMarkerSearcher tight = searcher_with(8.0, 25.0, 1);
  binary = sheet.binary();
  EXPECT_FALSE(tight.search(binary));
}

TEST(CircleMarkerSearcher, TooFewMarkersFailsAndKeepsThePreviousResult) {
  CircleMarkerSearcher s = searcher_with(8.0, 40.0, 21);
  cv::Mat binary = ShapeSheet().binary(), empty, black = cv::Mat::zeros(100, 100, CV_8U);
  s.contours = {{{1, 2}}};
  for (cv::Mat* image : {&binary, &empty, &black}) EXPECT_FALSE(s.search(*image));
  EXPECT_EQ(s.contours, (std::vector<Contour>{{{1, 2}}}));
  // Blobs whose contour is shorter than min_length never reach the fit.
  cv::Mat dots = cv::Mat::zeros(200, 200, CV_8U);
  for (int k = 0; k < 12; ++k) cv::circle(dots, {20 + 15 * k, 100}, 5, 255, cv::FILLED);
  s.n_minimum = 1;
  EXPECT_FALSE(s.search(dots));
}

// --- grid connection --------------------------------------------------------------

// Opens the connection steps to direct calls on placed ellipses.
class Finder : public ConnectionFinder {
 public:
  int basemarker_process(int marker, int, std::vector<int>&) override { return marker; }

  // An ellipse with axis-aligned frame at (x, y).
  void add(double x, double y, double width, double height, size_t contour_points = 60) {
    RotatedEllipse e;
    e.axes = cv::Mat::eye(2, 2, CV_64F);
    e.center = {x, y};
    e.width = width;
    e.height = height;
    e.a = width / 2;
    e.b = height / 2;
    ellipses.push_back(e);
    contours.emplace_back(contour_points, cv::Point(0, 0));
  }

  cv::Mat_<double> checked_distances() {
    cv::Mat_<double> D = get_distance_matrix();
    check_distance_matrix(D);
    return D;
  }
};

bool linked(const cv::Mat_<double>& D, int i, int j) { return D(i, j) != DBL_MAX; }

TEST(ConnectionFinder, DistanceCutsCompareTruncatedTenthsRowByRow) {
  Finder f;  // default 1.2: ratios up to 1.39... pass (trunc 13 <= 13)
  f.add(0, 0, 10, 10);
  f.add(13, 0, 10, 10);     // 1.3 diameters from 0
  f.add(13, 13.5, 10, 10);  // 1.35 from 1: truncates to 13, passes
  f.add(27, 13.5, 10, 10);  // 1.4 from 2: cut both ways
  cv::Mat_<double> D = f.checked_distances();
  EXPECT_DOUBLE_EQ(D(0, 1), 13.0);
  EXPECT_TRUE(linked(D, 1, 0) && linked(D, 1, 2) && linked(D, 2, 1));
  EXPECT_FALSE(linked(D, 2, 3) || linked(D, 3, 2));
  for (int i = 0; i < 4; ++i) EXPECT_FALSE(linked(D, i, i));
  f.distance_between_circles = 1.3;  // limit 14: 1.4 passes now
  D = f.checked_distances();
  EXPECT_TRUE(linked(D, 2, 3) && linked(D, 3, 2));

  // A large circle reaches a small one that does not reach it back.
  Finder sizes;
  sizes.add(0, 0, 20, 20);
  sizes.add(20, 0, 10, 10);
  D = sizes.checked_distances();
  EXPECT_TRUE(linked(D, 0, 1));
  EXPECT_FALSE(linked(D, 1, 0));

  // The second test uses the rim in the neighbour's direction: an ellipse
  // 20 x 10 reaches 15 px along its long axis but not along its short one,
  // although 15 / 20 passes the first test.
  Finder flat;
  flat.add(0, 0, 20, 10);
  flat.add(15, 0, 20, 20);
  flat.add(0, 15, 20, 20);
  D = flat.checked_distances();
  EXPECT_TRUE(linked(D, 0, 1) && linked(D, 2, 0));
  EXPECT_FALSE(linked(D, 0, 2));
}

TEST(ConnectionFinder, LargestGroupTieGoesToTheLowerRoot) {
  // {0, 3} is joined from row 3 only, so 3 is its root; {1, 2} has root 1.
  // Sizes tie, and the group with root 1 survives although the other one
  // holds index 0.
  Finder f;
  cv::Mat_<double> D(5, 5, DBL_MAX);
  D(3, 0) = D(1, 2) = D(2, 1) = 1.0;
  std::vector<int> flags(5, 1);
  f.remain_largest_group(flags, D);
  EXPECT_EQ(flags, (std::vector<int>{0, 1, 1, 0, 0}));
  EXPECT_EQ(cv::countNonZero(D.row(3) != DBL_MAX), 0);
  EXPECT_DOUBLE_EQ(D(1, 2), 1.0);
  // A larger group wins over a lower root.
  D.setTo(DBL_MAX);
  D(0, 1) = D(4, 2) = D(4, 3) = 1.0;
  flags.assign(5, 1);
  f.remain_largest_group(flags, D);
  EXPECT_EQ(flags, (std::vector<int>{0, 0, 1, 1, 1}));
}

TEST(ConnectionFinder, MedianLengthAndLengthFilter) {
  Finder f;
  for (size_t n : {100, 25, 26, 500, 404, 5, 101}) f.add(0, 0, 10, 10, n);
  std::vector<int> flags{1, 1, 1, 2, 1, 0, 1};
  // Non-zero flags: 25 26 100 101 404 500; position 3 is the upper middle.
  EXPECT_EQ(f.get_median_contour_length(flags), 101u);
  cv::Mat_<double> D = f.get_distance_matrix();
  f.remove_inlier(flags, D);
  // (101 + 2) / 4 = 25 and 4 * 101 = 404 are both dropped; the ring (flag
  // 2) is exempt however long.
  EXPECT_EQ(flags, (std::vector<int>{1, 0, 1, 2, 0, 0, 1}));
  std::vector<int> none(7, 0);
  EXPECT_EQ(f.get_median_contour_length(none), 0u);
}

TEST(ConnectionFinder, NeighbourSlotsNearestFirst) {
  Finder f;
  for (int j = 0; j < 3; ++j)
    for (int i = 0; i < 3; ++i) f.add(12.0 * i, 12.0 * j, 10, 10);  // index 3j + i
  f.add(200, 200, 10, 10);  // alone
  std::vector<int> flags(10, 1);
  flags[7] = 0;
  cv::Mat_<double> D = f.checked_distances();
  const std::vector<cv::Vec4i> c = f.find_connected(flags, D);
  ASSERT_EQ(c.size(), 10u);
  EXPECT_EQ(c[0], cv::Vec4i(1, 3, -1, -1));  // corner: two empty slots
  EXPECT_EQ(c[4], cv::Vec4i(1, 3, 5, -1));   // equal distances in index order; 7 dropped
  EXPECT_EQ(c[7], cv::Vec4i(0, 0, 0, 0));    // dropped markers keep zeros
  EXPECT_EQ(c[9], cv::Vec4i(-1, -1, -1, -1));

  // Six candidates: the nearest four are kept; of the two at 20 px the
  // lower index comes first.
  Finder crowd;
  for (cv::Point2d p : {cv::Point2d(0, 0), {20, 0}, {-18, 0}, {0, 25}, {0, -19}, {0, 20}})
    crowd.add(p.x, p.y, 20, 20);
  flags.assign(6, 1);
  D = crowd.checked_distances();
  EXPECT_EQ(crowd.find_connected(flags, D)[0], cv::Vec4i(2, 4, 1, 5));
}

}  // namespace
