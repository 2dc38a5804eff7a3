// Accuracy additions end to end on the virtual sensor: the circle-centre
// refinement of a calibration against the rendered truth, and the
// disparity filter on the scene measured through the true calibration.

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <memory>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include <unistd.h>

#include "e2e_util.h"

#include <sl3d/calibrator/calibration_flags.h>
#include <sl3d/calibrator/calibrator.h>
#include <sl3d/calibrator/refine_calibration.h>
#include <sl3d/pointcloud/disparity_filter.h>
#include <sl3d/sim/calibration_set.h>
#include <sl3d/sim/sim_calibration.h>

namespace sl3d {
namespace {

namespace fs = std::filesystem;
using Observations = std::vector<std::vector<std::vector<cv::Point2f>>>;

constexpr int kWidth = 640, kHeight = 512;

// A pellux calibration set of the raw cameras without lens distortion,
// recognised once: the measured marker lists, and the same lists with the
// renderer's true outline offset taken off (what a perfect prediction of
// the bias gives).
struct RecognisedSet {
  std::array<SimCamera, 2> cameras;
  SynthBoard board;
  Observations measured{2}, truly_corrected{2};
  // The driver that recognised them (it knows the image size since).
  std::shared_ptr<StereoCalib> calib;
};

const RecognisedSet& recognised_set() {
  static const RecognisedSet set = [] {
    RecognisedSet s;
    const SimRig rig = SimRig::scaled(kWidth, kHeight);
    s.cameras = default_raw_cameras(rig);
    for (SimCamera& c : s.cameras) c.distortion = cv::Vec<double, 5>(0, 0, 0, 0, 0);
    const BoardGrid grid = BoardGrid::calibration();
    s.board = synth_board(BoardFamily::kPellux, min_radius_for(grid, rig.focal_px, 1000.0), grid);
    BoardImaging imaging;
    imaging.noise_sigma = 1.0;
    imaging.blur_sigma_px = 0.5;
    const std::vector<StereoBoardView> views = render_calibration_set(
        s.cameras, s.board.layout,
        calibration_poses(s.cameras, s.board.layout, calibration_views(BoardFamily::kPellux),
                          600.0, 1000.0),
        imaging);
    s.calib = std::make_shared<StereoCalib>(board_type(BoardFamily::kPellux));
    StereoCalib& calib = *s.calib;
    CameraCalibParams cp;
    cp.flags = recommended_calibration_flags();
    SynthBoard records = s.board;
    EXPECT_TRUE(calib.set_parameters(cp, records.board, records.marker, records.pre));
    for (const StereoBoardView& view : views) {
      for (int c = 0; c < 2; ++c) {
        cv::Mat image = view.images[c].image.clone();
        std::vector<cv::Point2f> found;
        if (calib.recognizer->recognize(image, found) != 0) found.clear();
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
    return s;
  }();
  return set;
}

struct PairCalibration {
  std::vector<DistortCamera> cams = {DistortCamera(cv::Size(0, 0), "cam0"),
                                     DistortCamera(cv::Size(0, 0), "cam1")};
  std::vector<std::vector<double>> errors = std::vector<std::vector<double>>(2);
  double rms = 0.0;
  int code = -1;
};

PairCalibration calibrate(StereoCalib& calib, Observations points) {
  PairCalibration r;
  r.code = calib.exec(r.cams, points, r.errors, &r.rms);
  return r;
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
  StereoCalib* calib = set.calib.get();
  PairCalibration first = calibrate(*calib, set.measured);
  ASSERT_EQ(first.code, 0);
  const PairCalibration ideal = calibrate(*calib, set.truly_corrected);
  ASSERT_EQ(ideal.code, 0);

  CentreRefinementOptions options;
  options.circle_radius = set.board.layout.radius;
  std::vector<DistortCamera> refined = first.cams;
  std::vector<std::vector<double>> errors(2);
  const CentreRefinement r =
      refine_stereo_calibration(*calib, refined, set.measured, errors, options);
  ASSERT_EQ(r.code, 0) << r.message;
  EXPECT_TRUE(r.converged);
  ASSERT_GE(r.steps.size(), 2u);
  EXPECT_LE(r.steps.size(), 4u);
  // The bias of circles 12 mm across a third of a metre-distant view.
  EXPECT_GT(r.steps[0].mean_offset_px, 0.03);
  EXPECT_LT(r.steps[0].max_offset_px, 0.5);
  EXPECT_GT(r.steps[0].intrinsics_change_px, 0.05);
  EXPECT_EQ(errors[0].size(), set.measured[0].size());

  const double before = largest_intrinsics_gap(first.cams, ideal.cams);
  const double after = largest_intrinsics_gap(refined, ideal.cams);
  std::printf("focal length and principal point against the truly corrected calibration: "
              "%.3f px before, %.3f px after; %zu steps\n", before, after, r.steps.size());
  EXPECT_LT(after, 0.02);
  EXPECT_LT(after, before / 4);
  const PairCalibrationError e = calibration_error(refined.data(), set.cameras);
  EXPECT_LT(std::fabs(e.baseline), 0.05);  // 0.05 % of 100 mm
}

TEST(CentreRefinement, UnusableArgumentsLeaveTheCamerasAlone) {
  const RecognisedSet& set = recognised_set();
  StereoCalib* calib = set.calib.get();
  PairCalibration first = calibrate(*calib, set.measured);
  ASSERT_EQ(first.code, 0);
  std::vector<DistortCamera> cams = first.cams;
  CentreRefinementOptions options;  // no radius
  CentreRefinement r = refine_stereo_calibration(*calib, cams, set.measured, first.errors, options);
  EXPECT_EQ(r.code, 3);
  EXPECT_FALSE(r.message.empty());
  EXPECT_EQ(largest_intrinsics_gap(cams, first.cams), 0.0);

  StereoCalib unset;
  options.circle_radius = 12.0;
  r = refine_stereo_calibration(unset, cams, set.measured, first.errors, options);
  EXPECT_EQ(r.code, 3);
  Observations one_camera(1);
  r = refine_stereo_calibration(*calib, cams, one_camera, first.errors, options);
  EXPECT_EQ(r.code, 3);
}

// The phase-shift scene through the true calibration: the points the
// generator lets through at depth edges and light borders go, nearly
// everything else stays.
TEST(DisparityFilter, RemovesThePointsFarFromTheScene) {
  const VirtualSensor sensor(SimRig::scaled(kWidth, kHeight));
  const std::array<SimCamera, 2> cameras = default_raw_cameras(sensor.rig());
  const fs::path dir = fs::temp_directory_path() / ("sl3d_filter_" + std::to_string(::getpid()));
  fs::create_directories(dir);
  ASSERT_TRUE(write_calibration_directory(cameras, dir.string()));
  const std::vector<cv::Mat> frames[2] = {sensor.render_phase_shift(cameras[0]),
                                          sensor.render_phase_shift(cameras[1])};
  const cv::Matx33d to_world = testing::world_from_rect(dir.string(), cameras);
  auto distances = [&](const iPointCloudGenerator& gen) {
    std::vector<double> d;
    const PointCloudElement* p = gen.get_pointcloud_ptr();
    for (int i = 0; i < gen.get_pointcloud_cnt(); ++i)
      d.push_back(sensor.distance_to_scene(to_world * cv::Vec3d(p[i].x, p[i].y, p[i].z)));
    return d;
  };
  auto count_above = [](const std::vector<double>& d, double mm) {
    return std::count_if(d.begin(), d.end(), [mm](double v) { return v > mm; });
  };

  // The pixels of the calibration's rectified camera 0 that can be measured.
  SimCamera rectified;
  ASSERT_TRUE(rectified_camera(dir.string(), cameras, rectified));
  const cv::Mat measurable = sensor.measurable_pixels(rectified, cameras[1]);
  auto measurable_coverage = [&](const iPointCloudGenerator& gen) {
    const int* grid = gen.get_rangegrid();
    int covered = 0;
    for (int i = 0; i < kWidth * kHeight; ++i) covered += measurable.data[i] && grid[i] >= 0;
    return 100.0 * covered / cv::countNonZero(measurable);
  };

  PhaseShift* gen = testing::measure_raw_phase_shift(dir.string(), frames);
  std::vector<double> before, after;
  const int records = gen->get_disparity_cnt();
  gen->genPC(0);
  before = distances(*gen);
  const DisparityFilterReport report = filter_disparities(*gen);
  gen->genPC(0);
  after = distances(*gen);
  const double coverage = measurable_coverage(*gen);
  gen->destroy();
  fs::remove_all(dir);

  std::printf("coverage of the measurable pixels %.2f %%\n", coverage);
  std::printf("phase shift %dx%d: %zu points, %ld above 5 mm; filtered: %zu points (%d removed, "
              "%d integer matches refitted), %ld above 5 mm, largest %.2f mm\n",
              kWidth, kHeight, before.size(), long(count_above(before, 5.0)), after.size(),
              report.removed(), report.integer_refitted, long(count_above(after, 5.0)),
              *std::max_element(after.begin(), after.end()));
  ASSERT_TRUE(report.ok);
  EXPECT_EQ(report.kept + report.removed(), records);
  EXPECT_EQ(int(after.size()), report.kept);
  // At half the demo's size a pixel of disparity spans twice the depth: a
  // few mixed pixels stay above 5 mm here (none at 1280 x 1024).
  EXPECT_GT(count_above(before, 5.0), 1000);
  EXPECT_LT(count_above(after, 5.0), count_above(before, 5.0) / 20);
  EXPECT_EQ(count_above(after, 15.0), 0);
  EXPECT_LT(report.removed(), report.kept * 3 / 200);
  // Most pixels can be measured; 97.1 % of those keep a point (the rest:
  // camera 1's rectified border, the sphere's outline, the filter).
  EXPECT_GT(cv::countNonZero(measurable), kWidth * kHeight * 85 / 100);
  EXPECT_GT(coverage, 96.5);
}

}  // namespace
}  // namespace sl3d
