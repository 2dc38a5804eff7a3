// The three-ring family end to end on rendered boards: every circle gets
// its true marker index and a centre close to the truth at many poses and
// both polarities; and the failure codes of wrong boards and images.

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <iostream>

#include <sl3d/calibboard/PelluxCalibBoardRecognizer.h>
#include <sl3d/sim/board_renderer.h>

namespace {

// A 7 x 5 board, O ring at circle (1, 3): X at (3, 3), Y at (1, 2).
constexpr int kCols = 7, kRows = 5, kOi = 1, kOj = 3;
constexpr double kSpacing = 20.0;

sl3d::BoardLayout layout(bool dark_circles, std::vector<sl3d::BoardRing> rings) {
  sl3d::BoardLayout l;
  l.circles_x = kCols;
  l.circles_y = kRows;
  l.spacing = kSpacing;
  l.radius = 8.0;
  l.dark_circles = dark_circles;
  l.rings = std::move(rings);
  return l;
}

sl3d::BoardLayout pellux_layout(bool dark_circles = true, bool mirrored = false) {
  return layout(dark_circles, sl3d::three_ring_base_markers(kOi, kOj, 4.5, mirrored));
}

const sl3d::BoardCamera kCamera{800, 600, 800.0, 800.0, 399.5, 299.5};

// The renderer's +i is the board's +x and its +j the board's -y, so the
// origin index of the recognizer's board is (kCols - 1 - kOi, kOj).
void configure(iCalibBoardRecognizer& r, bool dark_circles) {
  PreProcParams pre;
  pre.do_reverse_bw = dark_circles;
  CircleMarkerParams marker;
  marker.min_radius = 5.0;  // holes seen at a slant stay above the length limit
  CalibBoardParams board;
  board.unit_length = kSpacing;
  board.n_circles_x = kCols;
  board.n_circles_y = kRows;
  board.origin_x = kCols - 1 - kOi;
  board.origin_y = kOj;
  ASSERT_TRUE(r.set_parameters(pre, marker, board));
}

// Marker index of rendered circle (i, j), computed independently of the
// recognizer: column kCols - 1 - i, row j.
int truth_index(int i, int j) { return (kCols - 1 - i) * kRows + j; }

struct Case {
  const char* name;
  double distance, tilt_x, tilt_y, roll;
  double blur, noise;
  bool dark_circles;
};

TEST(PelluxCalibBoardRecognizer, NumbersEveryCircleAtManyPoses) {
  const Case cases[] = {
      {"frontal", 330, 0, 0, 0, 0, 0, true},
      {"roll 90", 330, 0, 0, 90, 0, 0, true},
      {"roll 180, tilt x 30", 340, 30, 0, 180, 0, 0, true},
      {"roll 270, tilt y 40", 340, 0, 40, 270, 0, 0, true},
      {"roll 135, tilt 45/20, blur, noise", 350, 45, 20, 135, 0.8, 2.0, true},
      {"roll -60, tilt -35/30, light circles", 340, -35, 30, -60, 0.6, 1.0, false},
      {"roll 30, tilt 45, light circles", 340, 45, 0, 30, 0, 0, false},
      {"roll 225, tilt -20/-45", 350, -20, -45, 225, 0.5, 1.0, true},
  };
  double worst = 0.0, worst_vs_ellipse = 0.0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const sl3d::BoardLayout l = pellux_layout(c.dark_circles);
    sl3d::BoardImaging imaging;
    imaging.blur_sigma_px = c.blur;
    imaging.noise_sigma = c.noise;
    sl3d::BoardRendering truth = sl3d::render_board(
        l, sl3d::board_pose_facing(l, c.distance, c.tilt_x, c.tilt_y, c.roll), kCamera, imaging);

    PelluxCalibBoardRecognizer r;
    configure(r, c.dark_circles);
    std::vector<cv::Point2f> points;
    ASSERT_EQ(r.recognize(truth.image, points), 0);
    ASSERT_EQ(points.size(), size_t(kCols * kRows));

    double max_error = 0.0, max_vs_ellipse = 0.0;
    for (int j = 0; j < kRows; ++j)
      for (int i = 0; i < kCols; ++i) {
        const cv::Point2f p = points[truth_index(i, j)];
        ASSERT_NE(p.x, FLT_MAX) << i << "," << j;
        const double e = cv::norm(cv::Point2d(p) - truth.centres[j * kCols + i]);
        max_error = std::max(max_error, e);
        max_vs_ellipse = std::max(
            max_vs_ellipse, cv::norm(cv::Point2d(p) - truth.ellipse_centres[j * kCols + i]));
        // A permuted or wrapped numbering puts a circle a spacing away.
        ASSERT_LT(e, 1.0) << i << "," << j;
        const cv::Point3f board = r.get_3d_position(truth_index(i, j));
        EXPECT_EQ(board, cv::Point3f(float(kSpacing * (i - kOi)), float(kSpacing * (kOj - j)), 0));
      }
    std::cout << "[ centres  ] " << c.name << ": max " << max_error
              << " px from the projected centre, " << max_vs_ellipse
              << " px from the image ellipse centre\n";
    worst = std::max(worst, max_error);
    worst_vs_ellipse = std::max(worst_vs_ellipse, max_vs_ellipse);

    std::vector<cv::Point2f> out2d;
    std::vector<cv::Point3f> out3d;
    EXPECT_EQ(r.corresponding_points(points, out2d, out3d), kCols * kRows);
    cv::Mat picture;
    r.copy_result_image(picture);
    EXPECT_EQ(picture.size(), truth.image.size());
    EXPECT_EQ(picture.type(), CV_8UC3);
  }
  EXPECT_LT(worst, 0.5);
  EXPECT_LT(worst_vs_ellipse, 0.35);
}

