// Board recognition: the parameter records read from key maps (which
// fields a key reaches, truncation of int fields, the fields without a
// key); the frame shared by both families (board positions, marker indices,
// the depth-first numbering and its step rules); then each family end to
// end on rendered boards: every circle gets its true marker index and a
// centre close to the truth at many poses and both polarities, and wrong
// boards and images get their failure codes.

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <sl3d/calibboard/PelluxCalibBoardRecognizer.h>
#include <sl3d/calibboard/QuillCalibBoardRecognizer.h>
#include <sl3d/calibboard/calib_board_params.h>
#include <sl3d/sim/board_renderer.h>

namespace {

using KeyMap = std::map<std::string, double>;

template <typename Record>
bool same_bytes(const Record& x, const Record& y) {
  return std::memcmp(&x, &y, sizeof(Record)) == 0;
}

TEST(CalibBoardParams, EmptyOrForeignKeysChangeNothing) {
  KeyMap none;
  KeyMap foreign{{"unknown", 3.0}, {"N_CIRCLES_X", 4.0}, {"bin_type ", 2.0}};
  for (KeyMap* keys : {&none, &foreign}) {
    PreProcParams pre;
    CircleMarkerParams marker;
    CalibBoardParams board;
    const PreProcParams pre0 = pre;
    const CircleMarkerParams marker0 = marker;
    const CalibBoardParams board0 = board;
    pre.set(*keys);
    marker.set(*keys);
    board.set(*keys);
    EXPECT_TRUE(same_bytes(pre, pre0));
    EXPECT_TRUE(same_bytes(marker, marker0));
    EXPECT_TRUE(same_bytes(board, board0));
  }
}

TEST(CalibBoardParams, IntFieldsTruncateTowardZero) {
  CalibBoardParams board;
  KeyMap keys{{"n_circles_x", 7.9}, {"n_circles_y", -0.5}, {"origin_x", -2.7},
              {"origin_y", 3.0}, {"unit_length", 2.5}, {"distance_between_circles", 1.45}};
  board.set(keys);
  EXPECT_EQ(board.n_circles_x, 7);
  EXPECT_EQ(board.n_circles_y, 0);
  EXPECT_EQ(board.origin_x, -2);
  EXPECT_EQ(board.origin_y, 3);
  EXPECT_EQ(board.unit_length, 2.5);  // doubles are taken unchanged
  EXPECT_EQ(board.distance_between_circles, 1.45);

  PreProcParams pre;
  KeyMap pre_keys{{"bin_type", 2.99}, {"bin_param0", 11.5}, {"bin_param1", -3.9},
                  {"gamma_correction", 0.45}};
  pre.set(pre_keys);
  EXPECT_EQ(pre.bin_type, 2);
  EXPECT_EQ(pre.bin_param0, 11);
  EXPECT_EQ(pre.bin_param1, -3);
  EXPECT_EQ(pre.gamma_correction, 0.45);
}

TEST(CalibBoardParams, MarkerKeysLeaveTheImageSizeWordsAlone) {
  CircleMarkerParams marker;
  marker.image_width = 640;
  marker.image_height = 480;
  KeyMap keys{{"fitscore", 0.75}, {"n_minimum", 12.6}, {"max_radius", 90.0},
              {"min_radius", -4.0}, {"debug_show_scale", 0.5},
              {"image_width", 1.0}, {"width", 1.0}};
  marker.set(keys);
  EXPECT_EQ(marker.fitscore, 0.75);
  EXPECT_EQ(marker.n_minimum, 12);
  EXPECT_EQ(marker.max_radius, 90.0);
  EXPECT_EQ(marker.min_radius, -4.0);  // no range check here
  EXPECT_EQ(marker.debug_show_scale, 0.5);
  EXPECT_EQ(marker.image_width, 640);
  EXPECT_EQ(marker.image_height, 480);
}

// Opens the protected machinery for direct checks.
class FrameProbe : public PelluxCalibBoardRecognizer {
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
  FrameProbe r;
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

