// End to end on the virtual sensor, through the exported interface, against
// its known scene and cameras: phase-shift measurement of rectified captures
// (clean and under harsh light) and of raw captures through their
// calibration directory in each triangulation mode; calibration of both
// board families from rendered views; and the circle-centre refinement. The
// filter's and the recovered calibration's figures at full size are
// cli_demo_test's.

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <filesystem>
#include <memory>

#include <unistd.h>

#include <sl3d/calibrator/calibration_flags.h>
#include <sl3d/calibrator/calibrator.h>
#include <sl3d/calibrator/refine_calibration.h>
#include <sl3d/psft/psft.h>
#include <sl3d/sim/calibration_set.h>
#include <sl3d/sim/sim_calibration.h>
#include <sl3d/sim/virtual_sensor.h>

namespace sl3d {
namespace {

namespace fs = std::filesystem;
using Observations = std::vector<std::vector<std::vector<cv::Point2f>>>;
using Capture = std::vector<cv::Mat>[2];

constexpr int kWidth = 640, kHeight = 512, kPixels = kWidth * kHeight;
constexpr double kNearMm = 600.0, kFarMm = 1000.0;

// The default scene seen by a rig of kWidth x kHeight, and its truth, built
// once.
const VirtualSensor& sensor() {
  static const VirtualSensor sensor(SimRig::scaled(kWidth, kHeight));
  return sensor;
}
const SimGroundTruth& truth() {
  static const SimGroundTruth truth = sensor().ground_truth();
  return truth;
}

// A generator that measured `frames`: through the calibration directory
// `dir`, each raw frame rectified first, or with no directory through the
// true Q. The caller destroys it.
PhaseShift* measure(const Capture& frames, const std::string& dir = "") {
  auto* gen = static_cast<PhaseShift*>(createPointCloudGenerator(0));
  gen->verbose = 0;
  EXPECT_TRUE(gen->init(kWidth, kHeight));
  EXPECT_TRUE(dir.empty() ? gen->set_camera_params(truth().q.data())
                          : gen->set_camera_params(dir.c_str()));
  for (int c = 0; c < 2; ++c) {
    for (int i = 0; i < 13; ++i) {
      cv::Mat frame = frames[c][i].clone();
      if (!dir.empty()) gen->rectify(frame.data, frame.cols, frame.rows, frame.step, c);
      gen->setpict(frame.data, frame.step, c, i);
    }
  }
  gen->exec();
  return gen;
}

double percentile(std::vector<double> values, int percent) {
  if (values.empty()) return 0.0;
  const auto k = values.begin() + values.size() * percent / 100;
  std::nth_element(values.begin(), k, values.end());
  return *k;
}

// Rectified captures measured with the true Q; each point's z against the
// true depth of the pixel that made it. 1 mm is about 0.07 px of disparity
// here. The gross errors (> 10 mm) are camera-0 pixels near the left border
// whose true match lies outside camera 1's view: the nearest phase within
// the accepted difference is taken anyway. Under harsh light, noise of 3
// grey levels on a 120-level modulation is about 0.15 px of disparity
// noise; a broken unwrap would show as many gross errors.
TEST(PhaseShiftEndToEnd, MeasuresTheSceneUnderCleanAndHarshLight) {
  SimLight harsh;
  harsh.blur_sigma_px = 1.0;
  harsh.noise_sigma = 3.0;
  harsh.ambient = 60.0;
  harsh.projector_gain = 120.0;
  struct Case {
    const char* name;
    SimLight light;
    int min_points;
    double p95_mm;
    int points_per_gross_error;
  };
  for (const Case& c : {Case{"clean", SimLight(), kPixels * 6 / 10, 2.5, 100},
                        Case{"harsh", harsh, kPixels / 2, 10.0, 33}}) {
    SCOPED_TRACE(c.name);
    const Capture frames = {sensor().render_phase_shift(0, c.light),
                            sensor().render_phase_shift(1, c.light)};
    PhaseShift* gen = measure(frames);
    const int points = gen->genPC(0);
    const PointCloudElement* cloud = gen->get_pointcloud_ptr();
    std::vector<double> errors;
    for (int i = 0; i < kPixels; ++i) {
      const int k = gen->get_rangegrid()[i];
      const double z = truth().depth.at<double>(i / kWidth, i % kWidth);
      if (k >= 0 && std::isfinite(z)) errors.push_back(std::fabs(cloud[k].z - z));
    }
    gen->destroy();
    EXPECT_GT(points, c.min_points);
    EXPECT_EQ(int(errors.size()), points) << "points where the scene has no surface";
    EXPECT_LT(percentile(errors, 95), c.p95_mm);
    EXPECT_LT(std::count_if(errors.begin(), errors.end(), [](double e) { return e > 10.0; }),
              points / c.points_per_gross_error);
  }
}

// --- raw captures and calibrations ---------------------------------------------------

struct PairCalibration {
  int code = -1;
  std::vector<DistortCamera> cams = {DistortCamera(cv::Size(0, 0), "cam0"),
                                     DistortCamera(cv::Size(0, 0), "cam1")};
  std::vector<std::vector<double>> errors = std::vector<std::vector<double>>(2);
  double rms = -1.0;
};

PairCalibration calibrate(StereoCalib& calib, Observations points) {
  PairCalibration r;
  r.code = calib.exec(r.cams, points, r.errors, &r.rms);
  return r;
}

// The family's calibration set seen by `cameras` at the calibration
// distances, with the noise and blur of a real capture, recognised by a
// calibration driver set up with `flags` (views not recognised give empty
// lists).
struct RecognisedViews {
  SynthBoard board;
  std::vector<StereoBoardView> views;
  std::unique_ptr<StereoCalib> calib;  // sized by the recognitions
  Observations found{2};
};

RecognisedViews recognise(BoardFamily family, const std::array<SimCamera, 2>& cameras, int flags) {
  RecognisedViews r;
  const BoardGrid grid = BoardGrid::calibration();
  r.board = synth_board(family, min_radius_for(grid, cameras[0].K(0, 0), kFarMm), grid);
  BoardImaging imaging;
  imaging.noise_sigma = 1.0;
  imaging.blur_sigma_px = 0.5;
  r.views = render_calibration_set(
      cameras, r.board.layout,
      calibration_poses(cameras, r.board.layout, calibration_views(family), kNearMm, kFarMm),
      imaging);
  r.calib = std::make_unique<StereoCalib>(board_type(family));
  CameraCalibParams cp;
  cp.flags = flags;
  SynthBoard records = r.board;
  EXPECT_TRUE(r.calib->set_parameters(cp, records.board, records.marker, records.pre));
  for (const StereoBoardView& view : r.views) {
    for (int c = 0; c < 2; ++c) {
      cv::Mat image = view.images[c].image.clone();
      std::vector<cv::Point2f> found;
      if (r.calib->recognizer->recognize(image, found) != 0) found.clear();
      r.found[c].push_back(found);
    }
  }
  return r;
}

// The default rig's raw (distorted, unrectified) cameras.
const std::array<SimCamera, 2>& raw_cameras() {
  static const std::array<SimCamera, 2> cameras = default_raw_cameras(sensor().rig());
  return cameras;
}

// Raw captures measured through the cameras' true calibration directory. The
// points are in its left rectified camera's frame; camera 0 sits at the
// world origin, so the rotation alone takes them to the world.
TEST(RawCaptures, AllThreeModesLandOnTheTrueSurfaces) {
  const std::string dir = (fs::temp_directory_path() / ("sl3d_e2e_" + std::to_string(::getpid())))
                              .string();
  fs::create_directories(dir);
  ASSERT_TRUE(write_calibration_directory(raw_cameras(), dir));
  const Capture frames = {sensor().render_phase_shift(raw_cameras()[0]),
                          sensor().render_phase_shift(raw_cameras()[1])};
  PhaseShift* gen = measure(frames, dir);
  cv::Matx33d world_from_rect_R = cv::Matx33d::eye();
  cv::Vec3d offset(0, 0, 0);
  EXPECT_TRUE(world_from_rect(dir, raw_cameras(), world_from_rect_R, offset));
  EXPECT_LT(cv::norm(offset), 1e-9);
  fs::remove_all(dir);

  std::vector<double> by_mode[3];  // distances to the nearest true surface
  std::vector<PointCloudElement> by_q;
  for (int mode = 0; mode < 3; ++mode) {
    SCOPED_TRACE(mode);
    gen->genPC(mode);
    const PointCloudElement* p = gen->get_pointcloud_ptr();
    for (int i = 0; i < gen->get_pointcloud_cnt(); ++i) {
      const cv::Vec3d world = world_from_rect_R * cv::Vec3d(p[i].x, p[i].y, p[i].z);
      by_mode[mode].push_back(sensor().distance_to_scene(world));
    }
    if (mode == 0) by_q.assign(p, p + gen->get_pointcloud_cnt());
    // For a rectified pair the three triangulations are the same geometry.
    double largest_gap = 0.0;
    for (int i = 0; i < std::min<int>(gen->get_pointcloud_cnt(), by_q.size()); ++i)
      largest_gap = std::max(largest_gap, double(cv::norm(cv::Vec3f(p[i].x - by_q[i].x,
                                                                    p[i].y - by_q[i].y,
                                                                    p[i].z - by_q[i].z))));
    EXPECT_LT(largest_gap, 0.01);
    EXPECT_GT(by_mode[mode].size(), kPixels / 2u);
    // 0.1 px of disparity is about 1.4 mm at this depth and size.
    EXPECT_LT(percentile(by_mode[mode], 50), 0.6);
    EXPECT_LT(percentile(by_mode[mode], 95), 2.5);
  }
  gen->destroy();
  // Q and least squares see the same records; rays may drop a few.
  EXPECT_EQ(by_mode[0].size(), by_mode[2].size());
  EXPECT_LE(by_mode[1].size(), by_mode[0].size());
}

// Calibrations from the recognised views (the stereo step refining both
// cameras' intrinsics with the pose) recover the true cameras.
TEST(Calibration, BothBoardFamiliesRecoverTheTrueCameras) {
  for (BoardFamily family : {BoardFamily::kPellux, BoardFamily::kQuill}) {
    SCOPED_TRACE(family_name(family));
    const RecognisedViews set = recognise(family, raw_cameras(), 0);
    int misnumbered = 0, used[2] = {0, 0};
    for (std::size_t v = 0; v < set.views.size(); ++v)
      for (int c = 0; c < 2; ++c)
        misnumbered += misnumbered_markers(set.board, set.views[v].images[c], set.found[c][v], 1.0);
    EXPECT_EQ(misnumbered, 0);
    const PairCalibration r = calibrate(*set.calib, set.found);
    ASSERT_EQ(r.code, 0);
    for (int c = 0; c < 2; ++c) {
      for (double e : r.errors[c]) used[c] += !std::isnan(e);
      EXPECT_GE(used[c], 10) << "views used by camera " << c;
    }
    EXPECT_LT(r.rms, 0.25);
    const PairCalibrationError e = calibration_error(r.cams.data(), raw_cameras());
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

// --- circle-centre refinement ---------------------------------------------------------

double largest_intrinsics_gap(const std::vector<DistortCamera>& a,
                              const std::vector<DistortCamera>& b) {
  double gap = 0.0;
  for (int c = 0; c < 2; ++c)
    for (auto [i, j] : {std::pair{0, 0}, {1, 1}, {0, 2}, {1, 2}})
      gap = std::max(gap, std::fabs(a[c].K(i, j) - b[c].K(i, j)));
  return gap;
}

// A pellux calibration set of the raw cameras without lens distortion. The
// refinement predicts the perspective bias of every marker, so it ends where
// the same calibration ends from the centres with the renderer's true
// outline offset taken off (what a perfect prediction of the bias gives):
// the best any correction can do with these recognised centres. Unusable
// arguments leave the cameras alone.
TEST(CentreRefinement, RemovesThePerspectiveBiasOfTheMarkerCentres) {
  std::array<SimCamera, 2> cameras = raw_cameras();
  for (SimCamera& c : cameras) c.distortion = cv::Vec<double, 5>(0, 0, 0, 0, 0);
  const RecognisedViews set =
      recognise(BoardFamily::kPellux, cameras, recommended_calibration_flags());
  Observations truly_corrected(2);
  for (std::size_t v = 0; v < set.views.size(); ++v) {
    for (int c = 0; c < 2; ++c) {
      std::vector<cv::Point2f> corrected = set.found[c][v];
      for (std::size_t k = 0; k < set.board.truth_index.size() && !corrected.empty(); ++k) {
        cv::Point2f& p = corrected[set.board.truth_index[k]];
        if (p.x == FLT_MAX) continue;
        const BoardRendering& image = set.views[v].images[c];
        const cv::Point2d bias = image.ellipse_centres[k] - image.centres[k];
        p = cv::Point2f(float(p.x - bias.x), float(p.y - bias.y));
      }
      truly_corrected[c].push_back(corrected);
    }
  }
  StereoCalib& calib = *set.calib;
  const PairCalibration first = calibrate(calib, set.found);
  ASSERT_EQ(first.code, 0);
  const PairCalibration ideal = calibrate(calib, truly_corrected);
  ASSERT_EQ(ideal.code, 0);

  std::vector<DistortCamera> refined = first.cams;
  std::vector<std::vector<double>> errors = first.errors;
  CentreRefinementOptions options;  // no radius
  CentreRefinement r = refine_stereo_calibration(calib, refined, set.found, errors, options);
  EXPECT_EQ(r.code, 3);
  EXPECT_FALSE(r.message.empty());
  EXPECT_EQ(largest_intrinsics_gap(refined, first.cams), 0.0);
  options.circle_radius = set.board.layout.radius;
  StereoCalib unset;
  EXPECT_EQ(refine_stereo_calibration(unset, refined, set.found, errors, options).code, 3);
  EXPECT_EQ(refine_stereo_calibration(calib, refined, Observations(1), errors, options).code, 3);

  errors.assign(2, {});
  r = refine_stereo_calibration(calib, refined, set.found, errors, options);
  ASSERT_EQ(r.code, 0) << r.message;
  EXPECT_TRUE(r.converged);
  ASSERT_GE(r.steps.size(), 2u);
  EXPECT_LE(r.steps.size(), 4u);
  // The bias of circles 12 mm across a third of a metre-distant view.
  EXPECT_GT(r.steps[0].mean_offset_px, 0.03);
  EXPECT_LT(r.steps[0].max_offset_px, 0.5);
  EXPECT_GT(r.steps[0].intrinsics_change_px, 0.05);
  EXPECT_EQ(errors[0].size(), set.found[0].size());

  const double after = largest_intrinsics_gap(refined, ideal.cams);
  EXPECT_LT(after, 0.02);
  EXPECT_LT(after, largest_intrinsics_gap(first.cams, ideal.cams) / 4);
  EXPECT_LT(std::fabs(calibration_error(refined.data(), cameras).baseline), 0.05);  // 0.05 %
}

}  // namespace
}  // namespace sl3d
