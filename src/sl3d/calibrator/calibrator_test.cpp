// The calibration drivers on exact synthetic observations: marker lists
// made by projecting the board's true positions through known cameras, so
// every result can be checked against the cameras that made them. Then
// marker centres measured again on rendered board views of both families,
// against the renderer's true ellipse centres.

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <map>

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include <sl3d/calibboard/QuillCalibBoardRecognizer.h>
#include <sl3d/calibrator/calibrator.h>
#include <sl3d/calibrator/marker_centres.h>
#include <sl3d/calibrator/precise_calibration.h>
#include <sl3d/sim/board_families.h>

namespace sl3d {
namespace {

using Views = std::vector<std::vector<cv::Point2f>>;

constexpr int kWidth = 640, kHeight = 480;

struct TrueCamera {
  cv::Matx33d K;
  cv::Vec<double, 5> D;
};

const TrueCamera kLeft{{800, 0, 322, 0, 805, 236, 0, 0, 1}, {-0.1, 0.05, 0.001, -0.001, 0}};
const TrueCamera kRight{{790, 0, 315, 0, 792, 245, 0, 0, 1}, {-0.08, 0.03, 0, 0.001, 0}};
const cv::Vec3d kRightFromLeftRvec(0.01, -0.03, 0.005);
const cv::Vec3d kRightFromLeftT(-100.0, 1.0, 2.0);

class Calibrator : public ::testing::Test {
 protected:
  void SetUp() override {
    board_ = sl3d::synth_board(sl3d::BoardFamily::kPellux, 5.0);
    configure();
  }

  // Sets the drivers' parameters to cp_, which makes a new recognizer; the
  // marker record's size words give it the image size to calibrate for.
  void configure() {
    board_.marker.image_width = kWidth;
    board_.marker.image_height = kHeight;
    ASSERT_TRUE(calib_.set_parameters(cp_, board_.board, board_.marker, board_.pre));
  }

  // The board seen from pose k of a fixed set, all markers found; with
  // `right` the same board through the right camera.
  std::vector<cv::Point2f> view(int k, bool right = false) const {
    const cv::Vec3d rvec(0.35 * std::sin(1.7 * k), 0.35 * std::cos(2.3 * k), 0.2 * k);
    const cv::Vec3d tvec(-60 + 15 * (k % 3), -50 + 12 * (k % 4), 420 + 25 * k);
    cv::Matx33d left_from_board, right_from_left;
    cv::Rodrigues(rvec, left_from_board);
    cv::Rodrigues(kRightFromLeftRvec, right_from_left);
    std::vector<cv::Point3d> in_camera;
    for (int i = 0; i < board_.board.n_circles_x * board_.board.n_circles_y; ++i) {
      const cv::Point3d on_board = calib_.recognizer->get_3d_position(i);
      cv::Vec3d p = left_from_board * cv::Vec3d(on_board) + tvec;
      if (right) p = right_from_left * p + kRightFromLeftT;
      in_camera.emplace_back(p);
    }
    const TrueCamera& cam = right ? kRight : kLeft;
    std::vector<cv::Point2d> image;
    cv::projectPoints(in_camera, cv::Vec3d(), cv::Vec3d(), cam.K, cam.D, image);
    return std::vector<cv::Point2f>(image.begin(), image.end());
  }

  // Keeps `count` (at most 5) markers spread over the board, no three in a
  // line; the rest become FLT_MAX.
  static std::vector<cv::Point2f> keep_only(const std::vector<cv::Point2f>& points, int count) {
    std::vector<cv::Point2f> kept(points.size(), cv::Point2f(FLT_MAX, FLT_MAX));
    for (int k = 0; k < count; ++k) kept[k * 7] = points[k * 7];
    return kept;
  }

  Views views(int count, bool right = false) const {
    Views out;
    for (int k = 0; k < count; ++k) out.push_back(view(k, right));
    return out;
  }

  static DistortCamera camera(const char* name) { return DistortCamera(cv::Size(0, 0), name); }

