// End to end on the virtual sensor, through the exported interface, against
// its known scene and cameras: phase-shift measurement of rectified captures
// (clean and under harsh light) and of raw captures of distorted,
// unrectified cameras through their calibration directory in each
// triangulation mode; calibration of both board families from rendered
// views, then measuring with it; and the accuracy additions: the
// circle-centre refinement and the disparity filter. Block matching is
// checked against the same truth by its own test and through the tool.

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <filesystem>
#include <memory>

#include <unistd.h>

#include <sl3d/calibrator/calibration_directory.h>
#include <sl3d/calibrator/calibration_flags.h>
#include <sl3d/calibrator/calibrator.h>
#include <sl3d/calibrator/refine_calibration.h>
#include <sl3d/pointcloud/disparity_filter.h>
#include <sl3d/psft/psft.h>
#include <sl3d/sim/calibration_set.h>
#include <sl3d/sim/sim_calibration.h>
#include <sl3d/sim/virtual_sensor.h>

namespace sl3d {
namespace {

namespace fs = std::filesystem;
using Observations = std::vector<std::vector<std::vector<cv::Point2f>>>;

constexpr int kWidth = 640, kHeight = 512, kPixels = kWidth * kHeight;
constexpr double kNearMm = 600.0, kFarMm = 1000.0;

// The default scene seen by a rig of kWidth x kHeight, built once.
const VirtualSensor& sensor() {
  static const VirtualSensor sensor(SimRig::scaled(kWidth, kHeight));
  return sensor;
}

// --- rectified captures -----------------------------------------------------------

struct DepthError {
  int compared = 0;  // points with a finite true depth
  double p95 = 0.0;
  int gross = 0;  // |error| > 10 mm
};

// Measures rectified captures under `light` with the true Q and compares
// each point's z with the true depth of the pixel that made it.
DepthError measure_rectified(const SimLight& light, int* points) {
  static const SimGroundTruth truth = sensor().ground_truth();
  iPointCloudGenerator* gen = createPointCloudGenerator(0);
  EXPECT_TRUE(gen->init(kWidth, kHeight));
  EXPECT_TRUE(gen->set_camera_params(truth.q.data()));
  const std::vector<cv::Mat> frames[2] = {sensor().render_phase_shift(0, light),
                                          sensor().render_phase_shift(1, light)};
  for (int c = 0; c < 2; ++c)
    for (int i = 0; i < 13; ++i) gen->setpict(frames[c][i].data, frames[c][i].step, c, i);
  gen->exec();
  *points = gen->genPC(0);
  std::vector<double> errors;
  for (int i = 0; i < kPixels; ++i) {
    const int k = gen->get_rangegrid()[i];
    const double z = truth.depth.at<double>(i / kWidth, i % kWidth);
    if (k >= 0 && std::isfinite(z)) errors.push_back(std::fabs(gen->get_pointcloud_ptr()[k].z - z));
  }
  gen->destroy();
  DepthError e;
  e.compared = int(errors.size());
  if (errors.empty()) return e;
  e.gross = int(std::count_if(errors.begin(), errors.end(), [](double v) { return v > 10.0; }));
  std::nth_element(errors.begin(), errors.begin() + errors.size() * 95 / 100, errors.end());
  e.p95 = errors[errors.size() * 95 / 100];
  return e;
}

TEST(PhaseShiftEndToEnd, MeasuresTheSceneWithinAboutOneMillimetre) {
  int points = 0;
  const DepthError e = measure_rectified(SimLight(), &points);
  EXPECT_GT(points, kPixels * 6 / 10);
  EXPECT_EQ(e.compared, points);
  // 1 mm is about 0.07 px of disparity here. The gross errors are camera-0
  // pixels near the left border whose true match lies outside camera 1's
  // view: the nearest phase within the accepted difference is taken anyway.
  EXPECT_LT(e.p95, 2.5);
  EXPECT_LT(e.gross, points / 100);
}

TEST(PhaseShiftEndToEnd, SurvivesBlurNoiseAndLowContrast) {
  SimLight light;
  light.blur_sigma_px = 1.0;
  light.noise_sigma = 3.0;
  light.ambient = 60.0;
  light.projector_gain = 120.0;
  int points = 0;
  const DepthError e = measure_rectified(light, &points);
  // Noise of 3 grey levels on a 120-level modulation: about 0.15 px of
  // disparity noise. A broken unwrap would show as many gross errors.
  EXPECT_GT(points, kPixels / 2);
  EXPECT_LT(e.p95, 10.0);
  EXPECT_LT(e.gross, points / 33);
}

// --- raw captures and calibrations ---------------------------------------------------

// The family's calibration set seen by `cameras` at the calibration
// distances, with the noise and blur of a real capture.
std::vector<StereoBoardView> render_set(const std::array<SimCamera, 2>& cameras,
                                        BoardFamily family, SynthBoard& board) {
  const BoardGrid grid = BoardGrid::calibration();
  board = synth_board(family, min_radius_for(grid, cameras[0].K(0, 0), kFarMm), grid);
  BoardImaging imaging;
  imaging.noise_sigma = 1.0;
  imaging.blur_sigma_px = 0.5;
  return render_calibration_set(
      cameras, board.layout,
      calibration_poses(cameras, board.layout, calibration_views(family), kNearMm, kFarMm),
      imaging);
}

struct PairCalibration {
  int code = -1;
  std::vector<DistortCamera> cams = {DistortCamera(cv::Size(0, 0), "cam0"),
                                     DistortCamera(cv::Size(0, 0), "cam1")};
  std::vector<std::vector<double>> errors = std::vector<std::vector<double>>(2);
  double rms = -1.0;
  int misnumbered = 0;  // markers numbered wrong, over all images
};

PairCalibration calibrate(StereoCalib& calib, Observations points) {
  PairCalibration r;
  r.code = calib.exec(r.cams, points, r.errors, &r.rms);
  return r;
}

// Renders the family's calibration set, recognises every image (views not
// recognised are left out) and calibrates the pair.
PairCalibration calibrate(BoardFamily family, const std::array<SimCamera, 2>& cameras) {
  SynthBoard board;
  const std::vector<StereoBoardView> views = render_set(cameras, family, board);
  StereoCalib calib(board_type(family));
  CameraCalibParams cp;
  cp.flags = 0;  // the stereo step refines both cameras' intrinsics with the pose
  SynthBoard records = board;
  EXPECT_TRUE(calib.set_parameters(cp, records.board, records.marker, records.pre));
  Observations points(2);
  int misnumbered = 0;
  for (const StereoBoardView& view : views) {
    for (int c = 0; c < 2; ++c) {
      cv::Mat image = view.images[c].image.clone();
      std::vector<cv::Point2f> found;
      if (calib.recognizer->recognize(image, found) == 0)
        misnumbered += misnumbered_markers(board, view.images[c], found, 1.0);
      else
        found.clear();
      points[c].push_back(found);
    }
  }
  PairCalibration result = calibrate(calib, points);
  result.misnumbered = misnumbered;
  return result;
}

int used_views(const std::vector<double>& errors) {
  return int(std::count_if(errors.begin(), errors.end(), [](double e) { return !std::isnan(e); }));
}

struct SurfaceError {
  int points = 0;
  double median = 0.0, p95 = 0.0;
};

// The default rig's raw cameras and their true calibration directory, with
// raw phase-shift captures rendered once.
class Scene : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    fs::create_directories(dir("true"));
    ASSERT_TRUE(write_calibration_directory(cameras(), dir("true")));
  }
  static void TearDownTestSuite() {
    for (const char* name : {"true", "recovered"}) fs::remove_all(dir(name));
  }

