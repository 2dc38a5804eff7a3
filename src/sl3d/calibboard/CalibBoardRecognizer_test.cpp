// Board recognition: the parameter records read from key maps; the frame
// shared by both families (board positions, marker indices, the
// depth-first numbering and its step rules); then both families end to end
// on rendered boards: every circle gets its true marker index and a centre
// close to the truth at many poses and both polarities, and wrong boards
// and images get their failure codes.

#include <algorithm>
#include <cfloat>
#include <iterator>
#include <memory>

#include <gtest/gtest.h>

#include <sl3d/calibboard/PelluxCalibBoardRecognizer.h>
#include <sl3d/calibboard/QuillCalibBoardRecognizer.h>
#include <sl3d/calibboard/calib_board_params.h>
#include <sl3d/sim/board_families.h>

namespace {

using sl3d::BoardFamily;

// One map holds every record's keys: each record takes only its own, int
// fields truncate toward zero, and the image size words have no key.
TEST(CalibBoardParams, RecordsTakeTheirOwnKeysAndTruncateInts) {
  std::map<std::string, double> keys{
      {"n_circles_x", 7.9},     {"n_circles_y", -0.5},  {"origin_x", -2.7},
      {"origin_y", 3.0},        {"unit_length", 2.5},   {"distance_between_circles", 1.45},
      {"bin_type", 2.99},       {"bin_param0", 11.5},   {"bin_param1", -3.9},
      {"gamma_correction", 0.45}, {"do_smoothing", 1.0}, {"fitscore", 0.75},
      {"n_minimum", 12.6},      {"max_radius", 90.0},   {"min_radius", -4.0},
      {"debug_show_scale", 0.5}, {"image_width", 1.0},  {"width", 1.0},
      {"N_CIRCLES_X", 4.0},     {"bin_type ", 0.0},     {"unknown", 3.0}};
  PreProcParams pre;
  CircleMarkerParams marker;
  CalibBoardParams board;
  marker.image_width = 640;
  marker.image_height = 480;
  pre.set(keys);
  marker.set(keys);
  board.set(keys);
  const std::pair<double, double> read_and_expected[] = {
      {board.n_circles_x, 7},          {board.n_circles_y, 0},
      {board.origin_x, -2},            {board.origin_y, 3},
      {board.unit_length, 2.5},        {board.distance_between_circles, 1.45},
      {pre.bin_type, 2},               {pre.bin_param0, 11},
      {pre.bin_param1, -3},            {pre.gamma_correction, 0.45},
      {pre.do_smoothing, 1},           {pre.do_reverse_bw, 0},
      {pre.do_equalize_hist, 0},       {marker.fitscore, 0.75},
      {marker.n_minimum, 12},          {marker.max_radius, 90.0},
      {marker.min_radius, -4.0},       {marker.debug_show_scale, 0.5},
      {marker.image_width, 640},       {marker.image_height, 480}};
  for (std::size_t k = 0; k < std::size(read_and_expected); ++k)
    EXPECT_EQ(read_and_expected[k].first, read_and_expected[k].second) << "field " << k;
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

  void add(double x, double y, cv::Vec4i links) {
    RotatedEllipse e;
    e.axes = cv::Mat::eye(2, 2, CV_64F);
    e.center = {x, y};
    e.width = e.height = 8;
    e.a = e.b = 4;
    ellipses.push_back(e);
    connections.push_back(links);
  }
};

// The board record: unit length, circles along x and y, origin circle.
CalibBoardParams board(double unit, int nx, int ny, int ox, int oy) {
  return {unit, nx, ny, ox, oy};
}

const cv::Point2f kMissing(FLT_MAX, FLT_MAX);

TEST(CalibBoardRecognizer, BoardPositionsIndicesAndRange) {
  FrameProbe r;
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

  FrameProbe single;
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
    FrameProbe r;
    CalibBoardParams b = board(1.0, 4, 3, 1, 1);
    r.init_recognizer(b);
    r.dir_x = {1, 0};
    r.dir_y = {0, -1};
    for (const auto& [centre, links] : c.markers) r.add(centre.x, centre.y, links);
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

// The one-ring family's cases turn the board about its vertical axis,
// which shortens the horizontal spacing, with its top nearer: the upper
// neighbour is then the farthest of the four.
TEST(CalibBoardRecognizers, NumberEveryCircleAtManyPoses) {
  const struct {
    BoardFamily family;
    const char* name;
    double distance, tilt_x, tilt_y, roll;
    double blur, noise;
    bool dark_circles;
  } cases[] = {
      {BoardFamily::kPellux, "frontal", 330, 0, 0, 0, 0, 0, true},
      {BoardFamily::kPellux, "roll 90", 330, 0, 0, 90, 0, 0, true},
      {BoardFamily::kPellux, "roll 180, tilt x 30", 340, 30, 0, 180, 0, 0, true},
      {BoardFamily::kPellux, "roll 270, tilt y 40", 340, 0, 40, 270, 0, 0, true},
      {BoardFamily::kPellux, "roll 135, tilt 45/20, blur, noise", 350, 45, 20, 135, 0.8, 2.0, true},
      {BoardFamily::kPellux, "roll -60, tilt -35/30, light", 340, -35, 30, -60, 0.6, 1.0, false},
      {BoardFamily::kPellux, "roll 30, tilt 45, light", 340, 45, 0, 30, 0, 0, false},
      {BoardFamily::kPellux, "roll 225, tilt -20/-45", 350, -20, -45, 225, 0.5, 1.0, true},
      {BoardFamily::kQuill, "tilt 10/40", 340, 10, 40, 0, 0.6, 1.0, true},
      {BoardFamily::kQuill, "tilt 15/-35, roll 8, light", 340, 15, -35, 8, 0.6, 1.0, false},
      {BoardFamily::kQuill, "tilt 12/30, roll -10", 340, 12, 30, -10, 0.6, 1.0, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const sl3d::BoardLayout l = layout(c.dark_circles, rings_of(c.family));
    sl3d::BoardImaging imaging;
    imaging.blur_sigma_px = c.blur;
    imaging.noise_sigma = c.noise;
    sl3d::BoardRendering truth = sl3d::render_board(
        l, sl3d::board_pose_facing(l, c.distance, c.tilt_x, c.tilt_y, c.roll), kCamera, imaging);
    std::unique_ptr<CalibBoardRecognizer> r = recognizer(c.family, c.dark_circles);
    std::vector<cv::Point2f> points;
    ASSERT_EQ(r->recognize(truth.image, points), 0);
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
}

TEST(CalibBoardRecognizers, WrongBoardsAreRejected) {
  const BoardFamily pellux = BoardFamily::kPellux, quill = BoardFamily::kQuill;
  std::vector<sl3d::BoardRing> four = rings_of(pellux);
  four.push_back({5, 0, 4.5});
  const struct {
    const char* name;
    BoardFamily family;
    std::vector<sl3d::BoardRing> rings;
    double roll;
    int code;
  } cases[] = {
      {"mirrored", pellux, rings_of(pellux, true), 0.0, 5},
      {"mirrored, roll 90", pellux, rings_of(pellux, true), 90.0, 5},
      {"mirrored, roll 200", pellux, rings_of(pellux, true), 200.0, 5},
      {"two rings", pellux, {rings_of(pellux)[0], rings_of(pellux)[1]}, 0.0, 4},
      {"four rings", pellux, four, 0.0, 4},
      {"no ring", pellux, {}, 0.0, 3},
      // Two of the three rings have no ring beside them: X cannot be told.
      {"rings apart", pellux, {{0, 0, 4.5}, {3, 0, 4.5}, {6, 4, 4.5}}, 0.0, 5},
      {"two rings", quill, {{kRi, kRj, 4.5}, {0, 4, 4.5}}, 0.0, 4},
      {"no ring", quill, {}, 0.0, 3},
  };
  const std::vector<cv::Point2f> untouched{{1, 2}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const sl3d::BoardLayout l = layout(true, c.rings);
    sl3d::BoardRendering truth =
        sl3d::render_board(l, sl3d::board_pose_facing(l, 330, 15, 10, c.roll), kCamera);
    std::vector<cv::Point2f> points = untouched;
    EXPECT_EQ(recognizer(c.family, true)->recognize(truth.image, points), c.code);
    EXPECT_EQ(points, untouched);
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
  struct Probe : QuillCalibBoardRecognizer {
    using CalibBoardRecognizer::dir_x;
    using CalibBoardRecognizer::dir_y;
    using CircleMarkerSearcher::ellipses;
    using ConnectionFinder::base_markers;
    using ConnectionFinder::connections;
  } r;
  for (cv::Point2d centre : {cv::Point2d(0, 0), {10, 0}, {-10, 0.5}, {0, -11}, {0, 12}}) {
    RotatedEllipse e;
    e.center = centre;
    r.ellipses.push_back(e);
  }
  r.base_markers = {0};
  r.connections = {{}};
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
