// Pair calibration: StereoCalib::exec on the marker lists of a rendered
// calibration set (12 views per camera of an 11 x 8 board), recognition
// done beforehand, at the demo's image size.

#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>

#include <sl3d/calibrator/calibrator.h>
#include <sl3d/sim/calibration_set.h>

namespace sl3d {
namespace bench {
namespace {

using MarkerLists = std::vector<std::vector<std::vector<cv::Point2f>>>;

struct RecognisedSet {
  SynthBoard board;
  MarkerLists points = MarkerLists(2);
};

// Rendered once: the set takes seconds to render.
const RecognisedSet& recognised_set() {
  static const RecognisedSet set = [] {
    const std::array<SimCamera, 2> cameras = default_raw_cameras(SimRig());
    const BoardGrid grid = BoardGrid::calibration();
    RecognisedSet s;
    s.board = synth_board(BoardFamily::kPellux, min_radius_for(grid, SimRig().focal_px, 1000.0),
                          grid);
    const std::vector<StereoBoardView> views = render_calibration_set(
        cameras, s.board.layout,
        calibration_poses(cameras, s.board.layout, calibration_views(BoardFamily::kPellux), 600.0,
                          1000.0));
    StereoCalib calib;
    CameraCalibParams cp;
    SynthBoard records = s.board;
    calib.set_parameters(cp, records.board, records.marker, records.pre);
    for (const StereoBoardView& view : views) {
      for (int c = 0; c < 2; ++c) {
        cv::Mat image = view.images[c].image.clone();
        std::vector<cv::Point2f> found;
        if (calib.recognizer->recognize(image, found) != 0) found.clear();
        s.points[c].push_back(found);
      }
    }
    return s;
  }();
  return set;
}

void BM_StereoCalibExec(benchmark::State& state) {
  const RecognisedSet& set = recognised_set();
  cv::setNumThreads(1);
  StereoCalib calib;
  CameraCalibParams cp;
  SynthBoard records = set.board;
  calib.set_parameters(cp, records.board, records.marker, records.pre);
  // The drivers take the image size from their recognizer's first image.
  cv::Mat image = cv::Mat(SimRig().height, SimRig().width, CV_8UC1, cv::Scalar(128));
  std::vector<cv::Point2f> unused;
  calib.recognizer->recognize(image, unused);
  int code = -1;
  for (auto _ : state) {
    std::vector<DistortCamera> cams = {DistortCamera(cv::Size(0, 0), "cam0"),
                                       DistortCamera(cv::Size(0, 0), "cam1")};
    MarkerLists points = set.points;
    std::vector<std::vector<double>> errors(2);
    double rms = 0.0;
    code = calib.exec(cams, points, errors, &rms);
    benchmark::DoNotOptimize(rms);
  }
  if (code != 0) state.SkipWithError("calibration failed");
}
BENCHMARK(BM_StereoCalibExec)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace bench
}  // namespace sl3d
