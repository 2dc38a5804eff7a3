// Marker centres measured again on rendered board views of both families,
// against the renderer's true ellipse centres.

#include <sl3d/calibrator/marker_centres.h>

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <memory>

#include <opencv2/imgproc.hpp>

#include <sl3d/calibboard/PelluxCalibBoardRecognizer.h>
#include <sl3d/calibboard/QuillCalibBoardRecognizer.h>
#include <sl3d/sim/board_families.h>

namespace sl3d {
namespace {

constexpr double kDistanceMm = 330.0;

// A view, the recognizer's marker list for it and the truth by marker index.
struct RecognisedView {
  cv::Mat image;
  std::vector<cv::Point2f> found;
  std::vector<cv::Point2d> truth;  // ellipse centre by marker index
  std::vector<bool> ring;          // by marker index
};

struct RecognisedFamily {
  cv::Size grid;
  std::vector<RecognisedView> views;
};

RecognisedFamily recognise(BoardFamily family) {
  const BoardCamera camera;
  const BoardGrid grid = BoardGrid::detection();
  SynthBoard board = synth_board(family, min_radius_for(grid, camera.fx, kDistanceMm), grid);
  std::unique_ptr<CalibBoardRecognizer> recognizer;
  if (family == BoardFamily::kPellux) recognizer.reset(new PelluxCalibBoardRecognizer());
  else recognizer.reset(new QuillCalibBoardRecognizer());
  EXPECT_TRUE(recognizer->set_parameters(board.pre, board.marker, board.board));
  RecognisedFamily out;
  out.grid = recognizer->get_marker_range().size();
  BoardImaging imaging;
  imaging.noise_sigma = 1.0;
  imaging.blur_sigma_px = 0.5;
  // Every other view of the family's set: both tilt directions and rolls.
  const std::vector<ViewAngles>& angles = board_views(family);
  for (std::size_t v = 0; v < angles.size(); v += 2) {
    const ViewAngles& a = angles[v];
    const BoardRendering r = render_board(
        board.layout, board_pose_facing(board.layout, kDistanceMm, a.tilt_x, a.tilt_y, a.roll),
        camera, imaging);
    RecognisedView view;
    view.image = r.image;
    cv::Mat work = r.image.clone();
    if (recognizer->recognize(work, view.found) != 0) continue;
    view.truth.assign(view.found.size(), cv::Point2d());
    view.ring.assign(view.found.size(), false);
    for (std::size_t c = 0; c < board.truth_index.size(); ++c)
      view.truth[board.truth_index[c]] = r.ellipse_centres[c];
    for (const BoardRing& ring : board.layout.rings)
      view.ring[board.truth_index[ring.j * board.layout.circles_x + ring.i]] = true;
    out.views.push_back(view);
    ++imaging.seed;
  }
  EXPECT_GE(out.views.size(), 3u);
  return out;
}

// Rendered and recognised once for all tests.
const RecognisedFamily& recognised(BoardFamily family) {
  static const RecognisedFamily pellux = recognise(BoardFamily::kPellux);
  static const RecognisedFamily quill = recognise(BoardFamily::kQuill);
  return family == BoardFamily::kPellux ? pellux : quill;
}

struct Scatter {
  double sum2 = 0.0, max = 0.0;
  int n = 0;
  void add(const cv::Point2f& p, const cv::Point2d& truth) {
    const double d = std::hypot(p.x - truth.x, p.y - truth.y);
    sum2 += d * d;
    max = std::max(max, d);
    ++n;
  }
  double rms() const { return n > 0 ? std::sqrt(sum2 / n) : 0.0; }
};

// Both families, rings included: the new centres lie several times closer
// to the true ellipse centres than the recognizer's, and every found
// marker is measured.
TEST(MarkerCentres, ScatterFarBelowTheRecognizersOnBothFamilies) {
  for (BoardFamily family : {BoardFamily::kPellux, BoardFamily::kQuill}) {
    const RecognisedFamily& set = recognised(family);
    Scatter before, after, rings;
    for (const RecognisedView& view : set.views) {
      std::vector<cv::Point2f> points = view.found;
      const MarkerCentreReport report = measure_marker_centres(view.image, set.grid, points);
      ASSERT_TRUE(report.ok) << report.message;
      EXPECT_TRUE(report.dark_markers);
      EXPECT_EQ(report.unmeasured, 0);
      int found = 0;
      for (std::size_t k = 0; k < points.size(); ++k) {
        if (view.found[k].x == FLT_MAX) {
          EXPECT_EQ(points[k].x, FLT_MAX);
          continue;
        }
        ++found;
        before.add(view.found[k], view.truth[k]);
        after.add(points[k], view.truth[k]);
        if (view.ring[k]) rings.add(points[k], view.truth[k]);
      }
      EXPECT_EQ(report.remeasured, found);
    }
    SCOPED_TRACE(family_name(family));
    EXPECT_GT(rings.n, 0);
    EXPECT_LT(after.rms(), before.rms() / 4);
    EXPECT_LT(after.rms(), 0.03);
    EXPECT_LT(after.max, 0.1);
    EXPECT_LT(rings.max, 0.1);
  }
}

// Light markers on a dark board are read alike; what cannot be measured is
// kept or dropped as asked; unusable arguments change nothing.
TEST(MarkerCentres, PolarityUnmeasuredMarkersAndBadArguments) {
  const RecognisedFamily& set = recognised(BoardFamily::kPellux);
  const RecognisedView& view = set.views.front();
  std::vector<cv::Point2f> dark = view.found, light = view.found;
  ASSERT_TRUE(measure_marker_centres(view.image, set.grid, dark).ok);
  const cv::Mat inverted = 255 - view.image;
  const MarkerCentreReport light_report = measure_marker_centres(inverted, set.grid, light);
  EXPECT_FALSE(light_report.dark_markers);
  for (std::size_t k = 0; k < dark.size(); ++k) {
    EXPECT_NEAR(light[k].x, dark[k].x, 1e-3);
    EXPECT_NEAR(light[k].y, dark[k].y, 1e-3);
  }

  // A marker without found neighbours cannot be measured.
  std::vector<cv::Point2f> alone(view.found.size(), cv::Point2f(FLT_MAX, FLT_MAX));
  const int k = set.grid.height + 1;
  ASSERT_NE(view.found[k].x, FLT_MAX);
  alone[k] = view.found[k];
  MarkerCentreReport report = measure_marker_centres(view.image, set.grid, alone);
  EXPECT_EQ(report.unmeasured, 1);
  EXPECT_EQ(alone[k], view.found[k]);
  MarkerCentreOptions drop;
  drop.keep_unmeasured = false;
  report = measure_marker_centres(view.image, set.grid, alone, drop);
  EXPECT_EQ(alone[k].x, FLT_MAX);

  // Absurd entries are neither measured nor a danger to their neighbours'
  // rays.
  std::vector<cv::Point2f> absurd = view.found;
  absurd[k] = cv::Point2f(1e30f, -1e30f);
  absurd[k + 1] = cv::Point2f(std::nanf(""), 3.0f);
  report = measure_marker_centres(view.image, set.grid, absurd);
  EXPECT_TRUE(report.ok);
  EXPECT_EQ(absurd[k], cv::Point2f(1e30f, -1e30f));

  std::vector<cv::Point2f> points = view.found;
  cv::Mat colour;
  cv::cvtColor(view.image, colour, cv::COLOR_GRAY2BGR);
  EXPECT_FALSE(measure_marker_centres(colour, set.grid, points).ok);
  EXPECT_FALSE(measure_marker_centres(cv::Mat(), set.grid, points).ok);
  EXPECT_FALSE(measure_marker_centres(view.image, cv::Size(40, 40), points).ok);
  EXPECT_FALSE(measure_marker_centres(view.image, cv::Size(0, 5), points).ok);
  EXPECT_EQ(points, view.found);
}

}  // namespace
}  // namespace sl3d