  sl3d::SynthBoard board_;
  CameraCalibParams cp_;
  StereoCalib calib_;
};

void expect_camera(const DistortCamera& cam, const TrueCamera& truth, double tolerance) {
  for (int r = 0; r < 2; ++r)
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(cam.K(r, c), truth.K(r, c), tolerance) << r << c;
  for (int i = 0; i < 5; ++i) EXPECT_NEAR(cam.D(i), truth.D[i], tolerance) << i;
}

// With CALIB_USE_INTRINSIC_GUESS and a focal length the guess is that
// focal length at the image centre; without a focal length the flag is
// dropped, and the calibration runs as if it had not been asked for.
TEST_F(Calibrator, IntrinsicGuess) {
  Views points = views(6);
  std::vector<double> errors;
  cp_.flags = cv::CALIB_USE_INTRINSIC_GUESS | cv::CALIB_FIX_FOCAL_LENGTH |
              cv::CALIB_FIX_PRINCIPAL_POINT;
  cp_.focal_length = 900.0;
  configure();
  DistortCamera guessed = camera("cam0");
  ASSERT_TRUE(calib_.calib_intrinsic(guessed, points, errors, nullptr));
  EXPECT_EQ(cv::Matx33d(guessed.K),
            cv::Matx33d(900, 0, kWidth * 0.5, 0, 900, kHeight * 0.5, 0, 0, 1));

  // Without a focal length: the same result as without the flag, from a K
  // the guess would use (without a guess its aspect ratio is kept).
  std::vector<DistortCamera> cams = {camera("cam0"), camera("cam0")};
  double rms[2] = {-1, -1};
  for (int guess : {0, 1}) {
    cp_.flags = cv::CALIB_FIX_ASPECT_RATIO | (guess ? cv::CALIB_USE_INTRINSIC_GUESS : 0);
    cp_.focal_length = 0.0;
    configure();
    cams[guess].K = (cv::Mat_<double>(3, 3) << 500, 0, 100, 0, 500, 100, 0, 0, 1);
    ASSERT_TRUE(calib_.calib_intrinsic(cams[guess], points, errors, &rms[guess]));
  }
  EXPECT_EQ(cv::norm(cams[0].K, cams[1].K, cv::NORM_INF), 0.0);
  EXPECT_EQ(cv::norm(cams[0].D, cams[1].D, cv::NORM_INF), 0.0);
  EXPECT_GE(rms[0], 0.0);
  EXPECT_EQ(rms[0], rms[1]);
}

// The pair from the common prefix of uneven lists: the left camera's views
// 6..8 have no partner, its view 6 has 4 markers (left out of its
// intrinsics: NaN), its view 7 none and its view 4 only 5 (used); view 1
// loses its right image.
TEST_F(Calibrator, StereoRecoversBothCamerasAndTheirPose) {
  std::vector<Views> points = {views(9), views(6, true)};
  points[0][4] = keep_only(points[0][4], 5);
  points[0][6] = keep_only(points[0][6], 4);
  points[0][7].clear();
  points[1][1].clear();
  std::vector<DistortCamera> cams = {camera("cam0"), camera("cam1")};
  // A pose from before: calibration composes P from it and keeps it.
  cv::Mat_<double> ppm = (cv::Mat_<double>(3, 4) << 1, 0, 0, 5, 0, 1, 0, 6, 0, 0, 1, 7);
  cams[0].setPPM(ppm);
  std::vector<std::vector<double>> errors(2);
  double rms = -1;
  ASSERT_EQ(calib_.exec(cams, points, errors, &rms), 0);
  EXPECT_LT(rms, 1e-3);
  ASSERT_EQ(errors[0].size(), 9u);
  for (std::size_t i = 0; i < 9; ++i)
    EXPECT_TRUE(i == 6 || i == 7 ? std::isnan(errors[0][i]) : errors[0][i] < 1e-3) << i;
  EXPECT_EQ(errors[1].size(), 6u);
  EXPECT_TRUE(std::isnan(errors[1][1]));
  EXPECT_EQ(cams[0].size, cv::Size(kWidth, kHeight));
  expect_camera(cams[0], kLeft, 1e-3);
  expect_camera(cams[1], kRight, 1e-3);
  cv::Matx33d r_true;
  cv::Rodrigues(kRightFromLeftRvec, r_true);
  EXPECT_LT(cv::norm(cv::Mat(r_true) - cams[1].R, cv::NORM_INF), 1e-6);
  EXPECT_LT(cv::norm(cv::Mat(kRightFromLeftT) - cams[1].T, cv::NORM_INF), 1e-3);
  // The left camera keeps its pose (the pair's frame is its own), and its
  // P is composed from it.
  EXPECT_EQ(cv::norm(cams[0].R, cv::Mat_<double>::eye(3, 3), cv::NORM_INF), 0.0);
  EXPECT_EQ(cv::norm(cams[0].T, cv::Mat(cv::Vec3d(5, 6, 7)), cv::NORM_INF), 0.0);
  EXPECT_NEAR(cams[0].P(0, 3), cams[0].K(0, 0) * 5 + cams[0].K(0, 2) * 7, 1e-9);
  EXPECT_EQ(cams[0].get_center().at<double>(0), -5.0);
  // compose() put the relative pose into the right camera's projection but
  // not into RT/RT_inv: the centre still answers from the identity pose.
  EXPECT_EQ(cv::norm(cams[1].get_center(), cv::NORM_INF), 0.0);
  EXPECT_NEAR(cams[1].P(0, 3), cams[1].K(0, 0) * cams[1].T.at<double>(0) +
                                   cams[1].K(0, 2) * cams[1].T.at<double>(2), 1e-6);

  // A view with three markers in common is used, not skipped: too few for
  // OpenCV, which refuses the whole set.
  points[1][3] = keep_only(points[1][3], 3);
  EXPECT_THROW(calib_.calib_extrinsic(cams, points, cv::CALIB_FIX_INTRINSIC, nullptr),
               cv::Exception);
}

TEST_F(Calibrator, ExecReportsWhichStepFailed) {
  std::vector<DistortCamera> cams = {camera("cam0"), camera("cam1")};
  const cv::Mat_<double> k_before = cams[0].K.clone();
  std::vector<std::vector<double>> errors = {{1.0}, {}};
  // No left view of 5 markers: 1. The image size is set before the check;
  // the cameras' parameters, the right camera and the errors are untouched.
  std::vector<Views> no_left = {{keep_only(view(0), 4), {}, keep_only(view(1), 3)},
                                views(5, true)};
  EXPECT_EQ(calib_.exec(cams, no_left, errors, nullptr), 1);
  EXPECT_EQ(cams[0].size, cv::Size(kWidth, kHeight));
  EXPECT_EQ(cv::norm(cams[0].K, k_before, cv::NORM_INF), 0.0);
  EXPECT_EQ(cams[1].size, cv::Size(0, 0));
  EXPECT_EQ(errors, (std::vector<std::vector<double>>{{1.0}, {}}));

  // Both cameras calibrate, but no view has both images: 2.
  std::vector<Views> disjoint = {views(6), views(6, true)};
  for (int k = 0; k < 6; ++k) disjoint[k % 2][k].clear();
  double rms = -1;
  EXPECT_EQ(calib_.exec(cams, disjoint, errors, &rms), 2);
  EXPECT_EQ(rms, -1);
  EXPECT_EQ(errors[0].size(), 6u);
  EXPECT_TRUE(std::isnan(errors[0][0]));
  EXPECT_FALSE(std::isnan(errors[0][1]));

  std::vector<DistortCamera> one_camera = {camera("cam0")};
  EXPECT_EQ(calib_.exec(one_camera, disjoint, errors, nullptr), 1);
}

// The precise driver reports arguments it cannot use with code 3 instead of
// throwing; its results on a rendered set are pinned by the tool's demo.
TEST_F(Calibrator, PreciseCalibrationReportsUnusableArguments) {
  std::vector<DistortCamera> cams = {camera("cam0"), camera("cam1")};
  std::vector<std::vector<double>> errors(2);
  std::vector<Views> points(2, Views(1));
  std::vector<std::vector<cv::Mat>> images(2);
  sl3d::PreciseCalibrationOptions options;
  options.refinement.circle_radius = 12.0;
  auto precisely = [&](StereoCalib& calib) {
    return sl3d::calibrate_stereo_precisely(calib, images, points, cams, errors, options);
  };
  StereoCalib unset;  // no recognizer: nothing to calibrate with
  EXPECT_EQ(unset.recognizer, nullptr);
  EXPECT_FALSE(unset.calib_intrinsic(cams[0], points[0], errors[0], nullptr));
  EXPECT_EQ(precisely(unset).code, 3);
  const sl3d::PreciseCalibration r = precisely(calib_);
  EXPECT_EQ(r.code, 3);  // lists of points without their images
  EXPECT_FALSE(r.message.empty());
  for (int c = 0; c < 2; ++c) {
    images[c].emplace_back(4, 4, CV_8UC3);
    points[c][0] = view(0, c == 1);
  }
  EXPECT_EQ(precisely(calib_).code, 3);  // not grey images
  options.remeasure = false;
  options.refinement.circle_radius = 0.0;
  EXPECT_EQ(precisely(calib_).code, 3);
}

// Board type 1 makes the one-ring recognizer; a refused board keeps the
// other settings.
TEST(CalibratorSetup, BoardTypeAndRefusedBoards) {
  sl3d::SynthBoard board = sl3d::synth_board(sl3d::BoardFamily::kQuill, 5.0);
  CameraCalibParams cp, other;
  cp.focal_length = 1000;
  cp.flags = cv::CALIB_FIX_K3;
  CameraCalib quill(1);
  ASSERT_TRUE(quill.set_parameters(cp, board.board, board.marker, board.pre));
  board.board.unit_length = 0.0;
  EXPECT_FALSE(quill.set_parameters(other, board.board, board.marker, board.pre));
  EXPECT_NE(dynamic_cast<QuillCalibBoardRecognizer*>(quill.recognizer), nullptr);
  EXPECT_EQ(quill.focal_length, 1000);  // cp not copied
  EXPECT_EQ(quill.flags, cv::CALIB_FIX_K3);
}

constexpr double kDistanceMm = 330.0;

// A view, the board's marker grid, the recognizer's marker list for the
// view, and by marker index the true ellipse centres and ring markers.
struct RecognisedView {
  cv::Mat image;
  cv::Size grid;
  std::vector<cv::Point2f> found;
  std::vector<cv::Point2d> truth;
  std::vector<bool> ring;
};

// Every other view of the family's set (both tilt directions and rolls),
// rendered and recognised once for all tests.
const std::vector<RecognisedView>& recognised(BoardFamily family) {
  static std::map<BoardFamily, std::vector<RecognisedView>> sets;
  std::vector<RecognisedView>& views = sets[family];
  if (!views.empty()) return views;
  const BoardCamera camera;
  const BoardGrid grid = BoardGrid::detection();
  SynthBoard board = synth_board(family, min_radius_for(grid, camera.fx, kDistanceMm), grid);
  StereoCalib calib(family == BoardFamily::kPellux ? 0 : 1);
  CameraCalibParams cp;
  EXPECT_TRUE(calib.set_parameters(cp, board.board, board.marker, board.pre));
  BoardImaging imaging;
  imaging.noise_sigma = 1.0;
  imaging.blur_sigma_px = 0.5;
  const std::vector<ViewAngles>& angles = board_views(family);
  for (std::size_t v = 0; v < angles.size(); v += 2) {
    const ViewAngles& a = angles[v];
    const BoardRendering r = render_board(
        board.layout, board_pose_facing(board.layout, kDistanceMm, a.tilt_x, a.tilt_y, a.roll),
        camera, imaging);
    ++imaging.seed;
    RecognisedView view{r.image, calib.recognizer->get_marker_range().size(), {},
                        std::vector<cv::Point2d>(board.truth_index.size()),
                        std::vector<bool>(board.truth_index.size())};
    cv::Mat work = r.image.clone();
    if (calib.recognizer->recognize(work, view.found) != 0) continue;
    for (std::size_t c = 0; c < board.truth_index.size(); ++c)
      view.truth[board.truth_index[c]] = r.ellipse_centres[c];
    for (const BoardRing& ring : board.layout.rings)
      view.ring[board.truth_index[ring.j * board.layout.circles_x + ring.i]] = true;
    views.push_back(view);
  }
  EXPECT_GE(views.size(), 3u);
  return views;
}

double rms(const std::vector<double>& d) {
  double sum = 0.0;
  for (double x : d) sum += x * x;
  return std::sqrt(sum / d.size());
}

// Both families, rings included: the new centres lie several times closer
// to the true ellipse centres than the recognizer's, and every found
// marker is measured.
TEST(MarkerCentres, ScatterFarBelowTheRecognizersOnBothFamilies) {
  for (BoardFamily family : {BoardFamily::kPellux, BoardFamily::kQuill}) {
    SCOPED_TRACE(family_name(family));
    std::vector<double> before, after;
    int rings = 0;
    for (const RecognisedView& view : recognised(family)) {
      std::vector<cv::Point2f> points = view.found;
      const MarkerCentreReport report = measure_marker_centres(view.image, view.grid, points);
      ASSERT_TRUE(report.ok) << report.message;
      EXPECT_TRUE(report.dark_markers);
      EXPECT_EQ(report.unmeasured, 0);
      const std::size_t measured = after.size();
      for (std::size_t k = 0; k < points.size(); ++k) {
        if (view.found[k].x == FLT_MAX) {
          EXPECT_EQ(points[k].x, FLT_MAX);
          continue;
        }
        before.push_back(cv::norm(cv::Point2d(view.found[k]) - view.truth[k]));
        after.push_back(cv::norm(cv::Point2d(points[k]) - view.truth[k]));
        rings += view.ring[k];
      }
      EXPECT_EQ(std::size_t(report.remeasured), after.size() - measured);
    }
    EXPECT_GT(rings, 0);
    EXPECT_LT(rms(after), rms(before) / 4);
    EXPECT_LT(rms(after), 0.03);
    EXPECT_LT(*std::max_element(after.begin(), after.end()), 0.1);
  }
}

// Light markers on a dark board are read alike; what cannot be measured is
// kept or dropped as asked; unusable arguments change nothing.
TEST(MarkerCentres, PolarityUnmeasuredMarkersAndBadArguments) {
  const RecognisedView& view = recognised(BoardFamily::kPellux).front();
  std::vector<cv::Point2f> dark = view.found, light = view.found;
  ASSERT_TRUE(measure_marker_centres(view.image, view.grid, dark).ok);
  const cv::Mat inverted = 255 - view.image;
  const MarkerCentreReport light_report = measure_marker_centres(inverted, view.grid, light);
  EXPECT_FALSE(light_report.dark_markers);
  for (std::size_t k = 0; k < dark.size(); ++k) {
    EXPECT_NEAR(light[k].x, dark[k].x, 1e-3);
    EXPECT_NEAR(light[k].y, dark[k].y, 1e-3);
  }

  // A marker without found neighbours cannot be measured.
  std::vector<cv::Point2f> alone(view.found.size(), cv::Point2f(FLT_MAX, FLT_MAX));
  const int k = view.grid.height + 1;
  ASSERT_NE(view.found[k].x, FLT_MAX);
  alone[k] = view.found[k];
  MarkerCentreReport report = measure_marker_centres(view.image, view.grid, alone);
  EXPECT_EQ(report.unmeasured, 1);
  EXPECT_EQ(alone[k], view.found[k]);
  MarkerCentreOptions drop;
  drop.keep_unmeasured = false;
  report = measure_marker_centres(view.image, view.grid, alone, drop);
  EXPECT_EQ(alone[k].x, FLT_MAX);

  // Absurd entries are neither measured nor a danger to their neighbours'
  // rays.
  std::vector<cv::Point2f> absurd = view.found;
  absurd[k] = cv::Point2f(1e30f, -1e30f);
  absurd[k + 1] = cv::Point2f(std::nanf(""), 3.0f);
  report = measure_marker_centres(view.image, view.grid, absurd);
  EXPECT_TRUE(report.ok);
  EXPECT_EQ(absurd[k], cv::Point2f(1e30f, -1e30f));

  std::vector<cv::Point2f> points = view.found;
  EXPECT_FALSE(measure_marker_centres(cv::Mat(4, 4, CV_8UC3), view.grid, points).ok);
  EXPECT_FALSE(measure_marker_centres(cv::Mat(), view.grid, points).ok);
  EXPECT_FALSE(measure_marker_centres(view.image, cv::Size(40, 40), points).ok);
  EXPECT_FALSE(measure_marker_centres(view.image, cv::Size(0, 5), points).ok);
  EXPECT_EQ(points, view.found);
}

}  // namespace
}  // namespace sl3d
