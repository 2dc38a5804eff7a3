// The one-ring family: grid directions from the ring's neighbours,
// end-to-end numbering on rendered boards at poses
// where the ring's +x neighbour is its farthest, and the failure codes.

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <iostream>

#include <sl3d/calibboard/QuillCalibBoardRecognizer.h>
#include <sl3d/sim/board_renderer.h>

namespace {

class Probe : public QuillCalibBoardRecognizer {
 public:
  using CalibBoardRecognizer::dir_x;
  using CalibBoardRecognizer::dir_y;
  using CircleMarkerSearcher::ellipses;
  using ConnectionFinder::base_markers;
  using ConnectionFinder::connections;

  void add(double x, double y, cv::Vec4i links) {
    RotatedEllipse e;
    e.center = {x, y};
    ellipses.push_back(e);
    connections.push_back(links);
  }
};

TEST(QuillCalibBoardRecognizer, DirectionsFromTheRingsNeighbours) {
  // Slots nearest first: right, left, up, down. +y is the leftmost one,
  // +x the last listed one.
  Probe r;
  r.add(0, 0, {1, 2, 3, 4});
  r.add(10, 0, {});
  r.add(-10, 0.5, {});
  r.add(0, -11, {});
  r.add(0, 12, {});
  r.base_markers = {0};
  r.set_direction();
  EXPECT_LT(r.dir_y.x, -0.99f);
  EXPECT_EQ(r.dir_x, cv::Point2f(0, 1));

  // A single neighbour to the right gives both axes, however low its score.
  r.connections[0] = {1, -1, -1, -1};
  r.set_direction();
  EXPECT_EQ(r.dir_y, cv::Point2f(1, 0));
  EXPECT_EQ(r.dir_x, cv::Point2f(1, 0));

  // No neighbours: both stay.
  r.connections[0] = {-1, -1, -1, -1};
  r.dir_x = {0.6f, 0.8f};
  r.set_direction();
  EXPECT_EQ(r.dir_x, cv::Point2f(0.6f, 0.8f));
  EXPECT_EQ(r.dir_y, cv::Point2f(1, 0));

  // Equal scores: the first listed wins.
  r.connections[0] = {3, 4, -1, -1};
  r.set_direction();
  EXPECT_EQ(r.dir_y, cv::Point2f(0, -1));
  EXPECT_EQ(r.dir_x, cv::Point2f(0, 1));
}

// A 7 x 5 board with the ring at circle (4, 1). Facing the camera the
// ring's left neighbour (-i) is the board's +y and its upper one (-j) +x;
// then the marker index of circle (i, j) is j * 7 + i.
constexpr int kCols = 7, kRows = 5, kRi = 4, kRj = 1;
constexpr double kSpacing = 20.0;
const sl3d::BoardCamera kCamera{800, 600, 800.0, 800.0, 399.5, 299.5};

sl3d::BoardLayout quill_layout(bool dark_circles, std::vector<sl3d::BoardRing> rings) {
  sl3d::BoardLayout l;
  l.circles_x = kCols;
  l.circles_y = kRows;
  l.spacing = kSpacing;
  l.radius = 8.0;
  l.dark_circles = dark_circles;
  l.rings = std::move(rings);
  return l;
}

void configure(iCalibBoardRecognizer& r, bool dark_circles) {
  PreProcParams pre;
  pre.do_reverse_bw = dark_circles;
  CircleMarkerParams marker;
  marker.min_radius = 5.0;
  CalibBoardParams board;
  board.unit_length = kSpacing;
  board.n_circles_x = kRows;
  board.n_circles_y = kCols;
  board.origin_x = kRj;
  board.origin_y = kRi;
  ASSERT_TRUE(r.set_parameters(pre, marker, board));
}

TEST(QuillCalibBoardRecognizer, NumbersEveryCircleWhenTheUpperNeighbourIsFarthest) {
  // Turning the board about its vertical axis shortens the horizontal
  // spacing, and a tilt that brings its top nearer makes the upper
  // neighbour the farthest of the four.
  struct Case {
    const char* name;
    double tilt_x, tilt_y, roll;
    bool dark_circles;
  } cases[] = {{"tilt 10/40", 10, 40, 0, true},
               {"tilt 15/-35, roll 8, light circles", 15, -35, 8, false},
               {"tilt 12/30, roll -10", 12, 30, -10, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const sl3d::BoardLayout l =
        quill_layout(c.dark_circles, sl3d::one_ring_base_marker(kRi, kRj, 4.5));
    sl3d::BoardImaging imaging;
    imaging.blur_sigma_px = 0.6;
    imaging.noise_sigma = 1.0;
    sl3d::BoardRendering truth = sl3d::render_board(
        l, sl3d::board_pose_facing(l, 340, c.tilt_x, c.tilt_y, c.roll), kCamera, imaging);
    QuillCalibBoardRecognizer r;
    configure(r, c.dark_circles);
    std::vector<cv::Point2f> points;
    ASSERT_EQ(r.recognize(truth.image, points), 0);
    double max_error = 0.0;
    for (int j = 0; j < kRows; ++j)
      for (int i = 0; i < kCols; ++i) {
        const cv::Point2f p = points[j * kCols + i];
        ASSERT_NE(p.x, FLT_MAX) << i << "," << j;
        max_error = std::max(max_error, cv::norm(cv::Point2d(p) - truth.centres[j * kCols + i]));
        EXPECT_EQ(r.get_3d_position(j * kCols + i),
                  cv::Point3f(float(kSpacing * (kRj - j)), float(kSpacing * (kRi - i)), 0));
      }
    std::cout << "[ centres  ] " << c.name << ": max " << max_error
              << " px from the projected centre\n";
    EXPECT_LT(max_error, 0.5);
  }
}

TEST(QuillCalibBoardRecognizer, FailureCodesAndNames) {
  QuillCalibBoardRecognizer r;
  configure(r, true);
  std::vector<cv::Point2f> points{{1, 2}};
  for (auto rings : {std::vector<sl3d::BoardRing>{{kRi, kRj, 4.5}, {0, 4, 4.5}},
                     std::vector<sl3d::BoardRing>{}}) {
    const sl3d::BoardLayout l = quill_layout(true, rings);
    sl3d::BoardRendering truth =
        sl3d::render_board(l, sl3d::board_pose_facing(l, 340, 10, 40), kCamera);
    EXPECT_EQ(r.recognize(truth.image, points), rings.empty() ? 3 : 4);
  }
  EXPECT_EQ(points, std::vector<cv::Point2f>{cv::Point2f(1, 2)});

  EXPECT_EQ(r.get_error_name(4), "N_BaseMarker_NotMatch");
  const size_t before = QuillCalibBoardRecognizer::errors.size();
  EXPECT_EQ(r.get_error_name(5), "");  // no classification step in this family
  EXPECT_EQ(QuillCalibBoardRecognizer::errors.size(), before + 1);
}

}  // namespace
