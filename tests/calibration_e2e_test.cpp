// Calibration end to end on the virtual sensor: board views rendered by
// both real cameras (true intrinsics, distortion and pose known) are
// recognised and calibrated through the public interface, and what the
// calibration finds is compared with the truth, then used to measure.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include <unistd.h>

#include <opencv2/calib3d.hpp>

#include "e2e_util.h"

#include <sl3d/calibrator/calibration_directory.h>
#include <sl3d/calibrator/calibrator.h>
#include <sl3d/camera/stereo_camera.h>
#include <sl3d/pointcloud/PointCloudGenerator.h>
#include <sl3d/sim/calibration_set.h>
#include <sl3d/sim/sim_calibration.h>

namespace sl3d {
namespace {

namespace fs = std::filesystem;

constexpr int kWidth = 640, kHeight = 512;
constexpr double kNearMm = 600.0, kFarMm = 1000.0;

struct Calibration {
  int code = -1;
  std::vector<DistortCamera> cams = {DistortCamera(cv::Size(0, 0), "cam0"),
                                     DistortCamera(cv::Size(0, 0), "cam1")};
  std::vector<std::vector<double>> errors = std::vector<std::vector<double>>(2);
  double rms = -1.0;
  int recognised = 0;
  int misnumbered = 0;  // markers numbered wrong, over all images
};

// Renders the family's calibration set, recognises every image and
// calibrates the pair.
Calibration calibrate(BoardFamily family, const std::array<SimCamera, 2>& cameras) {
  const BoardGrid grid = BoardGrid::calibration();
  const SynthBoard board =
      synth_board(family, min_radius_for(grid, cameras[0].K(0, 0), kFarMm), grid);
  const std::vector<BoardPose> poses =
      calibration_poses(cameras, board.layout, calibration_views(family), kNearMm, kFarMm);
  BoardImaging imaging;
  imaging.noise_sigma = 1.0;
  imaging.blur_sigma_px = 0.5;
  const std::vector<StereoBoardView> views =
      render_calibration_set(cameras, board.layout, poses, imaging);

  Calibration result;
  StereoCalib calib(board_type(family));
  CameraCalibParams cp;
  cp.flags = 0;  // the stereo step refines both cameras' intrinsics with the pose
  SynthBoard records = board;
  EXPECT_TRUE(calib.set_parameters(cp, records.board, records.marker, records.pre));
  std::vector<std::vector<std::vector<cv::Point2f>>> points(2);
  for (std::size_t k = 0; k < views.size(); ++k) {
    for (int c = 0; c < 2; ++c) {
      cv::Mat image = views[k].images[c].image.clone();
      std::vector<cv::Point2f> found;
      const int code = calib.recognizer->recognize(image, found);
      if (code == 0) {
        ++result.recognised;
        result.misnumbered += misnumbered_markers(board, views[k].images[c], found, 1.0);
      } else {
        std::printf("view %zu camera %d: not recognised (code %d), left out\n", k, c, code);
        found.clear();
      }
      points[c].push_back(found);
    }
  }
  result.code = calib.exec(result.cams, points, result.errors, &result.rms);
  return result;
}

int used_views(const std::vector<double>& errors) {
  int used = 0;
  for (double e : errors) used += std::isnan(e) ? 0 : 1;
  return used;
}

class CalibrationE2E : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    cameras_ = default_raw_cameras(SimRig::scaled(kWidth, kHeight));
  }

  // Measures raw phase-shift captures of the scene through the calibration
  // directory `dir` and compares every point with the true surfaces. Points
  // come out in the left rectified camera's frame of that calibration.
  static testing::SurfaceError scan_error(const std::string& dir) {
    static const VirtualSensor sensor(SimRig::scaled(kWidth, kHeight));
    static const std::vector<cv::Mat> frames[2] = {sensor.render_phase_shift(cameras_[0]),
                                                   sensor.render_phase_shift(cameras_[1])};
    PhaseShift* gen = testing::measure_raw_phase_shift(dir, frames);
    gen->genPC(0);
    const testing::SurfaceError e =
        testing::surface_error(*gen, sensor, testing::world_from_rect(dir, cameras_));
    gen->destroy();
    return e;
  }

