// Grid connection: the truncated, one-sided distance cuts, the largest
// group and its tie rule, the length filter, the neighbour slots, and the
// whole find() on a drawn grid with a ring.

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>

#include <opencv2/imgproc.hpp>

#include <sl3d/calibboard/ConnectionFinder.h>

namespace {

// Rings are handed over as the family does it: the contour with more points
// is the outer one and stays in the grid with flag 2.
class RingFinder : public ConnectionFinder {
 public:
  int basemarker_process(int marker, int inner, std::vector<int>& flags) override {
    const int outer = contours[marker].size() > contours[inner].size() ? marker : inner;
    flags[outer] = 2;
    flags[outer == marker ? inner : marker] = 0;
    return outer;
  }

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
  RingFinder f;  // default 1.2: ratios up to 1.39... pass (trunc 13 <= 13)
  f.add(0, 0, 10, 10);
  f.add(13, 0, 10, 10);    // 1.3 diameters from 0
  f.add(13, 13.5, 10, 10); // 1.35 from 1: truncates to 13, passes
  f.add(27, 13.5, 10, 10); // 1.4 from 2: cut both ways
  cv::Mat_<double> D = f.checked_distances();
  EXPECT_DOUBLE_EQ(D(0, 1), 13.0);
  EXPECT_TRUE(linked(D, 1, 0));
  EXPECT_TRUE(linked(D, 1, 2) && linked(D, 2, 1));
  EXPECT_FALSE(linked(D, 2, 3) || linked(D, 3, 2));
  for (int i = 0; i < 4; ++i) EXPECT_FALSE(linked(D, i, i));

  f.distance_between_circles = 1.3;  // limit 14: 1.4 passes now
  D = f.checked_distances();
  EXPECT_TRUE(linked(D, 2, 3) && linked(D, 3, 2));

  // A large circle reaches a small one that does not reach it back.
  RingFinder sizes;
  sizes.add(0, 0, 20, 20);
  sizes.add(20, 0, 10, 10);
  D = sizes.checked_distances();
  EXPECT_TRUE(linked(D, 0, 1));
  EXPECT_FALSE(linked(D, 1, 0));