  static const std::array<SimCamera, 2>& cameras() {
    static const std::array<SimCamera, 2> cameras = default_raw_cameras(sensor().rig());
    return cameras;
  }
  static std::string dir(const std::string& name) {
    return (fs::temp_directory_path() / ("sl3d_" + name + "_" + std::to_string(::getpid())))
        .string();
  }

  // Loads the calibration directory `dir`, rectifies copies of the raw
  // captures, hands them in and runs exec. The caller destroys it.
  static PhaseShift* measure(const std::string& dir) {
    static const std::vector<cv::Mat> frames[2] = {sensor().render_phase_shift(cameras()[0]),
                                                   sensor().render_phase_shift(cameras()[1])};
    auto* gen = static_cast<PhaseShift*>(createPointCloudGenerator(0));
    gen->verbose = 0;
    EXPECT_TRUE(gen->init(kWidth, kHeight));
    EXPECT_TRUE(gen->set_camera_params(dir.c_str()));
    for (int c = 0; c < 2; ++c) {
      for (int i = 0; i < 13; ++i) {
        cv::Mat frame = frames[c][i].clone();
        gen->rectify(frame.data, frame.cols, frame.rows, frame.step, c);
        gen->setpict(frame.data, frame.step, c, i);
      }
    }
    gen->exec();
    return gen;
  }

