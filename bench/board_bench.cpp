// Board recognition: one recognize() per image of a rendered three-ring
// board, at two camera sizes.

#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>

#include <sl3d/calibboard/PelluxCalibBoardRecognizer.h>
#include <sl3d/sim/board_renderer.h>

namespace sl3d {
namespace bench {
namespace {

constexpr int kCols = 11, kRows = 8, kOi = 4, kOj = 4;
constexpr double kSpacing = 20.0;

BoardLayout board_layout() {
  BoardLayout l;
  l.circles_x = kCols;
  l.circles_y = kRows;
  l.spacing = kSpacing;
  l.radius = 8.0;
  l.rings = three_ring_base_markers(kOi, kOj, 4.5);
  return l;
}

// The board seen slightly tilted, filling about two thirds of the width.
BoardRendering board_image(int width, int height) {
  BoardCamera camera;
  camera.width = width;
  camera.height = height;
  camera.fx = camera.fy = 1.1 * width;
  camera.cx = (width - 1) / 2.0;
  camera.cy = (height - 1) / 2.0;
  BoardImaging imaging;
  imaging.noise_sigma = 1.5;
  imaging.supersampling = 2;
  const BoardLayout l = board_layout();
  return render_board(l, board_pose_facing(l, 370.0, 20.0, 10.0, 15.0), camera, imaging);
}

void BM_PelluxRecognize(benchmark::State& state) {
  const BoardRendering truth = board_image(state.range(0), state.range(1));
  PelluxCalibBoardRecognizer recognizer;
  PreProcParams pre;
  pre.do_reverse_bw = true;
  CircleMarkerParams marker;
  marker.min_radius = 5.0;  // holes seen at a slant stay above the length limit
  CalibBoardParams board;
  board.unit_length = kSpacing;
  board.n_circles_x = kCols;
  board.n_circles_y = kRows;
  board.origin_x = kCols - 1 - kOi;
  board.origin_y = kOj;
  recognizer.set_parameters(pre, marker, board);
  std::vector<cv::Point2f> points;
  int code = -1;
  for (auto _ : state) {
    state.PauseTiming();
    cv::Mat image = truth.image.clone();
    state.ResumeTiming();
    code = recognizer.recognize(image, points);
  }
  // 0 = every circle numbered; anything else makes the figure meaningless.
  if (code != 0) state.SkipWithError("board not recognised");
}

BENCHMARK(BM_PelluxRecognize)->Args({1280, 1024})->Args({2448, 2048})->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace bench
}  // namespace sl3d