int recognize(const sl3d::BoardLayout& l, std::vector<cv::Point2f>& points,
              double roll = 0.0) {
  sl3d::BoardRendering truth =
      sl3d::render_board(l, sl3d::board_pose_facing(l, 330, 15, 10, roll), kCamera);
  PelluxCalibBoardRecognizer r;
  configure(r, l.dark_circles);
  return r.recognize(truth.image, points);
}

TEST(PelluxCalibBoardRecognizer, WrongBoardsAreRejected) {
  const std::vector<cv::Point2f> untouched{{1, 2}};
  std::vector<cv::Point2f> points = untouched;

  // Seen in a mirror, whichever way round.
  for (double roll : {0.0, 90.0, 200.0}) {
    EXPECT_EQ(recognize(pellux_layout(true, true), points, roll), 5) << roll;
    EXPECT_EQ(points, untouched);
  }

  std::vector<sl3d::BoardRing> rings = sl3d::three_ring_base_markers(kOi, kOj, 4.5);
  std::vector<sl3d::BoardRing> two(rings.begin(), rings.begin() + 2);
  EXPECT_EQ(recognize(layout(true, two), points), 4);
  std::vector<sl3d::BoardRing> four = rings;
  four.push_back({5, 0, 4.5});
  EXPECT_EQ(recognize(layout(true, four), points), 4);
  EXPECT_EQ(recognize(layout(true, {}), points), 3);

  // Three rings of which two have no ring beside them: X cannot be told.
  std::vector<sl3d::BoardRing> apart{{0, 0, 4.5}, {3, 0, 4.5}, {6, 4, 4.5}};
  EXPECT_EQ(recognize(layout(true, apart), points), 5);
  EXPECT_EQ(points, untouched);
}

TEST(PelluxCalibBoardRecognizer, ImageSizeIsFixedByTheFirstImage) {
  const sl3d::BoardLayout l = pellux_layout();
  sl3d::BoardRendering truth = sl3d::render_board(l, sl3d::board_pose_facing(l, 330), kCamera);
  PelluxCalibBoardRecognizer r;
  configure(r, true);
  std::vector<cv::Point2f> points;
  ASSERT_EQ(r.recognize(truth.image, points), 0);
  EXPECT_EQ(r.image_size(), cv::Size(800, 600));
  cv::Mat before;
  r.copy_result_image(before);

  cv::Mat smaller = truth.image(cv::Rect(0, 0, 799, 600)).clone();
  std::vector<cv::Point2f> kept{{3, 4}};
  EXPECT_EQ(r.recognize(smaller, kept), 1);
  EXPECT_EQ(kept, std::vector<cv::Point2f>{cv::Point2f(3, 4)});
  // A buffer of the picture's size and type is written in place.
  cv::Mat after(before.size(), before.type(), cv::Scalar::all(0));
  const uchar* buffer = after.data;
  r.copy_result_image(after);
  EXPECT_EQ(after.data, buffer);
  EXPECT_EQ(cv::norm(before, after, cv::NORM_INF), 0.0);

  // A blank image of the right size finds no markers.
  cv::Mat blank(600, 800, CV_8U, cv::Scalar(128));
  EXPECT_EQ(r.recognize(blank, kept), 2);

  // set_parameters with a record whose size words are 0 accepts a new size.
  configure(r, true);
  EXPECT_EQ(r.recognize(smaller, points), 0);
  EXPECT_EQ(r.image_size(), cv::Size(799, 600));
}

}  // namespace