  // Points of a calibration come out in its left rectified camera's frame;
  // camera 0 sits at the world origin, so the rotation alone takes them to
  // the world.
  static cv::Matx33d world_from_rect(const std::string& dir) {
    cv::Matx33d rotation = cv::Matx33d::eye();
    cv::Vec3d offset(0, 0, 0);
    EXPECT_TRUE(sl3d::world_from_rect(dir, cameras(), rotation, offset));
    EXPECT_LT(cv::norm(offset), 1e-9);
    return rotation;
  }

  // Distances of the generator's points, measured through `dir`, to the
  // nearest true surface.
  static std::vector<double> distances(const iPointCloudGenerator& gen, const std::string& dir) {
    const cv::Matx33d to_world = world_from_rect(dir);
    std::vector<double> d;
    const PointCloudElement* p = gen.get_pointcloud_ptr();
    for (int i = 0; i < gen.get_pointcloud_cnt(); ++i)
      d.push_back(sensor().distance_to_scene(to_world * cv::Vec3d(p[i].x, p[i].y, p[i].z)));
    return d;
  }
  static SurfaceError surface_error(const iPointCloudGenerator& gen, const std::string& dir) {
    std::vector<double> d = distances(gen, dir);
    SurfaceError e;
    e.points = int(d.size());
    if (d.empty()) return e;
    std::sort(d.begin(), d.end());
    e.median = d[d.size() / 2];
    e.p95 = d[d.size() * 95 / 100];
    return e;
  }
  static SurfaceError scan_error(const std::string& dir) {
    PhaseShift* gen = measure(dir);
    gen->genPC(0);
    const SurfaceError e = surface_error(*gen, dir);
    gen->destroy();
    return e;
  }

  // Each family's set is rendered and calibrated once for all tests.
  static const PairCalibration& calibration(BoardFamily family) {
    static const PairCalibration pellux = calibrate(BoardFamily::kPellux, cameras());
    static const PairCalibration quill = calibrate(BoardFamily::kQuill, cameras());
    return family == BoardFamily::kPellux ? pellux : quill;
  }
};

TEST_F(Scene, AllThreeModesLandOnTheTrueSurfaces) {
  PhaseShift* gen = measure(dir("true"));
  SurfaceError errors[3];
  std::vector<PointCloudElement> by_q;
  for (int mode = 0; mode < 3; ++mode) {
    gen->genPC(mode);
    errors[mode] = surface_error(*gen, dir("true"));
    const PointCloudElement* p = gen->get_pointcloud_ptr();
    if (mode == 0) by_q.assign(p, p + gen->get_pointcloud_cnt());
    // For a rectified pair the three triangulations are the same geometry.
    double largest_gap = 0.0;
    for (int i = 0; i < std::min<int>(gen->get_pointcloud_cnt(), by_q.size()); ++i)
      largest_gap = std::max(largest_gap, double(cv::norm(cv::Vec3f(p[i].x - by_q[i].x,
                                                                    p[i].y - by_q[i].y,
                                                                    p[i].z - by_q[i].z))));
    EXPECT_LT(largest_gap, 0.01) << "mode " << mode;
  }
  gen->destroy();
  for (const SurfaceError& e : errors) {
    EXPECT_GT(e.points, kPixels / 2);
    // 0.1 px of disparity is about 1.4 mm at this depth and size.
    EXPECT_LT(e.median, 0.6);
    EXPECT_LT(e.p95, 2.5);
  }
  // Q and least squares see the same records; rays may drop a few.
  EXPECT_EQ(errors[0].points, errors[2].points);
  EXPECT_LE(errors[1].points, errors[0].points);
}

TEST_F(Scene, CameraFilesAloneGiveTheSameMeasurement) {
  const fs::path yaml_only = fs::path(dir("true")) / "yaml_only";
  fs::create_directories(yaml_only);
  for (const char* f : {"cam0_param.yaml", "cam1_param.yaml"})
    fs::copy_file(fs::path(dir("true")) / f, yaml_only / f);
  PhaseShift* binary = measure(dir("true"));
  PhaseShift* yaml = measure(yaml_only.string());
  EXPECT_EQ(binary->genPC(0), yaml->genPC(0));
  EXPECT_EQ(binary->get_disparity_cnt(), yaml->get_disparity_cnt());
  binary->destroy();
  yaml->destroy();
}

