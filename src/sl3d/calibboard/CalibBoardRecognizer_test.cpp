// The recognizer frame: board acceptance and positions, marker indices and
// the depth-first numbering with its step rules.

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include <sl3d/calibboard/PelluxCalibBoardRecognizer.h>

namespace {

// Opens the protected machinery for direct checks.
class Probe : public PelluxCalibBoardRecognizer {
 public:
  using CalibBoardRecognizer::dir_x;
  using CalibBoardRecognizer::dir_y;
  using CalibBoardRecognizer::n_markers;
  using CalibBoardRecognizer::numbering;
  using CircleMarkerSearcher::ellipses;
  using ConnectionFinder::connections;
  using ConnectionFinder::distance_between_circles;

  void add(double x, double y, double diameter, cv::Vec4i links) {
    RotatedEllipse e;
    e.axes = cv::Mat::eye(2, 2, CV_64F);
    e.center = {x, y};
    e.width = e.height = diameter;
    e.a = e.b = diameter / 2;
    ellipses.push_back(e);
    connections.push_back(links);
  }
};

CalibBoardParams board(int nx, int ny, int ox, int oy, double unit) {
  CalibBoardParams b;
  b.n_circles_x = nx;
  b.n_circles_y = ny;
  b.origin_x = ox;
  b.origin_y = oy;
  b.unit_length = unit;
  return b;
}

const cv::Point2f kMissing(FLT_MAX, FLT_MAX);

TEST(CalibBoardRecognizer, BoardPositionsIndicesAndRange) {
  Probe r;
  CalibBoardParams b = board(3, 2, 1, 1, 2.0);
  b.distance_between_circles = 1.7;
  PreProcParams pre;
  CircleMarkerParams marker;
  marker.image_width = 640;
  marker.image_height = 480;
  ASSERT_TRUE(r.set_parameters(pre, marker, b));
  EXPECT_EQ(r.n_markers, 6);
  const cv::Point3f expected[] = {{2, 2, 0}, {2, 0, 0}, {0, 2, 0}, {0, 0, 0}, {-2, 2, 0}, {-2, 0, 0}};
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
  for (CalibBoardParams bad : {board(3, 2, 0, 0, 0.0), board(0, 2, 0, 0, 1.0),
                               board(3, 0, 0, 0, 1.0), board(3, 2, 0, 0, -1.0),
                               board(65536, 65537, 5, 3, 1.0), board(46341, 46341, 0, 0, 1.0)})
    EXPECT_FALSE(r.set_parameters(pre, other, bad));
  EXPECT_EQ(r.n_markers, 6);
  EXPECT_EQ(r.get_3d_position(0), expected[0]);
  EXPECT_EQ(r.image_size(), cv::Size(640, 480));

  Probe single;
  CalibBoardParams one = board(1, 1, 0, 0, 10.0);
  ASSERT_TRUE(single.init_recognizer(one));
  EXPECT_EQ(single.get_3d_position(0), cv::Point3f(0, 0, 0));
}

// A 4 x 3 board (n_circles_y 3) with the origin at index 1 * 3 + 1 = 4;
// image axes: board +x to the right, +y up.
Probe numbering_probe() {
  Probe r;
  CalibBoardParams b = board(4, 3, 1, 1, 1.0);
  r.init_recognizer(b);
  r.dir_x = {1, 0};
  r.dir_y = {0, -1};
  return r;
}

TEST(CalibBoardRecognizer, NumberingStepsAndVisitOrder) {
  // A diagonal neighbour (|px| == |py|) is a y step; a wider one an x step.
  Probe r = numbering_probe();
  r.add(0, 0, 8, {1, 2, -1, -1});
  r.add(10, 10, 8, {-1, -1, -1, -1});   // diagonal down-right: -y, +1
  r.add(-10, 9, 8, {-1, -1, -1, -1});   // mostly left: -x, +3
  std::vector<cv::Point2f> points(12, kMissing);
  std::vector<int> owner(12, -1);
  r.numbering(0, 4, points, owner);
  EXPECT_EQ(owner, (std::vector<int>{-1, -1, -1, -1, 0, 1, -1, 2, -1, -1, -1, -1}));
  EXPECT_EQ(points[5], cv::Point2f(10, 10));
  EXPECT_EQ(points[0], kMissing);

  // Depth first in slot order: the walk 0 -> 1 (+x) -> 3 (+y) -> 5 (-x)
  // reaches index 3 before slot 1 of marker 0 (marker 2, +y) is tried; the
  // first to arrive keeps the index and 2 is never placed.
  r = numbering_probe();
  r.add(0, 0, 8, {1, 2, -1, -1});
  r.add(10, 0, 8, {3, -1, -1, -1});
  r.add(0, -10, 8, {-1, -1, -1, -1});
  r.add(10, -10, 8, {5, -1, -1, -1});
  r.add(50, 50, 8, {-1, -1, -1, -1});
  r.add(0.5, -10.5, 8, {-1, -1, -1, -1});
  owner.assign(12, -1);
  r.numbering(0, 4, points, owner);
  EXPECT_EQ(owner[4], 0);
  EXPECT_EQ(owner[1], 1);
  EXPECT_EQ(owner[0], 3);
  EXPECT_EQ(owner[3], 5);
  EXPECT_EQ(std::count(owner.begin(), owner.end(), 2), 0);

  // Only the index range is checked: +y from the top of column 1 (index 3)
  // wraps to the bottom of column 0 (index 2); steps out of 0..11 are
  // dropped.
  r = numbering_probe();
  r.add(0, 0, 8, {1, 2, -1, -1});
  r.add(0, -10, 8, {-1, -1, -1, -1});
  r.add(10, 0, 8, {-1, -1, -1, -1});
  owner.assign(12, -1);
  r.numbering(0, 3, points, owner);
  EXPECT_EQ(owner[2], 1);
  EXPECT_EQ(owner[0], 2);
  owner.assign(12, -1);
  r.numbering(0, 0, points, owner);  // +y to -1 and +x to -3: both outside
  EXPECT_EQ(std::count(owner.begin(), owner.end(), -1), 11);
}

}  // namespace