  FrameProbe single;
  CalibBoardParams one = board(1, 1, 0, 0, 10.0);
  ASSERT_TRUE(single.init_recognizer(one));
  EXPECT_EQ(single.get_3d_position(0), cv::Point3f(0, 0, 0));
}

// A 4 x 3 board (n_circles_y 3) with the origin at index 1 * 3 + 1 = 4;
// image axes: board +x to the right, +y up.
FrameProbe numbering_probe() {
  FrameProbe r;
  CalibBoardParams b = board(4, 3, 1, 1, 1.0);
  r.init_recognizer(b);
  r.dir_x = {1, 0};
  r.dir_y = {0, -1};
  return r;
}

TEST(CalibBoardRecognizer, NumberingStepsAndVisitOrder) {
  // A diagonal neighbour (|px| == |py|) is a y step; a wider one an x step.
  FrameProbe r = numbering_probe();
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

// --- rendered boards ---------------------------------------------------------

// Boards of 7 x 5 circles; both families' rings are placed on this grid.
constexpr int kCols = 7, kRows = 5;
constexpr double kSpacing = 20.0;
const sl3d::BoardCamera kCamera{640, 480, 640.0, 640.0, 319.5, 239.5};

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

void configure(iCalibBoardRecognizer& r, bool dark_circles, CalibBoardParams board) {
  PreProcParams pre;
  pre.do_reverse_bw = dark_circles;
  CircleMarkerParams marker;
  marker.min_radius = 5.0;  // holes seen at a slant stay above the length limit
  ASSERT_TRUE(r.set_parameters(pre, marker, board));
}

// --- three-ring family -------------------------------------------------------

// O ring at circle (1, 3): X at (3, 3), Y at (1, 2).
constexpr int kOi = 1, kOj = 3;

sl3d::BoardLayout pellux_layout(bool dark_circles = true, bool mirrored = false) {
  return layout(dark_circles, sl3d::three_ring_base_markers(kOi, kOj, 4.5, mirrored));
}

// The renderer's +i is the board's +x and its +j the board's -y, so the
// origin index of the recognizer's board is (kCols - 1 - kOi, kOj).
void configure_pellux(iCalibBoardRecognizer& r, bool dark_circles) {
  configure(r, dark_circles, board(kCols, kRows, kCols - 1 - kOi, kOj, kSpacing));
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
    configure_pellux(r, c.dark_circles);
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
  configure_pellux(r, l.dark_circles);
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
  configure_pellux(r, true);
  std::vector<cv::Point2f> points;
  ASSERT_EQ(r.recognize(truth.image, points), 0);
  EXPECT_EQ(r.image_size(), cv::Size(640, 480));
  cv::Mat before;
  r.copy_result_image(before);

  cv::Mat smaller = truth.image(cv::Rect(0, 0, 639, 480)).clone();
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
  cv::Mat blank(480, 640, CV_8U, cv::Scalar(128));
  EXPECT_EQ(r.recognize(blank, kept), 2);

  // set_parameters with a record whose size words are 0 accepts a new size.
  configure_pellux(r, true);
  EXPECT_EQ(r.recognize(smaller, points), 0);
  EXPECT_EQ(r.image_size(), cv::Size(639, 480));
}

// --- one-ring family ---------------------------------------------------------

class QuillProbe : public QuillCalibBoardRecognizer {
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
  QuillProbe r;
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

// The ring at circle (4, 1). Facing the camera the ring's left neighbour
// (-i) is the board's +y and its upper one (-j) +x; then the marker index
// of circle (i, j) is j * 7 + i.
constexpr int kRi = 4, kRj = 1;

void configure_quill(iCalibBoardRecognizer& r, bool dark_circles) {
  configure(r, dark_circles, board(kRows, kCols, kRj, kRi, kSpacing));
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
        layout(c.dark_circles, sl3d::one_ring_base_marker(kRi, kRj, 4.5));
    sl3d::BoardImaging imaging;
    imaging.blur_sigma_px = 0.6;
    imaging.noise_sigma = 1.0;
    sl3d::BoardRendering truth = sl3d::render_board(
        l, sl3d::board_pose_facing(l, 340, c.tilt_x, c.tilt_y, c.roll), kCamera, imaging);
    QuillCalibBoardRecognizer r;
    configure_quill(r, c.dark_circles);
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
    EXPECT_LT(max_error, 0.5);
  }
}

TEST(QuillCalibBoardRecognizer, FailureCodesAndNames) {
  QuillCalibBoardRecognizer r;
  configure_quill(r, true);
  std::vector<cv::Point2f> points{{1, 2}};
  for (auto rings : {std::vector<sl3d::BoardRing>{{kRi, kRj, 4.5}, {0, 4, 4.5}},
                     std::vector<sl3d::BoardRing>{}}) {
    const sl3d::BoardLayout l = layout(true, rings);
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