TEST_F(Scene, BothBoardFamiliesRecoverTheTrueCameras) {
  for (BoardFamily family : {BoardFamily::kPellux, BoardFamily::kQuill}) {
    SCOPED_TRACE(family_name(family));
    const PairCalibration& r = calibration(family);
    ASSERT_EQ(r.code, 0);
    EXPECT_EQ(r.misnumbered, 0);
    EXPECT_GE(used_views(r.errors[0]), 10);
    EXPECT_GE(used_views(r.errors[1]), 10);
    EXPECT_LT(r.rms, 0.25);
    const PairCalibrationError e = calibration_error(r.cams.data(), cameras());
    for (const CameraCalibrationError& ec : e.cameras) {
      // 1.5 px of a 700 px focal length is 0.2 %.
      for (double f : {ec.fx, ec.fy}) EXPECT_LT(std::fabs(f), 1.5);
      for (double p : {ec.cx, ec.cy}) EXPECT_LT(std::fabs(p), 2.0);
      EXPECT_LT(ec.pixel_rms, 1.5);
    }
    EXPECT_LT(std::fabs(e.baseline), 0.1);
    EXPECT_LT(e.rotation_deg, 0.15);
  }
}

TEST_F(Scene, ScanWithTheRecoveredCalibrationIsAsGoodAsWithTheTrueOne) {
  const PairCalibration& r = calibration(BoardFamily::kPellux);
  ASSERT_EQ(r.code, 0);
  fs::create_directories(dir("recovered"));
  ASSERT_TRUE(store_calibration_directory(r.cams.data(), dir("recovered")));
  const SurfaceError with_truth = scan_error(dir("true"));
  const SurfaceError with_recovered = scan_error(dir("recovered"));
  EXPECT_GT(with_recovered.points, with_truth.points * 9 / 10);
  EXPECT_LT(with_recovered.median, 2.0 * with_truth.median + 0.2);
  EXPECT_LT(with_recovered.p95, 2.0 * with_truth.p95 + 0.5);
}

// The phase-shift scene through the true calibration: the points the
// generator lets through at depth edges and light borders go, nearly
// everything else stays.
TEST_F(Scene, DisparityFilterRemovesThePointsFarFromTheScene) {
  auto above = [](const iPointCloudGenerator& gen, double mm) {
    const std::vector<double> d = distances(gen, dir("true"));
    return std::count_if(d.begin(), d.end(), [mm](double v) { return v > mm; });
  };
  PhaseShift* gen = measure(dir("true"));
  const int records = gen->get_disparity_cnt();
  gen->genPC(0);
  const auto before = above(*gen, 5.0);
  const DisparityFilterReport report = filter_disparities(*gen);
  ASSERT_TRUE(report.ok);
  EXPECT_EQ(report.kept + report.removed(), records);
  EXPECT_EQ(gen->genPC(0), report.kept);
  // At half the demo's size a pixel of disparity spans twice the depth: a
  // few mixed pixels stay above 5 mm here (none at 1280 x 1024).
  EXPECT_GT(before, 1000);
  EXPECT_LT(above(*gen, 5.0), before / 20);
  EXPECT_EQ(above(*gen, 15.0), 0);
  EXPECT_LT(report.removed(), report.kept * 3 / 200);

  // Most pixels of the calibration's rectified camera 0 can be measured;
  // 97.1 % of those keep a point (the rest: camera 1's rectified border,
  // the sphere's outline, the filter).
  SimCamera rectified;
  ASSERT_TRUE(rectified_camera(dir("true"), cameras(), rectified));
  const cv::Mat measurable = sensor().measurable_pixels(rectified, cameras()[1]);
  const int* grid = gen->get_rangegrid();
  int covered = 0;
  for (int i = 0; i < kWidth * kHeight; ++i) covered += measurable.data[i] && grid[i] >= 0;
  gen->destroy();
  EXPECT_GT(cv::countNonZero(measurable), kWidth * kHeight * 85 / 100);
  EXPECT_GT(100.0 * covered / cv::countNonZero(measurable), 96.5);
}

// --- circle-centre refinement ---------------------------------------------------------

// A pellux calibration set of the raw cameras without lens distortion,
// recognised once: the measured marker lists, and the same lists with the
// renderer's true outline offset taken off (what a perfect prediction of
// the bias gives), and the first calibration from the measured lists.
struct RecognisedSet {
  std::array<SimCamera, 2> cameras;
  SynthBoard board;
  Observations measured{2}, truly_corrected{2};
  std::shared_ptr<StereoCalib> calib;  // knows the image size since
  PairCalibration first;
};

