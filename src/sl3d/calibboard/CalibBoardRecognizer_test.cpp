// Board recognition from its rules up: key records, pre-processing, the
// ellipse fit and search filters, the grid connection and the numbering
// shared by both families; then both families end to end on rendered
// boards, right ones numbered at many poses and both polarities, wrong ones
// with their failure codes.

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <iterator>
#include <memory>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <sl3d/calibboard/PelluxCalibBoardRecognizer.h>
#include <sl3d/calibboard/QuillCalibBoardRecognizer.h>
#include <sl3d/calibboard/calib_board_params.h>
#include <sl3d/sim/board_families.h>

namespace {

using sl3d::BoardFamily;

// --- key records ---------------------------------------------------------------

// One map holds keys of every record: each record takes only its own,
// int fields truncate toward zero, near-miss names are no keys, and the
// image size words have none.
TEST(CalibBoardParams, RecordsTakeTheirOwnKeysAndTruncateInts) {
  std::map<std::string, double> keys{
      {"n_circles_x", 7.9}, {"n_circles_y", -0.5},  {"origin_x", -2.7},   {"unit_length", 2.5},
      {"bin_type", 2.99},   {"bin_param1", -3.9},   {"do_smoothing", 1},  {"n_minimum", 12.6},
      {"N_CIRCLES_X", 4},   {"bin_type ", 0},       {"image_width", 1},   {"width", 1}};
  PreProcParams pre;
  CircleMarkerParams marker{0.9, 9, 640, 480};
  CalibBoardParams board;
  pre.set(keys);
  marker.set(keys);
  board.set(keys);
  const std::pair<double, double> read_and_expected[] = {
      {board.n_circles_x, 7}, {board.n_circles_y, 0}, {board.origin_x, -2},
      {board.unit_length, 2.5}, {pre.bin_type, 2}, {pre.bin_param1, -3}, {pre.do_smoothing, 1},
      {marker.n_minimum, 12}, {marker.image_width, 640}, {marker.image_height, 480}};
  for (std::size_t k = 0; k < std::size(read_and_expected); ++k)
    EXPECT_EQ(read_and_expected[k].first, read_and_expected[k].second) << "field " << k;
}

// --- pre-processing ---------------------------------------------------------

bool equal(const cv::Mat& x, const cv::Mat& y) {
  return x.size() == y.size() && x.type() == y.type() && cv::countNonZero(x != y) == 0;
}

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
  auto median = [](const cv::Mat& m) {
    cv::Mat o;
    cv::medianBlur(m, o, 3);
    return o;
  };
  auto equalize = [](const cv::Mat& m) {
    cv::Mat o;
    cv::equalizeHist(m, o);
    return o;
  };
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

// Centres and rejections are checked on drawn shapes below and on rendered
// boards; here the axis convention and the degenerate contours.
TEST(RotatedEllipse, LongAxisFirstAndDegenerateContoursScoreZero) {
  cv::Mat img = cv::Mat::zeros(120, 120, CV_8U);
  cv::ellipse(img, {60, 60}, {40, 16}, 30.0, 0, 360, 255, cv::FILLED);
  std::vector<Contour> found;
  cv::findContours(img, found, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
  RotatedEllipse e;
  EXPECT_GT(e.fit(found.at(0), 1.5), 0.95);
  EXPECT_NEAR(e.width, 80.0, 1.5);
  EXPECT_NEAR(e.height, 32.0, 1.5);
  EXPECT_DOUBLE_EQ(e.a, e.width / 2);
  EXPECT_DOUBLE_EQ(e.b, e.height / 2);
  EXPECT_NEAR(std::fmod(e.angle + 360.0, 180.0), 30.0, 2.5);  // the axis sign is free
  EXPECT_NEAR(std::fabs(cv::determinant(e.axes)), 1.0, 1e-9);  // orthonormal axes
  // Fewer than 4 points: score 0 and the ellipse keeps its fit. A thin line
  // has a zero-width ring: score 0.
  const RotatedEllipse before = e;
  Contour three{{0, 0}, {5, 0}, {0, 5}}, line{{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 0}};
  EXPECT_EQ(e.fit(three, 1.5), 0.0);
  EXPECT_EQ(e.center, before.center);
  EXPECT_EQ(e.width, before.width);
  EXPECT_EQ(e.fit(line, 0.0), 0.0);
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
}

// --- grid connection and numbering ------------------------------------------------

// Opens a family's protected machinery for direct checks on placed
// ellipses.
template <typename Family>
class Probe : public Family {
 public:
  using CalibBoardRecognizer::dir_x;
  using CalibBoardRecognizer::dir_y;
  using CalibBoardRecognizer::n_markers;
  using CalibBoardRecognizer::numbering;
  using CircleMarkerSearcher::contours;
  using CircleMarkerSearcher::ellipses;
  using ConnectionFinder::base_markers;
  using ConnectionFinder::check_distance_matrix;
  using ConnectionFinder::connections;
  using ConnectionFinder::distance_between_circles;
  using ConnectionFinder::find_connected;
  using ConnectionFinder::get_distance_matrix;
  using ConnectionFinder::get_median_contour_length;
  using ConnectionFinder::remain_largest_group;
  using ConnectionFinder::remove_inlier;

  // An ellipse with axis-aligned frame at (x, y), its neighbour slots and
  // the point count of its contour.
  void add(double x, double y, double width, double height, cv::Vec4i links = {},
           size_t contour_points = 60) {
    RotatedEllipse e;
    e.axes = cv::Mat::eye(2, 2, CV_64F);
    e.center = {x, y};
    e.width = width;
    e.height = height;
    e.a = width / 2;
    e.b = height / 2;
    ellipses.push_back(e);
    connections.push_back(links);
    contours.emplace_back(contour_points, cv::Point(0, 0));
  }

  cv::Mat_<double> checked_distances() {
    cv::Mat_<double> D = get_distance_matrix();
    check_distance_matrix(D);
    return D;
  }
};

using PelluxProbe = Probe<PelluxCalibBoardRecognizer>;

bool linked(const cv::Mat_<double>& D, int i, int j) { return D(i, j) != DBL_MAX; }

TEST(ConnectionFinder, DistanceCutsCompareTruncatedTenthsRowByRow) {
  PelluxProbe f;  // default 1.2: ratios up to 1.39... pass (trunc 13 <= 13)
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
  PelluxProbe sizes;
  sizes.add(0, 0, 20, 20);
  sizes.add(20, 0, 10, 10);
  D = sizes.checked_distances();
  EXPECT_TRUE(linked(D, 0, 1));
  EXPECT_FALSE(linked(D, 1, 0));

  // The second test uses the rim in the neighbour's direction: an ellipse
  // 20 x 10 reaches 15 px along its long axis but not along its short one,
  // although 15 / 20 passes the first test.
  PelluxProbe flat;
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
  PelluxProbe f;
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
  PelluxProbe f;
  for (size_t n : {100, 25, 26, 500, 404, 5, 101}) f.add(0, 0, 10, 10, {}, n);
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
  PelluxProbe f;
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
  PelluxProbe crowd;
  for (cv::Point2d p : {cv::Point2d(0, 0), {20, 0}, {-18, 0}, {0, 25}, {0, -19}, {0, 20}})
    crowd.add(p.x, p.y, 20, 20);
  flags.assign(6, 1);
  D = crowd.checked_distances();
  EXPECT_EQ(crowd.find_connected(flags, D)[0], cv::Vec4i(2, 4, 1, 5));
}

// The board record: unit length, circles along x and y, origin circle.
CalibBoardParams board(double unit, int nx, int ny, int ox, int oy) {
  return {unit, nx, ny, ox, oy};
}

const cv::Point2f kMissing(FLT_MAX, FLT_MAX);

TEST(CalibBoardRecognizer, BoardPositionsIndicesAndRange) {
  PelluxProbe r;
  CalibBoardParams b = board(2.0, 3, 2, 1, 1);
  b.distance_between_circles = 1.7;
  PreProcParams pre;
  CircleMarkerParams marker;
  marker.image_width = 640;
  marker.image_height = 480;
  ASSERT_TRUE(r.set_parameters(pre, marker, b));
  EXPECT_EQ(r.n_markers, 6);
  const cv::Point3f expected[] = {{2, 2, 0},  {2, 0, 0},  {0, 2, 0},
                                  {0, 0, 0},  {-2, 2, 0}, {-2, 0, 0}};
  for (int k = 0; k < 6; ++k) EXPECT_EQ(r.get_3d_position(k), expected[k]) << k;
  EXPECT_EQ(r.get_marker_index({0, 0}), 1 * 2 + 1);
  EXPECT_EQ(r.get_marker_index({1, 0}), 1);   // +x lowers the index by n_circles_y
  EXPECT_EQ(r.get_marker_index({0, 1}), 2);   // +y lowers it by 1
  EXPECT_EQ(r.get_marker_index({5, -7}), -4 * 2 + 7 + 1);  // no range check
  EXPECT_EQ(r.get_marker_range(), cv::Rect(1, 1, 3, 2));
  EXPECT_EQ(r.distance_between_circles, 1.7);
  EXPECT_EQ(r.image_size(), cv::Size(640, 480));  // the record's keyless words

  // Invalid boards change nothing, the searcher's settings included. Marker
  // counts past the int range (65536 x 65537 wraps to 65536) are invalid too.
  CircleMarkerParams other;
  for (CalibBoardParams bad : {board(0.0, 3, 2, 0, 0), board(1.0, 0, 2, 0, 0),
                               board(1.0, 3, 0, 0, 0), board(-1.0, 3, 2, 0, 0),
                               board(1.0, 65536, 65537, 5, 3), board(1.0, 46341, 46341, 0, 0)})
    EXPECT_FALSE(r.set_parameters(pre, other, bad));
  EXPECT_EQ(r.n_markers, 6);
  EXPECT_EQ(r.get_3d_position(0), expected[0]);
  EXPECT_EQ(r.image_size(), cv::Size(640, 480));

  PelluxProbe single;
  CalibBoardParams one = board(10.0, 1, 1, 0, 0);
  ASSERT_TRUE(single.init_recognizer(one));
  EXPECT_EQ(single.get_3d_position(0), cv::Point3f(0, 0, 0));
}

// Numbering from marker 0 on a 4 x 3 board (n_circles_y 3) whose image
// axes are board +x to the right and +y up: the owner of every marker
// index, and the centre of that owner at the index.
TEST(CalibBoardRecognizer, NumberingStepsAndVisitOrder) {
  const struct {
    const char* name;
    int start;
    std::vector<std::pair<cv::Point2d, cv::Vec4i>> markers;
    std::vector<int> owner;
  } cases[] = {
      // A diagonal neighbour (|px| == |py|) is a y step; a wider one an x step.
      {"diagonal is y, wider is x", 4,
       {{{0, 0}, {1, 2, -1, -1}}, {{10, 10}, {-1, -1, -1, -1}}, {{-10, 9}, {-1, -1, -1, -1}}},
       {-1, -1, -1, -1, 0, 1, -1, 2, -1, -1, -1, -1}},
      // Depth first in slot order: 0 -> 1 (+x) -> 3 (+y) -> 5 (-x) takes
      // index 3 before marker 0's slot 1 (marker 2, +y) is tried; the first
      // to arrive keeps the index, and 2 is never placed.
      {"depth first, first arrival wins", 4,
       {{{0, 0}, {1, 2, -1, -1}}, {{10, 0}, {3, -1, -1, -1}}, {{0, -10}, {-1, -1, -1, -1}},
        {{10, -10}, {5, -1, -1, -1}}, {{50, 50}, {-1, -1, -1, -1}},
        {{0.5, -10.5}, {-1, -1, -1, -1}}},
       {3, 1, -1, 5, 0, -1, -1, -1, -1, -1, -1, -1}},
      // Only the index range is checked: +y from the top of column 1 wraps
      // to the bottom of column 0; steps out of 0..11 are dropped.
      {"+y wraps to the previous column", 3,
       {{{0, 0}, {1, 2, -1, -1}}, {{0, -10}, {-1, -1, -1, -1}}, {{10, 0}, {-1, -1, -1, -1}}},
       {2, -1, 1, 0, -1, -1, -1, -1, -1, -1, -1, -1}},
      {"steps out of range are dropped", 0,
       {{{0, 0}, {1, 2, -1, -1}}, {{0, -10}, {-1, -1, -1, -1}}, {{10, 0}, {-1, -1, -1, -1}}},
       {0, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PelluxProbe r;
    CalibBoardParams b = board(1.0, 4, 3, 1, 1);
    r.init_recognizer(b);
    r.dir_x = {1, 0};
    r.dir_y = {0, -1};
    for (const auto& [centre, links] : c.markers) r.add(centre.x, centre.y, 8, 8, links);
    std::vector<cv::Point2f> points(12, kMissing);
    std::vector<int> owner(12, -1);
    r.numbering(0, c.start, points, owner);
    EXPECT_EQ(owner, c.owner);
    for (int k = 0; k < 12; ++k)
      EXPECT_EQ(points[k], owner[k] < 0 ? kMissing : cv::Point2f(c.markers[owner[k]].first));
  }
}

// --- rendered boards ---------------------------------------------------------

// Boards of 7 x 5 circles. The three-ring family's O ring is circle (1, 3)
// (X at (3, 3), Y at (1, 2)); the one-ring family's ring is circle (4, 1).
constexpr int kCols = 7, kRows = 5;
constexpr int kOi = 1, kOj = 3, kRi = 4, kRj = 1;
constexpr double kSpacing = 20.0;
const sl3d::BoardCamera kCamera{640, 480, 640.0, 640.0, 319.5, 239.5};

sl3d::BoardLayout layout(bool dark_circles, std::vector<sl3d::BoardRing> rings) {
  return {kCols, kRows, kSpacing, 8.0, 15.0, dark_circles, std::move(rings)};
}

std::vector<sl3d::BoardRing> rings_of(BoardFamily family, bool mirrored = false) {
  if (family == BoardFamily::kPellux)
    return sl3d::three_ring_base_markers(kOi, kOj, 4.5, mirrored);
  return sl3d::one_ring_base_marker(kRi, kRj, 4.5);
}

// The renderer's +i is the three-ring board's +x and its +j the board's
// -y, so that board's origin index is (kCols - 1 - kOi, kOj). Facing the
// camera the one ring's left neighbour (-i) is the board's +y and its upper
// one (-j) +x.
void configure(CalibBoardRecognizer& r, BoardFamily family, bool dark_circles) {
  CalibBoardParams b = family == BoardFamily::kPellux
                           ? board(kSpacing, kCols, kRows, kCols - 1 - kOi, kOj)
                           : board(kSpacing, kRows, kCols, kRj, kRi);
  PreProcParams pre;
  pre.do_reverse_bw = dark_circles;
  CircleMarkerParams marker;
  marker.min_radius = 5.0;  // holes seen at a slant stay above the length limit
  ASSERT_TRUE(r.set_parameters(pre, marker, b));
}

std::unique_ptr<CalibBoardRecognizer> recognizer(BoardFamily family, bool dark_circles) {
  std::unique_ptr<CalibBoardRecognizer> r;
  if (family == BoardFamily::kPellux)
    r.reset(new PelluxCalibBoardRecognizer());
  else
    r.reset(new QuillCalibBoardRecognizer());
  configure(*r, family, dark_circles);
  return r;
}

// Marker index and board position of rendered circle (i, j), computed
// independently of the recognizer.
int truth_index(BoardFamily family, int i, int j) {
  return family == BoardFamily::kPellux ? (kCols - 1 - i) * kRows + j : j * kCols + i;
}

cv::Point3f truth_position(BoardFamily family, int i, int j) {
  if (family == BoardFamily::kPellux)
    return cv::Point3f(float(kSpacing * (i - kOi)), float(kSpacing * (kOj - j)), 0);
  return cv::Point3f(float(kSpacing * (kRj - j)), float(kSpacing * (kRi - i)), 0);
}

// Rendered boards at a pose, with blur and noise: the right ones get every
// circle at its true index, close to its true centre; the wrong ones get
// their failure code and leave the marker list alone. The one-ring
// family's right cases turn the board about its vertical axis (shortening
// the horizontal spacing) with its top nearer: the upper neighbour is then
// the farthest of the four.
TEST(CalibBoardRecognizers, RenderedBoards) {
  const BoardFamily pellux = BoardFamily::kPellux, quill = BoardFamily::kQuill;
  const std::vector<sl3d::BoardRing> three = rings_of(pellux), one = rings_of(quill),
                                     mirrored = rings_of(pellux, true);
  std::vector<sl3d::BoardRing> four = three;
  four.push_back({5, 0, 4.5});
  const struct {
    const char* name;
    BoardFamily family;
    std::vector<sl3d::BoardRing> rings;
    bool dark_circles;
    double distance, tilt_x, tilt_y, roll, blur, noise;
    int code;
  } cases[] = {
      {"frontal", pellux, three, true, 330, 0, 0, 0, 0, 0, 0},
      {"roll 90", pellux, three, true, 330, 0, 0, 90, 0, 0, 0},
      {"roll 180, tilt x 30", pellux, three, true, 340, 30, 0, 180, 0, 0, 0},
      {"roll 270, tilt y 40", pellux, three, true, 340, 0, 40, 270, 0, 0, 0},
      {"roll 135, tilt 45/20, blur, noise", pellux, three, true, 350, 45, 20, 135, 0.8, 2.0, 0},
      {"roll -60, tilt -35/30, light", pellux, three, false, 340, -35, 30, -60, 0.6, 1.0, 0},
      {"roll 30, tilt 45, light", pellux, three, false, 340, 45, 0, 30, 0, 0, 0},
      {"roll 225, tilt -20/-45", pellux, three, true, 350, -20, -45, 225, 0.5, 1.0, 0},
      {"tilt 10/40", quill, one, true, 340, 10, 40, 0, 0.6, 1.0, 0},
      {"tilt 15/-35, roll 8, light", quill, one, false, 340, 15, -35, 8, 0.6, 1.0, 0},
      {"tilt 12/30, roll -10", quill, one, true, 340, 12, 30, -10, 0.6, 1.0, 0},
      {"mirrored", pellux, mirrored, true, 330, 15, 10, 0, 0, 0, 5},
      {"mirrored, roll 90", pellux, mirrored, true, 330, 15, 10, 90, 0, 0, 5},
      {"mirrored, roll 200", pellux, mirrored, true, 330, 15, 10, 200, 0, 0, 5},
      {"two rings", pellux, {three[0], three[1]}, true, 330, 15, 10, 0, 0, 0, 4},
      {"four rings", pellux, four, true, 330, 15, 10, 0, 0, 0, 4},
      {"no ring", pellux, {}, true, 330, 15, 10, 0, 0, 0, 3},
      // Two of the three rings have no ring beside them: X cannot be told.
      {"rings apart", pellux, {{0, 0, 4.5}, {3, 0, 4.5}, {6, 4, 4.5}}, true, 330, 15, 10, 0, 0, 0,
       5},
      {"two rings", quill, {one[0], {0, 4, 4.5}}, true, 330, 15, 10, 0, 0, 0, 4},
      {"no ring", quill, {}, true, 330, 15, 10, 0, 0, 0, 3},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const sl3d::BoardLayout l = layout(c.dark_circles, c.rings);
    sl3d::BoardImaging imaging;
    imaging.blur_sigma_px = c.blur;
    imaging.noise_sigma = c.noise;
    sl3d::BoardRendering truth = sl3d::render_board(
        l, sl3d::board_pose_facing(l, c.distance, c.tilt_x, c.tilt_y, c.roll), kCamera, imaging);
    std::unique_ptr<CalibBoardRecognizer> r = recognizer(c.family, c.dark_circles);
    std::vector<cv::Point2f> points{{1, 2}};
    ASSERT_EQ(r->recognize(truth.image, points), c.code);
    if (c.code != 0) {
      EXPECT_EQ(points, (std::vector<cv::Point2f>{{1, 2}}));
      continue;
    }
    ASSERT_EQ(points.size(), size_t(kCols * kRows));
    for (int j = 0; j < kRows; ++j)
      for (int i = 0; i < kCols; ++i) {
        // A permuted or wrapped numbering puts a circle a spacing away.
        const cv::Point2d p(points[truth_index(c.family, i, j)]);
        EXPECT_LT(cv::norm(p - truth.centres[j * kCols + i]), 0.5) << i << "," << j;
        EXPECT_LT(cv::norm(p - truth.ellipse_centres[j * kCols + i]), 0.35) << i << "," << j;
        EXPECT_EQ(r->get_3d_position(truth_index(c.family, i, j)),
                  truth_position(c.family, i, j));
      }
  }
  QuillCalibBoardRecognizer r;
  EXPECT_EQ(r.get_error_name(4), "N_BaseMarker_NotMatch");
  const size_t before = QuillCalibBoardRecognizer::errors.size();
  EXPECT_EQ(r.get_error_name(5), "");  // no classification step in this family
  EXPECT_EQ(QuillCalibBoardRecognizer::errors.size(), before + 1);
}

TEST(CalibBoardRecognizers, ImageSizeIsFixedByTheFirstImage) {
  const sl3d::BoardLayout l = layout(true, rings_of(BoardFamily::kPellux));
  sl3d::BoardRendering truth = sl3d::render_board(l, sl3d::board_pose_facing(l, 330), kCamera);
  std::unique_ptr<CalibBoardRecognizer> r = recognizer(BoardFamily::kPellux, true);
  std::vector<cv::Point2f> points;
  ASSERT_EQ(r->recognize(truth.image, points), 0);
  EXPECT_EQ(r->image_size(), cv::Size(640, 480));
  cv::Mat before;
  r->copy_result_image(before);
  EXPECT_EQ(before.size(), truth.image.size());
  EXPECT_EQ(before.type(), CV_8UC3);

  cv::Mat smaller = truth.image(cv::Rect(0, 0, 639, 480)).clone();
  std::vector<cv::Point2f> kept{{3, 4}};
  EXPECT_EQ(r->recognize(smaller, kept), 1);
  EXPECT_EQ(kept, std::vector<cv::Point2f>{cv::Point2f(3, 4)});
  // A buffer of the picture's size and type is written in place.
  cv::Mat after(before.size(), before.type(), cv::Scalar::all(0));
  const uchar* buffer = after.data;
  r->copy_result_image(after);
  EXPECT_EQ(after.data, buffer);
  EXPECT_EQ(cv::norm(before, after, cv::NORM_INF), 0.0);

  // set_parameters with a record whose size words are 0 accepts a new size.
  configure(*r, BoardFamily::kPellux, true);
  EXPECT_EQ(r->recognize(smaller, points), 0);
  EXPECT_EQ(r->image_size(), cv::Size(639, 480));
}

// The one ring's neighbours, in slots nearest first: +y is the leftmost
// one, +x the last listed one (a kept quirk: its limit is never tightened).
TEST(QuillCalibBoardRecognizer, DirectionsFromTheRingsNeighbours) {
  Probe<QuillCalibBoardRecognizer> r;
  for (cv::Point2d centre : {cv::Point2d(0, 0), {10, 0}, {-10, 0.5}, {0, -11}, {0, 12}})
    r.add(centre.x, centre.y, 8, 8);
  r.base_markers = {0};
  const struct {
    const char* name;
    cv::Vec4i slots;
    cv::Point2f dir_y, dir_x;  // both (0.6, 0.8) before each call
  } cases[] = {
      {"right, left, up, down", {1, 2, 3, 4}, {-0.99875f, 0.04994f}, {0, 1}},
      {"a single neighbour gives both", {1, -1, -1, -1}, {1, 0}, {1, 0}},
      {"none: both stay", {-1, -1, -1, -1}, {0.6f, 0.8f}, {0.6f, 0.8f}},
      {"equal scores: the first wins", {3, 4, -1, -1}, {0, -1}, {0, 1}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    r.connections[0] = c.slots;
    r.dir_x = r.dir_y = {0.6f, 0.8f};
    r.set_direction();
    EXPECT_LT(cv::norm(r.dir_y - c.dir_y), 1e-4);
    EXPECT_EQ(r.dir_x, c.dir_x);
  }
}

}  // namespace