  // The second test uses the rim in the neighbour's direction: an ellipse
  // 20 x 10 reaches 15 px along its long axis but not along its short one,
  // although 15 / 20 passes the first test.
  RingFinder flat;
  flat.add(0, 0, 20, 10);
  flat.add(15, 0, 20, 20);
  flat.add(0, 15, 20, 20);
  D = flat.checked_distances();
  EXPECT_TRUE(linked(D, 0, 1));
  EXPECT_FALSE(linked(D, 0, 2));
  EXPECT_TRUE(linked(D, 2, 0));
}

TEST(ConnectionFinder, LargestGroupTieGoesToTheLowerRoot) {
  // {0, 3} is joined from row 3 only, so 3 is its root; {1, 2} has root 1.
  // Sizes tie, and the group with root 1 survives although the other one
  // holds index 0.
  RingFinder f;
  cv::Mat_<double> D(5, 5, DBL_MAX);
  D(3, 0) = 1.0;
  D(1, 2) = 1.0;
  D(2, 1) = 1.0;
  std::vector<int> flags(5, 1);
  f.remain_largest_group(flags, D);
  EXPECT_EQ(flags, (std::vector<int>{0, 1, 1, 0, 0}));
  EXPECT_EQ(cv::countNonZero(D.row(3) != DBL_MAX), 0);
  EXPECT_DOUBLE_EQ(D(1, 2), 1.0);

  // A larger group wins over a lower root.
  D.setTo(DBL_MAX);
  D(0, 1) = 1.0;
  D(4, 2) = D(4, 3) = 1.0;
  flags.assign(5, 1);
  f.remain_largest_group(flags, D);
  EXPECT_EQ(flags, (std::vector<int>{0, 0, 1, 1, 1}));
}

TEST(ConnectionFinder, MedianLengthAndLengthFilter) {
  RingFinder f;
  const size_t lengths[] = {100, 25, 26, 500, 404, 5, 101};
  for (size_t n : lengths) f.add(0, 0, 10, 10, n);
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
  RingFinder f;
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
  RingFinder crowd;
  crowd.add(0, 0, 20, 20);
  crowd.add(20, 0, 20, 20);
  crowd.add(-18, 0, 20, 20);
  crowd.add(0, 25, 20, 20);
  crowd.add(0, -19, 20, 20);
  crowd.add(0, 20, 20, 20);
  flags.assign(6, 1);
  D = crowd.checked_distances();
  EXPECT_EQ(crowd.find_connected(flags, D)[0], cv::Vec4i(2, 4, 1, 5));
}

// A 4 x 3 grid of discs, one of them a ring, and a stray disc far away.
struct DrawnGrid {
  cv::Mat image = cv::Mat::zeros(240, 400, CV_8U);
  DrawnGrid(bool with_ring) {
    for (int j = 0; j < 3; ++j)
      for (int i = 0; i < 4; ++i) cv::circle(image, grid(i, j), 15, 255, cv::FILLED);
    if (with_ring) cv::circle(image, grid(1, 1), 9, 0, cv::FILLED);
    cv::circle(image, {350, 200}, 15, 255, cv::FILLED);
  }
  static cv::Point grid(int i, int j) { return {40 + 36 * i, 40 + 36 * j}; }
};

int nearest_ellipse(const ConnectionFinder& f, cv::Point p, bool largest) {
  int best = -1;
  for (int k = 0; k < static_cast<int>(f.ellipses.size()); ++k) {
    if (cv::norm(f.ellipses[k].center - cv::Point2d(p)) > 2.0) continue;
    if (best < 0 || (f.ellipses[k].width > f.ellipses[best].width) == largest) best = k;
  }
  return best;
}

TEST(ConnectionFinder, FindOnADrawnGridWithARing) {
  CircleMarkerParams params;
  params.min_radius = 4.0;
  params.max_radius = 40.0;
  RingFinder f;
  f.init_searcher(params);
  cv::Mat binary = DrawnGrid(true).image;
  ASSERT_TRUE(f.search(binary));
  ASSERT_EQ(f.ellipses.size(), 14u);  // 12 discs, the hole, the stray disc
  ASSERT_TRUE(f.find());

  const int outer = nearest_ellipse(f, DrawnGrid::grid(1, 1), true);
  const int inner = nearest_ellipse(f, DrawnGrid::grid(1, 1), false);
  const int stray = nearest_ellipse(f, {350, 200}, true);
  ASSERT_NE(outer, inner);
  EXPECT_EQ(f.base_markers, std::vector<int>{outer});
  EXPECT_EQ(f.connections[inner], cv::Vec4i(0, 0, 0, 0));  // dropped by the length filter
  EXPECT_EQ(f.connections[stray], cv::Vec4i(0, 0, 0, 0));  // outside the largest group

  // The ring is linked to its four grid neighbours; a corner to two.
  std::vector<int> ring_links, corner_links;
  for (int k = 0; k < 4; ++k) {
    ring_links.push_back(f.connections[outer][k]);
    corner_links.push_back(f.connections[nearest_ellipse(f, DrawnGrid::grid(3, 2), true)][k]);
  }
  std::sort(ring_links.begin(), ring_links.end());
  std::vector<int> expected{nearest_ellipse(f, DrawnGrid::grid(0, 1), true),
                            nearest_ellipse(f, DrawnGrid::grid(2, 1), true),
                            nearest_ellipse(f, DrawnGrid::grid(1, 0), true),
                            nearest_ellipse(f, DrawnGrid::grid(1, 2), true)};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(ring_links, expected);
  EXPECT_EQ(std::count(corner_links.begin(), corner_links.end(), -1), 2);

  // Without a nested contour there is no base marker: false, and the
  // previous connections stay.
  const std::vector<cv::Vec4i> before = f.connections;
  binary = DrawnGrid(false).image;
  ASSERT_TRUE(f.search(binary));
  EXPECT_FALSE(f.find());
  EXPECT_TRUE(f.base_markers.empty());
  EXPECT_EQ(f.connections, before);
}

}  // namespace