const RecognisedSet& recognised_set() {
  static const RecognisedSet set = [] {
    RecognisedSet s;
    s.cameras = default_raw_cameras(SimRig::scaled(kWidth, kHeight));
    for (SimCamera& c : s.cameras) c.distortion = cv::Vec<double, 5>(0, 0, 0, 0, 0);
    const std::vector<StereoBoardView> views = render_set(s.cameras, BoardFamily::kPellux, s.board);
    s.calib = std::make_shared<StereoCalib>(board_type(BoardFamily::kPellux));
    CameraCalibParams cp;
    cp.flags = recommended_calibration_flags();
    SynthBoard records = s.board;
    EXPECT_TRUE(s.calib->set_parameters(cp, records.board, records.marker, records.pre));
    for (const StereoBoardView& view : views) {
      for (int c = 0; c < 2; ++c) {
        cv::Mat image = view.images[c].image.clone();
        std::vector<cv::Point2f> found;
        if (s.calib->recognizer->recognize(image, found) != 0) found.clear();
        std::vector<cv::Point2f> corrected = found;
        for (std::size_t k = 0; k < s.board.truth_index.size() && !found.empty(); ++k) {
          cv::Point2f& p = corrected[s.board.truth_index[k]];
          if (p.x == FLT_MAX) continue;
          const cv::Point2d bias = view.images[c].ellipse_centres[k] - view.images[c].centres[k];
          p = cv::Point2f(float(p.x - bias.x), float(p.y - bias.y));
        }
        s.measured[c].push_back(found);
        s.truly_corrected[c].push_back(corrected);
      }
    }
    s.first = calibrate(*s.calib, s.measured);
    return s;
  }();
  return set;
}

double largest_intrinsics_gap(const std::vector<DistortCamera>& a,
                              const std::vector<DistortCamera>& b) {
  double gap = 0.0;
  for (int c = 0; c < 2; ++c)
    for (auto [i, j] : {std::pair{0, 0}, {1, 1}, {0, 2}, {1, 2}})
      gap = std::max(gap, std::fabs(a[c].K(i, j) - b[c].K(i, j)));
  return gap;
}

// The refinement predicts the perspective bias of every marker: it ends
// where the same calibration from truly corrected centres ends, which
// is the best any correction can do with these recognised centres.
TEST(CentreRefinement, RemovesThePerspectiveBiasOfTheMarkerCentres) {
  const RecognisedSet& set = recognised_set();
  ASSERT_EQ(set.first.code, 0);
  const PairCalibration ideal = calibrate(*set.calib, set.truly_corrected);
  ASSERT_EQ(ideal.code, 0);

  CentreRefinementOptions options;
  options.circle_radius = set.board.layout.radius;
  std::vector<DistortCamera> refined = set.first.cams;
  std::vector<std::vector<double>> errors(2);
  const CentreRefinement r =
      refine_stereo_calibration(*set.calib, refined, set.measured, errors, options);
  ASSERT_EQ(r.code, 0) << r.message;
  EXPECT_TRUE(r.converged);
  ASSERT_GE(r.steps.size(), 2u);
  EXPECT_LE(r.steps.size(), 4u);
  // The bias of circles 12 mm across a third of a metre-distant view.
  EXPECT_GT(r.steps[0].mean_offset_px, 0.03);
  EXPECT_LT(r.steps[0].max_offset_px, 0.5);
  EXPECT_GT(r.steps[0].intrinsics_change_px, 0.05);
  EXPECT_EQ(errors[0].size(), set.measured[0].size());

  const double after = largest_intrinsics_gap(refined, ideal.cams);
  EXPECT_LT(after, 0.02);
  EXPECT_LT(after, largest_intrinsics_gap(set.first.cams, ideal.cams) / 4);
  EXPECT_LT(std::fabs(calibration_error(refined.data(), set.cameras).baseline), 0.05);  // 0.05 %
}

TEST(CentreRefinement, UnusableArgumentsLeaveTheCamerasAlone) {
  const RecognisedSet& set = recognised_set();
  std::vector<DistortCamera> cams = set.first.cams;
  std::vector<std::vector<double>> errors = set.first.errors;
  CentreRefinementOptions options;  // no radius
  CentreRefinement r = refine_stereo_calibration(*set.calib, cams, set.measured, errors, options);
  EXPECT_EQ(r.code, 3);
  EXPECT_FALSE(r.message.empty());
  EXPECT_EQ(largest_intrinsics_gap(cams, set.first.cams), 0.0);

  StereoCalib unset;
  options.circle_radius = 12.0;
  EXPECT_EQ(refine_stereo_calibration(unset, cams, set.measured, errors, options).code, 3);
  Observations one_camera(1);
  EXPECT_EQ(refine_stereo_calibration(*set.calib, cams, one_camera, errors, options).code, 3);
}

}  // namespace
}  // namespace sl3d