  // Each family's set is rendered and calibrated once for all tests.
  static const Calibration& calibration(BoardFamily family) {
    static const Calibration pellux = calibrate(BoardFamily::kPellux, cameras_);
    static const Calibration quill = calibrate(BoardFamily::kQuill, cameras_);
    return family == BoardFamily::kPellux ? pellux : quill;
  }

  static std::array<SimCamera, 2> cameras_;
};

std::array<SimCamera, 2> CalibrationE2E::cameras_;

// A directory beside the test's others, removed at the end of its scope.
class TempDir {
 public:
  explicit TempDir(const std::string& name)
      : path_(fs::temp_directory_path() / ("sl3d_" + name + "_" + std::to_string(::getpid()))) {
    fs::create_directories(path_);
  }
  ~TempDir() { fs::remove_all(path_); }
  std::string str() const { return path_.string(); }

 private:
  fs::path path_;
};

TEST_F(CalibrationE2E, BothBoardFamiliesRecoverTheTrueCameras) {
  for (BoardFamily family : {BoardFamily::kPellux, BoardFamily::kQuill}) {
    SCOPED_TRACE(family_name(family));
    const Calibration& r = calibration(family);
    ASSERT_EQ(r.code, 0);
    EXPECT_EQ(r.misnumbered, 0);
    EXPECT_GE(used_views(r.errors[0]), 10);
    EXPECT_GE(used_views(r.errors[1]), 10);
    EXPECT_LT(r.rms, 0.25);
    const PairCalibrationError e = calibration_error(r.cams.data(), cameras_);
    std::printf("%s: %d of 24 images recognised, stereo RMS %.3f px\n", family_name(family),
                r.recognised, r.rms);
    for (int c = 0; c < 2; ++c) {
      const CameraCalibrationError& ec = e.cameras[c];
      std::printf("  cam%d: fx %+.3f, fy %+.3f, cx %+.3f, cy %+.3f px; pixel map RMS %.3f, "
                  "max %.3f px\n",
                  c, ec.fx, ec.fy, ec.cx, ec.cy, ec.pixel_rms, ec.pixel_max);
      // 1.5 px of a 700 px focal length is 0.2 %.
      for (double f : {ec.fx, ec.fy}) EXPECT_LT(std::fabs(f), 1.5);
      for (double p : {ec.cx, ec.cy}) EXPECT_LT(std::fabs(p), 2.0);
      EXPECT_LT(ec.pixel_rms, 1.5);
    }
    std::printf("  baseline %+.4f mm, rotation %.4f deg\n", e.baseline, e.rotation_deg);
    EXPECT_LT(std::fabs(e.baseline), 0.1);
    EXPECT_LT(e.rotation_deg, 0.15);
  }
}

TEST_F(CalibrationE2E, ScanWithTheRecoveredCalibrationIsAsGoodAsWithTheTrueOne) {
  const Calibration& r = calibration(BoardFamily::kPellux);
  ASSERT_EQ(r.code, 0);
  const TempDir recovered("recovered"), truth("true");
  ASSERT_TRUE(store_calibration_directory(r.cams.data(), recovered.str()));
  ASSERT_TRUE(write_calibration_directory(cameras_, truth.str()));
  const testing::SurfaceError with_truth = scan_error(truth.str());
  const testing::SurfaceError with_recovered = scan_error(recovered.str());
  std::printf("distance to the true surface: true calibration median %.3f, p95 %.3f mm "
              "(%d points); recovered calibration median %.3f, p95 %.3f mm (%d points)\n",
              with_truth.median, with_truth.p95, with_truth.points, with_recovered.median,
              with_recovered.p95, with_recovered.points);
  EXPECT_GT(with_recovered.points, with_truth.points * 9 / 10);
  EXPECT_LT(with_recovered.median, 2.0 * with_truth.median + 0.2);
  EXPECT_LT(with_recovered.p95, 2.0 * with_truth.p95 + 0.5);
}

}  // namespace
}  // namespace sl3d
