// The recognizer frame: board acceptance and positions, marker indices,
// correspondences, the depth-first numbering with its step rules, the
// result picture and its copy, and the error-name tables.

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
  using CalibBoardRecognizer::make_dbgimg;
  using CalibBoardRecognizer::n_markers;
  using CalibBoardRecognizer::numbering;
  using CalibBoardRecognizer::result_image;
  using CircleMarkerSearcher::ellipses;
  using ConnectionFinder::base_markers;
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

TEST(CalibBoardRecognizer, CorrespondingPointsSkipOnlyFltMax) {
  Probe r;
  CalibBoardParams b = board(2, 2, 0, 0, 1.0);
  ASSERT_TRUE(r.init_recognizer(b));
  const float nan = std::nanf("");
  std::vector<cv::Point2f> p0{{1, 1}, kMissing, {nan, 3}, {FLT_MAX, 0}, {9, 9}};  // extra ignored
  std::vector<cv::Point2f> out2d{{7, 7}};
  std::vector<cv::Point3f> out3d{{7, 7, 7}};
  EXPECT_EQ(r.corresponding_points(p0, out2d, out3d), 2);
  ASSERT_EQ(out2d.size(), 2u);
  EXPECT_EQ(out2d[0], cv::Point2f(1, 1));
  EXPECT_TRUE(std::isnan(out2d[1].x));  // NaN is not "missing"
  EXPECT_EQ(out3d[1], r.get_3d_position(2));

  std::vector<cv::Point2f> p1{kMissing, {2, 2}, {5, 5}, {6, 6}};
  std::vector<cv::Point2f> out0, out1;
  EXPECT_EQ(r.corresponding_points(p0, p1, out0, out1, out3d), 1);
  EXPECT_EQ(out1, std::vector<cv::Point2f>{cv::Point2f(5, 5)});
  EXPECT_EQ(out3d, std::vector<cv::Point3f>{r.get_3d_position(2)});

  std::vector<cv::Point2f> none(4, kMissing);
  EXPECT_EQ(r.corresponding_points(none, out2d, out3d), 0);
  EXPECT_TRUE(out2d.empty() && out3d.empty());
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

cv::Vec3b pixel(const cv::Mat& img, cv::Point2d p) {
  return img.at<cv::Vec3b>(int(std::lround(p.y)), int(std::lround(p.x)));
}

cv::Vec3b bgr(const cv::Scalar& s) { return cv::Vec3b(uchar(s[0]), uchar(s[1]), uchar(s[2])); }

TEST(CalibBoardRecognizer, ResultPictureColoursAndCopies) {
  // A 9 x 4 board with the origin at (8, 0): grid (7, -3) is i = 1, j = 3.
  Probe r;
  CalibBoardParams b = board(9, 4, 8, 0, 1.0);
  ASSERT_TRUE(r.init_recognizer(b));
  r.add(40, 40, 30, {});   // origin
  r.add(100, 40, 30, {});  // grid (7, -3)
  r.add(160, 40, 30, {});  // a base marker at grid (1, 0)
  r.base_markers = {2};
  std::vector<int> owner(36, -1);
  owner[r.get_marker_index({0, 0})] = 0;
  owner[r.get_marker_index({7, -3})] = 1;
  owner[r.get_marker_index({1, 0})] = 2;
  cv::Mat grey(80, 200, CV_8U, cv::Scalar(90));
  r.make_dbgimg(grey, owner);
  ASSERT_EQ(r.result_image.type(), CV_8UC3);
  EXPECT_EQ(pixel(r.result_image, {40, 40}), cv::Vec3b(0, 0, 255));
  EXPECT_EQ(pixel(r.result_image, {40 + 10, 40}), cv::Vec3b(0, 0, 255));  // 0.8 of the disc
  EXPECT_EQ(pixel(r.result_image, {100, 40}), cv::Vec3b(0, 165, 255));    // ring 7: colour 1
  EXPECT_EQ(pixel(r.result_image, {5, 5}), cv::Vec3b(90, 90, 90));
  // A base marker: a thick rim and a dot of 0.4, grey between them.
  EXPECT_EQ(pixel(r.result_image, {160, 40}), bgr(cv::Scalar(0, 165, 255)));
  EXPECT_EQ(pixel(r.result_image, {160 + 9, 40}), cv::Vec3b(90, 90, 90));
  EXPECT_EQ(pixel(r.result_image, {160 + 15, 40}), bgr(cv::Scalar(0, 165, 255)));

  // Into a buffer of the right size and type: written in place, so every
  // header sharing it sees the picture.
  cv::Mat buffer(80, 200, CV_8UC3, cv::Scalar(1, 2, 3));
  cv::Mat alias = buffer;
  const uchar* data = buffer.data;
  r.copy_result_image(buffer);
  EXPECT_EQ(buffer.data, data);
  EXPECT_EQ(cv::norm(alias, r.result_image, cv::NORM_INF), 0.0);

  // Anything else becomes an independent deep copy.
  for (cv::Mat dst : {cv::Mat(), cv::Mat(80, 200, CV_8UC1), cv::Mat(10, 10, CV_8UC3)}) {
    r.copy_result_image(dst);
    EXPECT_NE(dst.data, r.result_image.data);
    EXPECT_EQ(cv::norm(dst, r.result_image, cv::NORM_INF), 0.0);
  }
}

TEST(CalibBoardRecognizer, ErrorNamesAndFactory) {
  iCalibBoardRecognizer* r = CreateCalibBoardRecognizer();
  ASSERT_NE(r, nullptr);
  ASSERT_NE(dynamic_cast<PelluxCalibBoardRecognizer*>(r), nullptr);
  EXPECT_EQ(r->get_error_name(0), "Success");
  EXPECT_EQ(r->get_error_name(1), "ImageSize_Changed");
  EXPECT_EQ(r->get_error_name(2), "Few_Contours");
  EXPECT_EQ(r->get_error_name(3), "BaseMarker_NotFound");
  EXPECT_EQ(r->get_error_name(4), "N_BaseMarker_NotMatch");
  EXPECT_EQ(r->get_error_name(5), "BaseMarker_ClassifyFailure");
  EXPECT_EQ(r->image_size(), cv::Size(0, 0));
  // An unknown code is added to the shared table with an empty name.
  const size_t before = PelluxCalibBoardRecognizer::errors.size();
  EXPECT_EQ(r->get_error_name(99), "");
  EXPECT_EQ(PelluxCalibBoardRecognizer::errors.size(), before + 1);
  EXPECT_EQ(PelluxCalibBoardRecognizer::errors.count(99), 1u);
  // A fresh recognizer is unusable until parameters are set.
  EXPECT_EQ(r->get_marker_range(), cv::Rect(1, 1, 0, 0));
  r->destroy();
}

}  // namespace
